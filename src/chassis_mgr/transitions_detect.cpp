/*
 * The two transitions at the edges of a card's life: insertion
 * (present_transition) and removal (empty_transition), with the reader that
 * turns the card's part number into a card type.
 *
 * A card is identified from its parsed VPD file: the part number decides the
 * card type, the serial number and hardware revision are recorded in the
 * slot.  Removal forgets the card but keeps SLOT_SYNCED: the slot's ports
 * stay known to portd, so a card put back later needs no second reload.
 */
#include <stdlib.h>
#include <string.h>

#include "chassis_mgr.h"

namespace {

#define VPD_PATH_FMT "/var/run/hw-management/lc%d/eeprom/vpd_parsed"
#define VPD_VALUE_SIZE 128
#define CARD_RETRY_SECONDS 5
#define PRESENT_PERIOD_SECONDS 10
#define STEP_PERIOD_SECONDS 1

/* Every bit but SLOT_SYNCED, which outlives the card. */
constexpr int kRemovalMask = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED | SLOT_READY | SLOT_ACTIVE;
static_assert(kRemovalMask == 59, "removal clears all bits but SLOT_SYNCED");

/* Reads one VPD field into `value`: a value of `size` characters or more
 * fills the buffer with no terminator. */
void read_vpd_field(int slot_id, const char *field, char *value, int size) {
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, VPD_PATH_FMT, slot_id);
    get_vpd_value(path, field, value, size);
}

/* A VPD field read as C text (logged with %s, converted with strtol): the
 * last byte is kept a terminator, so a part number or revision of 128
 * characters or more is cut to 127. */
void read_vpd_text(int slot_id, const char *field, char *value, int size) {
    read_vpd_field(slot_id, field, value, size);
    value[size - 1] = '\0';
}

/* Serial number and hardware revision; a missing field leaves "ERROR" and 0.
 * The serial takes all 32 bytes of its field, unterminated when that long:
 * every reader of serial_no stops at 32 bytes. */
void read_card_identity(int slot_id) {
    char serial[SERIAL_NO_SIZE];
    read_vpd_field(slot_id, "SN_VPD_FIELD", serial, sizeof serial);
    slot_serial_set(slot_id, serial);

    char revision[VPD_VALUE_SIZE];
    read_vpd_text(slot_id, "HW_REV_FIELD", revision, sizeof revision);
    g_slots_info[slot_id - 1].hw_revision = (int)strtol(revision, nullptr, 10);
}

/* A card seen again while already present: only an unknown type is looked
 * at once more, with one retry after the VPD had time to settle. */
bool recheck_card_type(int slot_id) {
    if (g_slots_info[slot_id - 1].card_type != CARD_TYPE_NONE) return true;
    if (get_card_type(slot_id)) return true;
    env_sleep(CARD_RETRY_SECONDS);
    return get_card_type(slot_id) != 0;
}

}  // namespace

int get_card_type(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600);
    slotInfo *slot = &g_slots_info[slot_id - 1];
    char part[VPD_VALUE_SIZE];
    read_vpd_text(slot_id, "PN_VPD_FIELD", part, sizeof part);

    /* Prefixes only: suffixes name variants of the same card. */
    if (strncmp(part, "KTR9600-C16", 11) == 0) {
        slot->card_type = CARD_TYPE_16X100G;
        return 1;
    }
    if (strncmp(part, "KTR9600-C4", 10) == 0) {
        slot->card_type = CARD_TYPE_4X400G;
        return 1;
    }
    slot->card_type = CARD_TYPE_NONE;
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unsupported line card inserted(vpd_value = %s)\n", part);
    return 0;
}

bool present_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];
    slotEvent next = slot_verified_event;

    if (slot->current_state & SLOT_PRESENT) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Already in present state\n");
        if (!recheck_card_type(slot_id)) {
            CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to determine card type");
            slot->in_transition_reload_portd = 0;
            return false;
        }
        next = unless_parked(slot, next);
    } else {
        int old_state = slot->current_state;
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to SLOT_PRESENT\n", old_state);
        slot->current_state |= SLOT_PRESENT;
        if (old_state & SLOT_POWERED) set_led_color(slot_id, 1);
        /* A slot without a provisioned type gets new ports: portd must reload. */
        if (!slot->provisioned) slot->in_transition_reload_portd = 1;
        if (!get_card_type(slot_id)) {
            /* An unsupported card must not hold back the reload of others. */
            slot->in_transition_reload_portd = 0;
            return false;
        }
        read_card_identity(slot_id);
    }

    if (!await_slot_event(slot_id, next, STEP_PERIOD_SECONDS)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to set timer\n");
        return false;
    }
    return true;
}

bool empty_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600);
    slotInfo *slot = &g_slots_info[slot_id - 1];

    if (!(slot->current_state & SLOT_PRESENT)) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Already in SLOT_EMPTY state\n");
        return true;
    }
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to SLOT_EMPTY\n", (int)slot->current_state);
    slot->current_state &= ~kRemovalMask;
    slot_serial_set(slot_id, "none");

    {
        MutexLock lock(&g_cards_conf_mutex);
        /* A card that is gone is not coming up: it must not hold the portd
         * reload of the cards that are.  The flag goes under the rendezvous
         * lock, before the slot awaits presence again below (which also
         * takes a parked slot out of the rendezvous), so that a reload
         * running meanwhile either releases the slot first or skips it. */
        slot->in_transition_reload_portd = 0;
        if (slot->provisioned) {
            /* The slot keeps its provisioned ports for the next card. */
            int speed = card_type_port_speed(slot->provisioned_type);
            update_cards_conf(slot_id, 0, speed, speed, 0, 0, slot->disabled);
        } else {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Card type present:%d\n", (int)slot->card_type);
            int speed = card_type_port_speed(slot->card_type);
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "port_speed setting for cards.conf- %d\n", speed);
            update_cards_conf(slot_id, 0, 0, speed, 0, 0, slot->disabled);
        }
        slot->card_type = CARD_TYPE_NONE;
    }

    if (!await_slot_event(slot_id, slot_present_event, PRESENT_PERIOD_SECONDS)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to set timer\n");
        return false;
    }
    return true;
}
