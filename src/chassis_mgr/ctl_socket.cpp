/*
 * The control socket: a local stream socket on which the administration
 * client sends one request per connection and gets one reply (or none),
 * and beside it the read-only socket, open to every local user, which
 * answers the reads and refuses the rest.
 *
 * Every request is laid over a buffer when it is served (the bytes
 * received, no more), and the handlers build their reply in place over it,
 * so a reply carries the request's own cmd, seq, slot_no and card_type.  The
 * buffer is never cleared between connections: bytes a handler does not
 * write (status_str on success, the records it skips) hold whatever an
 * earlier exchange left there.  On the control socket that buffer is
 * g_ctl_resp_buf; while an administration command runs on its own thread
 * and owns g_ctl_resp_buf, the reads answered meanwhile are built over a
 * copy of it as the command found it.  The read-only socket has a buffer of
 * its own.
 */
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "chassis_mgr.h"
#include "ctl_connections.h"
#include "ctl_serving.h"
#include "notify.h"
#include "watchdog.h"

alignas(8) unsigned char g_ctl_resp_buf[CTL_BUF_SIZE];
debugCmdRespSlotState g_ctl_debug_cmd_resp;
relaxed<int> g_ctl_sock_fd = -1;
relaxed<int> g_ctl_ro_sock_fd = -1;

namespace {

#define CTL_SOCKET_PATH "/run/chassismgr/chassismgr"
#define CTL_LISTEN_BACKLOG 1
/* Many monitoring clients may connect at once; they should not find the
 * queue full while the thread is busy with another reply. */
#define CTL_READONLY_LISTEN_BACKLOG 16

/* Root and the socket's group (the runtime directory's, which is set-group-id)
 * may administer; every local user may read. */
constexpr mode_t kControlSocketMode = 0660;
constexpr mode_t kReadonlySocketMode = 0666;

constexpr int kClientIoTimeoutSeconds = 5;

typedef bool (*ctlHandler)(ctlReply *reply);

struct CommandEntry {
    uint32_t cmd;
    ctlHandler handler;
};

/* Codes 1 and 2 (maintenance) are reserved and deliberately absent. */
constexpr CommandEntry kAdminCommands[] = {
    {LINECARD_ENABLE, ctl_linecard_enable},
    {LINECARD_DISABLE, ctl_linecard_disable},
    {PRE_PROVISION_ENABLE, ctl_pre_provision_enable},
    {PRE_PROVISION_DISABLE, ctl_pre_provision_disable},
};

enum SetupStep { SETUP_DONE, SETUP_SOCKET_FAILED, SETUP_BIND_FAILED, SETUP_LISTEN_FAILED };

/* Socket, stale socket file removed, bind, listen.  The socket file gets
 * `mode` before anyone can reach it: set on the socket before bind (the
 * umask may only take bits away), then completed on the file.  The
 * descriptor is given back whatever happens (the control socket's is kept
 * open: its thread ends but the process goes on). */
SetupStep ctl_socket_setup(const char *socket_path, mode_t mode, int backlog, int *listen_fd) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    *listen_fd = fd;
    if (fd == -1) return SETUP_SOCKET_FAILED;

    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    char path[CM_PATH_SIZE];
    int path_len = env_path(path, sizeof path, "%s", socket_path);
    /* A rooted path that does not fit sun_path with its NUL cannot be bound. */
    if (path_len < 0 || (size_t)path_len >= sizeof addr.sun_path) return SETUP_BIND_FAILED;
    memcpy(addr.sun_path, path, (size_t)path_len);

    struct stat st;
    if (stat(path, &st) == 0) unlink(path);  // left by an earlier run

    fchmod(fd, mode);
    if (bind(fd, (struct sockaddr *)&addr, sizeof addr) == -1) return SETUP_BIND_FAILED;
    chmod(path, mode);
    if (listen(fd, backlog) == -1) return SETUP_LISTEN_FAILED;
    return SETUP_DONE;
}

bool control_setup(int *listen_fd) {
    switch (ctl_socket_setup(CTL_SOCKET_PATH, kControlSocketMode, CTL_LISTEN_BACKLOG, listen_fd)) {
    case SETUP_DONE: return true;
    case SETUP_SOCKET_FAILED: CM_LOG(LOG_LEVEL_ERR, "Unable to create ctl socket\n"); return false;
    case SETUP_BIND_FAILED: CM_LOG(LOG_LEVEL_ERR, "Unable to bind CTL socket\n"); return false;
    case SETUP_LISTEN_FAILED: CM_LOG(LOG_LEVEL_ERR, "Socket listen() failed\n"); return false;
    }
    return false;
}

