/*
 * Keeping the event-file watches in place (see event_watches.h).  Each slot
 * watches its six files in its own inotify instance; one more instance
 * watches the events directory for files created or renamed into it.  A
 * watch that comes back is announced with one INFO line, and the slot's
 * files are re-read, so a change made while the file was away is not lost.
 */
#include "event_watches.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "chassis_mgr.h"

int g_events_dir_ifd = -1;

namespace {

#define EVENT_DIR "/var/run/hw-management/events/"

/* The six watches of a slot, in the order they are placed. */
const struct {
    const char *name_format;
    int *watch;
} kSlotWatches[] = {
    {"lc%d_present", g_wd_present}, {"lc%d_verified", g_wd_verified}, {"lc%d_synced", g_wd_synced},
    {"lc%d_powered", g_wd_powered}, {"lc%d_active", g_wd_active},     {"lc%d_ready", g_wd_ready},
};
constexpr int kWatchesPerSlot = sizeof kSlotWatches / sizeof kSlotWatches[0];

/* Room for many records with names (directory watches) in one read. */
constexpr size_t kRecordsReadSize = 16 * (sizeof(struct inotify_event) + NAME_MAX + 1);

int g_events_dir_wd = -1;
bool g_events_dir_reported_missing = false;
int64_t g_events_dir_next_try_ms = 0;

int64_t monotonic_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

int64_t supervision_period_ms(void) {
    struct timespec period = env_scaled_period(SUPERVISION_PERIOD_SEC, 0);
    int64_t ms = (int64_t)period.tv_sec * 1000 + period.tv_nsec / 1000000;
    return ms > 0 ? ms : 1;
}

void watch_name(char *name, size_t size, int index, int slot_id) {
    snprintf(name, size, kSlotWatches[index].name_format, slot_id);
}

void watch_path(char *path, size_t size, int index, int slot_id) {
    char name[32];
    watch_name(name, sizeof name, index, slot_id);
    env_path(path, size, EVENT_DIR "%s", name);
}

bool is_directory(const char *path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

/* A directory's records carry names and never fit the event-file read:
 * such a path is refused, and its watch dropped, with one ERR line. */
void refuse_directory(int slot_id, int index, const char *path) {
    int *watch = &kSlotWatches[index].watch[slot_id - 1];
    if (*watch != -1) inotify_rm_watch(g_ifd[slot_id - 1], *watch);
    *watch = -1;
    CM_LOG_SLOT(LOG_LEVEL_ERR, slot_id, "%s is a directory, not an event file\n", path);
}

/* Watches the file now at the path; true when that is a new watch.  A
 * watch of the file formerly at the path is removed. */
bool add_slot_watch(int slot_id, int index, bool announce) {
    char path[CM_PATH_SIZE];
    watch_path(path, sizeof path, index, slot_id);
    if (is_directory(path)) {
        refuse_directory(slot_id, index, path);
        return false;
    }
    int *watch = &kSlotWatches[index].watch[slot_id - 1];
    int wd = inotify_add_watch(g_ifd[slot_id - 1], path, IN_CLOSE_WRITE);
    if (wd == -1 || wd == *watch) return false;  // missing, or the same file still watched
    if (*watch != -1) inotify_rm_watch(g_ifd[slot_id - 1], *watch);
    *watch = wd;
    if (announce) CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Watching %s\n", path);
    return true;
}

/* The files the start-up state is read from are both watched again. */
bool start_files_watched(int slot_id) { return g_wd_present[slot_id - 1] != -1 && g_wd_synced[slot_id - 1] != -1; }

/* A slot with a new watch: its start-up state if it never had one, then its files re-read. */
void after_new_watch(int slot_id) {
    if (start_files_watched(slot_id)) give_late_start_state(slot_id);
    queue_event_reread(slot_id);
}

/* Every file now in the directory that is not watched yet, announced;
 * slots with a new watch re-read their files. */
void rewatch_all(void) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        bool added = false;
        for (int index = 0; index < kWatchesPerSlot; ++index) added |= add_slot_watch(slot_id, index, true);
        if (added) after_new_watch(slot_id);
    }
}

