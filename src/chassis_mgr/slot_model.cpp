/*
 * The slot model: the eight slot records, the event table that maps each
 * event to its transition, and the readers of the hardware-management event
 * files that turn a file change into an event.
 */
#include <string.h>

#include "chassis_mgr.h"

slotInfo g_slots_info[MAX_SLOTS_FOR_9600];

#define EVENT_DIR "/var/run/hw-management/events/"

const eventMapFnTable g_event_map_fn_table[SLOT_EVENT_COUNT] = {
    {slot_empty_event, empty_transition, EVENT_DIR "lc%d_present"},
    {slot_present_event, present_transition, EVENT_DIR "lc%d_present"},
    {slot_verified_event, verified_transition, EVENT_DIR "lc%d_verified"},
    {slot_synced_event, synced_transition, EVENT_DIR "lc%d_synced"},
    {slot_wait_reload_portd, wait_reload_portd, EVENT_DIR "lc%d_powered"},
    {slot_powered_event, powered_transition, EVENT_DIR "lc%d_powered"},
    {slot_ready_event, ready_transition, EVENT_DIR "lc%d_ready"},
    {slot_active_event, active_transition, EVENT_DIR "lc%d_active"},
    {slot_timeout_event, handle_slot_timer_expired, nullptr},
    {slot_no_event, no_valid_transition, EVENT_DIR "lc%d_present"},
};

namespace {

/* Leaf lock for the two record fields that are not plain numbers. */
pthread_mutex_t g_slot_fields_lock = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

/* The six events that come from an event file. */
bool is_file_event(int event) {
    switch (event) {
    case slot_present_event:
    case slot_verified_event:
    case slot_synced_event:
    case slot_powered_event:
    case slot_ready_event:
    case slot_active_event:
        return true;
    default:
        return false;
    }
}

bool read_event_file(const char *path, int *value) {
    FILE *file = fopen(path, "re");
    if (!file) return false;
    int c = fgetc(file);
    fclose(file);
    *value = (c >= '0' && c <= '9') ? c - '0' : 0;
    return true;
}

void event_file_path(char *path, size_t size, slotEvent event, int slot_id) {
    const char *fmt = g_event_map_fn_table[event].sysfs_event_path;
    if (!fmt) fmt = g_event_map_fn_table[slot_present_event].sysfs_event_path;
    env_path(path, size, fmt, slot_id);
}

slotEvent get_event_transition(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    slotInfo *slot = &g_slots_info[slot_id - 1];
    char path[CM_PATH_SIZE];
    int value = 0;

    if (slot->current_state & SLOT_PRESENT) {
        event_file_path(path, sizeof path, slot_present_event, slot_id);
        if (!read_event_file(path, &value)) {
            CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to open file %s\n", path);
            return slot_empty_event;
        }
        if (value == 0) return slot_empty_event;
    }

    int monitored = slot->trans_timer.state_monitored;
    if (monitored < 0 || monitored >= SLOT_EVENT_COUNT) return slot_no_event;
    event_file_path(path, sizeof path, (slotEvent)monitored, slot_id);
    if (!read_event_file(path, &value)) {
        CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "Unable to open file %s\n", path);
        return slot_empty_event;
    }
    if (!is_file_event(monitored) || value != 1) return slot_no_event;

    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Event received\n");
    return (slotEvent)monitored;
}

bool init_sm_for_slot(int slot_id, char *event) {
    int slot_no = slot_id + 1;
    slotInfo *slot = &g_slots_info[slot_id];
    char path[CM_PATH_SIZE];

    env_path(path, sizeof path, EVENT_DIR "lc%d_synced", slot_no);
    int synced = 0;
    if (!read_event_file(path, &synced)) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_no, "Unable to open %s\n", path);
        return false;
    }
    if (synced == 1) {
        slot->current_state |= SLOT_SYNCED;
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_no, "Synced during bootup\n");
    }

    env_path(path, sizeof path, EVENT_DIR "lc%d_present", slot_no);
    FILE *file = fopen(path, "re");
    if (!file) {
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_no, "Unable to open %s\n", path);
        return false;
    }
    int c = fgetc(file);
    fclose(file);
    *event = c == EOF ? '\0' : (char)c;
    return true;
}

bool await_slot_event(int slot_id, slotEvent next, uint32_t seconds) {
    g_slots_info[slot_id - 1].trans_timer.state_monitored = next;
    return set_slot_timer(slot_id, seconds, 0);
}

slotEvent unless_parked(const slotInfo *slot, slotEvent next) {
    bool parked = slot->trans_timer.state_monitored == slot_wait_reload_portd;
    return parked && slot->in_transition_reload_portd ? slot_wait_reload_portd : next;
}

bool slot_has_card(const slotInfo *slot) { return (slot->current_state & SLOT_PRESENT) != 0; }

bool power_within_budget(int) { return true; }

bool recalculate_power_budget(int) { return true; }

const char *slot_event_name(int event) {
    switch (event) {
    case slot_empty_event: return "empty";
    case slot_present_event: return "present";
    case slot_verified_event: return "verified";
    case slot_synced_event: return "synced";
    case slot_powered_event: return "powered";
    case slot_ready_event: return "ready";
    case slot_active_event: return "active";
    default: return "none";
    }
}

int card_type_port_speed(int card_type) {
    switch (card_type) {
    case CARD_TYPE_16X100G: return 100;
    case CARD_TYPE_8X200G: return 200;
    case CARD_TYPE_4X400G: return 400;
    default: return 0;
    }
}

const char *card_type_name(int card_type) {
    switch (card_type) {
    case CARD_TYPE_16X100G: return "KTR9600-C16";
    case CARD_TYPE_4X400G: return "KTR9600-C4";
    default: return "none";
    }
}

void slot_serial_set(int slot_id, const char *serial) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    pthread_mutex_lock(&g_slot_fields_lock);
    char *dst = g_slots_info[slot_id - 1].serial_no;
    memset(dst, 0, SERIAL_NO_SIZE);
    strncpy(dst, serial, SERIAL_NO_SIZE);
    pthread_mutex_unlock(&g_slot_fields_lock);
}

void slot_serial_get(int slot_id, char out[SERIAL_NO_SIZE]) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    pthread_mutex_lock(&g_slot_fields_lock);
    memcpy(out, g_slots_info[slot_id - 1].serial_no, SERIAL_NO_SIZE);
    pthread_mutex_unlock(&g_slot_fields_lock);
}

void slot_uptime_set(int slot_id, const struct timeval *tv) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    pthread_mutex_lock(&g_slot_fields_lock);
    g_slots_info[slot_id - 1].uptime = *tv;
    pthread_mutex_unlock(&g_slot_fields_lock);
}

struct timeval slot_uptime_get(int slot_id) {
    CM_ASSERT(slot_id >= 1 && slot_id <= 8);
    pthread_mutex_lock(&g_slot_fields_lock);
    struct timeval tv = g_slots_info[slot_id - 1].uptime;
    pthread_mutex_unlock(&g_slot_fields_lock);
    return tv;
}
