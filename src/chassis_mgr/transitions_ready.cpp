/*
 * The ready transition: the long step of a card's bring-up.
 *
 * The card is enabled, its gearbox firmware is updated by an outside tool
 * (one slot at a time, under g_gearbox_update), it is enabled again and
 * soft-reset through the SDK; then the SDK is polled until the card reports
 * ready and its INI in use, the card is activated, and envd is reloaded so
 * that it watches the new card's sensors.  The waits are fixed: the card
 * gives no signal when it has settled.  Every failure along the way is
 * logged and the sequence goes on, so that a card is never left half up.
 */
#include <stdio.h>

#include "chassis_mgr.h"
#include "notify.h"
#include "chmgr_sdk.h"

namespace {

#define ENABLE_FILE_FMT "/var/run/hw-management/system/lc%d_enable"
#define GEARBOX_TOOL "/usr/lib/tarnel/brlgbfwupgrade.ks"
#define GEARBOX_LOG "/var/log/gb.log"
#define STEP_PERIOD_SECONDS 1
#define AFTER_FIRST_ENABLE_SECONDS 30
#define AFTER_SECOND_ENABLE_SECONDS 15
#define AFTER_RESET_SECONDS 5
#define READY_POLLS 25
#define INI_IN_USE_POLLS 5

/* Writes "1\n" to the card's enable file.  A file that cannot be opened is
 * passed over: the steps after it log their own failures. */
void enable_card(int slot_id) {
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, ENABLE_FILE_FMT, slot_id);
    FILE *file = fopen(path, "we");
    if (!file) return;
    fputs("1\n", file);
    fclose(file);
}

/* Runs the gearbox firmware tool; its outcome is logged, never acted on.
 * Every card type is updated with the same type argument. */
void update_gearbox(int slot_id) {
    char tool[CM_PATH_SIZE];
    char log_file[CM_PATH_SIZE];
    char command[CM_PATH_SIZE];
    env_path(tool, sizeof tool, GEARBOX_TOOL);
    env_path(log_file, sizeof log_file, GEARBOX_LOG);
    int built = snprintf(command, sizeof command, "%s -s %d -t cardtype_16x100 -l INFO -f %s", tool, slot_id,
                         log_file);

    MutexLock lock(&g_gearbox_update);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Updating gearbox\n");
    /* A command cut short by its buffer is not run: it counts as not launched. */
    bool whole = built >= 0 && (size_t)built < sizeof command;
    cm_command_succeeded(command, whole ? cm_system(command, GEARBOX_TOOL_LIMIT_SEC) : -1);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "gearbox update done\n");
}

/* Polls the SDK once a second until the card reports ready.  Only the
 * reported flag counts: a failed query reads as "not ready yet". */
void wait_card_ready(int slot_id) {
    int ready = 0;
    for (int sleeps = 0; sleeps < READY_POLLS; ++sleeps) {
        sdk_check_slot_ready(slot_id, &ready);
        if (ready == 1) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "READY after %d poll loop\n", sleeps);
            return;
        }
        env_sleep(1);
    }
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to get to ready state\n");
}

/* Polls the SDK once a second until the card runs its INI. */
void wait_ini_in_use(int slot_id) {
    int ini_in_use = 0;
    for (int sleeps = 0; sleeps < INI_IN_USE_POLLS; ++sleeps) {
        sdk_check_ini_in_use(slot_id, &ini_in_use);
        if (ini_in_use == 1) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "INI in-use after %d poll loop\n", sleeps);
            return;
        }
        env_sleep(1);
    }
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "INI is not in use\n");
}

/* Enable, gearbox, enable again, reset, then wait for the card. */
void bring_card_up(int slot_id) {
    enable_card(slot_id);
    env_sleep(AFTER_FIRST_ENABLE_SECONDS);
    update_gearbox(slot_id);
    enable_card(slot_id);
    env_sleep(AFTER_SECOND_ENABLE_SECONDS);
    if (!sdk_soft_reset_card(slot_id)) CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to soft reset the card\n");
    env_sleep(AFTER_RESET_SECONDS);
    wait_card_ready(slot_id);
    wait_ini_in_use(slot_id);
    if (!sdk_activate_card(slot_id)) CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to activate card\n");
}

}  // namespace

bool ready_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];

    if (slot->disabled) {
        /* Logged against the slot number one below (for slot 1 a daemon-wide
         * line): long-standing placement of this line, kept as it is. */
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id - 1, "Will not transition to ready while in disabled state\n");
        return true;
    }
    if (!slot_has_card(slot)) return no_valid_transition(slot_id);  // pulled since the event was decided

    if (slot->current_state & SLOT_READY) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Already in READY state\n");
        if (!await_slot_event(slot_id, slot_active_event, STEP_PERIOD_SECONDS)) {
            CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
            return false;
        }
        return true;
    }

    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to SLOT_READY\n", (int)slot->current_state);
    /* Set before the long work, so that a repeated ready event only re-arms. */
    slot->current_state |= SLOT_READY;
    notify_status_refresh();  // the step takes a minute: show it now
    bring_card_up(slot_id);

    if (!await_slot_event(slot_id, slot_active_event, STEP_PERIOD_SECONDS)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
        return false;
    }
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Invoking reload envd\n");
    if (!invoke_reload_envd()) CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "reload envd failed\n");
    return true;
}
