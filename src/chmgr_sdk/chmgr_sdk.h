/*
 * chmgr_sdk: the chassis manager's adapter to the switch SDK.  It owns the
 * one SDK connection of the process, slot readiness, activation and soft
 * reset, INI transfer and apply, and the port list file that the switching
 * daemon reads.
 */
#ifndef CHMGR_SDK_H
#define CHMGR_SDK_H

#include <pthread.h>
#include <stdint.h>

#include <string_view>

#include "chassis_mgr.h"
#include "ks_api.h"

extern ks_api_handle_t g_handle;
extern pthread_mutex_t g_port_list_file_mutex;

/* Connection and slot control. */
bool sdk_init_ks_api(void);
bool sdk_check_slot_ready(int slot_id, int *p_ready);
bool sdk_activate_card(int slot_id);
bool sdk_soft_reset_card(int slot_id);

/* INI programming. */
#define SDK_INI_CHUNK_SIZE 512
#define SDK_PORT_LIST_CAPACITY 128
#define SDK_SLOT_PORT_CAPACITY 16

bool sdk_get_fw_ini_info(int slot_id, iniInfo *p_fw_stored_ini);
bool sdk_check_ini_in_use(int slot_id, int *p_ini_in_use);
bool sdk_reset_ini(int slot_id);
bool sdk_program_ini(int slot_id, bool fw_reset, iniInfo *p_ini_info);

/* Port list file. */
typedef struct chmgr_port_list {
    uint32_t line_no;
    uint32_t slot_id;
    uint32_t module_port;
    uint32_t local_port;  /* 0 marks an entry for deletion */
} chmgr_port_list_t;

bool update_ports_list_conf(ks_port_attributes_t *p_port_attr_list, int no_of_ports);
/* Reads the entry lines of a port list file into `table` (at most `capacity`
 * entries; further entries are counted in *p_dropped, when given, and not
 * kept).  Returns the number of entries kept. */
int port_list_read(FILE *file, chmgr_port_list_t *table, int capacity, int *p_dropped);
bool delete_ports_list_conf(int slot_id, ks_port_attributes_t *p_port_attr_list, int no_of_ports);
/* A complete port list text: the three header lines, then only entry lines
 * exactly as the daemon writes them, each with its line feed.  A list cut
 * at a line boundary cannot be told from a shorter one; see
 * recover_port_list. */
bool port_list_text_complete(std::string_view text);
/* At start-up, when the port list is missing and its temporary file holds a
 * complete list, renames it into place (one WARN line).  A rewrite flushes
 * the temporary file before it removes the list, so a temporary file found
 * beside no list was finished.  True when the list was restored. */
bool recover_port_list(void);

#endif /* CHMGR_SDK_H */
