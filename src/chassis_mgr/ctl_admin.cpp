/*
 * Line-card administration from the control socket: enable and disable a
 * slot, pre-provision it for a card type, and take the pre-provisioning
 * back.  Each command works on the request in g_ctl_resp_buf and leaves its
 * reply there.  A slot is changed under its own mutex, and cards.conf under
 * g_cards_conf_mutex taken inside it (never the other way round).  The
 * mutexes are held across polls and outside commands, so a long command
 * also holds that slot's events in the work queue.
 */
#include <stdio.h>
#include <string.h>

#include "chassis_mgr.h"
#include "chmgr_sdk.h"

namespace {

#define BAD_SLOT_TEXT "Bad slot received from CTL cmd"
#define ACTIVE_CARD_TEXT "Remove active card or disable the slot before pre-provisioning"
#define UNSUPPORTED_TYPE_TEXT "Attempting to pre-provision unsupported card type"
#define NO_INI_TEXT "Failed to locate and program INI"
#define SYNC_TIMEOUT_TEXT "TIMEOUT: INI programing SYNC event\n"
#define RELOAD_FAILED_TEXT "reload portd failed"
#define INI_RESET_FAILED_TEXT "INI programming for slot failed"

#define POWER_FILE "/var/run/hw-management/system/lc%d_pwr"
#define SYNCED_FILE "/var/run/hw-management/events/lc%d_synced"

constexpr int kUnreadyPolls = 20;
constexpr int kIniInUsePolls = 30;
constexpr int kSyncedAttempts = 3;
/* Bits a disable takes back; SLOT_PRESENT and SLOT_SYNCED describe the
 * card and its ports, not its bring-up, and stay. */
constexpr int kBringUpBits = SLOT_VERIFIED | SLOT_POWERED | SLOT_READY | SLOT_ACTIVE;

slotInfo *slot_record(int slot_id) { return &g_slots_info[slot_id - 1]; }

/* Enable and disable take 255 (all) or any number up to 8; 0 matches none. */
bool admin_slot_accepted(uint32_t slot_no) { return slot_no == CTL_ALL_SLOTS || slot_no <= MAX_SLOTS_FOR_9600; }

bool admin_slot_matches(uint32_t slot_no, int slot_id) {
    return slot_no == CTL_ALL_SLOTS || slot_no == (uint32_t)slot_id;
}

bool provision_slot_accepted(uint32_t slot_no) { return slot_no >= 1 && slot_no <= MAX_SLOTS_FOR_9600; }

/* A slot whose card is powered may only be re-provisioned once disabled. */
bool powered_and_enabled(const slotInfo *slot) { return (slot->current_state & SLOT_POWERED) && !slot->disabled; }

ctlReply reply_from_buffer() { return ctlReply{g_ctl_resp_buf, CTL_BUF_SIZE}; }

void enable_slot(int slot_id) {
    slotInfo *slot = slot_record(slot_id);
    MutexLock slot_lock(&slot->mutex);
    slot->disabled = 0;
    char event = '\0';
    if (init_sm_for_slot(slot_id - 1, &event) && event == '1') present_transition(slot_id);
    MutexLock conf_lock(&g_cards_conf_mutex);
    cards_conf_disable_slot(slot_id, 0);
}

/* A disabled card is not coming up, so it does not hold the portd reload
 * of the others; it keeps the event it awaited (its supervision stops
 * without counting, see supervision.cpp).  A slot already parked in the
 * rendezvous keeps its flag: its ports are part of the batch.  Called with
 * g_cards_conf_mutex held, which guards the rendezvous. */
void release_reload_hold(slotInfo *slot) {
    if (slot->trans_timer.state_monitored == slot_wait_reload_portd && slot->in_transition_reload_portd) return;
    slot->in_transition_reload_portd = 0;
}

void disable_slot(int slot_id) {
    slotInfo *slot = slot_record(slot_id);
    MutexLock slot_lock(&slot->mutex);
    slot->disabled = 1;
    set_linecard_disable(slot_id, true);
    slot->current_state &= ~kBringUpBits;
    MutexLock conf_lock(&g_cards_conf_mutex);
    release_reload_hold(slot);
    cards_conf_disable_slot(slot_id, 1);
}

/* Waits for the card to leave the ready state; true when it did. */
bool wait_unready(int slot_id) {
    for (int polls = 0; polls < kUnreadyPolls; ++polls) {
        int ready = 0;
        if (sdk_check_slot_ready(slot_id, &ready) && ready == 0) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "un-ready state after %d iterations\n", polls);
            return true;
        }
        env_sleep(1);
    }
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "FW unable to move to un-ready state\n");
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "state not changing to un-ready\n");
    return false;
}

/* The synced file, read as one buffered snapshot: three attempts without
 * sleeping, each stepping back over the character just read and reading
 * it again, so they see the file's first characters.  A NUL or a non-zero
 * digit counts as synced; the end of the file does not. */
