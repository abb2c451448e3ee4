#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built. */

int g_ifd[MAX_SLOTS_FOR_9600];
int g_wd_present[MAX_SLOTS_FOR_9600];
int g_wd_verified[MAX_SLOTS_FOR_9600];
int g_wd_synced[MAX_SLOTS_FOR_9600];
int g_wd_powered[MAX_SLOTS_FOR_9600];
int g_wd_active[MAX_SLOTS_FOR_9600];
int g_wd_ready[MAX_SLOTS_FOR_9600];

bool init_inotify_events(void) { return true; }
bool set_slot_timer(int, uint32_t, uint32_t) { return true; }
void run_main_loop(void) {
    for (;;) {
    }
}
