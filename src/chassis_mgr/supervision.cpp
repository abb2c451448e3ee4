#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

bool handle_slot_timer_expired(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "handle_slot_timer_expired is not built yet\n");
    return true;
}