bool synced_check(FILE *file, int slot_id, unsigned char *reply) {
    for (int attempt = 1;; ++attempt) {
        char value = (char)fgetc(file);
        if (value == '\0' || (value >= '1' && value <= '9')) return true;
        if (attempt == kSyncedAttempts) {
            CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "TIMEOUT: INI programing SYNC event\n");
            ctl_set_failure(reply, SYNC_TIMEOUT_TEXT);
            return false;
        }
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Waiting for SYNCED event\n");
        fseek(file, -1, SEEK_CUR);
        fgetc(file);
    }
}

/* A pre-provisioning that stops before its reload takes its latch back: a
 * provisioned slot never parks in the rendezvous, so a latch left set would
 * hold the portd reload of every new card for ever.  Returns false, the
 * result of the failed pre-provisioning. */
bool drop_reload_latch(slotInfo *slot) {
    MutexLock conf_lock(&g_cards_conf_mutex);
    slot->in_transition_reload_portd = 0;
    return false;
}

/* The once-only reload behind a pre-provisioning, with cards.conf locked. */
bool reload_for_provisioning(int slot_id, int provisioned_speed, unsigned char *reply) {
    slotInfo *slot = slot_record(slot_id);
    if (slot->in_transition_reload_portd != 1) return true;
    slot->in_transition_reload_portd = 0;
    update_cards_conf(slot_id, card_type_port_speed(slot->card_type), provisioned_speed, provisioned_speed, 1, 0,
                      slot->disabled);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Reloading portd..\n");
    if (!invoke_reload_portd()) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "reload portd failed\n");
        ctl_set_failure(reply, RELOAD_FAILED_TEXT);
        return false;  // the dirty bits stay set
    }
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "portd reloaded\n");
    cards_conf_clear_dirty_bits();
    return true;
}

/* Waits for the SDK to report the slot's INI out of use. */
void wait_ini_unused(int slot_id) {
    int in_use = 0;  // cleared once only: a failed query reports "not in use"
    for (int polls = 0; polls < kIniInUsePolls; ++polls) {
        sdk_check_ini_in_use(slot_id, &in_use);
        if (in_use == 0) {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "INI not in-use after %d poll loop\n", polls);
            return;
        }
        env_sleep(1);
    }
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "INI is still in use, unable to remove INI\n");
}

/* Steps 4 to 8 of an un-provisioning, with the slot locked.  Failures leave
 * their text in status_str but the reply reports success: the slot is
 * un-provisioned in any case. */
void unprovision_slot(int slot_id) {
    slotInfo *slot = slot_record(slot_id);
    slot->provisioned = 0;
    slot->provisioned_type = 0;
    MutexLock conf_lock(&g_cards_conf_mutex);
    /* An empty slot has no card coming up to hold the portd reload for. */
    if (!slot_has_card(slot)) slot->in_transition_reload_portd = 0;
    update_cards_conf(slot_id, card_type_port_speed(slot->card_type), 0, 0, 1, 0, slot->disabled);
    bool reloaded = invoke_reload_portd();
    if (!reloaded) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Reload portd failed\n");
        ctl_set_failure(g_ctl_resp_buf, RELOAD_FAILED_TEXT);
    }
    wait_ini_unused(slot_id);
    if (!sdk_reset_ini(slot_id)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "INI programming failed for slot\n");
        ctl_set_failure(g_ctl_resp_buf, INI_RESET_FAILED_TEXT);
    }
    if (reloaded) cards_conf_clear_dirty_bits();  // portd has not taken what a failed reload left dirty
    ctl_set_status(g_ctl_resp_buf, CTL_SUCCESS);
}

}  // namespace

bool set_linecard_disable(int slot_id, bool disable) {
    if (!disable) return false;  // only the power-off form exists
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, POWER_FILE, slot_id);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Disable\n");

    char command[CM_PATH_SIZE];
    int built = snprintf(command, sizeof command, "echo 0 >> %s", path);
    /* A cut command is never run (it cannot happen with a root of at most
     * 200 characters); it is judged as one that could not be launched. */
    int status = built >= 0 && (size_t)built < sizeof command ? cm_system(command, POWER_OFF_LIMIT_SEC) : -1;

    bool unready = wait_unready(slot_id);
    invoke_reload_envd();
    /* Judged only now, after the card was given its time to go down. */
    bool powered_off = cm_command_succeeded(command, status);
    return unready && powered_off;
}

/* Programs the INI of the provisioned type.  Programming records the INI's
 * card type as the slot's; a card already in the slot (disabled) keeps its
 * own, so that its bring-up still tells it from the provisioned type and,
 * once the provisioning is taken back, gets its own INI and ports. */
bool program_provisioned_ini(int slot_id, slotInfo *slot) {
    int card_in_slot = slot->card_type;
    bool programmed = check_and_update_ini_for_lc_insert(slot_id);
    if (slot_has_card(slot)) slot->card_type = card_in_slot;
    return programmed;
}

/* `pprovision_cmd` heads the request buffer (at least 152 bytes): the
 * reply's status and status_str are written over it. */
