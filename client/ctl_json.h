/*
 * chmgrctl: the one JSON form of every command's --json output.  Every
 * object printed carries "schema_version" and "command"; keys are
 * snake_case, numbers are numbers, log lines have no line feed.  The form
 * is described by docs/chmgrctl.schema.json.
 */
#ifndef CHMGRCTL_CTL_JSON_H
#define CHMGRCTL_CTL_JSON_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "ctl_slot_view.h"

struct JsonNode;

namespace chmgrctl {

constexpr int kSchemaVersion = 2;

/* {"schema_version": 1, "command": COMMAND}, to be completed by the caller. */
JsonNode *schema_object(const char *command);

/* Indented with two blanks (or on one line when `one_line`), with a final line feed. */
void print_json(FILE *out, const JsonNode *root, bool one_line = false);

/* A text made valid for the JSON encoder (see valid_utf8), 0x1F shown as '?'. */
JsonNode *json_text(const std::string &text);

/* The outcome of an administration command for one slot. */
struct AdminResult {
    uint32_t slot = 0;
    int32_t status = 0;
    std::string message;  // the daemon's reason for a failure
    std::string warning;  // a failed step of an un-provisioning that still succeeded
};
void print_admin_json(FILE *out, const char *command, uint32_t slot_no, const std::vector<AdminResult> &results);

/* A slot as show and detail print it. */
JsonNode *slot_view_json(const SlotView &view);

/* The daemon's status document in the common form; null when `document`
 * is not an object. */
JsonNode *translate_status_document(JsonNode *document);

}  // namespace chmgrctl

#endif /* CHMGRCTL_CTL_JSON_H */
