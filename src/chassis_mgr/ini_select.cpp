/*
 * INI selection: makes the INI that the switch firmware holds for a slot fit
 * the card in it.  Three candidates are tried in a fixed order: the INI
 * already in the firmware, the image shipped with the SDK for the running
 * kernel, and the image in the card's own EEPROM.
 */
#include <byteswap.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "chassis_mgr.h"
#include "chmgr_sdk.h"

namespace {

#define INI_SHIPPED_DIR "/usr/share/borlin/firmware/%s/INI/"
#define INI_SHIPPED_PATTERN "Buff_KTR9600-C16_INI_EPROM*.bin"
#define LC_INI_PARSED_FILE "/var/run/hw-management/lc%d/eeprom/ini_parsed"
#define LC_INI_IMAGE_FILE "/var/run/hw-management/lc%d/eeprom/ini"

/* First line of a command's output, as read through a pipe. */
constexpr int PIPE_LINE_SIZE = 128;
/* Minor version (2 bytes), hardware revision (2), card type (1). */
constexpr size_t INI_HEADER_SIZE = 5;
/* Values in the parsed INI EEPROM file are at most 128 characters. */
constexpr int EEPROM_VALUE_SIZE = 128;

/* Reads the first line of `command`'s output into `line` (empty when the
 * command prints nothing) and drops its last character, the line feed.
 * False when the pipe cannot be started, or the command was killed at its
 * time limit. */
bool read_command_line(const char *command, char *line, int size) {
    if (!cm_command_first_line(command, QUERY_COMMAND_LIMIT_SEC, line, size)) return false;
    size_t length = strlen(line);
    if (length > 0) line[length - 1] = '\0';
    return true;
}

/* Decimal value of an EEPROM field, read like the card's VPD revision:
 * strtol's result used as a 32-bit int (text without digits gives 0), so
 * the same text gives the same revision from both. */
int32_t decimal_value(const char *text) { return (int32_t)strtol(text, nullptr, 10); }

/* Reads one field of the parsed INI EEPROM file; `value` holds room for a
 * terminator beyond the longest value. */
bool read_eeprom_field(const char *path, const char *field, char (&value)[EEPROM_VALUE_SIZE + 1]) {
    memset(value, 0, sizeof value);
    return get_vpd_value(path, field, value, EEPROM_VALUE_SIZE) == 1;
}

void set_identity(iniInfo *ini_info, int32_t card_type, int32_t hw_revision, int32_t minor) {
    ini_info->card_type = card_type;
    ini_info->hw_revision = hw_revision;
    ini_info->minor = minor;
}

/* Records the firmware INI as the slot's INI and the card in cards.conf. */
void keep_firmware_ini(int slot_id, const iniInfo &file_ini) {
    slotInfo *slot = &g_slots_info[slot_id - 1];
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Using FW stored INI\n");
    slot->current_state |= SLOT_SYNCED;
    slot->ini_info.hw_revision = (int32_t)file_ini.hw_revision;
    slot->ini_info.minor = (int32_t)file_ini.minor;
    slot->card_type = (int)file_ini.card_type;

    MutexLock lock(&g_cards_conf_mutex);
    if (slot->provisioned) {
        int speed = card_type_port_speed(slot->provisioned_type);
        update_cards_conf(slot_id, 0, speed, speed, 0, 0, slot->disabled);
    } else {
        int speed = card_type_port_speed(slot->card_type);
        update_cards_conf(slot_id, speed, 0, speed, 0, 0, slot->disabled);
    }
}

/* Takes the slot's ports away from portd before another INI is programmed. */
void remove_slot_ports(int slot_id) {
    slotInfo *slot = &g_slots_info[slot_id - 1];
    MutexLock lock(&g_cards_conf_mutex);
    update_cards_conf(slot_id, card_type_port_speed(slot->card_type), 0, 0, 1, 0, slot->disabled);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Reloading portd for removing ports\n");
    bool reloaded = invoke_reload_portd();
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Reloaded portd\n");
    if (reloaded) cards_conf_clear_dirty_bits();  // else portd still has the ports: the line stays dirty
}

/* Fills `file_ini` with the shipped image, else the EEPROM image; false
 * when neither fits the slot. */
bool find_programmable_ini(int slot_id, iniInfo *file_ini) {
    slotInfo *slot = &g_slots_info[slot_id - 1];
    get_sdk_packaged_ini_info(slot->provisioned ? slot->provisioned_type : slot->card_type, file_ini);
    /* The image stores the card type one below the SDK's value. */
    if (file_ini->card_type != 0) file_ini->card_type = file_ini->card_type + 1;
    if (compatible_ini(slot_id, file_ini)) return true;

    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "WILL TRY USING EEPROM INI\n");
    get_lc_eeprom_ini_info(slot_id, file_ini);
    if (compatible_ini(slot_id, file_ini)) return true;
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Not able to find compatible INI");
    return false;
}

