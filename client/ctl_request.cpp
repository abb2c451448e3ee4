/*
 * chmgrctl: one request to the daemon, checked against what was asked.
 */
#include "ctl_request.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "ctl_client.h"
#include "ctl_output.h"

namespace chmgrctl {

namespace {

/* The reply must answer our request: same command and sequence number. */
bool check_header(const std::vector<unsigned char> &reply, const ctlCmdHeader &request, std::string *error) {
    if (reply.empty()) {
        *error = "chassis-mgr closed the connection without a reply (the request was refused)";
        return false;
    }
    if (reply.size() < sizeof(ctlCmdHeader)) {
        *error = "short reply from chassis-mgr (" + std::to_string(reply.size()) + " bytes)";
        return false;
    }
    ctlCmdHeader header;
    memcpy(&header, reply.data(), sizeof header);
    if (header.cmd != request.cmd || header.seq != request.seq || header.slot_no != request.slot_no) {
        *error = "unexpected reply from chassis-mgr (command " + std::to_string(header.cmd) + ", sequence " +
                 std::to_string(header.seq) + ", slot " + std::to_string(header.slot_no) + ")";
        return false;
    }
    if (request.cmd != DEBUG_SLOT && reply.size() < CTL_BUF_SIZE) {
        *error = "short reply from chassis-mgr (" + std::to_string(reply.size()) + " of " +
                 std::to_string(CTL_BUF_SIZE) + " bytes)";
        return false;
    }
    return true;
}

const char *protocol_word(uint32_t code) {
    switch (code) {
    case SHOW_SUMMARY: return "show";
    case SHOW_DETAIL: return "detail";
    case DEBUG_SLOT: return "status";
    default: return nullptr;
    }
}

bool is_read(uint32_t code) { return code == SHOW_SUMMARY || code == SHOW_DETAIL || code == DEBUG_SLOT; }

/* With --verbose, names the socket each time it differs from the last one named. */
void say_socket(const Options &options, const std::string &path) {
    static std::string named;
    if (!options.verbose || path == named) return;
    named = path;
    const char *which = path == options.readonly_socket_path ? "read-only socket" : "control socket";
    fprintf(stderr, "chmgrctl: using the %s %s\n", which, path.c_str());
}

}  // namespace

std::string request_socket_path(const Options &options, const Request &request, uint32_t code) {
    if (options.socket_given || !is_read(code)) return options.socket_path;
    /* watch and metrics poll: through the read-only socket their requests
     * leave the daemon's log rings alone. */
    bool polling = strcmp(request.info->name, "watch") == 0 || strcmp(request.info->name, "metrics") == 0;
    const std::string &preferred = polling ? options.readonly_socket_path : options.socket_path;
    const std::string &other = polling ? options.socket_path : options.readonly_socket_path;
    if (!socket_permitted(preferred) && socket_permitted(other)) return other;
    return preferred;
}

int64_t request_timeout_ms(const Options &options, const Request &request) {
    double seconds = options.timeout_s > 0 ? options.timeout_s : request.info->default_timeout_s;
    return (int64_t)(seconds * 1000.0 + 0.5);
}

std::string slot_label(uint32_t slot_no) {
    return slot_no == CTL_ALL_SLOTS ? std::string("all slots") : "slot " + std::to_string(slot_no);
}

std::string request_words(const char *command, uint32_t slot_no) {
    return std::string(command) + " " + (slot_no == CTL_ALL_SLOTS ? std::string("all") : std::to_string(slot_no));
}

bool daemon_request(const Options &options, const Request &request, uint32_t code, uint32_t slot_no,
                    bool busy_notice, std::vector<unsigned char> *reply) {
    ctlCmdHeader header = {};
    header.cmd = code;
    header.len = sizeof header;
    header.seq = (uint32_t)getpid();
    header.slot_no = slot_no;
    header.card_type = request.card_type;
    size_t max_reply = code == DEBUG_SLOT ? sizeof(debugCmdRespSlotState) : CTL_BUF_SIZE;

    ExchangeLimits limits;
    limits.timeout_ms = request_timeout_ms(options, request);
    limits.deadline_ms = monotonic_ms() + limits.timeout_ms;
    const char *word = protocol_word(code);
    limits.what = request_words(word ? word : request.info->name, slot_no);
    limits.busy_notice = busy_notice;

    std::string path = request_socket_path(options, request, code);
    say_socket(options, path);
    std::string error;
    if (!exchange(path, header, max_reply, limits, reply, &error) ||
        !check_header(*reply, header, &error)) {
        fprintf(stderr, "chmgrctl: %s\n", error.c_str());
        return false;
    }
    return true;
}

int32_t reply_status(const std::vector<unsigned char> &reply) {
    ctlCmdHeader answer;
    memcpy(&answer, reply.data(), sizeof answer);
    return (int32_t)answer.status;
}

std::string status_text(const std::vector<unsigned char> &reply) {
    std::string text = field_text(reply.data() + offsetof(ctlCmdHeaderErr, status_str), CTL_STATUS_STR_SIZE);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

bool reply_document(const std::vector<unsigned char> &reply, std::string *document) {
    document->assign(reply.begin() + sizeof(ctlCmdHeader), reply.end());
    std::string error;
    if (check_status_document(*document, &error)) return true;
    fprintf(stderr, "chmgrctl: %s\n", error.c_str());
    return false;
}

}  // namespace chmgrctl
