/*
 * chmgrctl: the common JSON form (see ctl_json.h).
 */
#include "ctl_json.h"

#include <stdlib.h>
#include <string.h>

#include "chassis_mgr.h"
#include "ctl_output.h"
#include "json.h"

namespace chmgrctl {

namespace {

/* The status document's member names and theirs in the common form. */
struct KeyName {
    const char *daemon;
    const char *common;
};

/* The daemon's word for "not known" or "nothing": null in the common form. */
bool is_none(const char *text) { return strcmp(text, "none") == 0; }

JsonNode *copy_scalar(JsonNode *value) {
    switch (value->tag) {
    case JSON_STRING: return json_text(value->string_);
    case JSON_NUMBER: return json_mknumber(value->number_);
    case JSON_BOOL: return json_mkbool(value->bool_);
    default: return json_mknull();
    }
}

std::string without_line_feed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

JsonNode *log_array(JsonNode *lines) {
    JsonNode *array = json_mkarray();
    if (!lines || lines->tag != JSON_ARRAY) return array;
    for (JsonNode *line = json_first_child(lines); line; line = line->next)
        if (line->tag == JSON_STRING) json_append_element(array, json_text(without_line_feed(line->string_)));
    return array;
}

/* The up time in seconds, null when the slot reports none (not active). */
JsonNode *up_time_seconds(JsonNode *up_time) {
    if (!up_time || up_time->tag != JSON_OBJECT) return json_mknull();
    static constexpr struct {
        const char *name;
        double seconds;
    } kUnits[] = {{"Hours", 3600}, {"Minutes", 60}, {"Seconds", 1}};
    double total = 0;
    for (const auto &unit : kUnits) {
        JsonNode *value = json_find_member(up_time, unit.name);
        total += (value && value->tag == JSON_NUMBER ? value->number_ : 0) * unit.seconds;
    }
    return json_mknumber(total);
}

JsonNode *member_or_null(JsonNode *slot, const char *name, JsonTag tag) {
    JsonNode *value = json_find_member(slot, name);
    if (!value || value->tag != tag) return json_mknull();
    if (tag == JSON_STRING) return is_none(value->string_) ? json_mknull() : json_text(value->string_);
    return copy_scalar(value);
}

/* One slot of the status document in the words show uses for the same
 * facts: awaited_event, admin_state, stuck, up_time_seconds; null where the
 * daemon says "none". */
JsonNode *translate_slot(JsonNode *slot) {
    JsonNode *object = json_mkobject();
    json_append_member(object, "slot", member_or_null(slot, "SLOT", JSON_NUMBER));
    JsonNode *state = json_find_member(slot, "STATE");
    std::string text = state && state->tag == JSON_STRING ? state->string_ : "";
    while (!text.empty() && text.back() == ' ') text.pop_back();  // the state text without its final blank
    json_append_member(object, "state", state && state->tag == JSON_STRING ? json_text(text) : json_mknull());
    json_append_member(object, "awaited_event", member_or_null(slot, "Exp Event", JSON_STRING));
    json_append_member(object, "card_type", member_or_null(slot, "Card Type", JSON_STRING));
    json_append_member(object, "provisioned", member_or_null(slot, "Provisioned", JSON_BOOL));
    JsonNode *disabled = json_find_member(slot, "Disabled");
    json_append_member(object, "admin_state", disabled && disabled->tag == JSON_BOOL
                                                  ? json_mkstring(disabled->bool_ ? "disabled" : "enabled")
                                                  : json_mknull());
    json_append_member(object, "serial_no", member_or_null(slot, "Serial No", JSON_STRING));
    json_append_member(object, "stuck", json_mkbool(text.find("ERR") != std::string::npos));
    json_append_member(object, "up_time_seconds", up_time_seconds(json_find_member(slot, "Up Time")));
    json_append_member(object, "log", log_array(json_find_member(slot, "Log")));
    return object;
}

JsonNode *text_or_null(const std::string &text) { return text.empty() ? json_mknull() : json_text(text); }

}  // namespace

JsonNode *schema_object(const char *command) {
    JsonNode *root = json_mkobject();
    json_append_member(root, "schema_version", json_mknumber(kSchemaVersion));
    json_append_member(root, "command", json_mkstring(command));
    return root;
}

void print_json(FILE *out, const JsonNode *root, bool one_line) {
    char *text = one_line ? json_encode(root) : json_stringify(root, "  ");
    fprintf(out, "%s\n", text);
    free(text);
    fflush(out);
}

JsonNode *json_text(const std::string &text) {
    /* The encoder writes byte 0x1F raw, which no JSON reader accepts: shown
     * as '?', as the daemon does in its own document. */
    std::string valid = valid_utf8(text);
    for (char &c : valid)
        if (c == 0x1F) c = '?';
    return json_mkstring(valid.c_str());
}

void print_admin_json(FILE *out, const char *command, uint32_t slot_no, const std::vector<AdminResult> &results) {
    JsonNode *root = schema_object(command);
    json_append_member(root, "slot", slot_no == CTL_ALL_SLOTS ? json_mkstring("all") : json_mknumber(slot_no));
    int32_t status = 0;
    JsonNode *array = json_mkarray();
    for (const AdminResult &result : results) {
        if (status == 0) status = result.status;
        JsonNode *object = json_mkobject();
        json_append_member(object, "slot", json_mknumber(result.slot));
        json_append_member(object, "status", json_mknumber(result.status));
        if (!result.message.empty()) json_append_member(object, "message", json_text(result.message));
        if (!result.warning.empty()) json_append_member(object, "warning", json_text(result.warning));
        json_append_element(array, object);
    }
    json_append_member(root, "status", json_mknumber(status));
    json_append_member(root, "results", array);
    print_json(out, root);
    json_delete(root);
}

JsonNode *slot_view_json(const SlotView &view) {
    JsonNode *object = json_mkobject();
    json_append_member(object, "slot", json_mknumber(view.slot));
    json_append_member(object, "oper_state", json_text(view.oper_state));
    json_append_member(object, "admin_state", json_mkstring(view.disabled ? "disabled" : "enabled"));
    json_append_member(object, "stage", view.stage == STAGE_NONE ? json_mknull() : json_mkstring(stage_name(view.stage)));
    json_append_member(object, "stuck", json_mkbool(view.stuck));
    json_append_member(object, "awaited_event",
                       view.awaited_event == "none" ? json_mknull() : text_or_null(view.awaited_event));
    json_append_member(object, "provisioned", json_mkbool(view.provisioned));
    json_append_member(object, "provisioned_type",
                       view.provisioned_type == "C4" || view.provisioned_type == "C16"
                           ? json_mkstring(view.provisioned_type.c_str())
                           : json_mknull());
    json_append_member(object, "card_type", short_card_type(view.card_type) == "none" ? json_mknull()
                                                                                      : json_text(view.card_type));
    json_append_member(object, "part_number", text_or_null(view.part_number));
    json_append_member(object, "serial_no", !(view.stage_bits & 1u) || view.serial_no == "none"
                                                ? json_mknull()
                                                : json_text(view.serial_no));
    json_append_member(object, "hw_revision", json_mknumber(view.hw_revision));
    json_append_member(object, "ini_minor", json_mknumber(view.ini_minor));
    json_append_member(object, "ports", json_mknumber(view.ports));
    json_append_member(object, "up_time_seconds", view.up_time_s < 0 ? json_mknull() : json_mknumber((double)view.up_time_s));
    json_append_member(object, "reason", text_or_null(view.reason));
    return object;
}

JsonNode *translate_status_document(JsonNode *document) {
    if (!document || document->tag != JSON_OBJECT) return nullptr;
    JsonNode *root = schema_object("status");
    JsonNode *chassis = json_find_member(document, "chassis");
    json_append_member(root, "chassis", chassis && chassis->tag == JSON_STRING ? json_text(chassis->string_) : json_mknull());
    json_append_member(root, "log", log_array(json_find_member(document, "Log")));
    JsonNode *slots = json_mkarray();
    for (JsonNode *member = json_first_child(document); member; member = member->next)
        if (member->key && strncmp(member->key, "slot", 4) == 0 && member->tag == JSON_OBJECT)
            json_append_element(slots, translate_slot(member));
    json_append_member(root, "slots", slots);
    return root;
}

}  // namespace chmgrctl
