/*
 * The card's status LED and the transition for events that need nothing.
 *
 * The hardware-management layer shows the LED as one file per colour plus a
 * "led_status_state" executable that applies what was written.  A colour
 * is set by appending 255 to its file through the shell, then running the
 * state file itself as the command.  Only a powered card has a lit LED:
 * orange while it comes up, green once it is active.
 */
#include <stdio.h>

#include "chassis_mgr.h"

#define LED_DIR_FMT "/var/run/hw-management/lc%d/led/"
#define LED_ORANGE 1

/* Runs a command built by snprintf (`built` is its result); a command cut
 * short by its buffer is not run and counts as not launched. */
static int run_if_whole(const char *command, size_t size, int built) {
    if (built < 0 || (size_t)built >= size) return -1;
    return cm_system(command, LED_COMMAND_LIMIT_SEC);
}

int set_led_color(int slot_id, int led_value) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    if (!(g_slots_info[slot_id - 1].current_state & SLOT_POWERED)) return 1;

    /* Any value but orange means green. */
    const bool orange = led_value == LED_ORANGE;
    if (orange)
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Setting status LED orange\n");
    else
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Setting status LED green\n");

    char colour_file[CM_PATH_SIZE];
    char command[CM_PATH_SIZE];
    env_path(colour_file, sizeof colour_file, LED_DIR_FMT "%s", slot_id,
             orange ? "led_status_orange" : "led_status_green");
    int built = snprintf(command, sizeof command, "echo 255 >> %s", colour_file);
    if (!cm_command_succeeded(command, run_if_whole(command, sizeof command, built))) return 0;

    /* The state file is the whole command line. */
    char state_file[CM_PATH_SIZE];
    env_path(state_file, sizeof state_file, LED_DIR_FMT "led_status_state", slot_id);
    if (!cm_command_succeeded(state_file, cm_system(state_file, LED_COMMAND_LIMIT_SEC))) return 0;
    return 1;
}

bool no_valid_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to no_valid_transition\n",
                (int)g_slots_info[slot_id - 1].current_state);
    return true;
}
