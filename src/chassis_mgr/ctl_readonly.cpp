/*
 * The read-only socket's requests.  Any local user may connect to it, so
 * it answers the reads only and changes nothing: no slot, no file (the
 * status document is built in memory instead of rewritten), and no log
 * ring, which an operator reads to see what the chassis did (a monitoring
 * scrape or a watch polling twice a second would otherwise push those lines
 * out).  A request leaves at most one DEBUG console line.
 */
#include "chassis_mgr.h"
#include "ctl_serving.h"

alignas(8) unsigned char g_ctl_ro_resp_buf[CTL_BUF_SIZE];

namespace {

const char *command_name(uint32_t cmd) {
    switch (cmd) {
    case LINECARD_ENABLE: return "LINECARD_ENABLE";
    case LINECARD_DISABLE: return "LINECARD_DISABLE";
    case SHOW_SUMMARY: return "SHOW_SUMMARY";
    case SHOW_DETAIL: return "SHOW_DETAIL";
    case PRE_PROVISION_ENABLE: return "PRE_PROVISION_ENABLE";
    case PRE_PROVISION_DISABLE: return "PRE_PROVISION_DISABLE";
    case DEBUG_SLOT: return "DEBUG_SLOT";
    default: return "unknown";
    }
}

/* Built over the request like an administration reply: its own len, the
 * failure status and the text. */
bool refuse(unsigned char *msg, ctlReply *reply) {
    ctl_set_failure(msg, CTL_READONLY_REFUSED_TEXT);
    reply->data = msg;
    reply->size = CTL_BUF_SIZE;
    return true;
}

bool answer(unsigned char *msg, uint32_t cmd, ctlReply *reply) {
    switch (cmd) {
    case SHOW_SUMMARY: return ctl_answer_show(msg, false, false, reply);
    case SHOW_DETAIL: return ctl_answer_show(msg, true, false, reply);
    case DEBUG_SLOT: return ctl_answer_debug_slot_from_memory(msg, reply);
    default: return ctl_is_admin_command(cmd) ? refuse(msg, reply) : false;
    }
}

}  // namespace

bool ctl_handle_readonly_request(unsigned char *msg, ctlReply *reply) {
    ctlCmdHeader request = ctl_header_of(msg);
    bool replied = answer(msg, request.cmd, reply);
    const char *outcome = !replied ? "closed" : ctl_is_admin_command(request.cmd) ? "refused" : "answered";
    CM_LOG_CONSOLE_DEBUG("Read-only CTL cmd %s (%u) slot %u: %s\n", command_name(request.cmd), request.cmd,
                         request.slot_no, outcome);
    return replied;
}
