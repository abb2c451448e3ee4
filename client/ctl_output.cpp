/*
 * chmgrctl: reply decoding and output formats.
 */
#include "ctl_output.h"

#include <stdlib.h>
#include <string.h>

#include "chassis_mgr.h"
#include "json.h"

namespace chmgrctl {

namespace {

constexpr size_t kRecordText = 32;

uint32_t u32_at(const unsigned char *p) {
    uint32_t value;
    memcpy(&value, p, sizeof value);
    return value;
}

/* Length of the valid UTF-8 sequence at `p`, 0 when it is not one (no
 * overlong forms, no surrogates, nothing above U+10FFFF). */
size_t utf8_length(const unsigned char *p, size_t left) {
    auto in = [](unsigned char c, unsigned char low, unsigned char high) { return c >= low && c <= high; };
    unsigned char lead = p[0];
    if (lead < 0x80) return 1;
    if (in(lead, 0xC2, 0xDF)) return left >= 2 && in(p[1], 0x80, 0xBF) ? 2 : 0;
    if (in(lead, 0xE0, 0xEF)) {
        unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return left >= 3 && in(p[1], low, high) && in(p[2], 0x80, 0xBF) ? 3 : 0;
    }
    if (in(lead, 0xF0, 0xF4)) {
        unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return left >= 4 && in(p[1], low, high) && in(p[2], 0x80, 0xBF) && in(p[3], 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

const char *yes_no(bool value) { return value ? "yes" : "no"; }

/* Seconds as "1 h 2 min 5 s". */
std::string up_time_text(JsonNode *up_time) {
    static constexpr const char *kUnits[][2] = {{"Hours", "h"}, {"Minutes", "min"}, {"Seconds", "s"}};
    std::string text;
    for (const auto &unit : kUnits) {
        JsonNode *value = json_find_member(up_time, unit[0]);
        if (!value || value->tag != JSON_NUMBER) continue;
        if (!text.empty()) text += " ";
        text += std::to_string((long long)value->number_) + " " + unit[1];
    }
    return text.empty() ? "-" : text;
}

std::string member_text(JsonNode *object, const char *name) {
    JsonNode *value = json_find_member(object, name);
    if (!value) return "-";
    switch (value->tag) {
    case JSON_STRING: return value->string_;
    case JSON_BOOL: return yes_no(value->bool_);
    case JSON_NUMBER: return std::to_string((long long)value->number_);
    default: return "-";
    }
}

/* A log line without its line feed, made safe for a terminal. */
void print_log(FILE *out, JsonNode *lines, const char *indent) {
    if (!lines || lines->tag != JSON_ARRAY || !json_first_child(lines)) {
        fprintf(out, "%s(empty)\n", indent);
        return;
    }
    for (JsonNode *line = json_first_child(lines); line; line = line->next) {
        if (line->tag != JSON_STRING) continue;
        std::string text = line->string_;
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        fprintf(out, "%s%s\n", indent, printable(text).c_str());
    }
}

void print_status_slot(FILE *out, JsonNode *slot, const char *key) {
    std::string state = member_text(slot, "STATE");
    while (!state.empty() && state.back() == ' ') state.pop_back();
    if (state.empty()) state = "none";
    JsonNode *up_time = json_find_member(slot, "Up Time");

    fprintf(out, "Slot %s\n", key + strlen("slot"));
    fprintf(out, "  State:           %s\n", printable(state).c_str());
    fprintf(out, "  Expected event:  %s\n", printable(member_text(slot, "Exp Event")).c_str());
    fprintf(out, "  Card type:       %s\n", printable(member_text(slot, "Card Type")).c_str());
    fprintf(out, "  Provisioned:     %s\n", member_text(slot, "Provisioned").c_str());
    fprintf(out, "  Disabled:        %s\n", member_text(slot, "Disabled").c_str());
    fprintf(out, "  Serial no:       %s\n", printable(member_text(slot, "Serial No")).c_str());
    fprintf(out, "  Up time:         %s\n", up_time ? up_time_text(up_time).c_str() : "-");
    fprintf(out, "  Log:\n");
    print_log(out, json_find_member(slot, "Log"), "    ");
}

}  // namespace

std::string field_text(const unsigned char *field, size_t size) {
    return std::string((const char *)field, strnlen((const char *)field, size));
}

std::string printable(const std::string &text) {
    std::string out = text;
    for (char &c : out)
        if ((unsigned char)c < 0x20 || c == 0x7F) c = '?';
    return out;
}

std::string valid_utf8(const std::string &text) {
    std::string out;
    const unsigned char *p = (const unsigned char *)text.data();
    size_t left = text.size();
    while (left > 0) {
        size_t length = *p ? utf8_length(p, left) : 0;
        if (length == 0) {
            out += '?';
            length = 1;
        } else {
            out.append((const char *)p, length);
        }
        p += length;
        left -= length;
    }
    return out;
}

bool decode_summary(const std::vector<unsigned char> &reply, uint32_t slot_no, std::vector<SlotSummary> *slots,
                    std::string *error) {
    if (reply.size() < CTL_BUF_SIZE) {
        *error = "short reply from chassis-mgr (" + std::to_string(reply.size()) + " of " +
                 std::to_string(CTL_BUF_SIZE) + " bytes)";
        return false;
    }
    size_t count = slot_no == CTL_ALL_SLOTS ? MAX_SLOTS_FOR_9600 : 1;
    slots->clear();
    for (size_t index = 0; index < count; ++index) {
        const unsigned char *record = reply.data() + offsetof(ctlShowSummaryResp, show_summary_data) +
                                      index * sizeof(ctlShowSummaryRespData);
        SlotSummary slot;
        slot.slot = u32_at(record + offsetof(ctlShowSummaryRespData, slot_id));
        slot.serial_no = field_text(record + offsetof(ctlShowSummaryRespData, serial_no), kRecordText);
        slot.card_type = field_text(record + offsetof(ctlShowSummaryRespData, card_type), kRecordText);
        slot.ini_major = (int32_t)u32_at(record + offsetof(ctlShowSummaryRespData, ini_major));
        slot.ini_minor = (int32_t)u32_at(record + offsetof(ctlShowSummaryRespData, ini_minor));
        slot.state = field_text(record + offsetof(ctlShowSummaryRespData, state), kRecordText);
        slot.provisioned = u32_at(record + offsetof(ctlShowSummaryRespData, provisioned)) != 0;
        uint32_t expected = slot_no == CTL_ALL_SLOTS ? (uint32_t)index + 1 : slot_no;
        if (slot.slot != expected) {
            *error = "unexpected reply from chassis-mgr (record " + std::to_string(index) + " is for slot " +
                     std::to_string(slot.slot) + ", not " + std::to_string(expected) + ")";
            return false;
        }
        slots->push_back(slot);
    }
    return true;
}

bool check_status_document(const std::string &document, std::string *error) {
    JsonNode *root = document.find('\0') == std::string::npos ? json_decode(document.c_str()) : nullptr;
    bool is_object = root && root->tag == JSON_OBJECT;
    json_delete(root);
    if (is_object) return true;
    std::string shown = printable(document.substr(0, 128));
    while (!shown.empty() && shown.back() == '?') shown.pop_back();  // the line feed of "JSON output error\n"
    *error = "chassis-mgr sent no status document" + (shown.empty() ? std::string() : ": " + shown);
    return false;
}

void print_status_document(FILE *out, const std::string &document) {
    JsonNode *root = json_decode(document.c_str());
    if (!root) return;
    fprintf(out, "Chassis: %s\n", printable(member_text(root, "chassis")).c_str());
    for (JsonNode *member = json_first_child(root); member; member = member->next) {
        if (!member->key || strncmp(member->key, "slot", 4) != 0 || member->tag != JSON_OBJECT) continue;
        fprintf(out, "\n");
        print_status_slot(out, member, member->key);
    }
    fprintf(out, "\nDaemon log:\n");
    print_log(out, json_find_member(root, "Log"), "  ");
    json_delete(root);
}

}  // namespace chmgrctl
