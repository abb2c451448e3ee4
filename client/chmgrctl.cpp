/*
 * chmgrctl: the administration client of chassis-mgr.  It turns a command
 * line into one control request, sends it over the daemon's socket and
 * prints the reply, as text for people or, with --json, for programs.
 */
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "chassis_mgr.h"
#include "ctl_client.h"
#include "ctl_output.h"
#include "json.h"

#ifndef CHMGR_VERSION_TEXT
#define CHMGR_VERSION_TEXT "1.0.0"
#endif

namespace chmgrctl {
namespace {

enum SlotUse {
    SLOT_OPTIONAL_OR_ALL,  // show, detail, status: default all
    SLOT_ONE_OR_ALL,       // enable, disable
    SLOT_ONE,              // provision, unprovision
};

struct CommandInfo {
    const char *name;
    uint32_t code;
    SlotUse slot_use;
    bool takes_card_type;
};

constexpr CommandInfo kCommands[] = {
    {"show", SHOW_SUMMARY, SLOT_OPTIONAL_OR_ALL, false},
    {"detail", SHOW_DETAIL, SLOT_OPTIONAL_OR_ALL, false},
    {"enable", LINECARD_ENABLE, SLOT_ONE_OR_ALL, false},
    {"disable", LINECARD_DISABLE, SLOT_ONE_OR_ALL, false},
    {"provision", PRE_PROVISION_ENABLE, SLOT_ONE, true},
    {"unprovision", PRE_PROVISION_DISABLE, SLOT_ONE, false},
    {"status", DEBUG_SLOT, SLOT_OPTIONAL_OR_ALL, false},
};

/* The texts an un-provisioning leaves behind when a step failed although
 * the slot was un-provisioned (its reply still reports success). */
constexpr const char *kUnprovisionWarnings[] = {"reload portd failed", "INI programming for slot failed"};

struct Options {
    std::string socket_path;
    bool json = false;
    bool help = false;
    bool version = false;
    std::vector<std::string> words;  // the command and its arguments
};

struct Request {
    const CommandInfo *info = nullptr;
    uint32_t slot_no = CTL_ALL_SLOTS;
    uint32_t card_type = 0;
};

void print_usage(FILE *out) {
    fputs("Usage: chmgrctl [OPTIONS] COMMAND [ARGUMENTS]\n"
          "\n"
          "Administers the line cards of the chassis through chassis-mgr.\n"
          "\n"
          "Commands:\n"
          "  show [SLOT|all]          summary of one slot or of all slots (default: all)\n"
          "  detail [SLOT|all]        the same, one block per slot\n"
          "  enable SLOT|all          put a slot (or every slot) back in service\n"
          "  disable SLOT|all         power a slot (or every slot) off and keep it out of service\n"
          "  provision SLOT C4|C16    pre-provision a slot for a card type\n"
          "  unprovision SLOT         take a slot's pre-provisioning back\n"
          "  status [SLOT|all]        state, awaited event, up time and recent log of the slots\n"
          "\n"
          "SLOT is a slot number from 1 to 8.\n"
          "\n"
          "Options:\n"
          "  -j, --json               print machine-readable JSON\n"
          "  -s, --socket PATH        control socket of the daemon\n"
          "                           (default: $CHMGR_ROOT/run/chassismgr/chassismgr)\n"
          "  -h, --help               print this help and exit\n"
          "  -V, --version            print the version and exit\n"
          "\n"
          "Exit status: 0 done, 1 refused by the daemon, 2 bad command line,\n"
          "3 daemon not reachable or no proper reply.\n",
          out);
}

int usage_error(const std::string &message) {
    fprintf(stderr, "chmgrctl: %s\n", message.c_str());
    fprintf(stderr, "Try 'chmgrctl --help' for more information.\n");
    return EXIT_USAGE;
}

/* Options may stand anywhere; "--" ends them. */
bool parse_options(int argc, char **argv, Options *options, std::string *error) {
    bool options_done = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
            options->words.push_back(arg);
        } else if (arg == "--") {
            options_done = true;
        } else if (arg == "-h" || arg == "--help") {
            options->help = true;
        } else if (arg == "-V" || arg == "--version") {
            options->version = true;
        } else if (arg == "-j" || arg == "--json") {
            options->json = true;
        } else if (arg == "-s" || arg == "--socket") {
            if (i + 1 >= argc) {
                *error = "option '" + arg + "' needs a path";
                return false;
            }
            options->socket_path = argv[++i];
        } else if (arg.rfind("--socket=", 0) == 0) {
            options->socket_path = arg.substr(strlen("--socket="));
        } else {
            *error = "unknown option '" + arg + "'";
            return false;
        }
    }
    if (options->socket_path.empty() && !options->help && !options->version)
        options->socket_path = default_socket_path();
    return true;
}

