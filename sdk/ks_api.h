/*
 * Switch SDK client interface used by chassis-mgr.
 *
 * This header declares the part of the switch vendor's SDK client library
 * that the chassis manager calls: the handle, the slot, INI and port
 * records, the enumerations with their values, and seven calls.  The
 * daemon is built either against the simulated SDK of this project
 * (library `ks_sim`, the default) or against the vendor's library and
 * headers (CMake option CHMGR_SDK=vendor).
 *
 * Every call returns a ks_status_t: 0 for success, anything else failure.
 * The layouts below are fixed; the static assertions at the end guard them.
 */
#ifndef KS_API_H
#define KS_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t ks_api_handle_t;
typedef int32_t ks_status_t;
typedef uint8_t ks_slot_id_t;
typedef uint8_t ks_bool_t;
typedef uint32_t ks_device_id_t;

#define KS_STATUS_SUCCESS 0
#define KS_STATUS_FAILURE 1

/* Log callback handed to ks_api_open; chassis-mgr passes none. */
typedef void (*ks_log_cb_t)(int severity, const char *message);

typedef enum ks_mgmt_slot_card_type {
    KS_MGMT_SLOT_CARD_TYPE_NONE_E = 0,
    KS_MGMT_SLOT_CARD_TYPE_KTR_4_400G_E = 1,
    KS_MGMT_SLOT_CARD_TYPE_KTR_8_200G_E = 2,
    KS_MGMT_SLOT_CARD_TYPE_KTR_16_100G_E = 3,
} ks_mgmt_slot_card_type_e;

typedef enum ks_mgmt_slot_control_operation {
    KS_MGMT_SLOT_CONTROL_OPERATION_ACTIVATE_E = 0,
    KS_MGMT_SLOT_CONTROL_OPERATION_SOFT_RESET_E = 1,
} ks_mgmt_slot_control_operation_e;

typedef enum ks_mgmt_slot_ini_operation {
    KS_MGMT_SLOT_INI_OPERATION_RESET_E = 0,
    KS_MGMT_SLOT_INI_OPERATION_APPLY_E = 1,
} ks_mgmt_slot_ini_operation_e;

typedef enum ks_mgmt_slot_ini_status {
    KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E = 0,
    KS_MGMT_SLOT_INI_STATUS_VALID_E = 1,
    KS_MGMT_SLOT_INI_STATUS_READY_TO_USE_E = 2,
    KS_MGMT_SLOT_INI_STATUS_IN_USE_E = 3,
} ks_mgmt_slot_ini_status_e;

/* Progress of an INI transfer or operation; reported, never acted upon. */
typedef enum ks_mgmt_slot_ini_oper_status {
    KS_MGMT_SLOT_INI_OPER_STATUS_IDLE_E = 0,
    KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_BUSY_E = 1,
    KS_MGMT_SLOT_INI_OPER_STATUS_READY_FOR_NEXT_TRANSFER_E = 2,
    KS_MGMT_SLOT_INI_OPER_STATUS_READY_TO_APPLY_E = 3,
    KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_COMPLETE_E = 4,
    KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_FAILED_IN_USE_E = 5,
    KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_FAILED_E = 6,
    KS_MGMT_SLOT_INI_OPER_STATUS_ERASE_FAILED_E = 7,
    KS_MGMT_SLOT_INI_OPER_STATUS_TRANSFER_INI_ERROR_E = 8,
    KS_MGMT_SLOT_INI_OPER_STATUS_ACTIVATION_ERROR_E = 9,
    KS_MGMT_SLOT_INI_OPER_STATUS_DEACTIVATION_ERROR_E = 10,
    KS_MGMT_SLOT_INI_OPER_STATUS_ILLEGAL_E = 11,
} ks_mgmt_slot_ini_oper_status_e;

typedef struct ks_mgmt_slot_state_info {
    ks_slot_id_t slot_id;
    ks_bool_t is_slot_card_provisioned;
    ks_bool_t is_slot_card_valid;
    ks_bool_t is_slot_card_ready;
    ks_bool_t is_slot_card_active;
} ks_mgmt_slot_state_info_t;

typedef struct ks_mgmt_slot_ini_info {
    uint16_t slot_card_hw_revision;
    uint16_t slot_card_minor_ini_version;
} ks_mgmt_slot_ini_info_t;

#define KS_MGMT_SLOT_CARD_NAME_LEN 20
#define KS_MGMT_SLOT_MAX_DEVICES 4

typedef struct ks_mgmt_slot_description {
    ks_mgmt_slot_card_type_e slot_card_type;
    char slot_card_name[KS_MGMT_SLOT_CARD_NAME_LEN];
    ks_mgmt_slot_ini_info_t slot_card_ini_info;
    ks_mgmt_slot_state_info_t slot_state_info;
} ks_mgmt_slot_description_t;

typedef struct ks_mgmt_device_info {
    uint8_t dev_id;
    uint8_t dev_type;
    uint16_t reserved;
} ks_mgmt_device_info_t;

typedef struct ks_mgmt_dev_description {
    uint32_t dev_count;
    ks_mgmt_device_info_t dev_list[KS_MGMT_SLOT_MAX_DEVICES];
} ks_mgmt_dev_description_t;

