/*
 * chmgrctl: decoding the daemon's replies and printing them for people
 * (tables, blocks) or for programs (JSON).
 */
#ifndef CHMGRCTL_CTL_OUTPUT_H
#define CHMGRCTL_CTL_OUTPUT_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace chmgrctl {

/* One record of a SHOW_SUMMARY / SHOW_DETAIL reply. */
struct SlotSummary {
    uint32_t slot;
    std::string serial_no;
    std::string card_type;
    std::string state;
    int32_t ini_major;
    int32_t ini_minor;
    bool provisioned;
};

/* The records of a 1,024-byte show reply to a request for `slot_no`
 * (1 to 8: record 0; 255: records 0 to 7). */
bool decode_summary(const std::vector<unsigned char> &reply, uint32_t slot_no, std::vector<SlotSummary> *slots,
                    std::string *error);

/* A text field of the protocol: at most `size` bytes, ending at the first NUL. */
std::string field_text(const unsigned char *field, size_t size);
/* `text` made safe for a terminal: control characters become '?'. */
std::string printable(const std::string &text);
/* `text` made valid UTF-8 (the JSON encoder accepts nothing else): each byte
 * that does not start a valid sequence becomes '?'. */
std::string valid_utf8(const std::string &text);

/* True when `document` is a JSON object (the daemon sends "JSON output
 * error\n" instead when it could not read the document back). */
bool check_status_document(const std::string &document, std::string *error);
/* The status document (checked above) for people. */
void print_status_document(FILE *out, const std::string &document);

}  // namespace chmgrctl

#endif /* CHMGRCTL_CTL_OUTPUT_H */
