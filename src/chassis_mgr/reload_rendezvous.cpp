/*
 * The reload of the switching daemon: new cards wait for each other at
 * SYNCED so that portd is reloaded once for the whole batch.
 */
#include "chassis_mgr.h"

/* Placeholder: the rendezvous is being built; until then it only logs. */
bool wait_reload_portd(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "wait_reload_portd is not built yet\n");
    return true;
}

static bool run_systemctl(const char *command) { return cm_command_succeeded(command, cm_system(command)); }

bool invoke_reload_portd(void) { return run_systemctl("systemctl reload portd"); }

bool invoke_reload_envd(void) { return run_systemctl("systemctl reload envd"); }
