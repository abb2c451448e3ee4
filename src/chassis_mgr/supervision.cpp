/*
 * Transition timer supervision.  Inotify alone is not trusted to report every
 * change of the event files, and a card may hang between stages, so every
 * transition that waits for the next event arms the slot's one-shot timer
 * and records the awaited event in trans_timer.state_monitored.  On expiry a
 * worker runs handle_slot_timer_expired under the slot mutex: it reads the
 * files itself, runs the awaited transition when its file now reads 1,
 * otherwise re-arms, and after 240 fruitless expiries declares the slot
 * stuck and stops re-arming.  A disabled card is not coming up: the
 * supervision of its stage stops without counting and without a verdict,
 * and the enable starts it again through the presence transition.
 */
#include "chassis_mgr.h"

namespace {

/* Counts one more fruitless expiry; true when the slot has now had
 * TRANSITION_MAX_TRIES of them before this one, i.e. it is stuck. */
bool count_expiry_is_last(slotInfo *slot) {
    int hits = slot->trans_timer.transition_timer_hits;
    slot->trans_timer.transition_timer_hits = hits + 1;
    return hits == TRANSITION_MAX_TRIES;
}

bool rearm(int slot_id, uint32_t seconds) {
    if (!set_slot_timer(slot_id, seconds, 0)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
        return false;
    }
    return true;
}

bool supervise_stage(int slot_id, slotInfo *slot) {
    if (!count_expiry_is_last(slot)) return rearm(slot_id, SUPERVISION_PERIOD_SEC);
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "slot state stuck and not changing state MAX tries = %d\n",
                TRANSITION_MAX_TRIES);
    slot->in_err_state = 1;
    if (slot->in_transition_reload_portd) {
        CM_LOG_SLOT(LOG_LEVEL_WARN, slot_id, "Removing slot from wait_reload_portd\n");
        slot->in_transition_reload_portd = 0;
    }
    return true;
}

/* Unlike the other stages, a stuck synced stage leaves the reload wait
 * silently, before the error line. */
bool supervise_synced(int slot_id, slotInfo *slot) {
    if (!count_expiry_is_last(slot)) return rearm(slot_id, SUPERVISION_PERIOD_SEC);
    slot->in_transition_reload_portd = 0;
    slot->in_err_state = 1;
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "State stuck and not changing state to synced\n");
    return true;
}

/* True for the stages that count towards the stuck verdict: every event
 * read from a file but the presence, which an empty slot awaits for ever. */
bool counted_stage(int monitored) { return monitored != slot_present_event && is_file_event(monitored); }

/* The awaited event has not happened: keep waiting, by stage. */
bool keep_waiting(int slot_id, slotInfo *slot, int monitored) {
    if (slot->disabled && counted_stage(monitored)) return true;  // nothing to wait for until enabled
    switch (monitored) {
    case slot_present_event:
        return rearm(slot_id, PRESENT_POLL_PERIOD_SEC);  // an empty slot is polled for ever
    case slot_verified_event:
    case slot_powered_event:
    case slot_ready_event:
    case slot_active_event:
        return supervise_stage(slot_id, slot);
    case slot_synced_event:
        return supervise_synced(slot_id, slot);
    case slot_wait_reload_portd:
        return g_transition_table[slot_wait_reload_portd].fn_transition(slot_id);  // keeps its own time
    default:
        return true;
    }
}

}  // namespace

bool handle_slot_timer_expired(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600);
    slotInfo *slot = &g_slots_info[slot_id - 1];
    char path[CM_PATH_SIZE];
    int value = 0;

    event_file_path(path, sizeof path, slot_present_event, slot_id);
    if (!read_event_file(path, &value)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to open file %s\n", path);
        return false;
    }
    if (value == 0 && (slot->current_state & SLOT_PRESENT)) {
        slot->in_err_state = 0;
        slot->trans_timer.transition_timer_hits = 0;
        return g_transition_table[slot_empty_event].fn_transition(slot_id);
    }

    int monitored = slot->trans_timer.state_monitored;
    if (monitored == slot_empty_event) return true;
    /* The timeout row has no event file, and no other value names one. */
    if (monitored < 0 || monitored >= SLOT_EVENT_COUNT || !g_transition_table[monitored].sysfs_event_path)
        return true;

    env_path(path, sizeof path, g_transition_table[monitored].sysfs_event_path, slot_id);
    if (!read_event_file(path, &value)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to open file %s\n", path);
        return false;
    }
    if (value == 1) {
        slot->trans_timer.transition_timer_hits = 0;
        slot->in_err_state = 0;
        bool result = g_transition_table[monitored].fn_transition(slot_id);  // the slot mutex is held
        slot->in_err_state = 0;
        return result;
    }
    return keep_waiting(slot_id, slot, monitored);
}
