// Fuzz target for chmgrctl metrics: arbitrary bytes as the status document
// the daemon sent, each slot object made into a slot view as a collection
// does, with the serial and card type also taken from the bytes, then
// written as an exposition.  Checks that nothing crashes and that the text
// is well formed: every line a HELP, a TYPE or a sample of the family last
// typed, each family typed once, label values quoted with only the three
// escapes and no control character, and a final line feed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "ctl_metrics.h"
#include "ctl_output.h"
#include "ctl_slot_view.h"
#include "json.h"

namespace {

[[noreturn]] void broken(const char *what, const std::string &detail) {
    fprintf(stderr, "chmgrctl_metrics_fuzz: %s\n%s\n", what, detail.c_str());
    abort();
}

bool name_char(char c, bool first) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || (!first && c >= '0' && c <= '9');
}

/* `label="value",...` up to the closing brace; `at` is left after it. */
void check_labels(const std::string &line, size_t *at) {
    for (;;) {
        size_t start = *at;
        while (*at < line.size() && name_char(line[*at], *at == start)) ++*at;
        if (*at == start || line.compare(*at, 2, "=\"") != 0) broken("bad label name", line);
        for (*at += 2; *at < line.size() && line[*at] != '"'; ++*at) {
            unsigned char c = (unsigned char)line[*at];
            if (c < 0x20 || c == 0x7f) broken("control character in a label value", line);
            if (c != '\\') continue;
            char next = *at + 1 < line.size() ? line[*at + 1] : '\0';
            if (next != '\\' && next != '"' && next != 'n') broken("bad escape", line);
            ++*at;
        }
        if (*at >= line.size()) broken("unterminated label value", line);
        ++*at;
        if (*at < line.size() && line[*at] == ',') {
            ++*at;
            continue;
        }
        if (*at >= line.size() || line[*at] != '}') broken("labels not closed", line);
        ++*at;
        return;
    }
}

void check_sample(const std::string &line, const std::string &family) {
    size_t at = 0;
    while (at < line.size() && name_char(line[at], at == 0)) ++at;
    if (line.substr(0, at) != family) broken("sample outside its family", line);
    if (at < line.size() && line[at] == '{') {
        ++at;
        check_labels(line, &at);
    }
    if (at >= line.size() || line[at] != ' ') broken("no value", line);
    std::string value = line.substr(at + 1);
    char *end = nullptr;
    strtod(value.c_str(), &end);
    if (value.empty() || !end || *end != '\0') broken("value not a number", line);
}

void check_exposition(const std::string &text) {
    if (text.empty() || text.back() != '\n') broken("no final line feed", text);
    if (chmgrctl::valid_utf8(text) != text) broken("not UTF-8", text);
    std::set<std::string> typed;
    std::string family;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end - start);
        start = end + 1;
        if (line.rfind("# HELP ", 0) == 0) continue;
        if (line.rfind("# TYPE ", 0) == 0) {
            size_t blank = line.find(' ', 7);
            family = line.substr(7, blank - 7);
            if (line.substr(blank + 1) != "gauge") broken("not a gauge", line);
            if (!typed.insert(family).second) broken("family typed twice", line);
            continue;
        }
        check_sample(line, family);
    }
}

std::string take(const uint8_t **data, size_t *size, size_t most) {
    size_t n = *size < most ? *size : most;
    std::string part(reinterpret_cast<const char *>(*data), n);
    *data += n;
    *size -= n;
    return part;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    /* 32 bytes of serial, 32 of card type (as the show record's fields),
     * the rest the status document. */
    std::string serial = take(&data, &size, 32);
    std::string card_type = take(&data, &size, 32);
    std::string document(reinterpret_cast<const char *>(data), size);
    JsonNode *root = json_decode(document.c_str());
    std::vector<chmgrctl::SlotView> views;
    for (uint32_t slot = 1; slot <= 8; ++slot) {
        std::string key = "slot" + std::to_string(slot);
        JsonNode *object = root ? json_find_member(root, key.c_str()) : nullptr;
        chmgrctl::SlotSummary summary = {slot, chmgrctl::field_text((const unsigned char *)serial.data(), serial.size()),
                                         chmgrctl::field_text((const unsigned char *)card_type.data(), card_type.size()),
                                         slot % 2 ? "Offline" : "Operational", 0, 0, slot % 3 == 0};
        chmgrctl::SlotView view;
        chmgrctl::build_slot_view(&summary, object && object->tag == JSON_OBJECT ? object : nullptr, -1, &view);
        views.push_back(view);
    }
    json_delete(root);
    check_exposition(chmgrctl::metrics_text(true, 1795373700.25, views));
    check_exposition(chmgrctl::metrics_text(false, 0, views));
    return 0;
}
