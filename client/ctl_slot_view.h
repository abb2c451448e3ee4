/*
 * chmgrctl: what an operator needs to know about a slot, worked out from
 * the daemon's show record and the slot's part of the status document:
 * the stage its card has reached, whether it is stuck, what it waits for,
 * and in plain words why it is not in service.
 */
#ifndef CHMGRCTL_CTL_SLOT_VIEW_H
#define CHMGRCTL_CTL_SLOT_VIEW_H

#include <stdint.h>

#include <string>
#include <vector>

#include "ctl_output.h"

struct JsonNode;

namespace chmgrctl {

/* The stages of a bring-up, in the order a new card normally reaches them. */
enum Stage { STAGE_NONE = -1, STAGE_PRESENT, STAGE_VERIFIED, STAGE_POWERED, STAGE_SYNCED, STAGE_READY, STAGE_ACTIVE };
constexpr int kStageCount = 6;

/* Expiries of the one-second supervision before the daemon gives a stage up. */
constexpr int kStuckTries = 240;

const char *stage_name(Stage stage);  // "PRESENT" .. "ACTIVE", "-"

/* One line of a log ring: "[SLOT3:INFO]1700000000.012345 2023-11-14 22:13:20 file.cpp:94 text". */
struct RingLine {
    std::string level;    // "INFO", "WARN", "ERR"
    double epoch = 0;     // seconds since the epoch, with microseconds
    std::string clock;    // "2023-11-14 22:13:20"
    std::string message;  // the text after the location, without its line feed
};
bool parse_ring_line(const std::string &line, RingLine *parsed);

/* The stage a "Transitioned from N to SLOT_X" message names, STAGE_NONE for
 * another message; `empty` is set for "to SLOT_EMPTY". */
Stage transition_stage(const std::string &message, bool *empty);

/* What the daemon's replies about one slot do not carry: the slot's line of
 * the card configuration file and the daemon-wide log ring. */
struct SlotContext {
    int provisioned_speed = -1;           // Gb/s as cards.conf records it, -1 not known
    int dirty = -1;                       // cards.conf's dirty flag, -1 not known
    std::vector<std::string> daemon_log;  // the daemon-wide ring, oldest first, without line feeds
    std::string vpd_serial;               // the serial number in the card's VPD, empty when not read
};

struct SlotView {
    uint32_t slot = 0;
    std::string oper_state;     // the daemon's word: Empty, Offline, Operational
    bool disabled = false;
    bool provisioned = false;
    std::string provisioned_type;  // "C4", "C16", "-" (not provisioned), "?" (not known)
    std::string card_type;      // the daemon's card type name
    std::string part_number;    // an unsupported card's part number as logged, empty when not known
    std::string serial_no;
    int hw_revision = 0;        // hardware revision of the slot's INI
    int ini_minor = 0;
    int ports = 0;              // ports of the card type, 0 when none
    unsigned stage_bits = 0;    // bit i set: stage i reached (Stage order)
    Stage stage = STAGE_NONE;   // the highest stage reached
    bool stuck = false;         // the daemon gave the awaited stage up
    bool held = false;          // not going on by itself: stuck, disabled, unsupported or refused card
    std::string state_text;     // the daemon's state text, trailing blank removed
    std::string awaited_event;  // the daemon's word for the awaited event
    long long up_time_s = -1;   // -1: not active
    double stage_since = 0;     // epoch of the last stage change in the slot's log, 0 unknown
    std::string stage_since_clock;
    std::string reason;         // why the slot is not Operational, empty when it is
    std::vector<std::string> log;  // the slot's log lines, without line feeds
};

/* Fills `view` from a show record and the slot's object of the status
 * document (either may be missing: `summary` null, `slot_object` null).
 * `provisioned_speed` is the slot's provisioned speed in Gb/s as the card
 * configuration file records it, or -1 when it is not known. */
void build_slot_view(const SlotSummary *summary, JsonNode *slot_object, int provisioned_speed, SlotView *view);
/* The same, with the slot's cards.conf facts and the daemon-wide log, which
 * name the slot holding a portd reload and a reload that failed. */
void build_slot_view(const SlotSummary *summary, JsonNode *slot_object, const SlotContext &context, SlotView *view);

/* The time stamp of the earliest line still in the slot's log (the log
 * is kept oldest first), 0 when no line can be read. */
double earliest_log_time(const SlotView &view);

/* The daemon-wide log lines of a status document (its top-level "Log"). */
std::vector<std::string> document_daemon_log(JsonNode *document);

/* "C4", "C16" or "none" for the daemon's card type name. */
std::string short_card_type(const std::string &card_type);

/* Seconds of fixed waits still ahead of a card at `stage` that entered it
 * `elapsed_s` seconds ago, at the daemon's clock factor `scale`; -1 when
 * nothing can be said (not present, or `held`). */
double remaining_fixed_wait(Stage stage, bool held, double elapsed_s, double scale);

/* "1h02m05s", "-" for a negative value. */
std::string duration_text(long long seconds);

}  // namespace chmgrctl

#endif /* CHMGRCTL_CTL_SLOT_VIEW_H */