bool pre_provision_cmd(ctlPreProvisionCmd *pprovision_cmd) {
    unsigned char *reply = (unsigned char *)pprovision_cmd;
    ctlCmdHeader request = ctl_header_of(reply);
    int slot_id = (int)request.slot_no;
    int card_type = (int)request.card_type;
    if (!provision_slot_accepted(request.slot_no)) {  // the handler has refused it already
        ctl_set_failure(reply, BAD_SLOT_TEXT);
        return false;
    }
    slotInfo *slot = slot_record(slot_id);

    ctl_set_status(reply, CTL_SUCCESS);
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Received CTL cmd PRE_PROVISION_ENABLE\n");
    if (card_type != CARD_TYPE_4X400G && card_type != CARD_TYPE_16X100G) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Attempting to pre-provision unsupported card type, requested type = %d",
                    card_type);
        ctl_set_failure(reply, UNSUPPORTED_TYPE_TEXT);
        return false;
    }
    if (powered_and_enabled(slot)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Cannot pre-provision with active card in slot\n");
        ctl_set_failure(reply, ACTIVE_CARD_TEXT);
        return false;
    }

    slot->provisioned = 1;
    slot->provisioned_type = card_type;
    int provisioned_speed = card_type_port_speed(card_type);
    slot->current_state &= ~SLOT_SYNCED;
    slot->in_transition_reload_portd = 1;

    if (!program_provisioned_ini(slot_id, slot)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Failed to locate and program INI\n");
        ctl_set_failure(reply, NO_INI_TEXT);
        return drop_reload_latch(slot);
    }

    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, SYNCED_FILE, slot_id);
    FILE *synced = fopen(path, "re");
    if (!synced) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to open file %s\n", path);
        return drop_reload_latch(slot);  // the reply still reports success
    }
    bool is_synced = synced_check(synced, slot_id, reply);
    fclose(synced);
    if (!is_synced) return drop_reload_latch(slot);

    MutexLock conf_lock(&g_cards_conf_mutex);
    slot->current_state |= SLOT_SYNCED;
    return reload_for_provisioning(slot_id, provisioned_speed, reply);
}

bool ctl_linecard_enable(ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd LINECARD_ENABLE\n");
    uint32_t slot_no = ctl_header_of(g_ctl_resp_buf).slot_no;
    *reply = reply_from_buffer();
    if (!admin_slot_accepted(slot_no)) {
        ctl_set_failure(g_ctl_resp_buf, BAD_SLOT_TEXT);
        return true;
    }
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id)
        if (admin_slot_matches(slot_no, slot_id)) enable_slot(slot_id);
    ctl_set_status(g_ctl_resp_buf, CTL_SUCCESS);
    return true;
}

bool ctl_linecard_disable(ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd LINECARD_DISABLE\n");
    uint32_t slot_no = ctl_header_of(g_ctl_resp_buf).slot_no;
    *reply = reply_from_buffer();
    if (!admin_slot_accepted(slot_no)) {
        ctl_set_failure(g_ctl_resp_buf, BAD_SLOT_TEXT);
        return true;
    }
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id)
        if (admin_slot_matches(slot_no, slot_id)) disable_slot(slot_id);
    ctl_set_status(g_ctl_resp_buf, CTL_SUCCESS);
    return true;
}

bool ctl_pre_provision_enable(ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd PRE_PROVISION_ENABLE\n");
    uint32_t slot_no = ctl_header_of(g_ctl_resp_buf).slot_no;
    *reply = reply_from_buffer();
    if (!provision_slot_accepted(slot_no)) {
        CM_LOG(LOG_LEVEL_ERR, "Bad slot(%d) received from CTL cmd\n", (int)slot_no);
        ctl_set_failure(g_ctl_resp_buf, BAD_SLOT_TEXT);
    } else {
        MutexLock slot_lock(&slot_record((int)slot_no)->mutex);
        pre_provision_cmd((ctlPreProvisionCmd *)g_ctl_resp_buf);
    }
    CM_LOG(LOG_LEVEL_INFO, "sending response to client\n");
    return true;
}

bool ctl_pre_provision_disable(ctlReply *reply) {
    CM_LOG(LOG_LEVEL_INFO, "Received CTL cmd PRE_PROVISION_DISABLE\n");
    ctl_set_status(g_ctl_resp_buf, CTL_SUCCESS);
    uint32_t slot_no = ctl_header_of(g_ctl_resp_buf).slot_no;
    *reply = reply_from_buffer();
    if (!provision_slot_accepted(slot_no)) {
        CM_LOG(LOG_LEVEL_ERR, "Bad slot(%d) received from CTL cmd\n", (int)slot_no);
        ctl_set_failure(g_ctl_resp_buf, BAD_SLOT_TEXT);
        return true;  // sent without "sending response to client"
    }
    int slot_id = (int)slot_no;
    {
        MutexLock slot_lock(&slot_record(slot_id)->mutex);
        if (powered_and_enabled(slot_record(slot_id)))
            ctl_set_failure(g_ctl_resp_buf, ACTIVE_CARD_TEXT);
        else
            unprovision_slot(slot_id);
    }
    CM_LOG(LOG_LEVEL_INFO, "sending response to client\n");
    return true;
}