/* Programs `file_ini` under the cards.conf lock; the caller learns of a
 * failed programming only through the log.  A new card whose INI could not
 * be programmed never reaches SYNCED by itself, so it does not hold the
 * portd reload of the others; a pre-provisioning keeps its latch, which it
 * uses for its own reload. */
void program_ini(int slot_id, iniInfo *file_ini) {
    slotInfo *slot = &g_slots_info[slot_id - 1];
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Reprogramming INI\n");
    {
        MutexLock lock(&g_cards_conf_mutex);
        slot->current_state &= ~SLOT_SYNCED;
        bool programmed = sdk_program_ini(slot_id, true, file_ini);
        if (programmed) slot->card_type = (int)file_ini->card_type;
        slot->in_transition_reload_portd = programmed || slot->provisioned ? 1 : 0;
    }
    slot->ini_info.card_type = (int32_t)file_ini->card_type;
    slot->ini_info.hw_revision = (int32_t)file_ini->hw_revision;
    slot->ini_info.minor = (int32_t)file_ini->minor;
}

}  // namespace

void ini_header_read(FILE *file, iniInfo *ini_info) {
    /* Bytes missing from a short image read as zero. */
    uint8_t header[INI_HEADER_SIZE] = {};
    if (fread(header, 1, sizeof header, file) < sizeof header) clearerr(file);
    /* The minor version is taken as the target reads it; the revision is
     * stored big-endian and swapped.  Both layouts are part of the image. */
    uint16_t minor;
    uint16_t hw_revision;
    memcpy(&minor, &header[0], sizeof minor);
    memcpy(&hw_revision, &header[2], sizeof hw_revision);
    hw_revision = bswap_16(hw_revision);
    set_identity(ini_info, header[4], hw_revision, minor);
}

bool compatible_ini(int slot_id, iniInfo *ini_info) {
    CM_ASSERT(ini_info != NULL);
    CM_ASSERT(slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600);
    slotInfo *slot = &g_slots_info[slot_id - 1];

    if (slot->provisioned) {
        if (slot->provisioned_type == ini_info->card_type) return true;
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Card Type provisioned for slot:%d, card type in ini:%d\n",
                    (int)slot->provisioned_type, (int)ini_info->card_type);
        return false;
    }
    if (!(slot->current_state & SLOT_PRESENT)) return true;
    if (slot->card_type != ini_info->card_type) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Card Type in slot:%d, card type in ini:%d\n", (int)slot->card_type,
                    (int)ini_info->card_type);
        return false;
    }
    if (slot->hw_revision != ini_info->hw_revision) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "HW revision in slot:%d, HW revision in ini:%d\n",
                    (int)slot->hw_revision, (int)ini_info->hw_revision);
        return false;
    }
    return true;
}

