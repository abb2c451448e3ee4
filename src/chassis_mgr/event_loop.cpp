/*
 * Event sources and the main loop.  Each slot has one inotify instance that
 * watches its six event files for close-after-write, and one one-shot timer.
 * The main thread polls these sixteen descriptors (and the watch of the
 * events directory, event_watches.cpp) and turns every file or timer wake-up into
 * a work item (slot, event) for the worker pool; it never runs a transition
 * itself.  A file wake-up is decided by re-reading the event files, not by
 * the inotify record; a timer wake-up becomes slot_timeout_event.
 */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "chassis_mgr.h"
#include "event_watches.h"
#include "watchdog.h"

int g_ifd[MAX_SLOTS_FOR_9600];
int g_wd_present[MAX_SLOTS_FOR_9600];
int g_wd_verified[MAX_SLOTS_FOR_9600];
int g_wd_synced[MAX_SLOTS_FOR_9600];
int g_wd_powered[MAX_SLOTS_FOR_9600];
int g_wd_active[MAX_SLOTS_FOR_9600];
int g_wd_ready[MAX_SLOTS_FOR_9600];

namespace {

/* One inotify record of a watched file is 16 bytes (no name): a 17-byte read
 * takes exactly one, and further records make the next poll return at once. */
#define INOTIFY_READ_SIZE 17

/* Appends an item under the queue mutex and wakes every idle worker.  A file
 * event also restarts the slot's count of fruitless expiries: a slot that
 * keeps producing file events is never declared stuck. */
void queue_work(eventWork *work, bool file_event) {
    eventWorkQue *que = &g_event_work_que;
    pthread_mutex_lock(&que->mutex);
    add_work_to_que(work);
    que->work_in_que++;
    if (file_event) g_slots_info[work->slot_id - 1].trans_timer.transition_timer_hits = 0;
    pthread_cond_broadcast(&que->cond);
    pthread_mutex_unlock(&que->mutex);
}

eventWork *new_work(int slot_id) {
    eventWork *work = static_cast<eventWork *>(calloc(1, sizeof(eventWork)));
    if (!work) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to alloc memory for events\n");
        return nullptr;
    }
    work->slot_id = slot_id;
    work->next = nullptr;
    return work;
}

/* Inotify side of one slot.  False when the slot's timer side must be
 * skipped for this wake-up (no memory for the item). */
bool handle_file_wakeup(int slot_id) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Received event\n");
    alignas(struct inotify_event) char buffer[INOTIFY_READ_SIZE];
    ssize_t got = read(g_ifd[slot_id - 1], buffer, sizeof buffer);
    if (got > 0) {
        note_slot_watch_record(slot_id, (const struct inotify_event *)buffer);
    } else if (got == 0 || errno != EINVAL) {
        return true;
    } else if (!drain_slot_watch_records(slot_id)) {
        return true;  // a directory's records only: left queued, they would wake the loop for ever
    }
    eventWork *work = new_work(slot_id);
    if (!work) return false;
    work->event = get_event_transition(slot_id);
    queue_work(work, true);
    return true;
}

/* Timer side of one slot.  The timers are non-blocking: when the expiry was
 * cancelled by a re-arm after the poll, nothing is left to read and the
 * wake-up is dropped, as a failed inotify read is. */
void handle_timer_wakeup(int slot_id) {
    slotInfo *slot = &g_slots_info[slot_id - 1];
    /* Marks the stuck slot in the log once, on the expiry that declares it. */
    if (slot->trans_timer.transition_timer_hits == TRANSITION_MAX_TRIES)
        CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Received timer event\n");
    uint64_t timers_elapsed = 0;
    if (read(slot->trans_timer.timer_fd, &timers_elapsed, sizeof timers_elapsed) <= 0) return;
    eventWork *work = new_work(slot_id);
    if (!work) return;
    work->event = slot_timeout_event;
    queue_work(work, false);
}

}  // namespace

void queue_event_reread(int slot_id) {
    eventWork *work = new_work(slot_id);
    if (!work) return;
    work->event = get_event_transition(slot_id);
    queue_work(work, true);
}

bool init_inotify_events(void) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) g_ifd[slot_id - 1] = inotify_init1(IN_CLOEXEC);
    /* A missing file gets no watch (-1) until it appears in the events directory. */
    place_event_watches();
    return true;
}

bool set_slot_timer(int slot_id, uint32_t time_in_sec, uint32_t time_in_nsec) {
    if (slot_id < 1 || slot_id > MAX_SLOTS_FOR_9600) return false;
    struct itimerspec new_value = {};
    new_value.it_value = env_scaled_period(time_in_sec, time_in_nsec);
    return timerfd_settime(g_slots_info[slot_id - 1].trans_timer.timer_fd, 0, &new_value, nullptr) != -1;
}

void build_poll_set(struct pollfd *fds) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        struct pollfd *entry = &fds[2 * (slot_id - 1)];
        entry[0] = {g_ifd[slot_id - 1], POLLIN, 0};
        entry[1] = {g_slots_info[slot_id - 1].trans_timer.timer_fd, POLLIN, 0};
    }
    fds[POLL_EVENTS_DIR_ENTRY] = {g_events_dir_ifd, POLLIN, 0};
}

/* Slots in ascending order; for each, the file event is queued before the
 * timeout, so one wake-up can queue two items of a slot, the event first. */
void handle_poll_results(const struct pollfd *fds) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        const struct pollfd *entry = &fds[2 * (slot_id - 1)];
        if ((entry[0].revents & POLLIN) && !handle_file_wakeup(slot_id)) continue;
        if (entry[1].revents & POLLIN) handle_timer_wakeup(slot_id);
    }
    if (fds[POLL_EVENTS_DIR_ENTRY].revents & POLLIN) handle_events_dir_wakeup();
}

void run_main_loop(void) {
    struct pollfd fd_set[POLL_SET_SIZE];
    build_poll_set(fd_set);
    for (;;) {
        /* Any failure ends the daemon, an interrupted call included. */
        if (poll(fd_set, POLL_SET_SIZE, events_dir_retry_timeout_ms()) < 0) {
            CM_LOG(LOG_LEVEL_ERR, "poll() error exiting\n");
            exit(1);
        }
        MainLoopStamp busy;  // watched by the watchdog until the next poll
        retry_events_dir();
        handle_poll_results(fd_set);
    }
}
