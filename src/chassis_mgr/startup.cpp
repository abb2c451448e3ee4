#include "chassis_mgr.h"

/* Placeholder: this subsystem is being built. */

int g_emul_flag = 0;
char version[] = CHMGR_VERSION_TEXT;
pthread_t g_debug_thread_id;
pthread_t g_ctl_thread_id;
pthread_mutex_t g_cards_conf_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_gearbox_update = PTHREAD_MUTEX_INITIALIZER;

int chassis_mgr_main(int, char **) {
    if (!env_init()) return ENV_EXIT_REFUSED;
    return 0;
}
bool init_slots(void) { return false; }
