// JSON decoder and validator. See json.h for the interface and docs/json.md
// for the guarantees. Like the rest of the library, nothing here recurses:
// the parser keeps its open containers in the tree's parent links (decoding)
// or in a byte stack (validation), so nesting is bounded by memory only.
#include "json.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "json_internal.h"

using namespace json_internal;

namespace {

// Printable ASCII but the quotation mark and backslash.
constexpr PlainTable kDecodePlain(0x20, 0x80);

inline bool is_ws(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

inline const char *skip_ws(const char *p) {
    while (is_ws(*p))
        ++p;
    return p;
}

size_t utf8_encode(uint32_t cp, char *out) {
    static const uint32_t kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
    size_t length = cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
    for (size_t i = length - 1; i > 0; --i, cp >>= 6)
        out[i] = static_cast<char>(0x80 | (cp & 0x3F));
    out[0] = static_cast<char>(kLead[length] | cp);
    return length;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Reads four hex digits; stops at the first non-digit (a NUL included).
bool read_hex4(const char *p, uint32_t *value) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
        int digit = hex_value(p[i]);
        if (digit < 0)
            return false;
        v = (v << 4) | static_cast<uint32_t>(digit);
    }
    *value = v;
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Decoding and validation share one grammar; only what they record differs.

namespace {

// A scanned string body: [begin, end) is the raw text between the quotes,
// `decoded_length` the length once escapes are resolved.
struct StringSpan {
    const char *begin;
    const char *end;
    size_t decoded_length;
    bool has_escapes;
};

// Checks one escape starting at the backslash; returns the text after it or
// null. `saved` grows by how much shorter the decoded form is.
const char *scan_escape(const char *p, size_t *saved) {
    switch (p[1]) {
    case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't':
        *saved += 1;
        return p + 2;
    case 'u': break;
    default: return nullptr;
    }
    uint32_t cp = 0;
    if (!read_hex4(p + 2, &cp) || cp == 0)
        return nullptr;
    if (cp >= 0xDC00 && cp <= 0xDFFF)
        return nullptr;  // a low surrogate must follow a high one
    if (cp >= 0xD800 && cp <= 0xDBFF) {
        uint32_t low = 0;
        if (p[6] != '\\' || p[7] != 'u' || !read_hex4(p + 8, &low) || low < 0xDC00 ||
            low > 0xDFFF)
            return nullptr;
        *saved += 12 - 4;
        return p + 12;
    }
    *saved += 6 - (cp < 0x80 ? 1 : cp < 0x800 ? 2 : 3);
    return p + 6;
}

// Skips string content that needs no closer look: no quotation mark,
// backslash, control byte or multi-byte UTF-8.
inline const char *skip_plain(const char *p, const char *end) {
    while (end - p >= 8) {
        uint64_t word = load8(p);
        if ((any_below(word, 0x20) | any_equal(word, '"') | any_equal(word, '\\') |
             (word & kHighBits)) != 0)
            break;
        p += 8;
    }
    while (kDecodePlain.plain[static_cast<Byte>(*p)])
        ++p;
    return p;
}

// `p` points after the opening quote and `end` at the text's NUL; returns the
// text after the closing quote or null.
const char *scan_string(const char *p, const char *end, StringSpan *span) {
    span->begin = p;
    size_t saved = 0;
    for (;;) {
        p = skip_plain(p, end);
        Byte c = static_cast<Byte>(*p);
        if (c == '"')
            break;
        if (c == '\\') {
            p = scan_escape(p, &saved);
        } else if (c < 0x20) {
            return nullptr;  // raw control byte, or the end of the text
        } else {
            size_t length = utf8_sequence_length(p);
            p = length != 0 ? p + length : nullptr;
        }
        if (p == nullptr)
            return nullptr;
    }
    span->end = p;
    span->has_escapes = saved != 0;
    span->decoded_length = static_cast<size_t>(p - span->begin) - saved;
    return p + 1;
}

char unescape_simple(char c) {
    switch (c) {
    case 'b': return '\b';
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    default: return c;  // '"', '\\', '/'
    }
}

// Decodes a span that scan_string accepted, into an exact-size allocation.
char *decode_string(const StringSpan &span) {
    char *out = static_cast<char *>(xmalloc(span.decoded_length + 1));
    char *w = out;
    for (const char *p = span.begin; p < span.end;) {
        const void *found =
            span.has_escapes ? memchr(p, '\\', static_cast<size_t>(span.end - p)) : nullptr;
        const char *escape = found != nullptr ? static_cast<const char *>(found) : span.end;
        memcpy(w, p, static_cast<size_t>(escape - p));
        w += escape - p;
        p = escape;
        if (p == span.end)
            break;
        if (p[1] != 'u') {
            *w++ = unescape_simple(p[1]);
            p += 2;
            continue;
        }
        uint32_t cp = 0;  // the span was validated, so the digits are there
        read_hex4(p + 2, &cp);
        p += 6;
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            uint32_t low = 0;
            read_hex4(p + 2, &low);
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            p += 6;
        }
        w += utf8_encode(cp, w);
    }
    *w = '\0';
    return out;
}

double convert_number(const char *begin, const char *end, bool plain_integer) {
    const char *digits = *begin == '-' ? begin + 1 : begin;
    if (plain_integer && end - digits <= 15) {
        // Exact in a double, hence the same value strtod yields.
        uint64_t value = 0;
        for (const char *p = digits; p < end; ++p)
            value = value * 10 + static_cast<uint64_t>(*p - '0');
        double d = static_cast<double>(value);
        return digits != begin ? -d : d;
    }
    // from_chars rounds correctly like strtod; out of range it leaves the
    // value alone, and strtod decides (infinity, zero or a subnormal).
    double value = 0;
    auto result = std::from_chars(begin, end, value, std::chars_format::general);
    if (result.ec != std::errc() || result.ptr != end)
        value = strtod(begin, nullptr);
    return value;
}

// Literal match that stops at the first difference, never past a NUL.
const char *match_literal(const char *p, const char *word) {
    for (; *word != '\0'; ++p, ++word) {
        if (*p != *word)
            return nullptr;
    }
    return p;
}

// Builds the tree while parsing; the open containers are the chain of
// parent links from `container_` up.
class TreeSink {
public:
    ~TreeSink() {
        free(pending_key_);
        json_delete(root_);
    }
    JsonNode *take_root() {
        JsonNode *root = root_;
        root_ = nullptr;
        return root;
    }
    bool inside() const { return container_ != nullptr; }
    bool in_object() const { return container_->tag == JSON_OBJECT; }
    void open(bool object) { container_ = add(new_node(object ? JSON_OBJECT : JSON_ARRAY)); }
    void close() { container_ = container_->parent; }
    void key(const StringSpan &span) { pending_key_ = decode_string(span); }
    void literal(JsonTag tag, bool value) {
        JsonNode *node = add(new_node(tag));
        if (tag == JSON_BOOL)
            node->bool_ = value;
    }
    void string(const StringSpan &span) { add(new_node(JSON_STRING))->string_ = decode_string(span); }
    void number(const char *begin, const char *end, bool plain_integer) {
        add(new_node(JSON_NUMBER))->number_ = convert_number(begin, end, plain_integer);
    }

private:
    JsonNode *add(JsonNode *node) {
        node->key = pending_key_;
        pending_key_ = nullptr;
        if (container_ != nullptr)
            link_tail(container_, node);
        else
            root_ = node;
        return node;
    }

    JsonNode *root_ = nullptr;
    JsonNode *container_ = nullptr;
    char *pending_key_ = nullptr;
};

// Records only whether each open container is an object, one byte a level.
class ValidateSink {
public:
    ~ValidateSink() { free(stack_); }
    bool inside() const { return depth_ != 0; }
    bool in_object() const { return stack_[depth_ - 1] != 0; }
    void open(bool object) {
        if (depth_ == capacity_) {
            capacity_ = capacity_ == 0 ? 64 : capacity_ * 2;
            stack_ = static_cast<unsigned char *>(xrealloc(stack_, capacity_));
        }
        stack_[depth_++] = object ? 1 : 0;
    }
    void close() { --depth_; }
    void key(const StringSpan &) {}
    void literal(JsonTag, bool) {}
    void string(const StringSpan &) {}
    void number(const char *, const char *, bool) {}

private:
    unsigned char *stack_ = nullptr;
    size_t depth_ = 0;
    size_t capacity_ = 0;
};

// Walks one document; `end` is the text's terminating NUL.
template <class Sink>
class Parser {
public:
    Parser(const char *text, Sink &sink) : text_(text), end_(text + strlen(text)), sink_(sink) {}

    bool run() {
        const char *p = skip_ws(text_);
        for (;;) {
            if (*p == '[' || *p == '{') {
                bool object = *p == '{';
                sink_.open(object);
                p = skip_ws(p + 1);
                if (*p != (object ? '}' : ']')) {
                    p = object ? key(p) : p;
                    if (p == nullptr)
                        return false;
                    continue;  // the first element or member
                }
                sink_.close();
                ++p;
            } else {
                p = scalar(p);
                if (p == nullptr)
                    return false;
            }
            bool complete;
            p = after_value(p, &complete);
            if (p == nullptr)
                return complete;
        }
    }

private:
    // A member's key and the colon after it; returns the start of the value.
    const char *key(const char *p) {
        if (*p != '"')
            return nullptr;
        StringSpan span;
        p = scan_string(p + 1, end_, &span);
        if (p == nullptr)
            return nullptr;
        p = skip_ws(p);
        if (*p != ':')
            return nullptr;
        sink_.key(span);
        return skip_ws(p + 1);
    }

    const char *literal(const char *p, const char *word, JsonTag tag, bool value) {
        p = match_literal(p, word);
        if (p != nullptr)
            sink_.literal(tag, value);
        return p;
    }

    // A scalar at `p`; returns the text after it or null.
    const char *scalar(const char *p) {
        switch (*p) {
        case '"': {
            StringSpan span;
            const char *after = scan_string(p + 1, end_, &span);
            if (after != nullptr)
                sink_.string(span);
            return after;
        }
        case 'n': return literal(p, "null", JSON_NULL, false);
        case 't': return literal(p, "true", JSON_BOOL, true);
        case 'f': return literal(p, "false", JSON_BOOL, false);
        default: {
            bool plain_integer;
            const char *after = scan_number(p, &plain_integer);
            if (after != nullptr)
                sink_.number(p, after, plain_integer);
            return after;
        }
        }
    }

    // After a complete value: closes finished containers and moves to the
    // next element or member. Returns the start of the next value, or null
    // with `*complete` telling whether the whole text was one valid document.
    const char *after_value(const char *p, bool *complete) {
        *complete = false;
        for (;;) {
            p = skip_ws(p);
            if (!sink_.inside()) {
                *complete = p == end_;
                return nullptr;
            }
            if (*p == ',') {
                p = skip_ws(p + 1);
                return sink_.in_object() ? key(p) : p;
            }
            if (*p != (sink_.in_object() ? '}' : ']'))
                return nullptr;
            sink_.close();
            ++p;
        }
    }

    const char *text_;
    const char *end_;  // knowing it lets strings be scanned eight bytes at a time
    Sink &sink_;
};

}  // namespace

JsonNode *json_decode(const char *text) {
    TreeSink sink;
    if (!Parser<TreeSink>(text, sink).run())
        return nullptr;  // the sink frees whatever was built
    return sink.take_root();
}

bool json_validate(const char *text) {
    ValidateSink sink;
    return Parser<ValidateSink>(text, sink).run();
}
