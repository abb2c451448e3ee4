/*
 * INI programming through the switch SDK: the identity of the INI the
 * firmware holds for a slot, whether the card runs it, erasing it, and the
 * transfer and apply of a new image followed by the read-back of the
 * slot's ports into the port list file.
 */
#include <string.h>
#include <sys/stat.h>

#include "chmgr_sdk.h"

namespace {

/* The switch device whose port mapping lists the line-card ports. */
constexpr ks_device_id_t PORT_MAPPING_DEVICE = 1;
/* Seconds the firmware is given to take an applied INI into use. */
constexpr unsigned APPLY_SETTLE_SECONDS = 2;
constexpr int IN_USE_POLL_TRIES = 5;
/* Room for one port more than a card has: a 17th port is kept and passed
 * on, so that the port list shows the firmware's excess. */
constexpr int SLOT_PORT_LIST_ROOM = SDK_SLOT_PORT_CAPACITY + 1;
/* The transfer counts the bytes still to send in a signed 32-bit int, so
 * that is the largest image it can stream. */
constexpr off_t INI_FILE_MAX_SIZE = INT32_MAX;

struct FileCloser {
    FILE *file;
    ~FileCloser() {
        if (file) fclose(file);
    }
};

/* An operation result that hands the SDK room for 128 port records. */
ks_mgmt_slot_ini_operation_result_t operation_result(int slot_id, ks_port_attributes_t *ports) {
    ks_mgmt_slot_ini_operation_result_t result;
    memset(&result, 0, sizeof result);
    result.slot_state_info.slot_id = (ks_slot_id_t)slot_id;
    result.port_info.port_attr_list_size = SDK_PORT_LIST_CAPACITY;
    result.port_info.port_count = 0;
    result.port_info.port_attr_list_p = ports;
    return result;
}

/* Sends the image in chunks of 512 bytes, the last one flagged. */
bool transfer_ini_file(int slot_id, FILE *file, int32_t remaining) {
    ks_mgmt_slot_ini_data_t chunk;
    memset(&chunk, 0, sizeof chunk);
    ks_mgmt_slot_ini_transfer_result_t result;
    bool last = remaining <= 0;
    while (!last) {
        size_t got = fread(chunk.ini_data, 1, SDK_INI_CHUNK_SIZE, file);
        if (got == 0) {
            /* The file shrank or cannot be read: the image would never end. */
            CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to program INI file\n");
            return false;
        }
        remaining -= (int32_t)got;
        chunk.ini_data_size = (uint32_t)got;
        last = remaining <= 0;
        chunk.is_last_chunk = last ? 1 : 0;
        memset(&result, 0, sizeof result);
        if (ks_mgmt_slot_ini_data_set(g_handle, (ks_slot_id_t)slot_id, &chunk, &result) != 0) {
            CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to program INI file\n");
            return false;
        }
    }
    return true;
}

/* `ini_file_name` as C text, also when it fills its whole field. */
void ini_file_name_text(const iniInfo *p_ini_info, char (&name)[INI_FILE_NAME_SIZE + 1]) {
    memcpy(name, p_ini_info->ini_file_name, INI_FILE_NAME_SIZE);
    name[INI_FILE_NAME_SIZE] = '\0';
}

/* False, with a line, for an image whose size the transfer's count cannot
 * hold.  A size that cannot be read passes: the transfer reports it. */
bool ini_size_fits(int slot_id, const char *name) {
    struct stat st;
    if (stat(name, &st) != 0 || st.st_size <= INI_FILE_MAX_SIZE) return true;
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "INI file %s is too large (%lld bytes, at most %lld)\n", name,
                (long long)st.st_size, (long long)INI_FILE_MAX_SIZE);
    return false;
}

/* Opens, measures and sends the image named in `ini_file_name`. */
bool send_ini_image(int slot_id, const iniInfo *p_ini_info) {
    char name[INI_FILE_NAME_SIZE + 1];
    ini_file_name_text(p_ini_info, name);

    FileCloser image{fopen(name, "rbe")};
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "INI File:%s\n", name);
    if (!image.file) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to open ini file\n");
        return false;
    }
    struct stat st;
    if (stat(name, &st) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to find find size of INI file %s\n", name);
        return false;
    }
    /* Checked before the reset; an image that grew since is still refused. */
    if (!ini_size_fits(slot_id, name)) return false;
    if (!transfer_ini_file(slot_id, image.file, (int32_t)st.st_size)) return false;
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Finished programming INI and ready to apply\n");
    return true;
}

/* Waits for the card to take the INI into use; a card that never reports
 * it does not fail the programming. */
void poll_ini_in_use(int slot_id) {
    int in_use = 0;
    for (int sleeps = 0; sleeps < IN_USE_POLL_TRIES; ++sleeps) {
        sdk_check_ini_in_use(slot_id, &in_use);
        if (in_use == 1) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "INI in-use after %d poll loop\n", sleeps);
            return;
        }
        env_sleep(1);
    }
    /* Filed under the next slot's number on purpose; for slot 8 that is
     * "[SLOT9]", which has no ring of its own and goes into ring 0. */
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id + 1, "unable to get INI in-use\n");
}

