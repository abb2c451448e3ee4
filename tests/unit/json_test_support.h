// Shared helpers for the JSON tests: ownership of a tree and of the text the
// encoders return, so a failing assertion leaks nothing.
#ifndef CHMGR_JSON_TEST_SUPPORT_H
#define CHMGR_JSON_TEST_SUPPORT_H

#include <cstdlib>
#include <string>

#include "json.h"

namespace chmgr_test {

// Owns a tree for the duration of a test.
struct Tree {
    explicit Tree(JsonNode *root) : node(root) {}
    ~Tree() { json_delete(node); }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;
    JsonNode *node;
};

// The text an encoder returned, freed; "(null)" when it returned none.
inline std::string take(char *text) {
    std::string result = text != nullptr ? text : "(null)";
    free(text);
    return result;
}

}  // namespace chmgr_test

#endif  // CHMGR_JSON_TEST_SUPPORT_H
