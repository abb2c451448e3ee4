/*
 * The status document "/etc/tarnel/cm_status.json": the chassis, the
 * daemon-wide log ring and, per reported slot, its state, the event it
 * waits for, its card, its flags, its up time and its own log ring.  It is
 * rewritten whole on every DEBUG_SLOT request and every debug trigger.
 *
 * Slot records and rings are read without any slot lock: the document is a
 * snapshot that may mix values of a transition in progress.
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "chassis_mgr.h"
#include "durable_file.h"
#include "json.h"

namespace {

#define STATUS_DOCUMENT_PATH "/etc/tarnel/cm_status.json"
#define CHASSIS_NAME "KTR9600"

constexpr size_t kStateTextSize = 128;
constexpr size_t kSerialTextSize = 128;

/* Length of the valid UTF-8 sequence at `p` (0 when it is not one); the
 * same rules as the JSON encoder: no overlong forms, no surrogates,
 * nothing above U+10FFFF. */
size_t utf8_sequence_length(const unsigned char *p) {
    auto in = [](unsigned char c, unsigned char low, unsigned char high) { return c >= low && c <= high; };
    unsigned char lead = p[0];
    if (lead < 0x80) return 1;
    if (in(lead, 0xC2, 0xDF)) return in(p[1], 0x80, 0xBF) ? 2 : 0;
    if (in(lead, 0xE0, 0xEF)) {
        unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return in(p[1], low, high) && in(p[2], 0x80, 0xBF) ? 3 : 0;
    }
    if (in(lead, 0xF0, 0xF4)) {
        unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return in(p[1], low, high) && in(p[2], 0x80, 0xBF) && in(p[3], 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

/* The one byte that would break the document: the encoder escapes every
 * byte below 0x1F but writes 0x1F itself raw, which no JSON reader accepts. */
constexpr unsigned char kUnitSeparator = 0x1F;

/* A string node for `text`.  The encoder accepts only valid UTF-8, and the
 * texts shown here (card EEPROM serials, log lines cut at 511 bytes) may
 * hold anything: each byte that does not start a valid sequence becomes '?',
 * and so does 0x1F.  Every other byte keeps the encoder's form: the control
 * bytes below 0x1F their escapes, DEL and the rest as they are.  Every text
 * shown is shorter than a log line. */
JsonNode *make_text(const char *text) {
    const char *scan = text;
    while (*scan && (unsigned char)*scan < 0x80 && (unsigned char)*scan != kUnitSeparator) ++scan;
    if (!*scan) return json_mkstring(text);  // plain text, the usual case

    char clean[LOG_LINE_SIZE];
    const unsigned char *in = (const unsigned char *)text;
    size_t out = 0;
    while (*in && out < sizeof clean - 1) {
        size_t length = *in == kUnitSeparator ? 0 : utf8_sequence_length(in);
        if (length == 0 || out + length > sizeof clean - 1) {
            clean[out++] = '?';
            ++in;
            continue;
        }
        memcpy(clean + out, in, length);
        out += length;
        in += length;
    }
    clean[out] = '\0';
    return json_mkstring(clean);
}

JsonNode *make_ring(int ring) {
    char lines[LOG_RING_LINES][LOG_LINE_SIZE];  // 12.5 KiB; the control and debug threads both build reports
    JsonNode *array = json_mkarray();
    int count = log_ring_copy(ring, lines, LOG_RING_LINES);
    for (int i = 0; i < count; ++i) {
        lines[i][LOG_LINE_SIZE - 1] = '\0';
        json_append_element(array, make_text(lines[i]));
    }
    return array;
}

/* "SLOT_PRESENT |SLOT_VERIFIED |...", then "ERR" when stuck, then a blank. */
void state_text(char *out, size_t size, int current_state, int in_err_state) {
    static constexpr struct {
        int bit;
        const char *text;
    } kBits[] = {
        {SLOT_PRESENT, "SLOT_PRESENT |"}, {SLOT_VERIFIED, "SLOT_VERIFIED |"}, {SLOT_SYNCED, "SLOT_SYNCED |"},
        {SLOT_POWERED, "SLOT_POWERED |"}, {SLOT_READY, "SLOT_READY |"},       {SLOT_ACTIVE, "SLOT_ACTIVE |"},
    };
    out[0] = '\0';
    for (const auto &entry : kBits)
        if (current_state & entry.bit) strncat(out, entry.text, size - strlen(out) - 1);
    if (in_err_state) strncat(out, "ERR", size - strlen(out) - 1);
    strncat(out, " ", size - strlen(out) - 1);
}

JsonNode *make_up_time(int slot_id) {
    struct timeval now;
    if (gettimeofday(&now, nullptr) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to gettimeofday");
        now.tv_sec = 0;
    }
    long long elapsed = (long long)now.tv_sec - (long long)slot_uptime_get(slot_id).tv_sec;
    JsonNode *up_time = json_mkobject();
    json_append_member(up_time, "Hours", json_mknumber((double)(elapsed / 3600)));
    json_append_member(up_time, "Minutes", json_mknumber((double)((elapsed % 3600) / 60)));
    json_append_member(up_time, "Seconds", json_mknumber((double)((elapsed % 3600) % 60)));
    return up_time;
}

JsonNode *make_slot(int slot_id) {
    const slotInfo *slot = &g_slots_info[slot_id - 1];
    int current_state = slot->current_state;
    JsonNode *object = json_mkobject();

    json_append_member(object, "SLOT", json_mknumber(slot->slot_id));

    char state[kStateTextSize];
    state_text(state, sizeof state, current_state, slot->in_err_state);
    json_append_member(object, "STATE", make_text(state));
    json_append_member(object, "Exp Event", json_mkstring(slot_event_name(slot->trans_timer.state_monitored)));
    json_append_member(object, "Card Type", json_mkstring(card_type_name(slot->card_type)));
    json_append_member(object, "Provisioned", json_mkbool(slot->provisioned != 0));
    json_append_member(object, "Disabled", json_mkbool(slot->disabled != 0));

    char serial[SERIAL_NO_SIZE];
    slot_serial_get(slot_id, serial);
    char serial_text[kSerialTextSize];
    snprintf(serial_text, sizeof serial_text, "%.*s", SERIAL_NO_SIZE, serial);  // may fill all 32 bytes
    json_append_member(object, "Serial No", make_text(serial_text));

    if (current_state & SLOT_ACTIVE) json_append_member(object, "Up Time", make_up_time(slot_id));
    json_append_member(object, "Log", make_ring(slot_id));
    return object;
}

bool slot_reported(int requested, int slot_id) { return requested == CTL_ALL_SLOTS || requested == slot_id; }

}  // namespace

char *status_document_text(int slot_id) {
    JsonNode *root = json_mkobject();
    json_append_member(root, "chassis", json_mkstring(CHASSIS_NAME));
    json_append_member(root, "Log", make_ring(0));
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) {
        if (!slot_reported(slot_id, slot)) continue;
        char key[16];
        snprintf(key, sizeof key, "slot%d", slot);
        json_append_member(root, key, make_slot(slot));
    }
    char *text = json_stringify(root, "\t");
    json_delete(root);
    return text;
}

int get_json_obj_for_slots(int slot_id) {
    char *text = status_document_text(slot_id);

    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, STATUS_DOCUMENT_PATH);
    /* Rewritten in place, so it keeps its mode and owner; flushed to the
     * disk before the reply, so a document read after a power cut is
     * whole. */
    int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, DURABLE_NEW_FILE_MODE);
    FILE *file = fd >= 0 ? fdopen(fd, "w+") : nullptr;
    if (!file) {
        if (fd >= 0) close(fd);
        free(text);
        return 0;
    }
    fputs(text, file);
    durable_flush(file);
    fclose(file);
    durable_sync_parent_dir(path);
    int length = (int)strlen(text);
    free(text);
    return length;
}
