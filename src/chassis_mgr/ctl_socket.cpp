/*
 * The control socket: a local stream socket on which the administration
 * client sends one request per connection and gets one reply (or none).
 *
 * Every request is laid over g_ctl_resp_buf when it is served (the bytes
 * received, no more), and the handlers build
 * their reply in place over it, so a reply carries the request's own cmd,
 * seq, slot_no and card_type.  The buffer is never cleared between
 * connections: bytes a handler does not write (status_str on success, the
 * records it skips) hold whatever an earlier exchange left there.
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
#include "notify.h"
#include "watchdog.h"

alignas(8) unsigned char g_ctl_resp_buf[CTL_BUF_SIZE];
debugCmdRespSlotState g_ctl_debug_cmd_resp;
relaxed<int> g_ctl_sock_fd = -1;

namespace {

#define CTL_SOCKET_PATH "/run/chassismgr/chassismgr"
#define CTL_LISTEN_BACKLOG 1

constexpr int kClientIoTimeoutSeconds = 5;

typedef bool (*ctlHandler)(ctlReply *reply);

struct CommandEntry {
    uint32_t cmd;
    ctlHandler handler;
};

/* Codes 1 and 2 (maintenance) are reserved and deliberately absent. */
constexpr CommandEntry kCommands[] = {
    {LINECARD_ENABLE, ctl_linecard_enable},
    {LINECARD_DISABLE, ctl_linecard_disable},
    {SHOW_SUMMARY, ctl_show_summary},
    {SHOW_DETAIL, ctl_show_detail},
    {PRE_PROVISION_ENABLE, ctl_pre_provision_enable},
    {PRE_PROVISION_DISABLE, ctl_pre_provision_disable},
    {DEBUG_SLOT, ctl_debug_slot},
};

/* Socket, stale socket file removed, bind, listen.  The descriptor is kept
 * open whatever happens: the thread ends but the process goes on. */
bool ctl_socket_setup(int *listen_fd) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to create ctl socket\n");
        return false;
    }

    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    char path[CM_PATH_SIZE];
    int path_len = env_path(path, sizeof path, CTL_SOCKET_PATH);
    /* A rooted path that does not fit sun_path with its NUL cannot be bound. */
    if (path_len < 0 || (size_t)path_len >= sizeof addr.sun_path) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to bind CTL socket\n");
        return false;
    }
    memcpy(addr.sun_path, path, (size_t)path_len);

    struct stat st;
    if (stat(path, &st) == 0) unlink(path);  // left by an earlier run

    if (bind(fd, (struct sockaddr *)&addr, sizeof addr) == -1) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to bind CTL socket\n");
        return false;
    }
    if (listen(fd, CTL_LISTEN_BACKLOG) == -1) {
        CM_LOG(LOG_LEVEL_ERR, "Socket listen() failed\n");
        return false;
    }
    *listen_fd = fd;
    return true;
}

/* A client that never reads its reply would otherwise hold the control
 * thread for good: each send is bounded.  A guard against a broken peer, not
 * a daemon timing, so the clock factor does not apply. */
void set_send_timeout(int client) {
    struct timeval limit = {kClientIoTimeoutSeconds, 0};
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

CtlConnectionTable g_connections;

/* One complete request, one reply (or none).  A connection whose first
 * receive saw the end leaves the previous request in the buffer, which is
 * then served again. */
void serve_request(const CtlConnection &conn) {
    if (!conn.replay) memcpy(g_ctl_resp_buf, conn.bytes, conn.received);
    ctlReply reply;
    if (!ctl_handle_request(&reply)) return;
    /* MSG_NOSIGNAL: a client gone before its reply must not stop the daemon. */
    if (send(conn.fd, reply.data, reply.size, MSG_CONFIRM | MSG_NOSIGNAL) == -1)
        CM_LOG(LOG_LEVEL_INFO, "ERROR from perror - %s\n", strerror(errno));
}

/* False when accept failed: the thread ends. */
bool accept_connection(int listen_fd) {
    int client = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client == -1) {
        CM_LOG(LOG_LEVEL_ERR, "Socket accept() call failed\n");
        return false;
    }
    set_send_timeout(client);
    ctl_conns_add(&g_connections, client, ctl_monotonic_ms());
    return true;
}

void log_receipt(CtlReceipt receipt) {
    if (receipt == CTL_RECEIVED_FIRST || receipt == CTL_RECEIVED_SPLIT)
        CM_LOG(LOG_LEVEL_INFO, "Received CTL packet\n");
    if (receipt == CTL_RECEIVED_SPLIT) CM_LOG(LOG_LEVEL_INFO, "We have TCP packets that are split\n");
}

/* Waits for a new connection, request bytes or the nearest receive limit,
 * and takes in what arrived.  False when accept failed. */
bool receive_round(int listen_fd) {
    struct pollfd fds[kCtlMaxConnections + 1];
    int index_of[kCtlMaxConnections];
    fds[0] = {listen_fd, POLLIN, 0};
    int held = ctl_conns_poll_set(&g_connections, fds + 1, index_of);
    int timeout = ctl_conns_poll_timeout(&g_connections, ctl_monotonic_ms());
    if (poll(fds, (nfds_t)held + 1, timeout) < 0) return true;  // nothing arrived: wait again

    int64_t now = ctl_monotonic_ms();
    for (int i = 0; i < held; ++i)
        if (fds[i + 1].revents != 0) log_receipt(ctl_conns_receive(&g_connections, index_of[i], now));
    ctl_conns_expire(&g_connections, now);
    if (fds[0].revents != 0 && !accept_connection(listen_fd)) return false;
    return true;
}

}  // namespace

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
    ControlRequestStamp stamp(cmd, header.slot_no);  // watched by the watchdog until it returns
    for (const CommandEntry &entry : kCommands) {
        if (entry.cmd == cmd) return entry.handler(reply);
    }
    return false;  // maintenance or unknown code: closed without a reply or a log line
}

void *ctl_thread(void *) {
    int listen_fd = -1;
    bool listening = ctl_socket_setup(&listen_fd);
    /* Start-up is over for this thread: without a socket the daemon goes on. */
    notify_control_socket_ready();
    if (!listening) return nullptr;
    g_ctl_sock_fd = listen_fd;
    ctl_conns_init(&g_connections);

    /* Requests are received from every connection at once and served one at
     * a time, in the order they became complete. */
    while (receive_round(listen_fd)) {
        int ready = ctl_conns_next_ready(&g_connections);
        if (ready == -1) continue;
        serve_request(g_connections.conns[ready]);
        ctl_conns_close(&g_connections, ready);
    }
    ctl_conns_close_all(&g_connections);
    return nullptr;
}
