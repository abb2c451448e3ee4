/*
 * chmgrctl: the conversation with chassis-mgr over its control socket.
 * One request per connection: connect, send a 24-byte header, read the
 * reply until its full size or until the daemon closes.  Every step is
 * bounded by a time limit, so a silent daemon never hangs the client.
 */
#ifndef CHMGRCTL_CTL_CLIENT_H
#define CHMGRCTL_CTL_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "chassis_mgr.h"

namespace chmgrctl {

/* Exit statuses of chmgrctl. */
enum ExitStatus {
    EXIT_DONE = 0,       // the command succeeded
    EXIT_REFUSED = 1,    // the daemon answered with a failure (or sent no status document); watched slot stuck
    EXIT_USAGE = 2,      // bad command line
    EXIT_NO_ANSWER = 3,  // the daemon could not be reached, did not answer properly or in time
    EXIT_NOT_YET = 4,    // watch --until-online: the slot was not operational within the time limit
};

#define CHMGRCTL_SOCKET_PATH "/run/chassismgr/chassismgr"
#define CHMGRCTL_READONLY_SOCKET_PATH "/run/chassismgr/chassismgr-ro"
#define CHMGRCTL_GROUP "chassismgr"

/* After this long without a reply to a request the daemon answers at once,
 * the client says that it waits behind another command. */
constexpr int64_t kBusyNoticeMs = 1000;

/* The daemon's socket: "/run/chassismgr/chassismgr" under CHMGR_ROOT when
 * that is set and not empty (the same root the daemon was started with). */
std::string default_socket_path();
/* The daemon's read-only socket, "/run/chassismgr/chassismgr-ro" under the
 * same root: any local user may read through it (show, detail, status). */
std::string default_readonly_socket_path();
/* Whether this process may connect to the socket at `path` (write
 * permission on it, and the way to it): false only when permission is
 * refused, so a missing socket still gives its own error when used. */
bool socket_permitted(const std::string &path);
/* The card configuration file, "/etc/tarnel/cards.conf", under the same root. */
std::string default_cards_conf_path();
/* The parsed VPD of the card in a slot, as the hardware presents it. */
std::string card_vpd_path(uint32_t slot);
/* The daemon's clock factor, CHMGR_TIME_SCALE, when it is set in the
 * client's environment and valid; 1 otherwise.  These functions are the
 * only places where chmgrctl reads the environment. */
double environment_time_scale();

/* Milliseconds of a monotonic clock. */
int64_t monotonic_ms();

struct ExchangeLimits {
    int64_t deadline_ms = 0;       // monotonic_ms() value at which the exchange gives up
    int64_t timeout_ms = 0;        // the limit as given, for messages
    std::string what;              // the request in words, for messages ("show 3")
    bool busy_notice = false;      // say so when the reply is late (see kBusyNoticeMs)
};

/* Sends `request` to the daemon at `socket_path` and reads its reply, at most
 * `max_reply` bytes, stopping early when the daemon closes.  An empty reply
 * means the daemon closed without answering.  False, with a message in
 * `error`, when the socket cannot be reached or read, or the time limit
 * expires (the message then says which step was waiting). */
bool exchange(const std::string &socket_path, const ctlCmdHeader &request, size_t max_reply,
              const ExchangeLimits &limits, std::vector<unsigned char> *reply, std::string *error);

/* The explanation printed under a "Permission denied" on the socket. */
std::string permission_hint(const std::string &user);

}  // namespace chmgrctl

#endif /* CHMGRCTL_CTL_CLIENT_H */