typedef struct ks_mgmt_slot_info {
    ks_slot_id_t slot_id;
    ks_mgmt_slot_description_t slot_description;
    ks_mgmt_dev_description_t dev_description;
} ks_mgmt_slot_info_t;

typedef struct ks_mgmt_slot_control_info {
    ks_mgmt_slot_control_operation_e operation;
} ks_mgmt_slot_control_info_t;

/* One INI transfer chunk: only ini_data_size bytes of ini_data are used. */
#define KS_MGMT_SLOT_INI_DATA_MAX 1024
typedef struct ks_mgmt_slot_ini_data {
    uint8_t ini_data[KS_MGMT_SLOT_INI_DATA_MAX];
    uint32_t ini_data_size;
    ks_bool_t is_last_chunk;
} ks_mgmt_slot_ini_data_t;

typedef struct ks_mgmt_slot_ini_transfer_result {
    ks_mgmt_slot_ini_status_e ini_status;
    ks_mgmt_slot_ini_oper_status_e ini_oper_status;
} ks_mgmt_slot_ini_transfer_result_t;

typedef uint8_t ks_port_mapping_mode_t;

typedef struct ks_port_mapping {
    uint16_t local_port;
    ks_port_mapping_mode_t mapping_mode;
    uint8_t module_port; /* 0-based module number on the card */
    uint8_t width;       /* lanes; 4 is an unsplit module */
    uint8_t lane_bmap;
    uint8_t reserved;
    uint8_t slot;
} ks_port_mapping_t;

#define KS_PORT_USR_LABEL_LEN 16
typedef struct ks_port_attributes {
    uint32_t port_mode;
    ks_port_mapping_t port_mapping;
    uint32_t log_port; /* logical port id; its low 10 bits are the local port */
    uint8_t usr_label_info[KS_PORT_USR_LABEL_LEN];
} ks_port_attributes_t;

typedef struct ks_mgmt_slot_port_info {
    uint32_t port_attr_list_size;
    uint32_t port_count;
    ks_port_attributes_t *port_attr_list_p;
} ks_mgmt_slot_port_info_t;

typedef struct ks_mgmt_slot_ini_operation_result {
    ks_mgmt_slot_ini_status_e ini_status;
    ks_mgmt_slot_ini_oper_status_e ini_oper_status;
    ks_mgmt_slot_state_info_t slot_state_info;
    ks_mgmt_slot_port_info_t port_info;
} ks_mgmt_slot_ini_operation_result_t;

typedef struct ks_mgmt_module_id_info {
    uint8_t slot_id;
    uint8_t module_id;
} ks_mgmt_module_id_info_t;

typedef struct ks_mgmt_phy_module_split_params {
    uint8_t split_num;
    uint8_t port_width;
} ks_mgmt_phy_module_split_params_t;

#define KS_MGMT_PHY_MODULE_MAX_SPLIT 8
typedef struct ks_mgmt_phy_module_split_info {
    ks_port_attributes_t port_attribs_list[KS_MGMT_PHY_MODULE_MAX_SPLIT];
} ks_mgmt_phy_module_split_info_t;

/* Opens the client connection; the handle is shared by all threads. */
ks_status_t ks_api_open(ks_log_cb_t log_cb, ks_api_handle_t *handle);

/* Fills one ks_mgmt_slot_info_t per slot id; *list_size is in/out. */
ks_status_t ks_mgmt_slot_info_get(ks_api_handle_t handle, const ks_slot_id_t *slot_id_list,
                                  ks_mgmt_slot_info_t *slot_info_list, uint32_t *list_size);

ks_status_t ks_mgmt_slot_control_set(ks_api_handle_t handle, ks_slot_id_t slot_id,
                                     const ks_mgmt_slot_control_info_t *control_info);

ks_status_t ks_mgmt_slot_ini_operation_set(ks_api_handle_t handle, ks_slot_id_t slot_id,
                                           ks_mgmt_slot_ini_operation_e operation,
                                           ks_mgmt_slot_ini_operation_result_t *result);

/* A chunk with ini_data_size 0 transfers nothing and reports the INI status. */
ks_status_t ks_mgmt_slot_ini_data_set(ks_api_handle_t handle, ks_slot_id_t slot_id,
                                      const ks_mgmt_slot_ini_data_t *ini_data,
                                      ks_mgmt_slot_ini_transfer_result_t *result);

/* Fills at most *port_cnt records; *port_cnt is in/out. */
ks_status_t ks_api_port_device_mapping_get(ks_api_handle_t handle, ks_device_id_t device_id,
                                           ks_port_attributes_t *port_attr_list, uint32_t *port_cnt);

ks_status_t ks_mgmt_phy_module_split_get(ks_api_handle_t handle,
                                         const ks_mgmt_module_id_info_t *module_id,
                                         const ks_mgmt_phy_module_split_params_t *split_params,
                                         ks_mgmt_phy_module_split_info_t *split_info);

#ifdef __cplusplus
}

static_assert(sizeof(ks_port_mapping_t) == 8, "port mapping layout");
static_assert(sizeof(ks_port_attributes_t) == 32, "port attribute record is 32 bytes");
static_assert(sizeof(ks_mgmt_slot_ini_data_t) == 1032, "INI chunk is 1032 bytes");
#endif

#endif /* KS_API_H */
