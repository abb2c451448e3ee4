/*
 * chmgrctl: the command line as parsed, and one checked request to the
 * daemon (sent, answered, reply matched to the request).
 */
#ifndef CHMGRCTL_CTL_REQUEST_H
#define CHMGRCTL_CTL_REQUEST_H

#include <stdint.h>

#include <string>
#include <vector>

#include "chassis_mgr.h"

namespace chmgrctl {

enum SlotUse {
    SLOT_OPTIONAL_OR_ALL,  // show, detail, status, watch: default all
    SLOT_ONE_OR_ALL,       // enable, disable
    SLOT_ONE,              // provision, unprovision
    SLOT_NONE,             // metrics: the whole chassis, always
};

struct CommandInfo {
    const char *name;
    uint32_t code;  // the protocol command (watch: DEBUG_SLOT, the request it repeats)
    SlotUse slot_use;
    bool takes_card_type;
    int default_timeout_s;  // per request; for watch, of the whole watch when it waits for a slot
};

struct Options {
    std::string socket_path;           // the control socket
    std::string readonly_socket_path;  // the read-only socket
    bool socket_given = false;         // --socket: every request goes there
    bool verbose = false;              // say which socket is used
    std::string textfile;              // metrics: write here instead of standard output
    bool json = false;
    bool raw = false;       // status --json: the daemon's document as it is
    bool wide = false;      // show: every column
    bool help = false;
    bool version = false;
    double timeout_s = 0;   // 0: the command's default
    double interval_s = 0;  // watch: poll interval, 0: the default
    uint32_t until_online = 0;  // watch: exit when this slot is operational or stuck
    std::vector<std::string> words;  // the command and its arguments
};

struct Request {
    const CommandInfo *info = nullptr;
    uint32_t slot_no = CTL_ALL_SLOTS;
    uint32_t card_type = 0;
};

/* The time limit of one request of `request`'s command, in milliseconds. */
int64_t request_timeout_ms(const Options &options, const Request &request);

/* "show 3", "disable all": the request in the words of the command line. */
std::string request_words(const char *command, uint32_t slot_no);
/* "slot 3", "all slots". */
std::string slot_label(uint32_t slot_no);

/* The socket a request of `code` goes to: --socket when given; else the
 * control socket for administration; for reads the preferred one of the
 * two that this user may open (watch prefers the read-only socket, the
 * other reads the control socket), or the preferred one when neither. */
std::string request_socket_path(const Options &options, const Request &request, uint32_t code);

/* Sends protocol command `code` for `slot_no` and checks that the reply
 * answers it.  False, with the message printed on standard error, when
 * the daemon cannot be reached, does not answer in time or answers
 * something else. */
bool daemon_request(const Options &options, const Request &request, uint32_t code, uint32_t slot_no,
                    bool busy_notice, std::vector<unsigned char> *reply);

/* The reply's status (signed), and its status_str without a final line feed. */
int32_t reply_status(const std::vector<unsigned char> &reply);
std::string status_text(const std::vector<unsigned char> &reply);

/* The status document of a DEBUG_SLOT reply, or false with a message printed. */
bool reply_document(const std::vector<unsigned char> &reply, std::string *document);

/* The commands. */
/* The show records and status document of the requested slots, combined;
 * `show_code` is SHOW_SUMMARY or SHOW_DETAIL.  False with a message printed. */
struct SlotView;
bool collect_slot_views(const Options &options, const Request &request, uint32_t show_code,
                        std::vector<SlotView> *views);

int run_admin(const Options &options, const Request &request);
int run_show(const Options &options, const Request &request);
int run_status(const Options &options, const Request &request);
int run_watch(const Options &options, const Request &request);
int run_metrics(const Options &options, const Request &request);

}  // namespace chmgrctl

#endif /* CHMGRCTL_CTL_REQUEST_H */