/* A client that never reads its reply would otherwise hold the control
 * thread for good: each send is bounded.  A guard against a broken peer, not
 * a daemon timing, so the clock factor does not apply. */
void set_send_timeout(int client) {
    struct timeval limit = {kClientIoTimeoutSeconds, 0};
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

/* What the control thread serves: the two sockets with their connections,
 * and whether an administration command is running. */
struct Serving {
    int control_fd = -1;
    int readonly_fd = -1;  // -1: the read-only socket could not be set up, or failed
    int admin_done_fd = -1;
    bool admin_running = false;
    CtlConnectionTable control;
    CtlConnectionTable readonly;
};

Serving g_serving;
/* g_ctl_resp_buf as the running administration command found it: the reads
 * answered on the control socket meanwhile are built over it. */
alignas(8) unsigned char g_ctl_resp_copy[CTL_BUF_SIZE];

/* A request whose command code came whole and is not an administration
 * command is answered (or closed) at once, even while a command runs.  The
 * others (administration commands, a replay of the previous request, a code
 * cut short, which the buffer completes) are served in turn. */
bool served_at_once(const CtlConnection &conn) {
    if (conn.replay || conn.received < sizeof(uint32_t)) return false;
    uint32_t cmd;
    memcpy(&cmd, conn.bytes, sizeof cmd);
    return !ctl_is_admin_command(cmd);
}

void serve_at_once(const Serving &serving, const CtlConnection &conn) {
    unsigned char *buffer = serving.admin_running ? g_ctl_resp_copy : g_ctl_resp_buf;
    memcpy(buffer, conn.bytes, conn.received);
    ctlReply reply;
    if (ctl_handle_read_in(buffer, &reply)) ctl_send_reply(conn.fd, reply, true);
}

/* Laid over g_ctl_resp_buf (a replay keeps the buffer as it is); an
 * administration command goes to its thread with the connection.  True
 * when the connection was handed over. */
bool serve_in_turn(Serving *serving, const CtlConnection &conn) {
    memcpy(g_ctl_resp_copy, g_ctl_resp_buf, CTL_BUF_SIZE);
    if (!conn.replay) memcpy(g_ctl_resp_buf, conn.bytes, conn.received);
    if (ctl_is_admin_command(ctl_header_of(g_ctl_resp_buf).cmd)) {
        serving->admin_running = true;
        ctl_admin_submit(conn.fd);
        return true;
    }
    ctlReply reply;
    if (ctl_handle_request(&reply)) ctl_send_reply(conn.fd, reply, true);
    return false;
}

/* The control socket's request to serve now: the one that completed first,
 * passing over, while a command runs, those that must wait their turn. */
int next_control_request(const Serving &serving) {
    const CtlConnectionTable &table = serving.control;
    int first = -1;
    for (int i = 0; i < kCtlMaxConnections; ++i) {
        const CtlConnection &conn = table.conns[i];
        if (conn.phase != CTL_CONN_READY) continue;
        if (serving.admin_running && !served_at_once(conn)) continue;
        if (first == -1 || conn.ready_order < table.conns[first].ready_order) first = i;
    }
    return first;
}

void serve_control(Serving *serving) {
    for (int index; (index = next_control_request(*serving)) != -1;) {
        const CtlConnection &conn = serving->control.conns[index];
        if (served_at_once(conn)) {
            serve_at_once(*serving, conn);
        } else if (serve_in_turn(serving, conn)) {
            ctl_conns_release(&serving->control, index);
            continue;
        }
        ctl_conns_close(&serving->control, index);
    }
}

void serve_readonly(Serving *serving) {
    for (int index; (index = ctl_conns_next_ready(&serving->readonly)) != -1;) {
        const CtlConnection &conn = serving->readonly.conns[index];
        if (!conn.replay) memcpy(g_ctl_ro_resp_buf, conn.bytes, conn.received);
        ctlReply reply;
        if (ctl_handle_readonly_request(g_ctl_ro_resp_buf, &reply)) ctl_send_reply(conn.fd, reply, false);
        ctl_conns_close(&serving->readonly, index);
    }
}

void log_receipt(CtlReceipt receipt) {
    if (receipt == CTL_RECEIVED_FIRST || receipt == CTL_RECEIVED_SPLIT)
        CM_LOG(LOG_LEVEL_INFO, "Received CTL packet\n");
    if (receipt == CTL_RECEIVED_SPLIT) CM_LOG(LOG_LEVEL_INFO, "We have TCP packets that are split\n");
}

/* False when accept failed.  A client sends its request right after
 * connecting, so it is usually there already: it is received at once,
 * which spares a wake-up of the thread per connection. */
bool accept_connection(int listen_fd, CtlConnectionTable *table, bool logged) {
    int client = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client == -1) return false;
    int64_t now = ctl_monotonic_ms();
    int index = ctl_conns_add(table, client, now);
    if (index == -1) return true;
    CtlReceipt receipt = ctl_conns_receive(table, index, now);
    if (logged) log_receipt(receipt);
    return true;
}

