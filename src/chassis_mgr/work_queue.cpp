/*
 * The work queue and the worker pool.  Transitions may block for seconds
 * (SDK calls, shell commands, sleeps; the ready step a minute), so the main
 * loop only queues (slot, event) items; four workers run them, each with the
 * slot's mutex held around the event's transition.  The queue is a plain
 * FIFO under one mutex and one condition variable.  A worker never holds the
 * queue mutex and a slot mutex together.
 *
 * A worker never waits for a busy slot.  While a transition of a slot runs,
 * later items of that slot are moved, in queue order, to the slot's own
 * waiting list; the worker that ends the slot's transition runs the next of
 * them.  So items of one slot start strictly in queue order, one at a time,
 * and four slots can be inside their transitions at once whatever else is
 * queued.
 *
 * Short work first.  The ready step (run for a ready event, or by a
 * supervision expiry while the slot awaits one) holds a worker for about a
 * minute; every other transition is short, and the active one that follows
 * a ready step ends a card's bring-up.  Among the slots in which no
 * transition runs, a free worker takes the oldest short item before the
 * oldest ready item, so a card whose ready step has ended goes online before
 * the next cards' ready steps take the workers.  Only an item that is the
 * next of its slot can be taken, so precedence never reorders one slot's
 * items.  It is bounded: a ready item that could start is passed over at
 * most MAX_PASSES_OVER_READY times; then it starts before any other item.
 */
#include <stdlib.h>

#include "chassis_mgr.h"
#include "watchdog.h"

eventWorkQue g_event_work_que = {nullptr, nullptr, 0, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, {}};

const eventMapFnTable *g_transition_table = g_event_map_fn_table;

