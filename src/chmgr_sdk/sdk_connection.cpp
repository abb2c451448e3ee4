#include "chmgr_sdk.h"

/* Placeholder: this subsystem is being built. */

ks_api_handle_t g_handle;
pthread_mutex_t g_port_list_file_mutex = PTHREAD_MUTEX_INITIALIZER;
bool sdk_init_ks_api(void) { return false; }
bool sdk_check_slot_ready(int, int *p_ready) {
    *p_ready = 0;
    return false;
}
bool sdk_activate_card(int) { return false; }
bool sdk_soft_reset_card(int) { return false; }
