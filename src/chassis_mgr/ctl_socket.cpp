/*
 * The control socket: a local stream socket on which the administration
 * client sends one request per connection and gets one reply (or none).
 *
 * Every request is received into g_ctl_resp_buf, and the handlers build
 * their reply in place over it, so a reply carries the request's own cmd,
 * seq, slot_no and card_type.  The buffer is never cleared between
 * connections: bytes a handler does not write (status_str on success, the
 * records it skips) hold whatever an earlier exchange left there.
 */
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "chassis_mgr.h"

alignas(8) unsigned char g_ctl_resp_buf[CTL_BUF_SIZE];
debugCmdRespSlotState g_ctl_debug_cmd_resp;
relaxed<int> g_ctl_sock_fd = -1;

namespace {

#define CTL_SOCKET_PATH "/run/chassismgr/chassismgr"
#define CTL_LISTEN_BACKLOG 1

/* A client that stalls in the middle of a request (or never reads its reply)
 * would otherwise hold the only control thread for good.  This bounds each
 * receive and send; it is a guard against a broken peer, not a daemon
 * timing, so the clock factor does not apply. */
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

class ClientFd {
  public:
    explicit ClientFd(int fd) : fd_(fd) {}
    ~ClientFd() { close(fd_); }
    ClientFd(const ClientFd &) = delete;
    ClientFd &operator=(const ClientFd &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
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

void set_client_timeouts(int client) {
    struct timeval limit = {kClientIoTimeoutSeconds, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

/* One request, one reply (or none).  A receive that returns 0 or fails
 * leaves the previous request in the buffer, which is then served again. */
void serve_connection(int client) {
    ssize_t received = recv(client, g_ctl_resp_buf, CTL_BUF_SIZE, 0);
    CM_LOG(LOG_LEVEL_INFO, "Received CTL packet\n");

    /* Compared as unsigned 32-bit values: a failed receive (-1) never
     * looks shorter than `len`, and `len` above 1023 never asks for more. */
    uint32_t got = (uint32_t)received;
    uint32_t len = ctl_header_of(g_ctl_resp_buf).len;
    if (len <= CTL_BUF_SIZE - 1 && len > got) {
        CM_LOG(LOG_LEVEL_INFO, "We have TCP packets that are split\n");
        ssize_t ignored = recv(client, g_ctl_resp_buf + got, len - got, 0);
        (void)ignored;
    }

    ctlReply reply;
    if (!ctl_handle_request(&reply)) return;
    /* MSG_NOSIGNAL: a client gone before its reply must not stop the daemon. */
    if (send(client, reply.data, reply.size, MSG_CONFIRM | MSG_NOSIGNAL) == -1)
        CM_LOG(LOG_LEVEL_INFO, "ERROR from perror - %s\n", strerror(errno));
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
    uint32_t cmd = ctl_header_of(g_ctl_resp_buf).cmd;
    for (const CommandEntry &entry : kCommands) {
        if (entry.cmd == cmd) return entry.handler(reply);
    }
    return false;  // maintenance or unknown code: closed without a reply or a log line
}

void *ctl_thread(void *) {
    int listen_fd = -1;
    if (!ctl_socket_setup(&listen_fd)) return nullptr;
    g_ctl_sock_fd = listen_fd;

    for (;;) {
        int client = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client == -1) {
            CM_LOG(LOG_LEVEL_ERR, "Socket accept() call failed\n");
            return nullptr;
        }
        ClientFd connection(client);
        set_client_timeouts(connection.get());
        serve_connection(connection.get());
    }
}
