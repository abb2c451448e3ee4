/*
 * Feeds arbitrary bytes to the JOURNAL_STREAM reader and checks that it
 * takes exactly the "<dev>:<ino>" form: two runs of decimal digits around
 * one colon, each within 64 bits, read back as the same two numbers.
 * Anything else must leave no journal stream.  A violation aborts with a
 * message on standard error.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "env.h"

namespace {

bool all_digits(const std::string &text) {
    if (text.empty()) return false;
    for (char c : text)
        if (c < '0' || c > '9') return false;
    return true;
}

/* Decimal digits that fit 64 bits, as an independent reading. */
bool fits_64_bits(const std::string &digits, uint64_t *value) {
    uint64_t result = 0;
    for (char c : digits) {
        uint64_t digit = (uint64_t)(c - '0');
        if (result > (UINT64_MAX - digit) / 10) return false;
        result = result * 10 + digit;
    }
    *value = result;
    return true;
}

[[noreturn]] void violation(const char *what, const std::string &text) {
    fprintf(stderr, "journal_stream_fuzz: %s for '%s'\n", what, text.c_str());
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    if (text.find('\0') != std::string::npos) return 0;  // an environment value holds no NUL
    env_configure_journal_stream(text.c_str());
    dev_t dev = 0;
    ino_t ino = 0;
    bool taken = env_journal_stream(&dev, &ino);

    size_t colon = text.find(':');
    uint64_t want_dev = 0;
    uint64_t want_ino = 0;
    bool valid = colon != std::string::npos && all_digits(text.substr(0, colon)) &&
                 all_digits(text.substr(colon + 1)) && fits_64_bits(text.substr(0, colon), &want_dev) &&
                 fits_64_bits(text.substr(colon + 1), &want_ino);
    if (taken != valid) violation(taken ? "accepted a malformed value" : "refused a valid value", text);
    if (taken && ((uint64_t)dev != want_dev || (uint64_t)ino != want_ino)) violation("misread the numbers", text);
    env_configure_journal_stream(nullptr);
    return 0;
}
