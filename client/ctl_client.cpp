/*
 * chmgrctl: socket path, connection and one request/reply exchange.
 */
#include "ctl_client.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace chmgrctl {

namespace {

class SocketFd {
  public:
    SocketFd() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
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

bool connect_to(int fd, const std::string &path, std::string *error) {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        *error = "cannot connect to chassis-mgr at " + path + ": the path is longer than " +
                 std::to_string(sizeof addr.sun_path - 1) + " bytes";
        return false;
    }
    memcpy(addr.sun_path, path.data(), path.size());
    if (connect(fd, (struct sockaddr *)&addr, sizeof addr) == 0) return true;

    int err = errno;
    *error = "cannot connect to chassis-mgr at " + path + ": " + errno_text(err);
    if (err == ENOENT || err == ECONNREFUSED) *error += " (is the daemon running?)";
    return false;
}

bool send_all(int fd, const void *data, size_t size, std::string *error) {
    const unsigned char *bytes = (const unsigned char *)data;
    while (size > 0) {
        ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) {
            *error = "cannot send the request to chassis-mgr: " + errno_text(errno);
            return false;
        }
        bytes += sent;
        size -= (size_t)sent;
    }
    return true;
}

bool receive_reply(int fd, size_t max_reply, std::vector<unsigned char> *reply, std::string *error) {
    reply->assign(max_reply, 0);
    size_t got = 0;
    while (got < max_reply) {
        ssize_t n = recv(fd, reply->data() + got, max_reply - got, 0);
        if (n < 0 && errno == EINTR) continue;
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

}  // namespace

std::string default_socket_path() {
    const char *root = getenv("CHMGR_ROOT");
    std::string prefix = root ? root : "";
    while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
    return prefix + CHMGRCTL_SOCKET_PATH;
}

bool exchange(const std::string &socket_path, const ctlCmdHeader &request, size_t max_reply,
              std::vector<unsigned char> *reply, std::string *error) {
    SocketFd sock;
    if (sock.get() < 0) {
        *error = "cannot create a socket: " + errno_text(errno);
        return false;
    }
    if (!connect_to(sock.get(), socket_path, error)) return false;
    if (!send_all(sock.get(), &request, sizeof request, error)) return false;
    return receive_reply(sock.get(), max_reply, reply, error);
}

}  // namespace chmgrctl
