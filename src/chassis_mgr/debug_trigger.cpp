#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built; until then it only logs. */

void *debug_thread(void *) { return nullptr; }
