/*
 * The reload of the switching daemon.
 *
 * portd learns a new card's ports only when it is reloaded, and a reload
 * disturbs every port, so new cards that come up together share one: each
 * new card, when it reaches SYNCED, parks here (its awaited event becomes
 * slot_wait_reload_portd) until every other slot flagged for the reload
 * (in_transition_reload_portd) has parked too.  The last one to park reloads
 * portd for all of them and releases them towards POWERED or READY.  A
 * parked slot that finds the reload still held tries again every 3 s
 * through its timer.  Only cards that are coming up hold the reload: a
 * removal, a disable or a failed pre-provisioning takes the slot's flag
 * back.
 *
 * The whole decision runs under g_cards_conf_mutex, which serialises the
 * rendezvous (and is the lock that guards the other slots' flag and awaited
 * event here); the caller holds its own slot mutex (lock order: slot mutex,
 * then g_cards_conf_mutex).
 */
#include "chassis_mgr.h"

namespace {

#define STEP_PERIOD_SECONDS 1
#define HOLD_RETRY_SECONDS 3

/* After SYNCED a slot goes on to READY once powered, else to POWERED. */
slotEvent step_after_synced(const slotInfo *slot) {
    return (slot->current_state & SLOT_POWERED) ? slot_ready_event : slot_powered_event;
}

bool is_parked(const slotInfo *slot) { return slot->trans_timer.state_monitored == slot_wait_reload_portd; }

/* Sends a slot out of the rendezvous towards its next step.  A slot
 * disabled while it waited awaits that step too; its supervision stops at
 * the first expiry and its events are refused by the steps themselves. */
void send_on(int slot_id, slotInfo *slot) {
    if (!await_slot_event(slot_id, step_after_synced(slot), STEP_PERIOD_SECONDS))
        CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
}

/* Slots waiting for the reload, in ascending order. */
struct ParkedSlots {
    int slot_ids[MAX_SLOTS_FOR_9600];
    int count = 0;
};

/* Scans every slot; returns the first flagged slot that has not parked yet
 * (it holds the reload), or 0 when nobody holds, with the parked flagged
 * slots collected into `parked`. */
int find_reload_holder(ParkedSlots *parked) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        const slotInfo *slot = &g_slots_info[slot_id - 1];
        int flag = slot->in_transition_reload_portd;
        CM_LOG(LOG_LEVEL_INFO, "slot = %d, Flag = %d state = %d\n", slot_id, flag,
               (int)slot->trans_timer.state_monitored);
        if (!flag) continue;
        if (!is_parked(slot)) return slot_id;
        parked->slot_ids[parked->count++] = slot_id;
    }
    return 0;
}

/* Sends each released slot on to its next step; a slot whose timer cannot
 * be armed is logged and the others are released all the same. */
void release_slots(const ParkedSlots &parked) {
    for (int i = 0; i < parked.count; ++i) {
        int slot_id = parked.slot_ids[i];
        slotInfo *slot = &g_slots_info[slot_id - 1];
        slot->in_transition_reload_portd = 0;
        send_on(slot_id, slot);
    }
}

}  // namespace

bool wait_reload_portd(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];

    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned to WAIT_RELOAD_PORTD\n");
    if (slot->provisioned) {
        /* portd knows a provisioned slot's ports already. */
        if (!await_slot_event(slot_id, step_after_synced(slot), STEP_PERIOD_SECONDS)) {
            CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
            return false;
        }
        return true;
    }

    MutexLock lock(&g_cards_conf_mutex);
    if (slot->trans_timer.state_monitored == slot_synced_event)
        slot->trans_timer.state_monitored = slot_wait_reload_portd;

    ParkedSlots parked;
    int holder = find_reload_holder(&parked);
    if (holder != 0) {
        CM_LOG(LOG_LEVEL_INFO, "Holding reload because of this slot %d\n", holder);
        if (!is_parked(slot)) return true;
        if (!set_slot_timer(slot_id, HOLD_RETRY_SECONDS, 0)) {
            CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
            return false;
        }
        return true;
    }
    /* Only a parked caller reloads: a late call for a released slot must
     * not reload portd a second time. */
    if (!is_parked(slot)) return true;

    release_slots(parked);
    /* A caller parked without a flag is a card whose synced event came after
     * the supervision had given up on it: it joined too late to be counted,
     * but its ports are new all the same, so it reloads and moves on. */
    if (is_parked(slot)) send_on(slot_id, slot);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Reloading portd...\n");
    bool reloaded = invoke_reload_portd();  /* a failure is logged; the slots go on regardless */
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "portd reloaded\n");
    /* The dirty cards are known to portd now, unless the reload failed:
     * then cards.conf goes on naming them until a reload succeeds. */
    if (reloaded) cards_conf_clear_dirty_bits();
    return true;
}

static bool run_systemctl(const char *command) {
    return cm_command_succeeded(command, cm_system(command, SYSTEMCTL_LIMIT_SEC));
}

bool invoke_reload_portd(void) { return run_systemctl("systemctl reload portd"); }

bool invoke_reload_envd(void) { return run_systemctl("systemctl reload envd"); }