bool get_sdk_packaged_ini_info(int card_type, iniInfo *ini_info) {
    CM_ASSERT(ini_info != NULL);
    set_identity(ini_info, 0, 0, 0);
    if (card_type != CARD_TYPE_16X100G) return false;

    char release[PIPE_LINE_SIZE];
    if (!read_command_line("uname -r", release, sizeof release)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to locate INI directory (popen error)\n");
        return false;
    }
    char command[CM_PATH_SIZE];
    snprintf(command, sizeof command, "ls %s" INI_SHIPPED_DIR INI_SHIPPED_PATTERN, env_root(), release);
    CM_LOG(LOG_LEVEL_INFO, "Executing:%s\n", command);

    /* The listing is sorted: with several images the first one wins. */
    char image_path[CM_PATH_SIZE];
    if (!read_command_line(command, image_path, sizeof image_path)) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to locate INI file (popen error)");
        return false;
    }
    FILE *image = fopen(image_path, "rbe");
    if (!image) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to read INI file %s\n", image_path);
        return false;
    }
    ini_header_read(image, ini_info);
    /* A path longer than the name field is cut (and then fails to open). */
    size_t length = strnlen(image_path, sizeof ini_info->ini_file_name - 1);
    memcpy(ini_info->ini_file_name, image_path, length);
    ini_info->ini_file_name[length] = '\0';
    fclose(image);
    return true;
}

bool get_lc_eeprom_ini_info(int slot_id, iniInfo *ini_info) {
    CM_ASSERT(ini_info != NULL);
    CM_ASSERT(slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600);
    set_identity(ini_info, 0, 0, 0);
    if (g_slots_info[slot_id - 1].provisioned) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Will not provision from EEPROM for pre-provision\n");
        return false;
    }
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, LC_INI_PARSED_FILE, slot_id);
    char value[EEPROM_VALUE_SIZE + 1];

    if (!read_eeprom_field(path, "HW_REVISION", value)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "LC INI EEPROM missing HW_REVISION\n");
        return false;
    }
    ini_info->hw_revision = decimal_value(value);

    if (read_eeprom_field(path, "MINOR_INI_VERSION", value))
        ini_info->minor = decimal_value(value);
    else
        CM_LOG_SLOT(LOG_LEVEL_WARN, slot_id, "LC INI EEPPROM minor version missing\n");

    if (!read_eeprom_field(path, "CARD_TYPE", value)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "LC INI EEPROM missing card type\n");
        return false;
    }
    ini_info->card_type = decimal_value(value);
    env_path(ini_info->ini_file_name, sizeof ini_info->ini_file_name, LC_INI_IMAGE_FILE, slot_id);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "INI FILE FROM EEPROM=%s\n", ini_info->ini_file_name);
    return true;
}

bool check_and_update_ini_for_lc_insert(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];

    bool valid_card_conf;
    {
        MutexLock lock(&g_cards_conf_mutex);
        valid_card_conf = check_cards_conf_for_valid_card(slot_id);
    }

    iniInfo file_ini{};
    if (!sdk_get_fw_ini_info(slot_id, &file_ini)) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "No valid INI in FW\n");
        set_identity(&file_ini, 0, 0, 0);
        memset(file_ini.ini_file_name, 0, sizeof file_ini.ini_file_name);
        strcpy(file_ini.ini_file_name, "none");
    }
    if (slot->provisioned)
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id,
                    "INI in slot FW: card type = %d, HW revision fw = %d, Minor fw = %d,: From eeprom card type = %d\n",
                    (int)file_ini.card_type, (int)file_ini.hw_revision, (int)file_ini.minor,
                    (int)slot->provisioned_type);
    else
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id,
                    "INI in slot FW: card type = %d, HW revision fw = %d, Minor fw = %d,: From eeprom card type = %d, "
                    "HW revision = %d\n",
                    (int)file_ini.card_type, (int)file_ini.hw_revision, (int)file_ini.minor, (int)slot->card_type,
                    (int)slot->hw_revision);

    /* The firmware INI is judged once; a fitting INI is still replaced when
     * cards.conf gives portd no ports for the slot. */
    bool firmware_fits = compatible_ini(slot_id, &file_ini);
    if (firmware_fits && valid_card_conf) {
        keep_firmware_ini(slot_id, file_ini);
        slot->in_transition_reload_portd = 0;
        return true;
    }
    if (!firmware_fits && valid_card_conf) remove_slot_ports(slot_id);

    if (!find_programmable_ini(slot_id, &file_ini)) return false;
    program_ini(slot_id, &file_ini);
    return true;
}
