// JSON document model: a tree of nodes linked to their parent and siblings,
// with constructors, editing, lookups, encoders, a decoder, a validator and a
// structural checker. Strings are UTF-8 throughout.
//
// Ownership: a node owns its key, its string and, recursively, its children.
// Texts returned by json_encode, json_encode_string and json_stringify are
// allocated with malloc and released by the caller with free().
//
// Out of memory is fatal: "Out of memory.\n" on stderr, exit status 1.
// Misuse of the append/prepend calls and encoding a string that is not valid
// UTF-8 stop the process with an assertion that stays active in every build.
//
// Nothing here recurses: decoding, validation, encoding, checking and
// deletion walk the tree with loops, so nesting depth is limited only by
// memory (see docs/json.md).
#pragma once

#include <cstddef>

enum JsonTag {
    JSON_NULL = 0,
    JSON_BOOL = 1,
    JSON_STRING = 2,
    JSON_NUMBER = 3,
    JSON_ARRAY = 4,
    JSON_OBJECT = 5,
};

struct JsonNode {
    JsonNode *parent;  // containing array or object; null for a root or a detached node
    JsonNode *prev;    // previous sibling
    JsonNode *next;    // next sibling
    char *key;         // member name when the parent is an object; null otherwise
    JsonTag tag;
    union {
        bool bool_;       // JSON_BOOL
        char *string_;    // JSON_STRING, owned UTF-8 text
        double number_;   // JSON_NUMBER
        struct {
            JsonNode *head;
            JsonNode *tail;
        } children;       // JSON_ARRAY, JSON_OBJECT
    };
};

// Constructors: each returns a new detached node.
JsonNode *json_mknull();
JsonNode *json_mkbool(bool value);
JsonNode *json_mkstring(const char *text);  // copies the text
JsonNode *json_mknumber(double value);
JsonNode *json_mkarray();
JsonNode *json_mkobject();

// The container must have the right tag and the added node must be detached.
void json_append_element(JsonNode *array, JsonNode *element);
void json_prepend_element(JsonNode *array, JsonNode *element);
void json_append_member(JsonNode *object, const char *key, JsonNode *value);  // copies key
void json_prepend_member(JsonNode *object, const char *key, JsonNode *value);  // copies key

// Unlinks a node from its container and frees its key; detached nodes are left alone.
void json_remove_from_parent(JsonNode *node);
// Unlinks and frees a node with everything it owns; null is ignored.
void json_delete(JsonNode *node);

JsonNode *json_find_element(JsonNode *array, int index);
JsonNode *json_find_member(JsonNode *object, const char *name);
JsonNode *json_first_child(const JsonNode *node);

// Encoders; the result is malloc'ed and NUL-terminated.
char *json_encode(const JsonNode *node);
char *json_encode_string(const char *str);
char *json_stringify(const JsonNode *node, const char *space);

// Decoding: a new tree, or null unless the text is exactly one JSON value
// (optionally surrounded by blanks, tabs, line feeds, carriage returns).
JsonNode *json_decode(const char *text);
bool json_validate(const char *text);

// Structural check of a tree. On failure a message is written to errmsg
// (256 bytes) when it is not null.
bool json_check(const JsonNode *node, char errmsg[256]);

// String builder behind the encoders, exposed for its tests. It starts with
// 16 usable bytes (an allocation of 17, one spare for the terminating NUL) and
// doubles the usable size until the requested room fits.
struct JsonStringBuilder {
    char *start;
    char *cur;
    char *end;  // start + usable size; *end is the spare byte for the NUL
};

void json_sb_init(JsonStringBuilder *sb);
void json_sb_need(JsonStringBuilder *sb, size_t room);  // ensures end - cur >= room
void json_sb_put(JsonStringBuilder *sb, const char *bytes, size_t count);
char *json_sb_finish(JsonStringBuilder *sb);  // NUL-terminates; caller frees
void json_sb_free(JsonStringBuilder *sb);
