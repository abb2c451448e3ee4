/*
 * chmgrctl: enable, disable, provision and unprovision.  A command for all
 * slots is sent as one request per slot, in slot order, so that each slot's
 * outcome is printed as soon as the daemon has dealt with it (the daemon
 * answers a request for all slots only once every slot is done, which for a
 * disable can take minutes).
 */
#include <stdio.h>

#include "ctl_client.h"
#include "ctl_json.h"
#include "ctl_output.h"
#include "ctl_request.h"

namespace chmgrctl {

namespace {

/* The texts an un-provisioning leaves behind when a step failed although
 * the slot was un-provisioned (its reply still reports success). */
constexpr const char *kUnprovisionWarnings[] = {"reload portd failed", "INI programming for slot failed"};

bool is_unprovision_warning(const std::string &text) {
    for (const char *warning : kUnprovisionWarnings)
        if (text == warning) return true;
    return false;
}

const char *card_type_label(uint32_t card_type) {
    return card_type == CARD_TYPE_4X400G ? "KTR9600-C4" : card_type == CARD_TYPE_16X100G ? "KTR9600-C16" : "none";
}

void print_outcome(const Request &request, const AdminResult &result) {
    std::string label = slot_label(result.slot);
    if (result.status != CTL_SUCCESS) {
        fprintf(stderr, "chmgrctl: %s %s failed: %s\n", request.info->name, label.c_str(),
                result.message.empty() ? ("status " + std::to_string(result.status)).c_str()
                                       : printable(result.message).c_str());
        return;
    }
    switch (request.info->code) {
    case LINECARD_ENABLE: printf("%s: enabled\n", label.c_str()); break;
    case LINECARD_DISABLE: printf("%s: disabled\n", label.c_str()); break;
    case PRE_PROVISION_ENABLE:
        printf("%s: pre-provisioned for %s\n", label.c_str(), card_type_label(request.card_type));
        break;
    default: printf("%s: pre-provisioning removed\n", label.c_str()); break;
    }
    fflush(stdout);
    if (!result.warning.empty())
        fprintf(stderr, "chmgrctl: warning: %s: %s\n", label.c_str(), printable(result.warning).c_str());
}

/* One slot's request; false when the daemon gave no proper answer. */
bool admin_one(const Options &options, const Request &request, uint32_t slot, AdminResult *result) {
    std::vector<unsigned char> reply;
    if (!daemon_request(options, request, request.info->code, slot, false, &reply)) return false;
    result->slot = slot;
    result->status = reply_status(reply);
    if (result->status != CTL_SUCCESS) {
        result->message = status_text(reply);
    } else if (request.info->code == PRE_PROVISION_DISABLE) {
        std::string text = status_text(reply);
        if (is_unprovision_warning(text)) result->warning = text;
    }
    return true;
}

}  // namespace

int run_admin(const Options &options, const Request &request) {
    bool all = request.slot_no == CTL_ALL_SLOTS;
    uint32_t first = all ? 1 : request.slot_no;
    uint32_t last = all ? MAX_SLOTS_FOR_9600 : request.slot_no;
    std::vector<AdminResult> results;
    int exit_status = EXIT_DONE;
    for (uint32_t slot = first; slot <= last; ++slot) {
        AdminResult result;
        if (!admin_one(options, request, slot, &result)) {
            exit_status = EXIT_NO_ANSWER;
            break;
        }
        if (result.status != CTL_SUCCESS) exit_status = EXIT_REFUSED;
        if (!options.json) print_outcome(request, result);
        results.push_back(result);
    }
    /* Without a proper answer there is no outcome to print: the message on
     * standard error and the exit status tell what happened. */
    if (options.json && exit_status != EXIT_NO_ANSWER)
        print_admin_json(stdout, request.info->name, request.slot_no, results);
    return exit_status;
}

}  // namespace chmgrctl
