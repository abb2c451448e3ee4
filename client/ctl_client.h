/*
 * chmgrctl: the conversation with chassis-mgr over its control socket.
 * One request per connection: connect, send a 24-byte header, read the
 * reply until its full size or until the daemon closes.
 */
#ifndef CHMGRCTL_CTL_CLIENT_H
#define CHMGRCTL_CTL_CLIENT_H

#include <stddef.h>

#include <string>
#include <vector>

#include "chassis_mgr.h"

namespace chmgrctl {

/* Exit statuses of chmgrctl. */
enum ExitStatus {
    EXIT_DONE = 0,       // the command succeeded
    EXIT_REFUSED = 1,    // the daemon answered with a failure (or sent no status document)
    EXIT_USAGE = 2,      // bad command line
    EXIT_NO_ANSWER = 3,  // the daemon could not be reached or did not answer properly
};

#define CHMGRCTL_SOCKET_PATH "/run/chassismgr/chassismgr"

/* The daemon's socket: "/run/chassismgr/chassismgr" under CHMGR_ROOT when
 * that is set and not empty (the same root the daemon was started with).
 * The only place where chmgrctl reads the environment. */
std::string default_socket_path();

/* Sends `request` to the daemon at `socket_path` and reads its reply, at most
 * `max_reply` bytes, stopping early when the daemon closes.  An empty reply
 * means the daemon closed without answering.  False, with a message in
 * `error`, when the socket cannot be reached or read. */
bool exchange(const std::string &socket_path, const ctlCmdHeader &request, size_t max_reply,
              std::vector<unsigned char> *reply, std::string *error);

}  // namespace chmgrctl

#endif /* CHMGRCTL_CTL_CLIENT_H */
