/*
 * The read-only control commands.  SHOW_SUMMARY and SHOW_DETAIL answer with
 * one fixed 120-byte record per reported slot, written over the request in
 * g_ctl_resp_buf; DEBUG_SLOT rewrites the status document and sends it back
 * from g_ctl_debug_cmd_resp.  Slot records are read without their mutex:
 * a reply is a snapshot.
 */
#include <stdio.h>
#include <string.h>

#include "chassis_mgr.h"

namespace {

#define STATUS_DOCUMENT_PATH "/etc/tarnel/cm_status.json"
#define BAD_SLOT_TEXT "Bad slot received from CTL cmd"
#define JSON_OUTPUT_ERROR_TEXT "JSON output error\n"

constexpr size_t kRecordsOffset = offsetof(ctlShowSummaryResp, show_summary_data);
constexpr size_t kRecordTextSize = 32;

unsigned char *summary_record(int index) {
    return g_ctl_resp_buf + kRecordsOffset + (size_t)index * sizeof(ctlShowSummaryRespData);
}

void put_u32(unsigned char *record, size_t offset, uint32_t value) {
    memcpy(record + offset, &value, sizeof value);
}

/* Up to 32 bytes of `text`, NUL-padded; like strncpy, no NUL when 32 long. */
void put_text(unsigned char *record, size_t offset, const char *text) {
    size_t len = strnlen(text, kRecordTextSize);
    memcpy(record + offset, text, len);
    memset(record + offset + len, 0, kRecordTextSize - len);
}

const char *summary_state(int current_state) {
    if (!(current_state & SLOT_PRESENT)) return "Empty";
    if (current_state & SLOT_ACTIVE) return "Operational";
    return "Offline";
}

/* Every field but `uptime`, which keeps what the buffer held. */
void fill_summary_record(int index, int slot_id) {
    const slotInfo *slot = &g_slots_info[slot_id - 1];
    unsigned char *record = summary_record(index);
    char serial[SERIAL_NO_SIZE];
    slot_serial_get(slot_id, serial);

    put_u32(record, offsetof(ctlShowSummaryRespData, slot_id), (uint32_t)slot_id);
    put_text(record, offsetof(ctlShowSummaryRespData, serial_no), serial);
    put_text(record, offsetof(ctlShowSummaryRespData, card_type), card_type_name(slot->card_type));
    put_u32(record, offsetof(ctlShowSummaryRespData, ini_major), (uint32_t)slot->ini_info.hw_revision);
    put_u32(record, offsetof(ctlShowSummaryRespData, ini_minor), (uint32_t)slot->ini_info.minor);
    put_text(record, offsetof(ctlShowSummaryRespData, state), summary_state(slot->current_state));
    put_u32(record, offsetof(ctlShowSummaryRespData, provisioned), (uint32_t)slot->provisioned);
}

/* Fills the records the request asks for; no slot number is refused. */
bool answer_show(bool detail, ctlReply *reply) {
    uint32_t slot_no = ctl_header_of(g_ctl_resp_buf).slot_no;
    ctl_set_status(g_ctl_resp_buf, CTL_SUCCESS);
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        int index;
        if (slot_no == CTL_ALL_SLOTS)
            index = slot_id - 1;
        else if (slot_no == (uint32_t)slot_id)
            index = 0;
        else
            continue;
        fill_summary_record(index, slot_id);
        /* Logged as a line of the record's position: a single slot always
         * lands in slot 1's ring.  Kept that way on purpose. */
        if (detail) {
            const slotInfo *slot = &g_slots_info[slot_id - 1];
            CM_LOG_SLOT(LOG_LEVEL_INFO, index + 1, "INI Major = %d, INI Minor = %d\n",
                        (int)slot->ini_info.hw_revision, (int)slot->ini_info.minor);
        }
    }
    ctl_set_len(g_ctl_resp_buf, CTL_BUF_SIZE);
    CM_LOG(LOG_LEVEL_INFO, "sending response to client\n");
    reply->data = g_ctl_resp_buf;
    reply->size = CTL_BUF_SIZE;
    return true;
}

bool debug_slot_accepted(uint32_t slot_no) {
    return slot_no == CTL_ALL_SLOTS || (slot_no >= 1 && slot_no <= MAX_SLOTS_FOR_9600);
}

}  // namespace

bool ctl_show_summary(ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd SHOW_SUMMARY\n");
    return answer_show(false, reply);
}

bool ctl_show_detail(ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd SHOW_DETAIL\n");
    return answer_show(true, reply);
}

bool ctl_debug_slot(ctlReply *reply) {
    ctlCmdHeader request = ctl_header_of(g_ctl_resp_buf);
    ctlCmdHeader *header = &g_ctl_debug_cmd_resp.hdr;
    header->cmd = DEBUG_SLOT;
    header->status = CTL_SUCCESS;
    header->seq = request.seq;
    header->slot_no = request.slot_no;

    if (!debug_slot_accepted(request.slot_no)) {
        CM_LOG(LOG_LEVEL_ERR, "Bad slot(%d) received from CTL cmd\n", (int)request.slot_no);
        /* Prepared like every other bad-slot reply, but never sent: the
         * client only sees the connection close. */
        ctl_set_failure((unsigned char *)&g_ctl_debug_cmd_resp, BAD_SLOT_TEXT);
        return false;
    }

    get_json_obj_for_slots((int)request.slot_no);

    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, STATUS_DOCUMENT_PATH);
    FILE *document = fopen(path, "re");
    if (!document) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open JSON file\n");
        memset(g_ctl_debug_cmd_resp.buffer, 0, CTL_STATUS_STR_SIZE);
        memcpy(g_ctl_debug_cmd_resp.buffer, JSON_OUTPUT_ERROR_TEXT, sizeof JSON_OUTPUT_ERROR_TEXT - 1);
        reply->data = &g_ctl_debug_cmd_resp;
        reply->size = sizeof(ctlCmdHeader) + sizeof JSON_OUTPUT_ERROR_TEXT - 1;
        return true;
    }
    size_t read = fread(g_ctl_debug_cmd_resp.buffer, 1, CTL_DEBUG_BUF_SIZE - 1, document);
    fclose(document);
    reply->data = &g_ctl_debug_cmd_resp;
    reply->size = sizeof(ctlCmdHeader) + read;
    return true;
}
