/*
 * The synced and active transitions.
 *
 * synced_transition is where a new card in a slot without a provisioned
 * type is written into cards.conf (as detected, dirty) and joins the shared
 * reload of portd; for every other slot it only points the slot at its next
 * step.  active_transition ends the bring-up: the slot is marked online,
 * the card's up time is stamped and the LED turns green.
 */
#include <sys/time.h>

#include "chassis_mgr.h"

namespace {

#define STEP_PERIOD_SECONDS 1
#define REMOVAL_CHECK_SECONDS 10

/* Speed recorded for a newly detected card: VPD detection yields only the
 * 4-port 400G card and the 16-port 100G card, so anything but the former
 * is recorded at 100. */
int detected_card_speed(int card_type) { return card_type == CARD_TYPE_4X400G ? 400 : 100; }

/* Records the new card as detected and dirty: portd must learn its ports. */
void record_new_card(int slot_id) {
    slotInfo *slot = &g_slots_info[slot_id - 1];
    MutexLock lock(&g_cards_conf_mutex);
    if (slot->provisioned) return;  /* provisioned meanwhile by the control thread */
    int speed = detected_card_speed(slot->card_type);
    update_cards_conf(slot_id, speed, 0, speed, 1, 0, slot->disabled);
}

void stamp_uptime(int slot_id) {
    struct timeval now;
    if (gettimeofday(&now, nullptr) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to gettimeofday\n");
        return;
    }
    slot_uptime_set(slot_id, &now);
}

}  // namespace

bool synced_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];

    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to SLOT_SYNCED\n", (int)slot->current_state);
    if (!(slot->current_state & SLOT_SYNCED) && !slot->provisioned) {
        /* A card pulled since the event was decided brings no ports. */
        if (!slot_has_card(slot)) return no_valid_transition(slot_id);
        slot->current_state |= SLOT_SYNCED;
        record_new_card(slot_id);
        wait_reload_portd(slot_id);  /* times the slot's next step itself */
        return true;
    }
    if ((slot->current_state & SLOT_PRESENT) && !slot->disabled) {
        slotEvent next = (slot->current_state & SLOT_POWERED) ? slot_ready_event : slot_powered_event;
        if (!await_slot_event(slot_id, unless_parked(slot, next), STEP_PERIOD_SECONDS)) {
            CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
            return false;
        }
    }
    return true;
}

bool active_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];

    if (slot->disabled) {
        /* Logged against the slot number one below, like the ready step. */
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id - 1, "Will not transition to active while in disabled state\n");
        return true;
    }
    if (!slot_has_card(slot)) return no_valid_transition(slot_id);  // pulled since the event was decided

    if (slot->current_state & SLOT_ACTIVE) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Already in ACTIVE state\n");
    } else {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to SLOT_ACTIVE\n", (int)slot->current_state);
        slot->current_state |= SLOT_ACTIVE;
        {
            MutexLock lock(&g_cards_conf_mutex);
            cards_conf_set_slot_online(slot_id, 1);
        }
        stamp_uptime(slot_id);
        set_led_color(slot_id, 2);
    }

    /* In service: one look at the slot after 10 s, then only file changes. */
    if (!await_slot_event(slot_id, slot_empty_event, REMOVAL_CHECK_SECONDS)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
        return false;
    }
    return true;
}