/* True when the events directory is watched now. */
bool watch_events_dir(void) {
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, EVENT_DIR);
    g_events_dir_wd = inotify_add_watch(g_events_dir_ifd, path, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    if (g_events_dir_wd == -1) {
        if (!g_events_dir_reported_missing)
            CM_LOG(LOG_LEVEL_WARN, "Directory %s is missing, looking for it every supervision period\n", path);
        g_events_dir_reported_missing = true;
        g_events_dir_next_try_ms = monotonic_ms() + supervision_period_ms();
        return false;
    }
    if (g_events_dir_reported_missing) CM_LOG(LOG_LEVEL_INFO, "Directory %s found, watching its event files\n", path);
    g_events_dir_reported_missing = false;
    return true;
}

/* A file created or renamed into the events directory. */
void rewatch_by_name(const char *name) {
    char candidate[32];
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        for (int index = 0; index < kWatchesPerSlot; ++index) {
            watch_name(candidate, sizeof candidate, index, slot_id);
            if (strcmp(candidate, name) != 0) continue;
            if (add_slot_watch(slot_id, index, true)) after_new_watch(slot_id);
            return;
        }
    }
}

void handle_dir_record(const struct inotify_event *record) {
    if (record->wd == g_events_dir_wd && (record->mask & IN_IGNORED)) {
        g_events_dir_wd = -1;  // the directory itself is gone: look for it again
        if (watch_events_dir()) rewatch_all();
        return;
    }
    if (record->len > 0 && (record->mask & (IN_CREATE | IN_MOVED_TO))) rewatch_by_name(record->name);
}

}  // namespace

void place_event_watches(void) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id)
        for (const auto &watch : kSlotWatches) watch.watch[slot_id - 1] = -1;
    if (g_events_dir_ifd != -1) close(g_events_dir_ifd);
    g_events_dir_ifd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    g_events_dir_reported_missing = false;
    watch_events_dir();  // first, so that a file created meanwhile is seen
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id)
        for (int index = 0; index < kWatchesPerSlot; ++index) add_slot_watch(slot_id, index, false);
}

void note_slot_watch_record(int slot_id, const struct inotify_event *record) {
    if (!(record->mask & IN_IGNORED)) return;
    for (const auto &watch : kSlotWatches)
        if (watch.watch[slot_id - 1] == record->wd) watch.watch[slot_id - 1] = -1;
}

bool drain_slot_watch_records(int slot_id) {
    alignas(struct inotify_event) char buffer[kRecordsReadSize];
    ssize_t got = read(g_ifd[slot_id - 1], buffer, sizeof buffer);
    bool file_record = false;
    for (ssize_t at = 0; got > 0 && at + (ssize_t)sizeof(struct inotify_event) <= got;) {
        const struct inotify_event *record = (const struct inotify_event *)(buffer + at);
        at += (ssize_t)(sizeof(struct inotify_event) + record->len);
        if (record->len == 0) {
            note_slot_watch_record(slot_id, record);
            file_record = true;
            continue;
        }
        for (int index = 0; index < kWatchesPerSlot; ++index) {
            if (kSlotWatches[index].watch[slot_id - 1] != record->wd) continue;
            char path[CM_PATH_SIZE];
            watch_path(path, sizeof path, index, slot_id);
            refuse_directory(slot_id, index, path);
        }
    }
    return file_record;
}

void handle_events_dir_wakeup(void) {
    alignas(struct inotify_event) char buffer[kRecordsReadSize];
    ssize_t got;
    while ((got = read(g_events_dir_ifd, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at + (ssize_t)sizeof(struct inotify_event) <= got;) {
            const struct inotify_event *record = (const struct inotify_event *)(buffer + at);
            at += (ssize_t)(sizeof(struct inotify_event) + record->len);
            handle_dir_record(record);
        }
    }
}

int events_dir_retry_timeout_ms(void) {
    if (g_events_dir_wd != -1 || g_events_dir_ifd == -1) return -1;
    int64_t left = g_events_dir_next_try_ms - monotonic_ms();
    return left > 0 ? (int)left : 0;
}

void retry_events_dir(void) {
    if (g_events_dir_wd != -1 || g_events_dir_ifd == -1) return;
    if (monotonic_ms() < g_events_dir_next_try_ms) return;
    if (watch_events_dir()) rewatch_all();
}
