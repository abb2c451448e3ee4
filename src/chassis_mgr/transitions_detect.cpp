#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool present_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "present_transition is not built yet\n");
    return true;
}

bool empty_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "empty_transition is not built yet\n");
    return true;
}

int get_card_type(int) { return 0; }
