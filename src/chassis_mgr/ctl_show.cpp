/*
 * The read-only control commands.  SHOW_SUMMARY and SHOW_DETAIL answer with
 * one fixed 120-byte record per reported slot, written over the request
 * (in g_ctl_resp_buf on the control socket); DEBUG_SLOT rewrites
 * the status document and sends it back from g_ctl_debug_cmd_resp (on the
 * read-only socket it builds the document in memory and leaves the file
 * alone).  Slot records are read without their mutex: a reply is a
 * snapshot.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "chassis_mgr.h"
#include "ctl_serving.h"

namespace {

#define STATUS_DOCUMENT_PATH "/etc/tarnel/cm_status.json"
#define BAD_SLOT_TEXT "Bad slot received from CTL cmd"
#define JSON_OUTPUT_ERROR_TEXT "JSON output error\n"

constexpr size_t kRecordsOffset = offsetof(ctlShowSummaryResp, show_summary_data);
constexpr size_t kRecordTextSize = 32;

unsigned char *summary_record(unsigned char *msg, int index) {
    return msg + kRecordsOffset + (size_t)index * sizeof(ctlShowSummaryRespData);
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
void fill_summary_record(unsigned char *msg, int index, int slot_id) {
    const slotInfo *slot = &g_slots_info[slot_id - 1];
    unsigned char *record = summary_record(msg, index);
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

bool debug_slot_accepted(uint32_t slot_no) {
    return slot_no == CTL_ALL_SLOTS || (slot_no >= 1 && slot_no <= MAX_SLOTS_FOR_9600);
}

/* The header of a DEBUG_SLOT reply; false (and the bad-slot reply prepared,
 * though never sent: the client only sees the connection close) for a slot
 * it does not report. */
bool debug_slot_header(const unsigned char *msg, bool logged) {
    ctlCmdHeader request = ctl_header_of(msg);
    ctlCmdHeader *header = &g_ctl_debug_cmd_resp.hdr;
    header->cmd = DEBUG_SLOT;
    header->status = CTL_SUCCESS;
    header->seq = request.seq;
    header->slot_no = request.slot_no;
    if (debug_slot_accepted(request.slot_no)) return true;
    if (logged) CM_LOG(LOG_LEVEL_ERR, "Bad slot(%d) received from CTL cmd\n", (int)request.slot_no);
    ctl_set_failure((unsigned char *)&g_ctl_debug_cmd_resp, BAD_SLOT_TEXT);
    return false;
}

void debug_reply_text(const char *text, size_t length, ctlReply *reply) {
    memcpy(g_ctl_debug_cmd_resp.buffer, text, length);
    reply->data = &g_ctl_debug_cmd_resp;
    reply->size = sizeof(ctlCmdHeader) + length;
}

/* "JSON output error\n", the buffer zero-filled up to byte 151 of the reply. */
void debug_reply_error(ctlReply *reply) {
    memset(g_ctl_debug_cmd_resp.buffer, 0, CTL_STATUS_STR_SIZE);
    debug_reply_text(JSON_OUTPUT_ERROR_TEXT, sizeof JSON_OUTPUT_ERROR_TEXT - 1, reply);
}

}  // namespace

/* Fills the records the request asks for; no slot number is refused. */
bool ctl_answer_show(unsigned char *msg, bool detail, bool logged, ctlReply *reply) {
    uint32_t slot_no = ctl_header_of(msg).slot_no;
    ctl_set_status(msg, CTL_SUCCESS);
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        int index;
        if (slot_no == CTL_ALL_SLOTS)
            index = slot_id - 1;
        else if (slot_no == (uint32_t)slot_id)
            index = 0;
        else
            continue;
        fill_summary_record(msg, index, slot_id);
        /* Logged as a line of the record's position: a single slot always
         * lands in slot 1's ring.  Kept that way on purpose. */
        if (detail && logged) {
            const slotInfo *slot = &g_slots_info[slot_id - 1];
            CM_LOG_SLOT(LOG_LEVEL_INFO, index + 1, "INI Major = %d, INI Minor = %d\n",
                        (int)slot->ini_info.hw_revision, (int)slot->ini_info.minor);
        }
    }
    ctl_set_len(msg, CTL_BUF_SIZE);
    if (logged) CM_LOG(LOG_LEVEL_INFO, "sending response to client\n");
    reply->data = msg;
    reply->size = CTL_BUF_SIZE;
    return true;
}

bool ctl_answer_debug_slot(const unsigned char *msg, ctlReply *reply) {
    if (!debug_slot_header(msg, true)) return false;
    int slot_no = (int)ctl_header_of(msg).slot_no;
    get_json_obj_for_slots(slot_no);

    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, STATUS_DOCUMENT_PATH);
    FILE *document = fopen(path, "re");
    if (!document) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open JSON file\n");
        debug_reply_error(reply);
        return true;
    }
    size_t read = fread(g_ctl_debug_cmd_resp.buffer, 1, CTL_DEBUG_BUF_SIZE - 1, document);
    fclose(document);
    reply->data = &g_ctl_debug_cmd_resp;
    reply->size = sizeof(ctlCmdHeader) + read;
    return true;
}

/* The same reply, the document built in memory: the file is neither
 * rewritten nor read, and nothing is logged. */
bool ctl_answer_debug_slot_from_memory(const unsigned char *msg, ctlReply *reply) {
    if (!debug_slot_header(msg, false)) return false;
    char *text = status_document_text((int)ctl_header_of(msg).slot_no);
    debug_reply_text(text, strnlen(text, CTL_DEBUG_BUF_SIZE - 1), reply);
    free(text);
    return true;
}

namespace {

bool show_summary_in(unsigned char *msg, ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd SHOW_SUMMARY\n");
    return ctl_answer_show(msg, false, true, reply);
}

bool show_detail_in(unsigned char *msg, ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd SHOW_DETAIL\n");
    return ctl_answer_show(msg, true, true, reply);
}

}  // namespace

bool ctl_handle_read_in(unsigned char *msg, ctlReply *reply) {
    switch (ctl_header_of(msg).cmd) {
    case SHOW_SUMMARY: return show_summary_in(msg, reply);
    case SHOW_DETAIL: return show_detail_in(msg, reply);
    case DEBUG_SLOT: return ctl_answer_debug_slot(msg, reply);
    default: return false;  // maintenance or unknown code: closed without a reply or a log line
    }
}

bool ctl_show_summary(ctlReply *reply) { return show_summary_in(g_ctl_resp_buf, reply); }
bool ctl_show_detail(ctlReply *reply) { return show_detail_in(g_ctl_resp_buf, reply); }
bool ctl_debug_slot(ctlReply *reply) { return ctl_answer_debug_slot(g_ctl_resp_buf, reply); }
