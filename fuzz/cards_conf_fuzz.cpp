/*
 * Feeds arbitrary file contents through the cards.conf start-up load, the
 * query and each of the four writers, in a sandbox root, and checks what
 * they leave behind:
 *  - every data line the daemon wrote reads back into the same fields and
 *    formats to the same bytes, and fits the readers' 256-byte buffer;
 *  - the load writes data lines only, for slots 1 to 8, clean and "Offline";
 *  - update_cards_conf replaces exactly the slot's lines (or adds one) and
 *    passes every other line through unchanged;
 *  - the single-field writers keep "#" lines unchanged, write the one field
 *    they own, and a second run changes nothing but drop the lines written
 *    with a negative slot number (a data line starts with a digit);
 *  - the slot records only ever take their documented values.
 * Any violation aborts with a message on standard error.
 */
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <string_view>
#include <vector>

#include "cards_conf_line.h"
#include "chassis_mgr.h"
#include "fuzz_sandbox.h"

namespace {

std::string g_conf_path;

void fail(const char *what, std::string_view detail) {
    fprintf(stderr, "cards_conf_fuzz: %s: [%.*s]\n", what, (int)detail.size(), detail.data());
    abort();
}

void check(bool ok, const char *what, std::string_view detail = {}) {
    if (!ok) fail(what, detail);
}

void write_conf(std::string_view content) {
    FILE *file = fopen(g_conf_path.c_str(), "w");
    if (!file) fail("cannot write cards.conf", g_conf_path);
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
}

std::string read_conf() {
    std::string content;
    FILE *file = fopen(g_conf_path.c_str(), "r");
    if (!file) fail("cards.conf missing after a rewrite", g_conf_path);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, file)) > 0) content.append(buf, n);
    fclose(file);
    return content;
}

std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string_view::npos ? text.size() : end + 1;
        lines.emplace_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

/* A line as the daemon writes it: seven fields that format to the same bytes. */
bool parses_back(std::string_view line, cardsConfEntry *entry) {
    if (line.size() >= CARDS_CONF_LINE_SIZE || line.empty() || line.back() != '\n') return false;
    if (cards_conf_line_text(line).size() != line.size()) return false;
    if (cards_conf_parse_line(line, entry) != CARDS_CONF_LINE_OK) return false;
    char again[CARDS_CONF_LINE_SIZE];
    size_t length = cards_conf_format_line(entry, again);
    return std::string_view(again, length) == line;
}

long leading_number(std::string_view line) { return cards_conf_number(cards_conf_line_text(line)).value; }

uint64_t fnv1a(const uint8_t *data, size_t size) {
    uint64_t hash = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) hash = (hash ^ data[i]) * 1099511628211ull;
    return hash;
}

struct Params {
    int slot_id;
    int detected, provisioned, configured, dirty, online, admin;
    uint64_t bits;
    int pick(const int *values, int count) {
        int value = values[bits % (uint64_t)count];
        bits /= (uint64_t)count;
        return value;
    }
};

Params params_from(const uint8_t *data, size_t size) {
    static const int kSpeeds[] = {0, 100, 200, 400, -1, INT_MAX, INT_MIN, 7};
    static const int kFlags[] = {0, 1, 2, -1};
    Params p{};
    p.bits = fnv1a(data, size);
    p.slot_id = (int)(p.bits % 8) + 1;
    p.bits /= 8;
    p.detected = p.pick(kSpeeds, 8);
    p.provisioned = p.pick(kSpeeds, 8);
    p.configured = p.pick(kSpeeds, 8);
    p.dirty = p.pick(kFlags, 4);
    p.online = p.pick(kFlags, 4);
    p.admin = p.pick(kFlags, 4);
    return p;
}

void reset_records() {
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        g_slots_info[i].disabled = 0;
        g_slots_info[i].provisioned = 0;
        g_slots_info[i].provisioned_type = 0;
        g_slots_info[i].card_type = 0;
    }
}

void check_load(std::string_view input) {
    reset_records();
    write_conf(input);
    check(update_info_from_cards_conf(), "load failed");
    std::vector<std::string> lines = split_lines(read_conf());
    check(lines.size() <= split_lines(input).size(), "load added lines");
    for (const std::string &line : lines) {
        cardsConfEntry entry;
        check(parses_back(line, &entry), "load wrote a line that does not parse back", line);
        check(entry.slot_id >= 1 && entry.slot_id <= 8, "load kept a slot outside 1 to 8", line);
        check(entry.dirty_flag == 0 && entry.state == "Offline", "load kept a dirty or online line", line);
    }
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        const slotInfo &slot = g_slots_info[i];
        check(slot.disabled == 0 || slot.disabled == 1, "disabled out of range");
        check(slot.provisioned == 0 || slot.provisioned == 1, "provisioned out of range");
        check(slot.provisioned_type == 0 || slot.provisioned_type == 1 || slot.provisioned_type == 3,
              "provisioned_type out of range");
        check(slot.card_type == 0 || slot.card_type == 1 || slot.card_type == 3, "card_type out of range");
    }
}

