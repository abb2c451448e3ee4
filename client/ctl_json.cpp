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
constexpr KeyName kSlotKeys[] = {
    {"SLOT", "slot"},         {"STATE", "state"},       {"Exp Event", "exp_event"}, {"Card Type", "card_type"},
    {"Provisioned", "provisioned"}, {"Disabled", "disabled"}, {"Serial No", "serial_no"},
};

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

JsonNode *up_time_object(JsonNode *up_time) {
    if (!up_time || up_time->tag != JSON_OBJECT) return json_mknull();
    JsonNode *object = json_mkobject();
    static constexpr KeyName kUnits[] = {{"Hours", "hours"}, {"Minutes", "minutes"}, {"Seconds", "seconds"}};
    for (const KeyName &unit : kUnits) {
        JsonNode *value = json_find_member(up_time, unit.daemon);
        json_append_member(object, unit.common, json_mknumber(value && value->tag == JSON_NUMBER ? value->number_ : 0));
    }
    return object;
}

JsonNode *translate_slot(JsonNode *slot) {
    JsonNode *object = json_mkobject();
    for (const KeyName &key : kSlotKeys) {
        JsonNode *value = json_find_member(slot, key.daemon);
        JsonNode *copy = value ? copy_scalar(value) : json_mknull();
        if (key.daemon == kSlotKeys[1].daemon && copy->tag == JSON_STRING) {
            std::string text = copy->string_;  // the state text without its final blank
            while (!text.empty() && text.back() == ' ') text.pop_back();
            json_delete(copy);
            copy = json_text(text);
        }
        json_append_member(object, key.common, copy);
    }
    JsonNode *state = json_find_member(slot, "STATE");
    bool error = state && state->tag == JSON_STRING && strstr(state->string_, "ERR");
    json_append_member(object, "error", json_mkbool(error));
    json_append_member(object, "up_time", up_time_object(json_find_member(slot, "Up Time")));
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
    json_append_member(object, "awaited_event", text_or_null(view.awaited_event));
    json_append_member(object, "provisioned", json_mkbool(view.provisioned));
    json_append_member(object, "provisioned_type",
                       view.provisioned_type == "C4" || view.provisioned_type == "C16"
                           ? json_mkstring(view.provisioned_type.c_str())
                           : json_mknull());
    json_append_member(object, "card_type", json_text(view.card_type));
    json_append_member(object, "serial_no", json_text(view.serial_no));
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
