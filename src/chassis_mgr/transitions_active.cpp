#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool synced_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "synced_transition is not built yet\n");
    return true;
}

bool active_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "active_transition is not built yet\n");
    return true;
}
