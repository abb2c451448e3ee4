/*
 * The chassis in one line, as the service manager shows it in the service's
 * status: "8 slots: 3 operational, 1 bringing up (slot 4 at SYNCED),
 * 1 stuck (slot 6), 3 empty".
 */
#pragma once

#include <stddef.h>

#include "chassis_mgr.h"

/* What the line is made of, per slot (from slotInfo). */
struct SlotSummaryInput {
    int current_state;
    int in_err_state;
    int disabled;
    int card_type;
    int provisioned;
    int provisioned_type;
};

/* How a slot is counted, in the order the line lists the kinds. */
enum SlotKind {
    SLOT_KIND_OPERATIONAL,  // the card is active
    SLOT_KIND_BRINGING_UP,  // a card on its way, at the stage shown
    SLOT_KIND_STUCK,        // a stage did not come within its tries
    SLOT_KIND_REFUSED,      // unsupported, or not the provisioned type
    SLOT_KIND_DISABLED,     // disabled by the administrator, card or not
    SLOT_KIND_EMPTY,
    SLOT_KIND_COUNT,
};

SlotKind slot_summary_kind(const SlotSummaryInput &slot);
/* The furthest stage a card has reached: "PRESENT", "VERIFIED", "POWERED",
 * "SYNCED" (once powered: a slot keeps SYNCED from an earlier card),
 * "READY" or "ACTIVE". */
const char *slot_summary_stage(int current_state);
/* Writes the line (NUL-terminated, cut to `size`); returns its length. */
size_t slot_summary_render(const SlotSummaryInput (&slots)[MAX_SLOTS_FOR_9600], char *line, size_t size);
/* The line for the slots as they are now (read without their locks). */
size_t slot_summary_of_chassis(char *line, size_t size);
