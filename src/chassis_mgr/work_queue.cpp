#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built. */

eventWorkQue g_event_work_que;
bool add_work_to_que(eventWork *) { return false; }
eventWork *get_work_from_que(void) { return nullptr; }
void *work_handler(void *) { return nullptr; }
