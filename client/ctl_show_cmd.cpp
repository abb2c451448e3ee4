/*
 * chmgrctl: show, detail and status.  show and detail combine the daemon's
 * show records with its status document (state bits, awaited event, up
 * time, the slot's recent log) into one line or one block per slot.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "chassis_mgr.h"
#include "ctl_client.h"
#include "ctl_json.h"
#include "ctl_output.h"
#include "ctl_request.h"
#include "ctl_slot_view.h"
#include "json.h"

namespace chmgrctl {

namespace {

std::string stage_text(const SlotView &view) {
    std::string stage = stage_name(view.stage);
    return view.stuck ? "stuck at " + stage : stage;
}

std::string dash_if_empty(const std::string &text) { return text.empty() ? "-" : text; }

/* The columns of a table; `wide` ones appear only with --wide. */
struct Column {
    const char *title;
    bool wide;
    std::string (*text)(const SlotView &);
};

const Column kColumns[] = {
    {"SLOT", false, [](const SlotView &v) { return std::to_string(v.slot); }},
    {"STATE", false, [](const SlotView &v) { return v.oper_state; }},
    {"ADMIN", false, [](const SlotView &v) { return std::string(v.disabled ? "disabled" : "enabled"); }},
    {"STAGE", false, [](const SlotView &v) { return stage_text(v); }},
    {"AWAITING", true, [](const SlotView &v) { return dash_if_empty(v.awaited_event); }},
    {"PROV", true, [](const SlotView &v) { return v.provisioned_type; }},
    {"CARD", false, [](const SlotView &v) { return short_card_type(v.card_type) == "none" && v.oper_state == "Empty"
                                                       ? std::string("-") : short_card_type(v.card_type); }},
    {"SERIAL", false, [](const SlotView &v) { return v.serial_no; }},
    {"HW REV", true, [](const SlotView &v) { return std::to_string(v.hw_revision); }},
    {"PORTS", true, [](const SlotView &v) { return v.ports ? std::to_string(v.ports) : std::string("-"); }},
    {"UP TIME", false, [](const SlotView &v) { return duration_text(v.up_time_s); }},
    {"REASON", true, [](const SlotView &v) { return dash_if_empty(v.reason); }},
};

void print_table(const std::vector<SlotView> &views, bool wide) {
    std::vector<const Column *> columns;
    for (const Column &column : kColumns)
        if (wide || !column.wide) columns.push_back(&column);
    std::vector<size_t> widths;
    for (const Column *column : columns) {
        size_t width = strlen(column->title);
        for (const SlotView &view : views) width = std::max(width, printable(column->text(view)).size());
        widths.push_back(width);
    }
    std::string line;
    for (size_t i = 0; i < columns.size(); ++i) {
        std::string cell = columns[i]->title;
        line += i + 1 < columns.size() ? cell + std::string(widths[i] - cell.size() + 2, ' ') : cell;
    }
    printf("%s\n", line.c_str());
    for (const SlotView &view : views) {
        line.clear();
        for (size_t i = 0; i < columns.size(); ++i) {
            std::string cell = printable(columns[i]->text(view));
            line += i + 1 < columns.size() ? cell + std::string(widths[i] - cell.size() + 2, ' ') : cell;
        }
        printf("%s\n", line.c_str());
    }
    if (wide) return;
    bool first = true;
    for (const SlotView &view : views) {
        if (view.reason.empty()) continue;
        printf("%sslot %u: %s\n", first ? "\n" : "", view.slot, printable(view.reason).c_str());
        first = false;
    }
}

void print_blocks(const std::vector<SlotView> &views) {
    bool first = true;
    for (const SlotView &view : views) {
        if (!first) printf("\n");
        first = false;
        printf("Slot %u\n", view.slot);
        printf("  State:        %s\n", printable(view.oper_state).c_str());
        printf("  Admin state:  %s\n", view.disabled ? "disabled" : "enabled");
        printf("  Stage:        %s\n", stage_text(view).c_str());
        printf("  Awaiting:     %s\n", printable(dash_if_empty(view.awaited_event)).c_str());
        printf("  Reason:       %s\n", printable(dash_if_empty(view.reason)).c_str());
        printf("  Card type:    %s\n", printable(view.card_type).c_str());
        printf("  Serial no:    %s\n", printable(view.serial_no).c_str());
        printf("  HW revision:  %d\n", view.hw_revision);
        printf("  INI minor:    %d\n", view.ini_minor);
        printf("  Ports:        %s\n", view.ports ? std::to_string(view.ports).c_str() : "-");
        printf("  Provisioned:  %s\n", view.provisioned_type.c_str());
        printf("  Up time:      %s\n", duration_text(view.up_time_s).c_str());
    }
}

