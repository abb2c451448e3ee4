#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

int set_led_color(int, int) { return 1; }

bool no_valid_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Transitioned from %d to no_valid_transition\n",
                (int)g_slots_info[slot_id - 1].current_state);
    return true;
}
