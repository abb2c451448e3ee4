#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool verified_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "verified_transition is not built yet\n");
    return true;
}

bool powered_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "powered_transition is not built yet\n");
    return true;
}
