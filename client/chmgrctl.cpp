/*
 * chmgrctl: the administration client of chassis-mgr.  It turns a command
 * line into one control request, sends it over the daemon's socket and
 * prints the reply, as text for people or, with --json, for programs.
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "chassis_mgr.h"
#include "ctl_client.h"
#include "ctl_metrics.h"
#include "ctl_output.h"
#include "ctl_request.h"

#ifndef CHMGR_VERSION_TEXT
#define CHMGR_VERSION_TEXT "1.0.0"
#endif

namespace chmgrctl {
namespace {

/* The daemon answers the show commands at once.  An administration command
 * waits for the slot, which a card in its longest bring-up step holds for
 * about a minute, and then does its own bounded waits (a disable polls up
 * to 20 s, an un-provisioning up to 30 s): their default limit covers that. */
constexpr int kShowTimeoutS = 10;
constexpr int kAdminTimeoutS = 120;

constexpr CommandInfo kCommands[] = {
    {"show", SHOW_SUMMARY, SLOT_OPTIONAL_OR_ALL, false, kShowTimeoutS},
    {"detail", SHOW_DETAIL, SLOT_OPTIONAL_OR_ALL, false, kShowTimeoutS},
    {"enable", LINECARD_ENABLE, SLOT_ONE_OR_ALL, false, kAdminTimeoutS},
    {"disable", LINECARD_DISABLE, SLOT_ONE_OR_ALL, false, kAdminTimeoutS},
    {"provision", PRE_PROVISION_ENABLE, SLOT_ONE, true, kAdminTimeoutS},
    {"unprovision", PRE_PROVISION_DISABLE, SLOT_ONE, false, kAdminTimeoutS},
    {"status", DEBUG_SLOT, SLOT_OPTIONAL_OR_ALL, false, kShowTimeoutS},
    {"watch", DEBUG_SLOT, SLOT_OPTIONAL_OR_ALL, false, kShowTimeoutS},
    {"metrics", SHOW_SUMMARY, SLOT_NONE, false, kMetricsTimeoutS},
};

void print_usage(FILE *out) {
    fputs("Usage: chmgrctl [OPTIONS] COMMAND [ARGUMENTS]\n"
          "\n"
          "Administers the line cards of the chassis through chassis-mgr.\n"
          "\n"
          "Commands:\n"
          "  show [SLOT|all]          one line per slot: state, stage, card, and why a slot\n"
          "                           is not in service (default: all slots)\n"
          "  detail [SLOT|all]        the same, one block per slot\n"
          "  enable SLOT|all          put a slot (or every slot) back in service\n"
          "  disable SLOT|all         power a slot (or every slot) off and keep it out of service\n"
          "  provision SLOT C4|C16    pre-provision a slot for a card type\n"
          "  unprovision SLOT         take a slot's pre-provisioning back\n"
          "  status [SLOT|all]        state, awaited event, up time and recent log of the slots\n"
          "  watch [SLOT|all]         follow the bring-up of the slots live\n"
          "  metrics                  every slot in the Prometheus text format\n"
          "\n"
          "SLOT is a slot number from 1 to 8.\n"
          "\n"
          "Options:\n"
          "  -j, --json               print machine-readable JSON (watch: one object a line)\n"
          "  -w, --wide               show: every column, the reasons in the table\n"
          "      --raw                status --json: the daemon's document as it is\n"
          "  -s, --socket PATH        socket of the daemon, for every request (default: the\n"
          "                           control socket $CHMGR_ROOT/run/chassismgr/chassismgr;\n"
          "                           show, detail and status use the read-only socket\n"
          "                           $CHMGR_ROOT/run/chassismgr/chassismgr-ro when the\n"
          "                           control socket is not open to the user, watch\n"
          "                           always when it can)\n"
          "  -v, --verbose            say which socket of the daemon is used\n"
          "  -t, --timeout SECONDS    give up waiting for the daemon after this long\n"
          "                           (default: 10 for show, detail, status and watch,\n"
          "                           5 per request for metrics,\n"
          "                           120 per slot for the administration commands);\n"
          "                           watch: stop after this long\n"
          "      --until-online SLOT  watch: exit when SLOT is operational (0) or stuck (1)\n"
          "      --interval SECONDS   watch: time between two looks (default 0.5)\n"
          "      --textfile PATH      metrics: replace PATH atomically instead of printing\n"
          "  -h, --help               print this help and exit\n"
          "  -V, --version            print the version and exit\n"
          "\n"
          "Exit status: 0 done, 1 refused by the daemon (watch: slot stuck), 2 bad command\n"
          "line, 3 daemon not reachable or no proper reply in time, 4 watch --until-online:\n"
          "time limit reached before the slot was operational, 130 (143) watch ended by\n"
          "Ctrl-C (SIGTERM).  metrics exits 0 when the daemon does not answer (it reports\n"
          "chassis_mgr_up 0), 1 when PATH cannot be written.\n",
          out);
}

int usage_error(const std::string &message) {
    fprintf(stderr, "chmgrctl: %s\n", message.c_str());
    fprintf(stderr, "Try 'chmgrctl --help' for more information.\n");
    return EXIT_USAGE;
}

