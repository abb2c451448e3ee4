// JSON document model: constructors, editing, lookups, the string builder,
// the encoders and the structural check (the decoder and validator are in
// json_decode.cpp). See json.h for the interface and docs/json.md for the
// guarantees. No function here recurses: every walk over a tree follows the
// parent/next links with loops, so a document as deep as memory allows can be
// encoded, checked and deleted without growing the stack.
#include "json.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "json_internal.h"

using namespace json_internal;

// ---------------------------------------------------------------------------
// Fatal conditions

namespace {

[[noreturn]] void out_of_memory() {
    fputs("Out of memory.\n", stderr);
    exit(1);
}

// Same text as the C library's assert, but independent of NDEBUG: a broken
// invariant here must stop the daemon in release builds too.
[[noreturn]] void assertion_failed(const char *expr, const char *file, unsigned line,
                                   const char *function) {
    fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
            file, line, function, expr);
    abort();
}

}  // namespace

#define JSON_ASSERT(expr) \
    ((expr) ? (void)0 : assertion_failed(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

namespace {

void *checked(void *allocation) {
    if (allocation == nullptr)
        out_of_memory();
    return allocation;
}

}  // namespace

void *json_internal::xmalloc(size_t size) { return checked(malloc(size)); }
void *json_internal::xrealloc(void *old, size_t size) { return checked(realloc(old, size)); }

namespace {

char *copy_text(const char *text, size_t length) {
    char *copy = static_cast<char *>(xmalloc(length + 1));
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

// ---------------------------------------------------------------------------
// Character classes

constexpr PlainTable kEncodePlain(0x1F, 0x100);

inline bool is_digit(char c) { return c >= '0' && c <= '9'; }
inline bool in_range(Byte c, Byte low, Byte high) { return c >= low && c <= high; }

}  // namespace

// Length of the valid UTF-8 sequence starting with a byte >= 0x80, or 0.
// Rejects overlong forms, surrogates and code points above U+10FFFF. Each
// byte is read only after the previous one proved to be part of the
// sequence, so a terminating NUL is never passed.
size_t json_internal::utf8_sequence_length(const char *s) {
    const Byte *p = reinterpret_cast<const Byte *>(s);
    Byte lead = p[0];
    if (in_range(lead, 0xC2, 0xDF))
        return in_range(p[1], 0x80, 0xBF) ? 2 : 0;
    if (in_range(lead, 0xE0, 0xEF)) {
        Byte low = lead == 0xE0 ? 0xA0 : 0x80;   // overlong below U+0800
        Byte high = lead == 0xED ? 0x9F : 0xBF;  // surrogates
        if (!in_range(p[1], low, high))
            return 0;
        return in_range(p[2], 0x80, 0xBF) ? 3 : 0;
    }
    if (in_range(lead, 0xF0, 0xF4)) {
        Byte low = lead == 0xF0 ? 0x90 : 0x80;   // overlong below U+10000
        Byte high = lead == 0xF4 ? 0x8F : 0xBF;  // above U+10FFFF
        if (!in_range(p[1], low, high) || !in_range(p[2], 0x80, 0xBF))
            return 0;
        return in_range(p[3], 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

namespace {

// A NUL-terminated text with its length, measured once.
struct Text {
    const char *data;
    size_t length;
};

Text text_of(const char *data) {
    return Text{data, data != nullptr ? strlen(data) : 0};
}

bool utf8_validate(const Text &str) {
    if (str.data == nullptr)
        return false;
    const char *p = str.data;
    const char *end = str.data + str.length;
    for (;;) {
        while (end - p >= 8 && (load8(p) & kHighBits) == 0)
            p += 8;
        while (p < end && static_cast<Byte>(*p) < 0x80)
            ++p;
        if (p == end)
            return true;
        size_t length = utf8_sequence_length(p);
        if (length == 0)
            return false;
        p += length;
    }
}

bool utf8_validate(const char *str) {
    return utf8_validate(text_of(str));
}

}  // namespace

// Number grammar shared by the decoder and the encoder's output check:
// -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?
// Returns the end of the number or null. `plain_integer` tells whether it had
// neither fraction nor exponent.
const char *json_internal::scan_number(const char *p, bool *plain_integer) {
    if (*p == '-')
        ++p;
    if (*p == '0') {
        ++p;
    } else if (*p >= '1' && *p <= '9') {
        while (is_digit(*++p)) {}
    } else {
        return nullptr;
    }
    *plain_integer = true;
    if (*p == '.') {
        *plain_integer = false;
        if (!is_digit(*++p))
            return nullptr;
        while (is_digit(*++p)) {}
    }
    if (*p == 'e' || *p == 'E') {
        *plain_integer = false;
        ++p;
        if (*p == '+' || *p == '-')
            ++p;
        if (!is_digit(*p))
            return nullptr;
        while (is_digit(*++p)) {}
    }
    return p;
}

// ---------------------------------------------------------------------------
// String builder

void json_sb_init(JsonStringBuilder *sb) {
    sb->start = static_cast<char *>(xmalloc(17));
    sb->cur = sb->start;
    sb->end = sb->start + 16;
}

void json_sb_need(JsonStringBuilder *sb, size_t room) {
    if (static_cast<size_t>(sb->end - sb->cur) >= room)
        return;
    size_t length = static_cast<size_t>(sb->cur - sb->start);
    size_t size = static_cast<size_t>(sb->end - sb->start);
    if (room > SIZE_MAX / 2 - length)
        out_of_memory();  // no buffer of that size can exist
    while (size < length + room)
        size *= 2;
    sb->start = static_cast<char *>(xrealloc(sb->start, size + 1));
    sb->cur = sb->start + length;
    sb->end = sb->start + size;
}

void json_sb_put(JsonStringBuilder *sb, const char *bytes, size_t count) {
    json_sb_need(sb, count);
    memcpy(sb->cur, bytes, count);
    sb->cur += count;
}

char *json_sb_finish(JsonStringBuilder *sb) {
    *sb->cur = '\0';  // the spare byte past `end` guarantees room
    char *text = sb->start;
    sb->start = sb->cur = sb->end = nullptr;
    return text;
}

void json_sb_free(JsonStringBuilder *sb) {
    free(sb->start);
    sb->start = sb->cur = sb->end = nullptr;
}

namespace {

// The common case, room already there, without a call.
inline void sb_reserve(JsonStringBuilder *sb, size_t room) {
    if (static_cast<size_t>(sb->end - sb->cur) < room)
        json_sb_need(sb, room);
}

inline void sb_put(JsonStringBuilder *sb, const char *bytes, size_t count) {
    sb_reserve(sb, count);
    memcpy(sb->cur, bytes, count);
    sb->cur += count;
}

inline void sb_putc(JsonStringBuilder *sb, char c) {
    sb_reserve(sb, 1);
    *sb->cur++ = c;
}

}  // namespace

// ---------------------------------------------------------------------------
// Nodes and links

JsonNode *json_internal::new_node(JsonTag tag) {
    JsonNode *node = static_cast<JsonNode *>(xmalloc(sizeof(JsonNode)));
    node->parent = node->prev = node->next = nullptr;
    node->key = nullptr;
    node->tag = tag;
    node->children.head = node->children.tail = nullptr;
    return node;
}

void json_internal::link_tail(JsonNode *parent, JsonNode *child) {
    child->parent = parent;
    child->prev = parent->children.tail;
    child->next = nullptr;
    if (parent->children.tail != nullptr)
        parent->children.tail->next = child;
    else
        parent->children.head = child;
    parent->children.tail = child;
}

namespace {

inline bool is_container(const JsonNode *node) {
    return node->tag == JSON_ARRAY || node->tag == JSON_OBJECT;
}

void link_head(JsonNode *parent, JsonNode *child) {
    child->parent = parent;
    child->prev = nullptr;
    child->next = parent->children.head;
    if (parent->children.head != nullptr)
        parent->children.head->prev = child;
    else
        parent->children.tail = child;
    parent->children.head = child;
}

void set_key(JsonNode *value, const char *key) {
    free(value->key);
    value->key = copy_text(key, strlen(key));
}

void free_node(JsonNode *node) {
    free(node->key);
    if (node->tag == JSON_STRING)
        free(node->string_);
    free(node);
}

}  // namespace

JsonNode *json_mknull() { return new_node(JSON_NULL); }
JsonNode *json_mkarray() { return new_node(JSON_ARRAY); }
JsonNode *json_mkobject() { return new_node(JSON_OBJECT); }

JsonNode *json_mkbool(bool value) {
    JsonNode *node = new_node(JSON_BOOL);
    node->bool_ = value;
    return node;
}

JsonNode *json_mkstring(const char *text) {
    JsonNode *node = new_node(JSON_STRING);
    node->string_ = copy_text(text, strlen(text));
    return node;
}

JsonNode *json_mknumber(double value) {
    JsonNode *node = new_node(JSON_NUMBER);
    node->number_ = value;
    return node;
}

void json_append_element(JsonNode *array, JsonNode *element) {
    JSON_ASSERT(array->tag == JSON_ARRAY);
    JSON_ASSERT(element->parent == NULL);
    link_tail(array, element);
}

void json_prepend_element(JsonNode *array, JsonNode *element) {
    JSON_ASSERT(array->tag == JSON_ARRAY);
    JSON_ASSERT(element->parent == NULL);
    link_head(array, element);
}

void json_append_member(JsonNode *object, const char *key, JsonNode *value) {
    JSON_ASSERT(object->tag == JSON_OBJECT);
    JSON_ASSERT(value->parent == NULL);
    set_key(value, key);
    link_tail(object, value);
}

void json_prepend_member(JsonNode *object, const char *key, JsonNode *value) {
    JSON_ASSERT(object->tag == JSON_OBJECT);
    JSON_ASSERT(value->parent == NULL);
    set_key(value, key);
    link_head(object, value);
}

void json_remove_from_parent(JsonNode *node) {
    JsonNode *parent = node->parent;
    if (parent == nullptr)
        return;
    if (node->prev != nullptr)
        node->prev->next = node->next;
    else
        parent->children.head = node->next;
    if (node->next != nullptr)
        node->next->prev = node->prev;
    else
        parent->children.tail = node->prev;
    free(node->key);
    node->key = nullptr;
    node->parent = node->prev = node->next = nullptr;
}

void json_delete(JsonNode *node) {
    if (node == nullptr)
        return;
    json_remove_from_parent(node);
    // Post-order walk: descend to a leaf, free it, then continue with its
    // next sibling or, when it was the last one, with its now empty parent.
    JsonNode *cur = node;
    for (;;) {
        if (is_container(cur) && cur->children.head != nullptr) {
            cur = cur->children.head;
            continue;
        }
        bool done = cur == node;
        JsonNode *parent = cur->parent;
        JsonNode *next = cur->next;
        free_node(cur);
        if (done)
            return;
        if (next != nullptr) {
            next->prev = nullptr;
            parent->children.head = next;
            cur = next;
        } else {
            parent->children.head = parent->children.tail = nullptr;
            cur = parent;
        }
    }
}

JsonNode *json_find_element(JsonNode *array, int index) {
    if (array == nullptr || array->tag != JSON_ARRAY || index < 0)
        return nullptr;
    JsonNode *element = array->children.head;
    for (int i = 0; element != nullptr && i < index; ++i)
        element = element->next;
    return element;
}

JsonNode *json_find_member(JsonNode *object, const char *name) {
    if (object == nullptr || object->tag != JSON_OBJECT || name == nullptr)
        return nullptr;
    for (JsonNode *member = object->children.head; member != nullptr; member = member->next) {
        if (member->key != nullptr && strcmp(member->key, name) == 0)
            return member;
    }
    return nullptr;
}

JsonNode *json_first_child(const JsonNode *node) {
    if (node == nullptr || !is_container(node))
        return nullptr;
    return node->children.head;
}

// ---------------------------------------------------------------------------
// Encoding

namespace {

// Formats like "%.16g". Integral values below 1e16 print as their exact
// digits under "%.16g", so they take a short path; everything else goes
// through std::to_chars with the same precision and style, which is defined
// to produce the text of printf's "%.16g" in the C locale.
size_t format_number(double value, char *out, size_t size) {
    if (std::fabs(value) < 1e16 && value == std::trunc(value)) {
        char digits[24];
        char *end = digits + sizeof digits;
        char *begin = end;
        uint64_t magnitude = static_cast<uint64_t>(std::fabs(value));
        do {
            *--begin = static_cast<char>('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude != 0);
        size_t length = 0;
        if (std::signbit(value))
            out[length++] = '-';  // "-0" too, as printf writes it
        memcpy(out + length, begin, static_cast<size_t>(end - begin));
        return length + static_cast<size_t>(end - begin);
    }
    auto result = std::to_chars(out, out + size, value, std::chars_format::general, 16);
    return static_cast<size_t>(result.ptr - out);
}

void emit_number(JsonStringBuilder *sb, double value) {
    char text[48];
    size_t length = format_number(value, text, sizeof text - 1);
    text[length] = '\0';
    bool plain_integer;
    if (scan_number(text, &plain_integer) != text + length) {
        sb_put(sb, "null", 4);  // infinities and NaN have no JSON form
        return;
    }
    sb_put(sb, text, length);
}

void emit_escape(JsonStringBuilder *sb, Byte c) {
    static const char kHex[] = "0123456789ABCDEF";
    char text[6] = {'\\', 'u', '0', '0', 0, 0};
    switch (c) {
    case '"': text[1] = '"'; break;
    case '\\': text[1] = '\\'; break;
    case '\b': text[1] = 'b'; break;
    case '\f': text[1] = 'f'; break;
    case '\n': text[1] = 'n'; break;
    case '\r': text[1] = 'r'; break;
    case '\t': text[1] = 't'; break;
    default:
        text[4] = kHex[c >> 4];
        text[5] = kHex[c & 0xF];
        sb_put(sb, text, 6);
        return;
    }
    sb_put(sb, text, 2);
}

// Start of the next byte that needs an escape (or the end): quotation mark,
// backslash, or a byte below 0x1F. Multi-byte UTF-8 was validated already.
const char *skip_unescaped(const char *p, const char *end) {
    while (end - p >= 8) {
        uint64_t word = load8(p);
        if ((any_below(word, 0x1F) | any_equal(word, '"') | any_equal(word, '\\')) != 0)
            break;
        p += 8;
    }
    while (p < end && kEncodePlain.plain[static_cast<Byte>(*p)])
        ++p;
    return p;
}

void emit_string(JsonStringBuilder *sb, const char *text) {
    const Text str = text_of(text);
    JSON_ASSERT(utf8_validate(str));
    sb_reserve(sb, str.length + 2);
    *sb->cur++ = '"';
    const char *p = str.data;
    const char *end = p + str.length;
    for (;;) {
        const char *run = p;
        p = skip_unescaped(p, end);
        sb_put(sb, run, static_cast<size_t>(p - run));
        if (p == end)
            break;
        emit_escape(sb, static_cast<Byte>(*p++));
    }
    sb_putc(sb, '"');
}

// A leaf, or a container without children.
void emit_leaf(JsonStringBuilder *sb, const JsonNode *node) {
    switch (node->tag) {
    case JSON_NULL: sb_put(sb, "null", 4); break;
    case JSON_BOOL: node->bool_ ? sb_put(sb, "true", 4) : sb_put(sb, "false", 5); break;
    case JSON_STRING: emit_string(sb, node->string_); break;
    case JSON_NUMBER: emit_number(sb, node->number_); break;
    case JSON_ARRAY: sb_put(sb, "[]", 2); break;
    case JSON_OBJECT: sb_put(sb, "{}", 2); break;
    default: JSON_ASSERT(node->tag <= JSON_OBJECT);
    }
}

struct Layout {
    const char *unit;  // null for compact text
    size_t unit_length;

    void newline(JsonStringBuilder *sb, size_t depth) const {
        if (unit == nullptr)
            return;
        sb_putc(sb, '\n');
        if (unit_length == 1) {
            sb_reserve(sb, depth);
            memset(sb->cur, unit[0], depth);
            sb->cur += depth;
            return;
        }
        for (size_t i = 0; i < depth; ++i)
            sb_put(sb, unit, unit_length);
    }
};

// What precedes a child: line break and indentation, then the key.
void emit_child_prefix(JsonStringBuilder *sb, const Layout &layout, const JsonNode *child,
                       bool in_object, size_t depth) {
    layout.newline(sb, depth);
    if (!in_object)
        return;
    JSON_ASSERT(child->key != NULL);
    emit_string(sb, child->key);
    if (layout.unit != nullptr)
        sb_put(sb, ": ", 2);
    else
        sb_putc(sb, ':');
}

// Walks the tree below `root` without recursion; `root` itself may be part
// of a larger tree, so the walk never looks past it.
void emit_tree(JsonStringBuilder *sb, const JsonNode *root, const Layout &layout) {
    const JsonNode *node = root;
    size_t depth = 0;
    for (;;) {
        if (is_container(node) && node->children.head != nullptr) {
            bool in_object = node->tag == JSON_OBJECT;
            sb_putc(sb, in_object ? '{' : '[');
            ++depth;
            node = node->children.head;
            emit_child_prefix(sb, layout, node, in_object, depth);
            continue;
        }
        emit_leaf(sb, node);
        for (;;) {  // climb until a node with a following sibling is found
            if (node == root)
                return;
            const JsonNode *parent = node->parent;
            if (node->next != nullptr) {
                sb_putc(sb, ',');
                node = node->next;
                emit_child_prefix(sb, layout, node, parent->tag == JSON_OBJECT, depth);
                break;
            }
            layout.newline(sb, --depth);
            sb_putc(sb, parent->tag == JSON_OBJECT ? '}' : ']');
            node = parent;
        }
    }
}

}  // namespace

char *json_stringify(const JsonNode *node, const char *space) {
    JsonStringBuilder sb;
    json_sb_init(&sb);
    if (node == nullptr)
        sb_put(&sb, "null", 4);
    else
        emit_tree(&sb, node, Layout{space, space != nullptr ? strlen(space) : 0});
    return json_sb_finish(&sb);
}

char *json_encode(const JsonNode *node) {
    return json_stringify(node, nullptr);
}

char *json_encode_string(const char *str) {
    JsonStringBuilder sb;
    json_sb_init(&sb);
    emit_string(&sb, str);
    return json_sb_finish(&sb);
}

// ---------------------------------------------------------------------------
// Structural check

namespace {

bool fail(char *errmsg, const char *format, unsigned value = 0) {
    if (errmsg != nullptr)
        snprintf(errmsg, 256, format, value);
    return false;
}

// Checks that concern the node alone.
bool check_self(const JsonNode *node, char *errmsg) {
    if (node->key != nullptr && !utf8_validate(node->key))
        return fail(errmsg, "key contains invalid UTF-8");
    // Read as a plain integer: a corrupted tag may lie outside the enumeration.
    std::underlying_type_t<JsonTag> tag;
    memcpy(&tag, &node->tag, sizeof tag);
    switch (tag) {
    case JSON_NULL:
    case JSON_BOOL:
    case JSON_NUMBER:
        return true;
    case JSON_STRING:
        if (node->string_ == nullptr)
            return fail(errmsg, "string_ is NULL");
        if (!utf8_validate(node->string_))
            return fail(errmsg, "string_ contains invalid UTF-8");
        return true;
    case JSON_ARRAY:
    case JSON_OBJECT: {
        const JsonNode *head = node->children.head;
        const JsonNode *tail = node->children.tail;
        if (head == nullptr && tail != nullptr)
            return fail(errmsg, "head is NULL, but tail is not");
        if (head != nullptr && tail == nullptr)
            return fail(errmsg, "tail is NULL, but head is not");
        if (head != nullptr && head->prev != nullptr)
            return fail(errmsg, "First child's prev pointer is not NULL");
        return true;
    }
    }
    return fail(errmsg, "tag is invalid (%u)", static_cast<unsigned>(tag));
}

// Checks the link between `container` and one of its children before the
// walk enters the child. Re-entering the root of the walk is refused too: it
// is the one node whose parent link was never verified, and a cycle through
// it would otherwise never end.
bool check_link(const JsonNode *container, const JsonNode *child, const JsonNode *root,
                char *errmsg) {
    if (child == container || child == root)
        return fail(errmsg, "node is its own child");
    if (child->next == child)
        return fail(errmsg, "child->next == child (cycle)");
    if (child->next == container->children.head)
        return fail(errmsg, "child->next == head (cycle)");
    if (child->parent != container)
        return fail(errmsg, "child does not point back to parent");
    if (child->next != nullptr && child->next->prev != child)
        return fail(errmsg, "child->next does not point back to child");
    if (container->tag == JSON_ARRAY && child->key != nullptr)
        return fail(errmsg, "Array element's key is not NULL");
    if (container->tag == JSON_OBJECT && child->key == nullptr)
        return fail(errmsg, "Object member's key is NULL");
    return true;
}

}  // namespace

bool json_check(const JsonNode *root, char errmsg[256]) {
    if (root == nullptr)
        return true;
    // Same order as a depth-first recursion: a node's own checks, then for
    // each child its link checks followed by its whole subtree, then the tail.
    const JsonNode *node = root;
    for (;;) {
        if (!check_self(node, errmsg))
            return false;
        if (is_container(node) && node->children.head != nullptr) {
            if (!check_link(node, node->children.head, root, errmsg))
                return false;
            node = node->children.head;
            continue;
        }
        for (;;) {  // climb past finished subtrees
            if (node == root)
                return true;
            const JsonNode *parent = node->parent;  // verified by check_link
            if (node->next != nullptr) {
                if (!check_link(parent, node->next, root, errmsg))
                    return false;
                node = node->next;
                break;
            }
            if (parent->children.tail != node)
                return fail(errmsg, "tail does not match pointer found by starting at head "
                                    "and following next links");
            node = parent;
        }
    }
}
