/*
 * The one-line summary of the chassis (see slot_summary.h).  A slot is
 * counted once, by the first of: disabled, empty, operational, stuck,
 * refused, bringing up.  An active card stays operational even when its
 * slot was once marked stuck: the mark is cleared only by the supervision,
 * and the card came up after all.
 */
#include "slot_summary.h"

#include <stdarg.h>
#include <stdio.h>

namespace {

constexpr const char *kKindNames[SLOT_KIND_COUNT] = {
    "operational", "bringing up", "stuck", "refused", "disabled", "empty",
};

/* A card in a pre-provisioned slot that is of another type is refused at
 * verification and never powered; an unsupported card has no type. */
bool refused(const SlotSummaryInput &slot) {
    if (slot.card_type == CARD_TYPE_NONE) return true;
    return slot.provisioned && slot.provisioned_type != slot.card_type && !(slot.current_state & SLOT_POWERED);
}

/* Appends to `line` as snprintf would, never past `size`. */
void append(char *line, size_t size, size_t *used, const char *fmt, ...) __attribute__((format(printf, 4, 5)));
void append(char *line, size_t size, size_t *used, const char *fmt, ...) {
    if (*used >= size) return;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line + *used, size - *used, fmt, ap);
    va_end(ap);
    if (n > 0) *used = *used + (size_t)n < size ? *used + (size_t)n : size - 1;
}

/* "(slot 6)", "(slots 6, 7)", or for cards on their way "(slot 4 at
 * SYNCED, slot 5 at READY)". */
void append_slots(char *line, size_t size, size_t *used, const SlotSummaryInput (&slots)[MAX_SLOTS_FOR_9600],
                  SlotKind kind, int count) {
    bool with_stage = kind == SLOT_KIND_BRINGING_UP;
    append(line, size, used, " (%s", !with_stage && count > 1 ? "slots " : "");
    const char *separator = "";
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        if (slot_summary_kind(slots[i]) != kind) continue;
        if (with_stage)
            append(line, size, used, "%sslot %d at %s", separator, i + 1, slot_summary_stage(slots[i].current_state));
        else
            append(line, size, used, "%s%s%d", separator, count > 1 ? "" : "slot ", i + 1);
        separator = ", ";
    }
    append(line, size, used, ")");
}

}  // namespace

SlotKind slot_summary_kind(const SlotSummaryInput &slot) {
    if (slot.disabled) return SLOT_KIND_DISABLED;
    if (!(slot.current_state & SLOT_PRESENT)) return SLOT_KIND_EMPTY;
    if (slot.current_state & SLOT_ACTIVE) return SLOT_KIND_OPERATIONAL;
    if (slot.in_err_state) return SLOT_KIND_STUCK;
    if (refused(slot)) return SLOT_KIND_REFUSED;
    return SLOT_KIND_BRINGING_UP;
}

const char *slot_summary_stage(int state) {
    if (state & SLOT_ACTIVE) return "ACTIVE";
    if (state & SLOT_READY) return "READY";
    if ((state & SLOT_SYNCED) && (state & SLOT_POWERED)) return "SYNCED";
    if (state & SLOT_POWERED) return "POWERED";
    if (state & SLOT_VERIFIED) return "VERIFIED";
    return "PRESENT";
}

size_t slot_summary_render(const SlotSummaryInput (&slots)[MAX_SLOTS_FOR_9600], char *line, size_t size) {
    if (size == 0) return 0;
    int counts[SLOT_KIND_COUNT] = {};
    for (const SlotSummaryInput &slot : slots) counts[slot_summary_kind(slot)]++;
    size_t used = 0;
    line[0] = '\0';
    append(line, size, &used, "%d slots:", MAX_SLOTS_FOR_9600);
    const char *separator = " ";
    for (int kind = 0; kind < SLOT_KIND_COUNT; ++kind) {
        if (counts[kind] == 0) continue;
        append(line, size, &used, "%s%d %s", separator, counts[kind], kKindNames[kind]);
        if (kind != SLOT_KIND_OPERATIONAL && kind != SLOT_KIND_EMPTY)
            append_slots(line, size, &used, slots, (SlotKind)kind, counts[kind]);
        separator = ", ";
    }
    return used;
}

size_t slot_summary_of_chassis(char *line, size_t size) {
    SlotSummaryInput slots[MAX_SLOTS_FOR_9600];
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        const slotInfo &info = g_slots_info[i];
        slots[i] = {info.current_state, info.in_err_state, info.disabled,
                    info.card_type,     info.provisioned,  info.provisioned_type};
    }
    return slot_summary_render(slots, line, size);
}
