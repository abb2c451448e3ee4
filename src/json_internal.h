// Internal to the JSON library: what the document model and encoders
// (json.cpp) share with the decoder and validator (json_decode.cpp).  Not part
// of the interface in json.h.
#ifndef CHMGR_JSON_INTERNAL_H
#define CHMGR_JSON_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "json.h"

namespace json_internal {

using Byte = unsigned char;

// Bytes passed over without a closer look: by the decoder inside a string
// (printable ASCII but the quotation mark and backslash), and by the encoder
// (validated UTF-8 is copied whole, and 0x1F is copied raw by design).
struct PlainTable {
    bool plain[256];
    constexpr PlainTable(int low, int high) : plain() {
        for (int c = low; c < high; ++c)
            plain[c] = c != '"' && c != '\\';
    }
};

// Eight bytes at a time. Callers know where the text ends and never load a
// word that reaches past its terminating NUL.
inline constexpr uint64_t kOnes = 0x0101010101010101ULL;
inline constexpr uint64_t kHighBits = 0x8080808080808080ULL;

inline uint64_t load8(const char *p) {
    uint64_t word;
    memcpy(&word, p, sizeof word);
    return word;
}

// Nonzero when some byte of `word` is below `limit` (limit <= 0x80).
inline uint64_t any_below(uint64_t word, Byte limit) {
    return (word - kOnes * limit) & ~word & kHighBits;
}

// Nonzero when some byte of `word` equals `c`.
inline uint64_t any_equal(uint64_t word, Byte c) {
    uint64_t x = word ^ (kOnes * c);
    return (x - kOnes) & ~x & kHighBits;
}

// Length of the valid UTF-8 sequence starting with a byte >= 0x80, or 0.
size_t utf8_sequence_length(const char *s);

// End of the number at `p`, or null; `plain_integer` tells whether it had
// neither fraction nor exponent.
const char *scan_number(const char *p, bool *plain_integer);

// Allocation that ends the process when memory runs out.
void *xmalloc(size_t size);
void *xrealloc(void *old, size_t size);

// A detached node with no key and no children.
JsonNode *new_node(JsonTag tag);

// Appends `child` to `parent`'s children.
void link_tail(JsonNode *parent, JsonNode *child);

}  // namespace json_internal

#endif  // CHMGR_JSON_INTERNAL_H