/* The read-only socket failing to accept ends that socket only; a failure
 * that passes (a client gone before its turn, a signal) changes nothing. */
void accept_readonly(Serving *serving) {
    if (accept_connection(serving->readonly_fd, &serving->readonly, false)) return;
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    CM_LOG(LOG_LEVEL_ERR, "Read-only socket accept() call failed: %s\n", strerror(errno));
    serving->readonly_fd = -1;
    ctl_conns_close_all(&serving->readonly);
}

int poll_timeout(const Serving &serving, int64_t now) {
    if (next_control_request(serving) != -1 || ctl_conns_next_ready(&serving.readonly) != -1) return 0;
    int control = ctl_conns_receive_timeout(&serving.control, now);
    int readonly = ctl_conns_receive_timeout(&serving.readonly, now);
    if (control == -1) return readonly;
    if (readonly == -1) return control;
    return control < readonly ? control : readonly;
}

/* The poll set: the control socket, the read-only socket, the end of an
 * administration command, then the connections still receiving. */
enum { kControlEntry, kReadonlyEntry, kAdminDoneEntry, kFixedEntries };

void take_in(CtlConnectionTable *table, const struct pollfd *fds, const int *index_of, int held, int64_t now,
             bool logged) {
    for (int i = 0; i < held; ++i) {
        if (fds[i].revents == 0) continue;
        CtlReceipt receipt = ctl_conns_receive(table, index_of[i], now);
        if (logged) log_receipt(receipt);
    }
    ctl_conns_expire(table, now);
}

/* Waits for a new connection, request bytes, the end of a command or the
 * nearest receive limit, takes in what arrived and serves what can be
 * served.  False when accept failed on the control socket. */
bool serve_round(Serving *serving) {
    struct pollfd fds[kFixedEntries + 2 * kCtlMaxConnections];
    int control_of[kCtlMaxConnections];
    int readonly_of[kCtlMaxConnections];
    fds[kControlEntry] = {serving->control_fd, POLLIN, 0};
    fds[kReadonlyEntry] = {serving->readonly_fd, POLLIN, 0};  // a negative descriptor is passed over
    fds[kAdminDoneEntry] = {serving->admin_done_fd, POLLIN, 0};
    int control_held = ctl_conns_poll_set(&serving->control, fds + kFixedEntries, control_of);
    int readonly_held =
        ctl_conns_poll_set(&serving->readonly, fds + kFixedEntries + control_held, readonly_of);
    int timeout = poll_timeout(*serving, ctl_monotonic_ms());
    if (poll(fds, (nfds_t)(kFixedEntries + control_held + readonly_held), timeout) < 0) return true;

    int64_t now = ctl_monotonic_ms();
    take_in(&serving->control, fds + kFixedEntries, control_of, control_held, now, true);
    take_in(&serving->readonly, fds + kFixedEntries + control_held, readonly_of, readonly_held, now, false);
    if (fds[kAdminDoneEntry].revents != 0 && ctl_admin_collect()) serving->admin_running = false;
    if (fds[kReadonlyEntry].revents != 0 && serving->readonly_fd != -1) accept_readonly(serving);
    if (fds[kControlEntry].revents != 0 && !accept_connection(serving->control_fd, &serving->control, true)) {
        CM_LOG(LOG_LEVEL_ERR, "Socket accept() call failed\n");
        return false;
    }
    serve_control(serving);
    serve_readonly(serving);
    return true;
}

/* The read-only socket is optional: without it the control socket serves
 * as before.  It is set up first, so that both listen once the control
 * socket does, and its failure is told only once the control socket is
 * known to serve. */
SetupStep readonly_setup(Serving *serving) {
    int fd = -1;
    SetupStep step = ctl_socket_setup(CTL_READONLY_SOCKET_PATH, kReadonlySocketMode, CTL_READONLY_LISTEN_BACKLOG, &fd);
    if (step != SETUP_DONE) {
        if (fd != -1) close(fd);
        return step;
    }
    serving->readonly_fd = fd;
    g_ctl_ro_sock_fd = fd;
    return step;
}