/* Copies the slot's entries of `ports` into `slot_ports` (room for 17). */
int select_slot_ports(int slot_id, const ks_port_attributes_t *ports, uint32_t count,
                      ks_port_attributes_t *slot_ports) {
    int taken = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (ports[i].port_mapping.slot == slot_id) slot_ports[taken++] = ports[i];
        if (i + 1 < count && taken == SLOT_PORT_LIST_ROOM) {
            CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "FW has returned more than 16 ports\n");
            break;
        }
    }
    return taken;
}

/* Reads the port mapping back and writes the slot's ports to the port list. */
bool record_slot_ports(int slot_id) {
    ks_port_attributes_t ports[SDK_PORT_LIST_CAPACITY];
    memset(ports, 0, sizeof ports);
    uint32_t count = SDK_PORT_LIST_CAPACITY;
    if (ks_api_port_device_mapping_get(g_handle, PORT_MAPPING_DEVICE, ports, &count) != 0) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to get port list\n");
        return false;
    }
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "port list length from device_mapping_get=%d\n", (int)count);
    /* Never trust a count beyond the room the SDK was given. */
    if (count > SDK_PORT_LIST_CAPACITY) count = SDK_PORT_LIST_CAPACITY;

    ks_port_attributes_t slot_ports[SLOT_PORT_LIST_ROOM];
    memset(slot_ports, 0, sizeof slot_ports);
    int taken = select_slot_ports(slot_id, ports, count, slot_ports);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "ports for slot from device_mapping_get=%d\n", taken);

    MutexLock lock(&g_port_list_file_mutex);
    update_ports_list_conf(slot_ports, taken);
    return true;
}

}  // namespace

bool sdk_get_fw_ini_info(int slot_id, iniInfo *p_fw_stored_ini) {
    ks_slot_id_t slot_list[1] = {(ks_slot_id_t)slot_id};
    ks_mgmt_slot_info_t slot_info;
    memset(&slot_info, 0, sizeof slot_info);
    uint32_t list_size = 1;
    if (ks_mgmt_slot_info_get(g_handle, slot_list, &slot_info, &list_size) != 0) {
        p_fw_stored_ini->card_type = 0;
        p_fw_stored_ini->hw_revision = 0;
        p_fw_stored_ini->minor = 0;
        CM_LOG(LOG_LEVEL_ERR, "ks_mgmt_slot_info_get FAILED\n");
        return false;
    }
    const ks_mgmt_slot_description_t &description = slot_info.slot_description;
    p_fw_stored_ini->hw_revision = description.slot_card_ini_info.slot_card_hw_revision;
    p_fw_stored_ini->minor = description.slot_card_ini_info.slot_card_minor_ini_version;
    p_fw_stored_ini->card_type = (int32_t)description.slot_card_type;
    return true;
}

bool sdk_check_ini_in_use(int slot_id, int *p_ini_in_use) {
    /* An empty transfer is the SDK's INI status query. */
    ks_mgmt_slot_ini_data_t query;
    memset(&query, 0, sizeof query);
    ks_mgmt_slot_ini_transfer_result_t result;
    memset(&result, 0, sizeof result);
    if (ks_mgmt_slot_ini_data_set(g_handle, (ks_slot_id_t)slot_id, &query, &result) != 0) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to get INI status\n");
        *p_ini_in_use = 0;
        return false;
    }
    *p_ini_in_use = result.ini_status == KS_MGMT_SLOT_INI_STATUS_IN_USE_E ? 1 : 0;
    return true;
}

bool sdk_reset_ini(int slot_id) {
    /* The slot's ports leave the port list before its INI goes away. */
    delete_ports_list_conf(slot_id, nullptr, 0);

    ks_port_attributes_t ports[SDK_PORT_LIST_CAPACITY];
    memset(ports, 0, sizeof ports);
    ks_mgmt_slot_ini_operation_result_t result = operation_result(slot_id, ports);
    if (ks_mgmt_slot_ini_operation_set(g_handle, (ks_slot_id_t)slot_id, KS_MGMT_SLOT_INI_OPERATION_RESET_E,
                                       &result) == 0)
        return true;

    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Unable to reset INI\n");
    if (result.ini_status != KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E)
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "ini_oper_set status = %d\n", (int)result.ini_status);
    else
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "ini_oper_set status = KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E\n");
    return false;
}

bool sdk_program_ini(int slot_id, bool fw_reset, iniInfo *p_ini_info) {
    /* An image that cannot be sent is refused while the slot still holds
     * its INI and its ports: the reset would take both for nothing. */
    char name[INI_FILE_NAME_SIZE + 1];
    ini_file_name_text(p_ini_info, name);
    if (!ini_size_fits(slot_id, name)) return false;

    if (fw_reset && !sdk_reset_ini(slot_id))
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Trying to program without resetting INI\n");

    if (!send_ini_image(slot_id, p_ini_info)) return false;

    ks_port_attributes_t ports[SDK_PORT_LIST_CAPACITY];
    memset(ports, 0, sizeof ports);
    ks_mgmt_slot_ini_operation_result_t result = operation_result(slot_id, ports);
    if (ks_mgmt_slot_ini_operation_set(g_handle, (ks_slot_id_t)slot_id, KS_MGMT_SLOT_INI_OPERATION_APPLY_E,
                                       &result) != 0) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to apply INI\n");
        return false;
    }
    env_sleep(APPLY_SETTLE_SECONDS);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Successfully programmed INI\n");

    poll_ini_in_use(slot_id);
    return record_slot_ports(slot_id);
}
