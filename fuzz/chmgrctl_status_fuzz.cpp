// Fuzz target for chmgrctl's reading of a status document: arbitrary bytes as
// the document the daemon sent.  Each slot object becomes a slot view (state
// text, awaited event, log lines read as ring lines, the daemon-wide log, the
// cards.conf facts, reason) and the document
// is translated to the common JSON form; every line is also read as a ring
// line.  Checks that nothing crashes and that everything the client would
// print is valid JSON that decodes again.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ctl_json.h"
#include "ctl_slot_view.h"
#include "json.h"

namespace {

[[noreturn]] void broken(const char *what, const std::string &detail) {
    fprintf(stderr, "chmgrctl_status_fuzz: %s\n%s\n", what, detail.c_str());
    abort();
}

void check_encodes(const JsonNode *node, const char *what) {
    char *text = json_encode(node);
    if (!text) broken(what, "no text");
    JsonNode *again = json_decode(text);
    if (!again) broken(what, text);
    json_delete(again);
    free(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        chmgrctl::RingLine line;
        if (chmgrctl::parse_ring_line(text.substr(start, end - start), &line)) {
            bool empty = false;
            chmgrctl::transition_stage(line.message, &empty);
        }
        start = end + 1;
    }
    if (text.find('\0') != std::string::npos) return 0;
    JsonNode *document = json_decode(text.c_str());
    if (!document) return 0;
    JsonNode *translated = chmgrctl::translate_status_document(document);
    if (translated) {
        check_encodes(translated, "translated document");
        json_delete(translated);
    }
    if (document->tag == JSON_OBJECT) {
        /* The facts show adds: the daemon-wide log of the same document, a
         * dirty flag and a VPD serial number of any value. */
        chmgrctl::SlotContext context;
        context.provisioned_speed = static_cast<int>(size % 500);
        context.dirty = static_cast<int>(size % 3) - 1;
        context.daemon_log = chmgrctl::document_daemon_log(document);
        context.vpd_serial = text.substr(0, size % 40);
        for (JsonNode *member = json_first_child(document); member; member = member->next) {
            if (member->tag != JSON_OBJECT) continue;
            chmgrctl::SlotView view;
            chmgrctl::build_slot_view(nullptr, member, context, &view);
            JsonNode *shown = chmgrctl::slot_view_json(view);
            check_encodes(shown, "slot view");
            json_delete(shown);
        }
    }
    json_delete(document);
    return 0;
}
