#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool ready_transition(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "ready_transition is not built yet\n");
    return true;
}
