// Fuzz target for the JSON library: decodes arbitrary bytes and checks that
//  - json_validate agrees with json_decode on every input;
//  - a decoded tree passes json_check;
//  - its compact and indented encodings decode again to the same tree, which
//    encodes to the same text.
// Two properties of the encoding limit the last point, and the target checks
// them precisely instead of skipping: byte 0x1F is written raw, which the
// decoder refuses, and "%.16g" text is not always a fixed point (the double
// just above 1e23 prints as 1e+23, which reads back as the double below it,
// printed as 9.999999999999999e+22).
#include "json.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

[[noreturn]] void broken(const char *what, const std::string &detail) {
    fprintf(stderr, "json_fuzz: %s\n%s\n", what, detail.c_str());
    abort();
}

std::string take(char *text) {
    std::string result = text;
    free(text);
    return result;
}

bool holds_unit_separator(const char *text) {
    return text != nullptr && strchr(text, '\x1F') != nullptr;
}

std::string number_text(double value) {
    char text[64];
    snprintf(text, sizeof text, "%.16g", value);
    return text;
}

// The number a "%.16g" text of `value` reads back as.
double reread(double value) {
    return strtod(number_text(value).c_str(), nullptr);
}

bool same_bits(double a, double b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

bool is_container(const JsonNode *node) {
    return node->tag == JSON_ARRAY || node->tag == JSON_OBJECT;
}

struct Facts {
    bool unit_separator = false;  // some key or string holds byte 0x1F
    bool unstable_number = false; // some number's text changes on a second round trip
};

// Walks `original` and `again` side by side (no recursion: both trees have
// the same shape, so one walk drives both). `again` was decoded from an
// encoding of `original`.
void compare_trees(const JsonNode *original, const JsonNode *again, Facts *facts,
                   const std::string &text) {
    const JsonNode *a = original;
    const JsonNode *b = again;
    for (;;) {
        if ((a->key == nullptr) != (b->key == nullptr) ||
            (a->key != nullptr && strcmp(a->key, b->key) != 0))
            broken("keys differ after a round trip", text);
        if (a->tag == JSON_NUMBER && !std::isfinite(a->number_)) {
            if (b->tag != JSON_NULL)
                broken("a non-finite number did not come back as null", text);
        } else if (a->tag != b->tag) {
            broken("tags differ after a round trip", text);
        } else if (a->tag == JSON_BOOL && a->bool_ != b->bool_) {
            broken("booleans differ after a round trip", text);
        } else if (a->tag == JSON_STRING && strcmp(a->string_, b->string_) != 0) {
            broken("strings differ after a round trip", text);
        } else if (a->tag == JSON_NUMBER) {
            if (!same_bits(b->number_, reread(a->number_)))
                broken("a number did not read back as its text", text);
            if (number_text(a->number_) != number_text(b->number_))
                facts->unstable_number = true;
        }
        if (is_container(a) && a->children.head != nullptr) {
            if (b->children.head == nullptr)
                broken("children lost after a round trip", text);
            a = a->children.head;
            b = b->children.head;
            continue;
        }
        if (is_container(b) && b->children.head != nullptr)
            broken("children gained after a round trip", text);
        for (;;) {
            if (a == original)
                return;
            if ((a->next == nullptr) != (b->next == nullptr))
                broken("sibling count differs after a round trip", text);
            if (a->next != nullptr) {
                a = a->next;
                b = b->next;
                break;
            }
            a = a->parent;
            b = b->parent;
        }
    }
}

void scan_unit_separators(const JsonNode *root, Facts *facts) {
    const JsonNode *node = root;
    for (;;) {
        if (holds_unit_separator(node->key) ||
            (node->tag == JSON_STRING && holds_unit_separator(node->string_)))
            facts->unit_separator = true;
        if (is_container(node) && node->children.head != nullptr) {
            node = node->children.head;
            continue;
        }
        while (node != root && node->next == nullptr)
            node = node->parent;
        if (node == root)
            return;
        node = node->next;
    }
}

void check_round_trip(const JsonNode *tree, const char *space, const std::string &compact) {
    std::string text = take(json_stringify(tree, space));
    Facts facts;
    scan_unit_separators(tree, &facts);
    JsonNode *again = json_decode(text.c_str());
    if (facts.unit_separator) {
        // A raw 0x1F inside a string is refused by the decoder.
        if (again != nullptr)
            broken("text with a raw 0x1F decoded", text);
        return;
    }
    if (again == nullptr)
        broken("an encoding did not decode", text);
    compare_trees(tree, again, &facts, text);
    std::string recompact = take(json_encode(again));
    if (!facts.unstable_number && recompact != compact)
        broken("re-encoding differs", compact + "\n" + recompact);
    if (space != nullptr && !facts.unstable_number && take(json_stringify(again, space)) != text)
        broken("indented re-encoding differs", text);
    json_delete(again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An exact-size copy: reading past the NUL would leave the allocation.
    char *text = static_cast<char *>(malloc(size + 1));
    memcpy(text, data, size);
    text[size] = '\0';

    JsonNode *tree = json_decode(text);
    bool valid = json_validate(text);
    if (valid != (tree != nullptr))
        broken("json_validate and json_decode disagree", text);
    if (tree != nullptr) {
        char message[256];
        if (!json_check(tree, message))
            broken("decoded tree fails json_check", message);
        std::string compact = take(json_encode(tree));
        check_round_trip(tree, nullptr, compact);
        check_round_trip(tree, "\t", compact);
        check_round_trip(tree, "  ", compact);
        json_delete(tree);
    }
    free(text);
    return 0;
}
