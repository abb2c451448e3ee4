/*
 * The debug trigger: writing a slot number into "/etc/tarnel/debug_slot"
 * rewrites the status document for that slot (255 for all of them).  A
 * thread watches the file with inotify, and its directory for the file
 * coming back after it was deleted or replaced; nothing is sent anywhere.
 */
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_mgr.h"

int g_ifd_debugcli = -1;
int g_wd_debugcli = -1;

namespace {

#define DEBUG_TRIGGER_DIR "/etc/tarnel"
#define DEBUG_TRIGGER_NAME "debug_slot"
#define DEBUG_TRIGGER_PATH DEBUG_TRIGGER_DIR "/" DEBUG_TRIGGER_NAME

/* The trigger file's directory, watched for the file coming back when it
 * was missing, deleted or replaced by a rename (its watch follows the old
 * file, not the path). */
int g_ifd_trigger_dir = -1;

constexpr size_t kDirRecordsReadSize = 16 * (sizeof(struct inotify_event) + NAME_MAX + 1);

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

void read_trigger_and_report(void) {
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, DEBUG_TRIGGER_PATH);
    CM_LOG(LOG_LEVEL_INFO, "About to read %s\n", path);
    int slot_id = 0;
    if (read_trigger_slot(path, &slot_id)) get_json_obj_for_slots(slot_id);
}

void handle_trigger(void) {
    CM_LOG(LOG_LEVEL_INFO, "Received debug command\n");
    alignas(struct inotify_event) char event[kTriggerReadSize];
    ssize_t got = read(g_ifd_debugcli, event, sizeof event);
    if (got == 0) {
        CM_LOG(LOG_LEVEL_INFO, "ERROR in read\n");
        return;
    }
    const struct inotify_event *record = (const struct inotify_event *)event;
    if (got > 0 && (record->mask & IN_IGNORED) && record->wd == g_wd_debugcli) g_wd_debugcli = -1;
    read_trigger_and_report();
}

/* Watches the file now at the trigger path; true when that is a new watch. */
bool watch_trigger_file(void) {
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, DEBUG_TRIGGER_PATH);
    int wd = inotify_add_watch(g_ifd_debugcli, path, IN_CLOSE_WRITE | IN_CREATE);
    if (wd == -1 || wd == g_wd_debugcli) return false;
    if (g_wd_debugcli != -1) inotify_rm_watch(g_ifd_debugcli, g_wd_debugcli);
    g_wd_debugcli = wd;
    return true;
}

/* The trigger file came back: watched again, and read at once when it holds
 * a number already (written, or renamed into place, before the watch). */
void trigger_file_back(void) {
    if (!watch_trigger_file()) return;
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, DEBUG_TRIGGER_PATH);
    CM_LOG(LOG_LEVEL_INFO, "Watching %s\n", path);
    struct stat st;
    if (stat(path, &st) == 0 && st.st_size > 0) read_trigger_and_report();
}

void handle_trigger_dir(void) {
    alignas(struct inotify_event) char buffer[kDirRecordsReadSize];
    ssize_t got;
    bool back = false;
    while ((got = read(g_ifd_trigger_dir, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at + (ssize_t)sizeof(struct inotify_event) <= got;) {
            const struct inotify_event *record = (const struct inotify_event *)(buffer + at);
            at += (ssize_t)(sizeof(struct inotify_event) + record->len);
            if (record->len > 0 && strcmp(record->name, DEBUG_TRIGGER_NAME) == 0) back = true;
        }
    }
    if (back) trigger_file_back();
}

}  // namespace

void debug_trigger_init(void) {
    CM_LOG(LOG_LEVEL_INFO, "Initializing debug_thread\n");
    g_ifd_debugcli = inotify_init1(IN_CLOEXEC);
    if (g_ifd_trigger_dir != -1) close(g_ifd_trigger_dir);
    g_ifd_trigger_dir = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    char dir[CM_PATH_SIZE];
    env_path(dir, sizeof dir, DEBUG_TRIGGER_DIR);
    inotify_add_watch(g_ifd_trigger_dir, dir, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    /* Without the file there is no watch, and no trigger, until it is created. */
    g_wd_debugcli = -1;
    watch_trigger_file();
}

bool debug_trigger_serve_one(int timeout_ms) {
    struct pollfd watches[2] = {{g_ifd_debugcli, POLLIN, 0}, {g_ifd_trigger_dir, POLLIN, 0}};
    if (poll(watches, 2, timeout_ms) < 0) {
        CM_LOG(LOG_LEVEL_ERR, "poll() error");
        return false;
    }
    if (watches[0].revents & POLLIN) handle_trigger();
    if (watches[1].revents & POLLIN) handle_trigger_dir();
    return true;
}

void *debug_thread(void *) {
    pthread_setname_np(pthread_self(), "chmgr-debug");
    debug_trigger_init();
    while (debug_trigger_serve_one(-1)) {
    }
    return nullptr;
}