bool parse_slot(const std::string &text, bool all_allowed, uint32_t *slot_no, std::string *error) {
    if (all_allowed && strcasecmp(text.c_str(), "all") == 0) {
        *slot_no = CTL_ALL_SLOTS;
        return true;
    }
    if (text.size() == 1 && text[0] >= '1' && text[0] <= '8') {
        *slot_no = (uint32_t)(text[0] - '0');
        return true;
    }
    *error = "invalid slot '" + text + "' (expected 1 to 8" + (all_allowed ? " or all)" : ")");
    return false;
}

bool parse_card_type(const std::string &text, uint32_t *card_type, std::string *error) {
    const char *name = text.c_str();
    if (strncasecmp(name, "KTR9600-", 8) == 0) name += 8;
    if (strcasecmp(name, "C4") == 0) {
        *card_type = CARD_TYPE_4X400G;
        return true;
    }
    if (strcasecmp(name, "C16") == 0) {
        *card_type = CARD_TYPE_16X100G;
        return true;
    }
    *error = "invalid card type '" + text + "' (expected C4 or C16)";
    return false;
}

bool parse_request(const std::vector<std::string> &words, Request *request, std::string *error) {
    if (words.empty()) {
        *error = "no command given";
        return false;
    }
    for (const CommandInfo &info : kCommands)
        if (words[0] == info.name) request->info = &info;
    if (!request->info) {
        *error = "unknown command '" + words[0] + "'";
        return false;
    }
    const CommandInfo &info = *request->info;
    size_t wanted = info.slot_use == SLOT_OPTIONAL_OR_ALL ? 1 : info.takes_card_type ? 3 : 2;
    size_t most = info.slot_use == SLOT_OPTIONAL_OR_ALL ? 2 : wanted;
    if (words.size() < wanted) {
        *error = std::string("'") + info.name + "' needs " +
                 (info.takes_card_type ? "a slot and a card type" : "a slot");
        return false;
    }
    if (words.size() > most) {
        *error = "too many arguments for '" + std::string(info.name) + "'";
        return false;
    }
    if (words.size() >= 2 && !parse_slot(words[1], info.slot_use != SLOT_ONE, &request->slot_no, error))
        return false;
    if (info.takes_card_type && !parse_card_type(words[2], &request->card_type, error)) return false;
    return true;
}

const char *card_type_label(uint32_t card_type) {
    return card_type == CARD_TYPE_4X400G ? "KTR9600-C4" : card_type == CARD_TYPE_16X100G ? "KTR9600-C16" : "none";
}

std::string slot_label(uint32_t slot_no) {
    return slot_no == CTL_ALL_SLOTS ? std::string("all slots") : "slot " + std::to_string(slot_no);
}

