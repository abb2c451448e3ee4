/*
 * The debug trigger: writing a slot number into "/etc/tarnel/debug_slot"
 * rewrites the status document for that slot (255 for all of them).  A
 * thread watches the file with inotify; nothing is sent anywhere.
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "chassis_mgr.h"

int g_ifd_debugcli = -1;
int g_wd_debugcli = -1;

namespace {

#define DEBUG_TRIGGER_PATH "/etc/tarnel/debug_slot"

/* One inotify event for a watched file (16 bytes, no name) fits; so does
 * any slot number worth writing. */
constexpr size_t kTriggerReadSize = 17;

/* Reads the number at the start of the trigger file; false when it cannot
 * be opened.  Only the bytes read count: the number ends at the first
 * non-digit or at the end of what was read. */
bool read_trigger_slot(const char *path, int *slot_id) {
    FILE *file = fopen(path, "re");
    if (!file) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open file %s\n", path);
        return false;
    }
    char text[kTriggerReadSize + 1];
    size_t read = fread(text, 1, kTriggerReadSize, file);
    text[read] = '\0';
    *slot_id = (int)strtol(text, nullptr, 10);
    CM_LOG(LOG_LEVEL_INFO, "SLOT ID read = %d\n", *slot_id);
    fclose(file);
    return true;
}

void handle_trigger(void) {
    CM_LOG(LOG_LEVEL_INFO, "Received debug command\n");
    char event[kTriggerReadSize];
    if (read(g_ifd_debugcli, event, sizeof event) == 0) {
        CM_LOG(LOG_LEVEL_INFO, "ERROR in read\n");
        return;
    }
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, DEBUG_TRIGGER_PATH);
    CM_LOG(LOG_LEVEL_INFO, "About to read %s\n", path);
    int slot_id = 0;
    if (read_trigger_slot(path, &slot_id)) get_json_obj_for_slots(slot_id);
}

}  // namespace

void debug_trigger_init(void) {
    CM_LOG(LOG_LEVEL_INFO, "Initializing debug_thread\n");
    g_ifd_debugcli = inotify_init1(IN_CLOEXEC);
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, DEBUG_TRIGGER_PATH);
    /* Unchecked: without the file there is simply no watch, and no trigger. */
    g_wd_debugcli = inotify_add_watch(g_ifd_debugcli, path, IN_CLOSE_WRITE | IN_CREATE);
}

bool debug_trigger_serve_one(int timeout_ms) {
    struct pollfd watch = {g_ifd_debugcli, POLLIN, 0};
    if (poll(&watch, 1, timeout_ms) < 0) {
        CM_LOG(LOG_LEVEL_ERR, "poll() error");
        return false;
    }
    if (watch.revents & POLLIN) handle_trigger();
    return true;
}

void *debug_thread(void *) {
    debug_trigger_init();
    while (debug_trigger_serve_one(-1)) {
    }
    return nullptr;
}
