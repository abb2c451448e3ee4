/*
 * Verification and power-up of an inserted card.
 *
 * verified_transition accepts or refuses the card (disabled slot, wrong card
 * for a pre-provisioned slot), asks the hardware to power it and makes sure
 * the switch firmware holds an INI that fits the card.  powered_transition
 * records the power, turns the LED orange and decides the next step: SYNCED
 * when portd does not know the slot's ports yet, else READY.
 */
#include <stdio.h>

#include "chassis_mgr.h"

namespace {

#define POWER_FILE_FMT "/var/run/hw-management/system/lc%d_pwr"
#define STEP_PERIOD_SECONDS 1
#define POWER_SETTLE_SECONDS 1

/* Asks the hardware to power the card.  The request reaches the file when
 * it is closed, one second after the write; a file that cannot be opened is
 * passed over silently, as the hardware then raises no powered event and
 * the supervision reports the slot. */
void request_power(int slot_id) {
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, POWER_FILE_FMT, slot_id);
    FILE *file = fopen(path, "we");
    if (file) fputs("1\n", file);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Writing to %s\n", path);
    env_sleep(POWER_SETTLE_SECONDS);
    if (file) fclose(file);
}

/* A pre-provisioned slot takes only the card it was provisioned for. */
bool accept_provisioned_card(int slot_id) {
    slotInfo *slot = &g_slots_info[slot_id - 1];
    if (slot->provisioned_type != slot->card_type) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Different card inserted than what is pre-provisioned\n");
        return false;
    }
    int speed = card_type_port_speed(slot->card_type);
    MutexLock lock(&g_cards_conf_mutex);
    update_cards_conf(slot_id, speed, speed, speed, 0, 0, slot->disabled);
    return true;
}

/* A card without a compatible INI never reaches SYNCED by itself: like a
 * pulled card it must not hold the portd reload of the cards that do.
 * Should an INI come into use after all, its synced step still parks it
 * and the reload it triggers sends it on. */
void give_up_reload_hold(slotInfo *slot) {
    MutexLock lock(&g_cards_conf_mutex);
    slot->in_transition_reload_portd = 0;
}

}  // namespace

bool verified_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];
    if (!slot_has_card(slot)) return no_valid_transition(slot_id);  // pulled since the event was decided

    slotEvent next = slot_powered_event;
    if (slot->current_state & SLOT_VERIFIED) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Already in VERIFIED state\n");
        next = unless_parked(slot, next);
    } else {
        if (slot->disabled) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "card inserted in a slot that is disabled\n");
            /* A card that stays unpowered must not hold back other slots' reload. */
            slot->in_transition_reload_portd = 0;
            return true;
        }
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to SLOT_VERIFIED\n", (int)slot->current_state);
        slot->current_state |= SLOT_VERIFIED;

        if (slot->provisioned && !accept_provisioned_card(slot_id)) return false;

        request_power(slot_id);

        /* A pre-provisioned slot got its INI when it was provisioned. */
        if (!slot->slot_in_debug && !slot->provisioned) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Checking INI for slot\n");
            if (!check_and_update_ini_for_lc_insert(slot_id)) {
                CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Failed to locate and program INI file\n");
                give_up_reload_hold(slot);
            }
        }
    }

    if (!await_slot_event(slot_id, next, STEP_PERIOD_SECONDS)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
        return false;
    }
    return true;
}

bool powered_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];
    /* Power is only ever requested by the verified step: without a card, or
     * once a disable took SLOT_VERIFIED back, the event is left over. */
    if (!slot_has_card(slot) || !(slot->current_state & SLOT_VERIFIED)) return no_valid_transition(slot_id);

    if (slot->current_state & SLOT_POWERED) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Already in POWERED state\n");
    } else {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to SLOT_POWERED\n", (int)slot->current_state);
        slot->current_state |= SLOT_POWERED;
        set_led_color(slot_id, 1);
    }

    /* A slot parked in the portd reload is released from there, not here. */
    slot->trans_timer.state_monitored =
        unless_parked(slot, (slot->current_state & SLOT_SYNCED) ? slot_ready_event : slot_synced_event);
    if (!set_slot_timer(slot_id, STEP_PERIOD_SECONDS, 0)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
        return false;
    }
    return true;
}
