#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

int get_json_obj_for_slots(int) { return 0; }