namespace {

/* Per slot, guarded by the queue mutex. */
struct SlotWork {
    bool running;     // a worker is inside a transition of the slot
    eventWork *head;  // oldest item waiting for its turn in the slot
    eventWork *tail;
    int waiting;
    int passed_over;  // items started while the slot's next item, a ready one, could have
};
SlotWork g_slot_work[MAX_SLOTS_FOR_9600];

/* Producers only build items for slots 1 to 8 and events 0 to 9; anything
 * else would index past the slot records or the event table. */
bool work_is_valid(const eventWork *work) {
    return work->slot_id >= 1 && work->slot_id <= MAX_SLOTS_FOR_9600 && work->event >= 0 &&
           work->event < SLOT_EVENT_COUNT;
}

/* The ready step is the one long transition.  A supervision expiry of a slot
 * that awaits its ready event runs it when the ready file is already written
 * (the awaited event is read without the slot mutex: the slot is idle, and a
 * stale value only moves the item in the order of precedence). */
bool is_long_work(const eventWork *work) {
    if (!work_is_valid(work)) return false;  // dropped at once
    if (work->event == slot_ready_event) return true;
    return work->event == slot_timeout_event &&
           g_slots_info[work->slot_id - 1].trans_timer.state_monitored == slot_ready_event;
}

void wait_in_slot(SlotWork *slot, eventWork *work) {
    work->next = nullptr;
    if (slot->head)
        slot->tail->next = work;
    else
        slot->head = work;
    slot->tail = work;
    slot->waiting++;
}

eventWork *next_waiting(SlotWork *slot) {
    eventWork *work = slot->head;
    if (!work) return nullptr;
    slot->head = work->next;
    slot->waiting--;
    return work;
}

/* A queued item that may start now, with the item before it (for unlinking). */
struct Startable {
    eventWork *prev;
    eventWork *work;
};

/* What a scan of the queue found: the oldest startable short item, and the
 * startable ready items (one per slot at most), oldest first. */
struct QueueScan {
    Startable short_work;
    Startable long_work[MAX_SLOTS_FOR_9600];
    int long_count;
};

void unlink_queued(eventWork *prev, eventWork *work) {
    eventWorkQue *que = &g_event_work_que;
    if (prev)
        prev->next = work->next;
    else
        que->head = work->next;
    if (que->tail == work && prev) que->tail = prev;  // an emptied queue keeps its stale tail
    work->next = nullptr;
}

/* Queue mutex held.  Walks the queue from its oldest item, moving every item
 * of a slot that is busy or already has items waiting to that slot's list
 * (keeping their order), and notes the first startable short item and every
 * startable ready item.  An item is startable when its slot is idle and it is
 * the slot's next. */
QueueScan scan_queue() {
    QueueScan found = {};
    bool seen[MAX_SLOTS_FOR_9600] = {};
    eventWork *prev = nullptr;
    eventWork *work = g_event_work_que.head;
    while (work) {
        eventWork *next = work->next;
        if (!work_is_valid(work)) {
            if (!found.short_work.work) found.short_work = {prev, work};
        } else if (SlotWork *slot = &g_slot_work[work->slot_id - 1]; slot->running || slot->head) {
            unlink_queued(prev, work);
            wait_in_slot(slot, work);
            work = next;
            continue;
        } else if (!seen[work->slot_id - 1]) {
            seen[work->slot_id - 1] = true;
            if (is_long_work(work))
                found.long_work[found.long_count++] = {prev, work};
            else if (!found.short_work.work)
                found.short_work = {prev, work};
        }
        prev = work;
        work = next;
    }
    return found;
}

eventWork *start_queued(Startable item) {
    unlink_queued(item.prev, item.work);
    if (work_is_valid(item.work)) {
        g_slot_work[item.work->slot_id - 1].running = true;
        g_slot_work[item.work->slot_id - 1].passed_over = 0;
    }
    return item.work;
}

/* The oldest startable ready item passed over too often, or null. */
const Startable *due_ready_work(const QueueScan &found) {
    for (int i = 0; i < found.long_count; i++)
        if (g_slot_work[found.long_work[i].work->slot_id - 1].passed_over >= MAX_PASSES_OVER_READY)
            return &found.long_work[i];
    return nullptr;
}

/* Items left waiting in a slot that no worker runs (see take_runnable). */
eventWork *start_waiting_in_idle_slot() {
    for (SlotWork &slot : g_slot_work) {
        if (slot.running || !slot.head) continue;
        slot.running = true;
        return next_waiting(&slot);
    }
    return nullptr;
}

/* The worker ends its slot's transition: it runs the slot's next waiting
 * item, or leaves the slot idle. */
eventWork *continue_slot(int ended_slot) {
    if (!ended_slot) return nullptr;
    SlotWork *slot = &g_slot_work[ended_slot - 1];
    if (eventWork *work = next_waiting(slot)) return work;  // the slot stays busy
    slot->running = false;
    return nullptr;
}

/* Queue mutex held.  The item this worker runs next, or null when every
 * item belongs to a busy slot.  `ended_slot` is the slot whose transition
 * this worker has just ended (0 for none). */
eventWork *take_runnable(int ended_slot) {
    QueueScan found = scan_queue();
    if (const Startable *due = due_ready_work(found)) {
        if (ended_slot && g_slot_work[ended_slot - 1].head) {
            /* The ended slot's items wait for the next free worker. */
            g_slot_work[ended_slot - 1].running = false;
            pthread_cond_broadcast(&g_event_work_que.cond);
        } else {
            continue_slot(ended_slot);
        }
        return start_queued(*due);
    }
    eventWork *work = continue_slot(ended_slot);
    if (!work) work = start_waiting_in_idle_slot();
    if (!work && found.short_work.work) work = start_queued(found.short_work);
    if (work) {
        for (int i = 0; i < found.long_count; i++) g_slot_work[found.long_work[i].work->slot_id - 1].passed_over++;
        return work;
    }
    return found.long_count ? start_queued(found.long_work[0]) : nullptr;
}

eventWork *wait_for_work(int ended_slot) {
    eventWorkQue *que = &g_event_work_que;
    pthread_mutex_lock(&que->mutex);
    eventWork *work;
    /* Broadcast wakes every idle worker; the ones that find nothing to run wait again. */
    while (!(work = take_runnable(ended_slot))) {
        ended_slot = 0;
        pthread_cond_wait(&que->cond, &que->mutex);
    }
    que->work_in_que--;
    work->next = nullptr;
    pthread_mutex_unlock(&que->mutex);
    return work;
}

/* Returns the slot whose transition ran, 0 when the item was dropped. */
int run_work(const eventWork *work) {
    if (!work_is_valid(work)) {
        CM_LOG(LOG_LEVEL_ERR, "Dropping work item for slot %d event %d\n", work->slot_id, (int)work->event);
        return 0;
    }
    WorkItemStamp stamp(work->slot_id, work->event);  // watched by the watchdog until it returns
    pthread_mutex_t *slot_mutex = &g_slots_info[work->slot_id - 1].mutex;
    pthread_mutex_lock(slot_mutex);
    g_transition_table[work->event].fn_transition(work->slot_id);  // the result is not used
    pthread_mutex_unlock(slot_mutex);
    return work->slot_id;
}

}  // namespace

void work_queue_slot_work(int slot_id, int *waiting, bool *running) {
    CM_ASSERT(slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600);
    pthread_mutex_lock(&g_event_work_que.mutex);
    *waiting = g_slot_work[slot_id - 1].waiting;
    *running = g_slot_work[slot_id - 1].running;
    pthread_mutex_unlock(&g_event_work_que.mutex);
}

bool add_work_to_que(eventWork *work) {
    if (!work) return false;
    eventWorkQue *que = &g_event_work_que;
    work->next = nullptr;
    /* With an empty queue the tail may still point at an item already taken;
     * it is not looked at. */
    if (!que->head) {
        que->head = work;
        que->tail = work;
    } else {
        que->tail->next = work;
        que->tail = work;
    }
    return true;
}

eventWork *get_work_from_que(void) {
    eventWorkQue *que = &g_event_work_que;
    eventWork *work = que->head;
    if (!work) return nullptr;
    que->head = work->next;
    work->next = nullptr;
    return work;
}

void *work_handler(void *) {
    pthread_setname_np(pthread_self(), "chmgr-worker");
    int ended_slot = 0;
    for (;;) {
        eventWork *work = wait_for_work(ended_slot);
        ended_slot = run_work(work);
        free(work);
    }
    return nullptr;
}