void log_readonly_failure(SetupStep step) {
    if (step == SETUP_DONE) return;
    const char *what = step == SETUP_SOCKET_FAILED ? "create" : step == SETUP_BIND_FAILED ? "bind" : "listen on";
    CM_LOG(LOG_LEVEL_ERR, "Unable to %s the read-only CTL socket\n", what);
}

}  // namespace

void ctl_send_reply(int client, const ctlReply &reply, bool logged) {
    /* MSG_NOSIGNAL: a client gone before its reply must not stop the daemon.
     * A reply that fits the fresh connection's buffer goes at once; the rest
     * of a larger one is sent under the send limit. */
    const unsigned char *data = (const unsigned char *)reply.data;
    ssize_t sent = send(client, data, reply.size, MSG_CONFIRM | MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0 && (size_t)sent < reply.size) {
        set_send_timeout(client);
        ssize_t rest = send(client, data + sent, reply.size - (size_t)sent, MSG_CONFIRM | MSG_NOSIGNAL);
        if (rest == -1) sent = -1;
    } else if (sent == -1 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        set_send_timeout(client);
        sent = send(client, data, reply.size, MSG_CONFIRM | MSG_NOSIGNAL);
    }
    if (sent == -1 && logged) CM_LOG(LOG_LEVEL_INFO, "ERROR from perror - %s\n", strerror(errno));
}

bool ctl_is_admin_command(uint32_t cmd) {
    for (const CommandEntry &entry : kAdminCommands)
        if (entry.cmd == cmd) return true;
    return false;
}

ctlCmdHeader ctl_header_of(const unsigned char *msg) {
    ctlCmdHeader header;
    memcpy(&header, msg, sizeof header);
    return header;
}

void ctl_set_status(unsigned char *msg, int32_t status) {
    uint32_t wire = (uint32_t)status;
    memcpy(msg + offsetof(ctlCmdHeader, status), &wire, sizeof wire);
}

void ctl_set_len(unsigned char *msg, uint32_t len) {
    memcpy(msg + offsetof(ctlCmdHeader, len), &len, sizeof len);
}

void ctl_set_failure(unsigned char *msg, const char *text) {
    ctl_set_status(msg, CTL_UNKNOWN_FAILURE);
    char *status_str = (char *)msg + offsetof(ctlCmdHeaderErr, status_str);
    memset(status_str, 0, CTL_STATUS_STR_SIZE);
    memcpy(status_str, text, strnlen(text, CTL_STATUS_STR_SIZE - 1));
}

bool ctl_handle_request(ctlReply *reply) {
    ctlCmdHeader header = ctl_header_of(g_ctl_resp_buf);
    uint32_t cmd = header.cmd;
    bool admin = ctl_is_admin_command(cmd);
    ControlRequestStamp stamp(cmd, header.slot_no, admin);  // watched by the watchdog until it returns
    for (const CommandEntry &entry : kAdminCommands) {
        if (entry.cmd == cmd) return entry.handler(reply);
    }
    return ctl_handle_read_in(g_ctl_resp_buf, reply);
}

void *ctl_thread(void *) {
    pthread_setname_np(pthread_self(), "chmgr-ctl");
    Serving *serving = &g_serving;
    SetupStep readonly = readonly_setup(serving);
    bool listening = control_setup(&serving->control_fd);
    /* Start-up is over for this thread: without a socket the daemon goes on. */
    notify_control_socket_ready();
    if (!listening) {
        /* Nobody would serve the read-only socket: its clients are refused. */
        if (serving->readonly_fd != -1) close(serving->readonly_fd);
        serving->readonly_fd = -1;
        g_ctl_ro_sock_fd = -1;
        return nullptr;
    }
    log_readonly_failure(readonly);
    ctl_conns_init(&serving->control);
    ctl_conns_init_over(&serving->readonly, g_ctl_ro_resp_buf);
    if (!ctl_admin_start(&serving->admin_done_fd)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to start the CTL administration thread\n");
        return nullptr;
    }
    g_ctl_sock_fd = serving->control_fd;

    /* Requests are received from every connection at once; reads are
     * answered as soon as they are complete, administration commands run
     * one at a time in the order they became complete.
     *
     * One guard for every console line of the serving loop: blocking and
     * unblocking SIGPIPE around each round cost four system calls a
     * request.  It is taken only now, once the administration thread, which
     * starts programs, has been created with the usual mask; this thread
     * never starts one. */
    SigpipeBlocked quiet_console;
    while (serve_round(serving)) continue;
    ctl_conns_close_all(&serving->control);
    ctl_conns_close_all(&serving->readonly);
    ctl_admin_stop();
    serving->admin_running = false;
    return nullptr;
}