bool parse_seconds(const std::string &text, double *seconds) {
    char *end = nullptr;
    double value = strtod(text.c_str(), &end);
    if (text.empty() || !end || *end != '\0' || !isfinite(value) || value <= 0 || value > 86400) return false;
    *seconds = value;
    return true;
}

bool parse_slot(const std::string &text, bool all_allowed, uint32_t *slot_no, std::string *error);

/* The options that take a value, written "-x VALUE", "--name VALUE" or "--name=VALUE". */
enum ValuedOption { OPT_SOCKET, OPT_TIMEOUT, OPT_UNTIL_ONLINE, OPT_INTERVAL, OPT_TEXTFILE };
struct ValuedOptionInfo {
    ValuedOption option;
    const char *short_name;  // "" when none
    const char *long_name;
};
constexpr ValuedOptionInfo kValuedOptions[] = {
    {OPT_SOCKET, "-s", "--socket"},
    {OPT_TIMEOUT, "-t", "--timeout"},
    {OPT_UNTIL_ONLINE, "", "--until-online"},
    {OPT_INTERVAL, "", "--interval"},
    {OPT_TEXTFILE, "", "--textfile"},
};

bool set_valued_option(ValuedOption option, const std::string &value, Options *options, std::string *error) {
    switch (option) {
    case OPT_SOCKET:
        options->socket_path = value;
        options->socket_given = true;
        return true;
    case OPT_TEXTFILE:
        if (value.empty()) {
            *error = "option '--textfile' needs a path";
            return false;
        }
        options->textfile = value;
        return true;
    case OPT_TIMEOUT:
        if (parse_seconds(value, &options->timeout_s)) return true;
        *error = "invalid time limit '" + value + "' (expected seconds, more than 0)";
        return false;
    case OPT_INTERVAL:
        if (parse_seconds(value, &options->interval_s)) return true;
        *error = "invalid interval '" + value + "' (expected seconds, more than 0)";
        return false;
    case OPT_UNTIL_ONLINE: return parse_slot(value, false, &options->until_online, error);
    }
    return false;
}

/* -1: `arg` is not a valued option; 0: it is, but wrong; 1: taken. */
int parse_valued_option(int argc, char **argv, int *i, const std::string &arg, Options *options,
                        std::string *error) {
    for (const ValuedOptionInfo &info : kValuedOptions) {
        std::string long_name = info.long_name;
        std::string value;
        if (arg == long_name || (*info.short_name && arg == info.short_name)) {
            if (*i + 1 >= argc) {
                *error = "option '" + arg + "' needs " +
                         (info.option == OPT_SOCKET || info.option == OPT_TEXTFILE ? "a path" : "a value");
                return 0;
            }
            value = argv[++*i];
        } else if (arg.rfind(long_name + "=", 0) == 0) {
            value = arg.substr(long_name.size() + 1);
        } else {
            continue;
        }
        return set_valued_option(info.option, value, options, error) ? 1 : 0;
    }
    return -1;
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
        } else if (arg == "-w" || arg == "--wide") {
            options->wide = true;
        } else if (arg == "--raw") {
            options->raw = true;
        } else if (arg == "-v" || arg == "--verbose") {
            options->verbose = true;
        } else {
            int taken = parse_valued_option(argc, argv, &i, arg, options, error);
            if (taken == 0) return false;
            if (taken < 0) {
                *error = "unknown option '" + arg + "'";
                return false;
            }
        }
    }
    if (options->socket_path.empty() && !options->help && !options->version)
        options->socket_path = default_socket_path();
    if (!options->help && !options->version) options->readonly_socket_path = default_readonly_socket_path();
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
    size_t wanted = info.slot_use == SLOT_OPTIONAL_OR_ALL || info.slot_use == SLOT_NONE ? 1
                    : info.takes_card_type                                           ? 3
                                                                                     : 2;
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

/* Options that belong to one command only. */
bool check_option_use(const Options &options, const Request &request, std::string *error) {
    std::string name = request.info->name;
    if (options.until_online && name != "watch") {
        *error = "option '--until-online' belongs to 'watch'";
        return false;
    }
    if (options.until_online && request.slot_no != CTL_ALL_SLOTS && request.slot_no != options.until_online) {
        *error = "slot " + std::to_string(options.until_online) + " of '--until-online' is not watched";
        return false;
    }
    if (options.interval_s > 0 && name != "watch") {
        *error = "option '--interval' belongs to 'watch'";
        return false;
    }
    if (!options.textfile.empty() && name != "metrics") {
        *error = "option '--textfile' belongs to 'metrics'";
        return false;
    }
    if (options.json && name == "metrics") {
        *error = "'metrics' prints the Prometheus text format only: '--json' does not apply";
        return false;
    }
    if (options.raw && name != "status") {
        *error = "option '--raw' belongs to 'status'";
        return false;
    }
    return true;
}

int run(const Options &options, const Request &request) {
    if (strcmp(request.info->name, "metrics") == 0) return run_metrics(options, request);
    switch (request.info->code) {
    case SHOW_SUMMARY:
    case SHOW_DETAIL: return run_show(options, request);
    case DEBUG_SLOT:
        return strcmp(request.info->name, "watch") == 0 ? run_watch(options, request) : run_status(options, request);
    default: return run_admin(options, request);
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
    if (!parse_request(options.words, &request, &error) || !check_option_use(options, request, &error))
        return usage_error(error);
    return run(options, request);
}