/* Each slot's provisioned speed and dirty flag in the card configuration
 * file (index slot - 1); -1 where the file says nothing. */
void read_conf_facts(SlotContext contexts[MAX_SLOTS_FOR_9600]) {
    FILE *file = fopen(default_cards_conf_path().c_str(), "re");
    if (!file) return;
    char line[256];
    while (fgets(line, sizeof line, file)) {
        int slot = 0, detected = 0, provisioned = 0, configured = 0, dirty = 0;
        int fields = sscanf(line, "%d %dG %dG %dG %d", &slot, &detected, &provisioned, &configured, &dirty);
        if (fields < 3 || slot < 1 || slot > MAX_SLOTS_FOR_9600) continue;
        contexts[slot - 1].provisioned_speed = provisioned;
        contexts[slot - 1].dirty = fields == 5 ? dirty : -1;
    }
    fclose(file);
}

/* The serial number of the card in a slot from its VPD ("SN_VPD_FIELD:
 * value"), empty when it cannot be read. */
std::string read_vpd_serial(uint32_t slot) {
    FILE *file = fopen(card_vpd_path(slot).c_str(), "re");
    if (!file) return "";
    char line[256];
    std::string serial;
    while (fgets(line, sizeof line, file)) {
        char value[64] = "";
        if (sscanf(line, "SN_VPD_FIELD: %63s", value) == 1) {
            serial = value;
            break;
        }
    }
    fclose(file);
    return serial;
}

JsonNode *document_slot(JsonNode *document, uint32_t slot) {
    std::string key = "slot" + std::to_string(slot);
    JsonNode *object = document ? json_find_member(document, key.c_str()) : nullptr;
    return object && object->tag == JSON_OBJECT ? object : nullptr;
}

}  // namespace

bool collect_slot_views(const Options &options, const Request &request, uint32_t show_code,
                        std::vector<SlotView> *views) {
    std::vector<unsigned char> reply;
    std::vector<SlotSummary> summaries;
    std::string error;
    if (!daemon_request(options, request, show_code, request.slot_no, true, &reply)) return false;
    if (!decode_summary(reply, request.slot_no, &summaries, &error)) {
        fprintf(stderr, "chmgrctl: %s\n", error.c_str());
        return false;
    }
    std::string text;
    if (!daemon_request(options, request, DEBUG_SLOT, request.slot_no, true, &reply) ||
        !reply_document(reply, &text))
        return false;
    JsonNode *document = json_decode(text.c_str());
    SlotContext contexts[MAX_SLOTS_FOR_9600];
    read_conf_facts(contexts);
    std::vector<std::string> daemon_log = document_daemon_log(document);
    views->clear();
    for (const SlotSummary &summary : summaries) {
        SlotView view;
        SlotContext &context = contexts[summary.slot - 1];
        context.daemon_log = daemon_log;
        if (short_card_type(summary.card_type) == "none" && summary.state != "Empty")
            context.vpd_serial = read_vpd_serial(summary.slot);
        build_slot_view(&summary, document_slot(document, summary.slot), context, &view);
        views->push_back(view);
    }
    json_delete(document);
    return true;
}

int run_show(const Options &options, const Request &request) {
    std::vector<SlotView> views;
    if (!collect_slot_views(options, request, request.info->code, &views)) return EXIT_NO_ANSWER;
    if (options.json) {
        JsonNode *root = schema_object(request.info->name);
        JsonNode *array = json_mkarray();
        for (const SlotView &view : views) json_append_element(array, slot_view_json(view));
        json_append_member(root, "slots", array);
        print_json(stdout, root);
        json_delete(root);
    } else if (request.info->code == SHOW_DETAIL) {
        print_blocks(views);
    } else {
        print_table(views, options.wide);
    }
    return EXIT_DONE;
}

int run_status(const Options &options, const Request &request) {
    std::vector<unsigned char> reply;
    std::string document;
    if (!daemon_request(options, request, DEBUG_SLOT, request.slot_no, true, &reply)) return EXIT_NO_ANSWER;
    if (reply_status(reply) != CTL_SUCCESS) {
        fprintf(stderr, "chmgrctl: status %s failed: status %d\n", slot_label(request.slot_no).c_str(),
                (int)reply_status(reply));
        return EXIT_REFUSED;
    }
    if (!reply_document(reply, &document)) return EXIT_REFUSED;
    if (options.json && options.raw) {
        fputs(document.c_str(), stdout);
        if (document.back() != '\n') fputc('\n', stdout);
    } else if (options.json) {
        JsonNode *parsed = json_decode(document.c_str());
        JsonNode *root = translate_status_document(parsed);
        print_json(stdout, root);
        json_delete(root);
        json_delete(parsed);
    } else {
        print_status_document(stdout, document);
    }
    return EXIT_DONE;
}

}  // namespace chmgrctl