/* The lines of `lines` whose leading number is not `slot_id`. */
std::vector<std::string> other_lines(const std::vector<std::string> &lines, int slot_id) {
    std::vector<std::string> out;
    for (const std::string &line : lines)
        if (leading_number(line) != slot_id) out.push_back(line);
    return out;
}

void check_update(std::string_view input, const Params &p) {
    write_conf(input);
    check(update_cards_conf(p.slot_id, p.detected, p.provisioned, p.configured, p.dirty, p.online, p.admin),
          "update failed");
    std::string first = read_conf();
    cardsConfEntry expected = {p.slot_id,
                               p.detected,
                               p.provisioned,
                               p.configured,
                               p.dirty,
                               p.online == 1 ? "Online" : "Offline",
                               p.admin == 1 ? "disable" : "enable"};
    char new_line[CARDS_CONF_LINE_SIZE];
    std::string_view new_text(new_line, cards_conf_format_line(&expected, new_line));
    cardsConfEntry parsed;
    check(parses_back(new_text, &parsed), "new line does not parse back", new_text);
    std::vector<std::string> out_lines = split_lines(first);
    int own = 0;
    for (const std::string &line : out_lines) {
        if (leading_number(line) != p.slot_id) continue;
        check(line == new_text, "a line of the slot was not replaced", line);
        ++own;
    }
    check(own >= 1, "update wrote no line for the slot");
    std::vector<std::string> before = other_lines(split_lines(input), p.slot_id);
    std::vector<std::string> after = other_lines(out_lines, p.slot_id);
    check(before.size() == after.size(), "update changed the number of other lines");
    for (size_t i = 0; i < before.size(); ++i) {
        bool same = before[i] == after[i] || (i + 1 == before.size() && before[i] + "\n" == after[i]);
        check(same, "update changed another line", after[i]);
    }
    check(update_cards_conf(p.slot_id, p.detected, p.provisioned, p.configured, p.dirty, p.online, p.admin),
          "second update failed");
    check(read_conf() == first, "a second identical update changed the file");
}

enum class Writer { disable, online, clear };

bool run_writer(Writer writer, const Params &p) {
    switch (writer) {
    case Writer::disable: return cards_conf_disable_slot(p.slot_id, p.admin);
    case Writer::online: return cards_conf_set_slot_online(p.slot_id, p.online);
    case Writer::clear: return cards_conf_clear_dirty_bits();
    }
    return false;
}

/* The file as the next single-field run keeps it: "-" lines are dropped. */
std::string without_negative_slots(const std::string &text) {
    std::string kept;
    for (const std::string &line : split_lines(text))
        if (line[0] != '-') kept += line;
    return kept;
}

void check_field_writer(std::string_view input, Writer writer, const Params &p) {
    write_conf(input);
    check(run_writer(writer, p), "single-field writer failed");
    std::string first = read_conf();
    std::vector<std::string> in_lines = split_lines(input);
    for (const std::string &line : split_lines(first)) {
        if (line[0] == '#') {
            bool found = false;
            for (const std::string &in : in_lines) found = found || in == line;
            check(found, "a # line was changed", line);
            continue;
        }
        cardsConfEntry entry;
        check(parses_back(line, &entry), "single-field writer wrote a line that does not parse back", line);
        if (writer == Writer::clear) check(entry.dirty_flag == 0, "dirty flag not cleared", line);
        if (writer == Writer::online && entry.slot_id == p.slot_id)
            check(entry.state == (p.online != 0 ? "Online" : "Offline"), "state word not set", line);
        if (writer == Writer::disable && entry.slot_id == p.slot_id)
            check(entry.admin_state == (p.admin == 1 ? "disable" : "enable"), "admin word not set", line);
    }
    check(run_writer(writer, p), "second single-field run failed");
    check(read_conf() == without_negative_slots(first), "a second single-field run changed the file");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    /* Every input rewrites the file a dozen times: memory-backed when available. */
    std::string root = fuzz_sandbox::make_root("chmgr-fuzz");
    if (root.empty()) abort();
    fuzz_sandbox::make_dirs(root + "/etc/tarnel");
    char err[256];
    if (!env_configure(root.c_str(), nullptr, err, sizeof err)) fail("env_configure", err);
    g_conf_path = root + "/etc/tarnel/cards.conf";
    g_log_fd = fopen("/dev/null", "w");
    g_log_level = LOG_LEVEL_CRIT;
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) g_slots_info[i].slot_id = i + 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string_view input(reinterpret_cast<const char *>(data), size);
    Params p = params_from(data, size);
    check_load(input);
    check_update(input, p);
    check_field_writer(input, Writer::disable, p);
    check_field_writer(input, Writer::online, p);
    check_field_writer(input, Writer::clear, p);
    write_conf(input);
    (void)check_cards_conf_for_valid_card(p.slot_id);
    return 0;
}
