/*
 * chmgrctl: socket path, connection and one request/reply exchange, each
 * step bounded by the command's time limit.
 */
#include "ctl_client.h"

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <poll.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace chmgrctl {

namespace {

/* A connect that finds the daemon's backlog full is tried again this often. */
constexpr int kConnectRetryMs = 20;

class SocketFd {
  public:
    SocketFd() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
    ~SocketFd() {
        if (fd_ >= 0) close(fd_);
    }
    SocketFd(const SocketFd &) = delete;
    SocketFd &operator=(const SocketFd &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

std::string errno_text(int err) { return strerror(err); }

std::string seconds_text(int64_t ms) {
    char text[32];
    if (ms % 1000 == 0)
        snprintf(text, sizeof text, "%lld s", (long long)(ms / 1000));
    else
        snprintf(text, sizeof text, "%.3g s", (double)ms / 1000.0);
    return text;
}

std::string timed_out(const ExchangeLimits &limits, const std::string &step) {
    return "timed out after " + seconds_text(limits.timeout_ms) + " " + step;
}

/* Waits for `events` on `fd` until the deadline; false when it expired. */
bool wait_for(int fd, short events, int64_t deadline_ms) {
    for (;;) {
        int64_t left = deadline_ms - monotonic_ms();
        if (left <= 0) return false;
        struct pollfd pfd = {fd, events, 0};
        int ready = poll(&pfd, 1, (int)(left > 60000 ? 60000 : left));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return true;  // let the next call report the error
    }
}

std::string user_name() {
    struct passwd *entry = getpwuid(geteuid());
    return entry && entry->pw_name ? entry->pw_name : std::to_string(geteuid());
}

std::string connect_failure(const std::string &path, int err) {
    std::string text = "cannot connect to chassis-mgr at " + path + ": " + errno_text(err);
    if (err == ENOENT || err == ECONNREFUSED) text += " (is the daemon running?)";
    if (err == EACCES || err == EPERM) text += "\n" + permission_hint(user_name());
    return text;
}

bool connect_to(int fd, const std::string &path, const ExchangeLimits &limits, std::string *error) {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        *error = "cannot connect to chassis-mgr at " + path + ": the path is longer than " +
                 std::to_string(sizeof addr.sun_path - 1) + " bytes";
        return false;
    }
    memcpy(addr.sun_path, path.data(), path.size());
    for (;;) {
        if (connect(fd, (struct sockaddr *)&addr, sizeof addr) == 0) return true;
        int err = errno;
        if (err == EINTR) continue;
        if (err == EINPROGRESS) {
            if (!wait_for(fd, POLLOUT, limits.deadline_ms)) break;
            socklen_t size = sizeof err;
            if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &size) == 0 && err == 0) return true;
        }
        if (err != EAGAIN) {
            *error = connect_failure(path, err);
            return false;
        }
        /* The daemon's backlog is full: it is busy; try again shortly. */
        if (monotonic_ms() + kConnectRetryMs >= limits.deadline_ms) break;
        struct timespec pause = {0, kConnectRetryMs * 1000000L};
        nanosleep(&pause, nullptr);
    }
    *error = timed_out(limits, "connecting to chassis-mgr at " + path);
    return false;
}

bool send_all(int fd, const void *data, size_t size, const ExchangeLimits &limits, std::string *error) {
    const unsigned char *bytes = (const unsigned char *)data;
    while (size > 0) {
        ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && errno == EAGAIN) {
            if (wait_for(fd, POLLOUT, limits.deadline_ms)) continue;
            *error = timed_out(limits, "sending " + limits.what + " to chassis-mgr");
            return false;
        }
        if (sent <= 0) {
            *error = "cannot send the request to chassis-mgr: " + errno_text(errno);
            return false;
        }
        bytes += sent;
        size -= (size_t)sent;
    }
    return true;
}

/* Waits for the reply's next bytes; says once that the daemon is busy when
 * the first bytes are late. */
bool wait_reply(int fd, const ExchangeLimits &limits, int64_t sent_ms, bool *noticed) {
    if (limits.busy_notice && !*noticed) {
        int64_t notice_at = sent_ms + kBusyNoticeMs;
        if (notice_at < limits.deadline_ms) {
            if (wait_for(fd, POLLIN, notice_at)) return true;
            fputs("chmgrctl: waiting for the daemon: another command is running\n", stderr);
            fflush(stderr);
            *noticed = true;
        }
    }
    return wait_for(fd, POLLIN, limits.deadline_ms);
}

bool receive_reply(int fd, size_t max_reply, const ExchangeLimits &limits, std::vector<unsigned char> *reply,
                   std::string *error) {
    reply->assign(max_reply, 0);
    size_t got = 0;
    int64_t sent_ms = monotonic_ms();
    bool noticed = false;
    while (got < max_reply) {
        ssize_t n = recv(fd, reply->data() + got, max_reply - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) {
            if (wait_reply(fd, limits, sent_ms, &noticed)) continue;
            *error = timed_out(limits, "waiting for chassis-mgr to reply to " + limits.what);
            if (got > 0) *error += " (" + std::to_string(got) + " bytes received)";
            return false;
        }
        if (n < 0) {
            /* A daemon that closes with data unread resets the connection:
             * that is still "no reply" when nothing came. */
            if (errno == ECONNRESET && got == 0) break;
            *error = "cannot read the reply of chassis-mgr: " + errno_text(errno);
            return false;
        }
        if (n == 0) break;
        got += (size_t)n;
    }
    reply->resize(got);
    return true;
}

std::string root_prefix() {
    const char *root = getenv("CHMGR_ROOT");
    std::string prefix = root ? root : "";
    while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
    return prefix;
}

}  // namespace

std::string default_socket_path() { return root_prefix() + CHMGRCTL_SOCKET_PATH; }

std::string default_readonly_socket_path() { return root_prefix() + CHMGRCTL_READONLY_SOCKET_PATH; }

bool socket_permitted(const std::string &path) {
    if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0) return true;
    return errno != EACCES && errno != EPERM;
}

std::string default_cards_conf_path() { return root_prefix() + "/etc/tarnel/cards.conf"; }

std::string card_vpd_path(uint32_t slot) {
    return root_prefix() + "/var/run/hw-management/lc" + std::to_string(slot) + "/eeprom/vpd_parsed";
}

double environment_time_scale() {
    const char *text = getenv("CHMGR_TIME_SCALE");
    if (!text || !*text) return 1.0;
    char *end = nullptr;
    double scale = strtod(text, &end);
    return end && *end == '\0' && isfinite(scale) && scale > 0 ? scale : 1.0;
}

int64_t monotonic_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

std::string permission_hint(const std::string &user) {
    return "chmgrctl: only root and the members of the group '" CHMGRCTL_GROUP
           "' may use the control socket;\n"
           "chmgrctl: an administrator adds you with 'adduser " +
           user + " " CHMGRCTL_GROUP "' (it takes effect at your next login)";
}

bool exchange(const std::string &socket_path, const ctlCmdHeader &request, size_t max_reply,
              const ExchangeLimits &limits, std::vector<unsigned char> *reply, std::string *error) {
    SocketFd sock;
    if (sock.get() < 0) {
        *error = "cannot create a socket: " + errno_text(errno);
        return false;
    }
    if (!connect_to(sock.get(), socket_path, limits, error)) return false;
    if (!send_all(sock.get(), &request, sizeof request, limits, error)) return false;
    return receive_reply(sock.get(), max_reply, limits, reply, error);
}

}  // namespace chmgrctl
