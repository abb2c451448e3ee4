/*
 * The SDK connection and slot control.  One SDK handle is opened at start-up
 * and shared by every thread without a lock (the SDK client is safe for
 * that; slot-level serialisation comes from the callers' slot mutex).  The
 * three slot operations: is the card ready, activate it, soft-reset it.  In
 * emulation mode (-emul) the two operations that act on the hardware are
 * skipped and reported as done; the readiness query still asks the SDK.
 */
#include "chmgr_sdk.h"

ks_api_handle_t g_handle;
/* Valid from process start, so the port list stays guarded even when the
 * SDK connection could not be opened and sdk_init_ks_api stopped early. */
pthread_mutex_t g_port_list_file_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

#define PORT_LIST_FILE "/etc/brl/chmgr_ports_list.txt"

ks_status_t slot_control(int slot_id, ks_mgmt_slot_control_operation_e operation) {
    ks_mgmt_slot_control_info_t info = {};
    info.operation = operation;
    return ks_mgmt_slot_control_set(g_handle, (ks_slot_id_t)slot_id, &info);
}

}  // namespace

bool sdk_init_ks_api(void) {
    if (ks_api_open(nullptr, &g_handle) != KS_STATUS_SUCCESS) {
        CM_LOG(LOG_LEVEL_ERR, "KS api open failed\n");
        return false;
    }
    CM_LOG(LOG_LEVEL_INFO, "KS api open success handle = %ld\n", (long)g_handle);
    if (pthread_mutex_init(&g_port_list_file_mutex, nullptr) < 0) {
        char path[CM_PATH_SIZE];
        env_path(path, sizeof path, PORT_LIST_FILE);
        CM_LOG(LOG_LEVEL_ERR, "Unable to create mutex for %s\n", path);
        return false;
    }
    return true;
}

bool sdk_check_slot_ready(int slot_id, int *p_ready) {
    int unused = 0;
    if (!p_ready) p_ready = &unused;
    ks_slot_id_t slot_list[1] = {(ks_slot_id_t)slot_id};
    ks_mgmt_slot_info_t info_list[1] = {};
    uint32_t list_size = 1;
    if (ks_mgmt_slot_info_get(g_handle, slot_list, info_list, &list_size) != KS_STATUS_SUCCESS) {
        *p_ready = 0;
        CM_LOG(LOG_LEVEL_ERR, "ks_mgmt_slot_info_get FAILED\n");
        return false;
    }
    *p_ready = info_list[0].slot_description.slot_state_info.is_slot_card_ready == 1 ? 1 : 0;
    return true;
}

bool sdk_activate_card(int slot_id) {
    if (g_emul_flag) {
        CM_LOG(LOG_LEVEL_INFO, "This is running on EMUL and will not activate slot%d\n", slot_id);
        return true;
    }
    if (slot_control(slot_id, KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E) != KS_STATUS_SUCCESS) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "ks_mgmt_slot_control_set activate failed\n");
        return false;
    }
    return true;
}

bool sdk_soft_reset_card(int slot_id) {
    if (g_emul_flag) {
        /* The same wording as activation: the established message. */
        CM_LOG(LOG_LEVEL_INFO, "This is running on EMUL and will not activate slot%d\n", slot_id);
        return true;
    }
    if (slot_control(slot_id, KS_MGMT_SLOT_CONTROL_OPERATION_SOFT_RESET_E) != KS_STATUS_SUCCESS) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "ks_mgmt_slot_control_set reset failed\n");
        return false;
    }
    return true;
}