/* status_str of a reply, without the line feed some texts end with. */
std::string status_text(const std::vector<unsigned char> &reply) {
    std::string text = field_text(reply.data() + offsetof(ctlCmdHeaderErr, status_str), CTL_STATUS_STR_SIZE);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

bool is_unprovision_warning(const std::string &text) {
    for (const char *warning : kUnprovisionWarnings)
        if (text == warning) return true;
    return false;
}

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

int report_refusal(const Options &options, const Request &request, int32_t status,
                   const std::vector<unsigned char> &reply) {
    std::string message = request.info->code == DEBUG_SLOT ? std::string() : status_text(reply);
    if (options.json) {
        print_admin_json(stdout, request.info->name, request.slot_no, status, message, "");
    } else {
        fprintf(stderr, "chmgrctl: %s %s failed: %s\n", request.info->name, slot_label(request.slot_no).c_str(),
                message.empty() ? ("status " + std::to_string(status)).c_str() : printable(message).c_str());
    }
    return EXIT_REFUSED;
}

int print_show(const Options &options, const Request &request, const std::vector<unsigned char> &reply) {
    std::vector<SlotSummary> slots;
    std::string error;
    if (!decode_summary(reply, request.slot_no, &slots, &error)) {
        fprintf(stderr, "chmgrctl: %s\n", error.c_str());
        return EXIT_NO_ANSWER;
    }
    if (options.json)
        print_summary_json(stdout, slots);
    else if (request.info->code == SHOW_DETAIL)
        print_summary_blocks(stdout, slots);
    else
        print_summary_table(stdout, slots);
    return EXIT_DONE;
}

int print_status(const Options &options, const std::vector<unsigned char> &reply) {
    std::string document(reply.begin() + sizeof(ctlCmdHeader), reply.end());
    std::string error;
    if (!check_status_document(document, &error)) {
        fprintf(stderr, "chmgrctl: %s\n", error.c_str());
        return EXIT_REFUSED;
    }
    if (options.json) {
        fputs(document.c_str(), stdout);
        if (document.back() != '\n') fputc('\n', stdout);
    } else {
        print_status_document(stdout, document);
    }
    return EXIT_DONE;
}

int print_admin(const Options &options, const Request &request, const std::vector<unsigned char> &reply) {
    std::string warning;
    if (request.info->code == PRE_PROVISION_DISABLE) {
        std::string text = status_text(reply);
        if (is_unprovision_warning(text)) warning = text;
    }
    if (options.json) {
        print_admin_json(stdout, request.info->name, request.slot_no, CTL_SUCCESS, "", warning);
        return EXIT_DONE;
    }
    std::string label = slot_label(request.slot_no);
    switch (request.info->code) {
    case LINECARD_ENABLE: printf("%s: enabled\n", label.c_str()); break;
    case LINECARD_DISABLE: printf("%s: disabled\n", label.c_str()); break;
    case PRE_PROVISION_ENABLE:
        printf("%s: pre-provisioned for %s\n", label.c_str(), card_type_label(request.card_type));
        break;
    default: printf("%s: pre-provisioning removed\n", label.c_str()); break;
    }
    if (!warning.empty()) fprintf(stderr, "chmgrctl: warning: %s: %s\n", label.c_str(), warning.c_str());
    return EXIT_DONE;
}

int run(const Options &options, const Request &request) {
    ctlCmdHeader header = {};
    header.cmd = request.info->code;
    header.len = sizeof header;
    header.seq = (uint32_t)getpid();
    header.slot_no = request.slot_no;
    header.card_type = request.card_type;
    size_t max_reply = header.cmd == DEBUG_SLOT ? sizeof(debugCmdRespSlotState) : CTL_BUF_SIZE;

    std::vector<unsigned char> reply;
    std::string error;
    if (!exchange(options.socket_path, header, max_reply, &reply, &error) || !check_header(reply, header, &error)) {
        fprintf(stderr, "chmgrctl: %s\n", error.c_str());
        return EXIT_NO_ANSWER;
    }
    ctlCmdHeader answer;
    memcpy(&answer, reply.data(), sizeof answer);
    int32_t status = (int32_t)answer.status;
    if (status != CTL_SUCCESS) return report_refusal(options, request, status, reply);

    switch (header.cmd) {
    case SHOW_SUMMARY:
    case SHOW_DETAIL: return print_show(options, request, reply);
    case DEBUG_SLOT: return print_status(options, reply);
    default: return print_admin(options, request, reply);
    }
}

}  // namespace
}  // namespace chmgrctl

int main(int argc, char **argv) {
    using namespace chmgrctl;
    Options options;
    std::string error;
    if (!parse_options(argc, argv, &options, &error)) return usage_error(error);
    if (options.help) {
        print_usage(stdout);
        return EXIT_DONE;
    }
    if (options.version) {
        printf("chmgrctl (chassis-mgr) %s\n", CHMGR_VERSION_TEXT);
        return EXIT_DONE;
    }
    Request request;
    if (!parse_request(options.words, &request, &error)) return usage_error(error);
    return run(options, request);
}
