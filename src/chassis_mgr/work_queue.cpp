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
 * them.  A free worker takes the oldest item of a slot in which no
 * transition runs.  So items of one slot start strictly in queue order, one
 * at a time, and four slots can be inside their transitions at once whatever
 * else is queued.
 *
 * Why the oldest runnable item is found this way: items reach a slot's list
 * only from the head of the queue, so they are older than anything still
 * queued; and a slot's list is only ever non-empty while its transition
 * runs, because the worker that ends it takes the list's next item at once.
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
    eventWork *head;  // oldest item waiting for that transition to return
    eventWork *tail;
    int waiting;
};
SlotWork g_slot_work[MAX_SLOTS_FOR_9600];

/* Producers only build items for slots 1 to 8 and events 0 to 9; anything
 * else would index past the slot records or the event table. */
bool work_is_valid(const eventWork *work) {
    return work->slot_id >= 1 && work->slot_id <= MAX_SLOTS_FOR_9600 && work->event >= 0 &&
           work->event < SLOT_EVENT_COUNT;
}

void wait_behind_running(SlotWork *slot, eventWork *work) {
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

/* Queue mutex held.  The item this worker runs next, or null when every
 * queued item belongs to a busy slot.  `ended_slot` is the slot whose
 * transition this worker has just ended (0 for none): its waiting items are
 * the oldest of all, so the next of them comes first. */
eventWork *take_runnable(int ended_slot) {
    if (ended_slot) {
        SlotWork *slot = &g_slot_work[ended_slot - 1];
        if (eventWork *work = next_waiting(slot)) return work;  // the slot stays busy
        slot->running = false;
    }
    while (eventWork *work = get_work_from_que()) {
        if (!work_is_valid(work)) return work;  // dropped by run_work
        SlotWork *slot = &g_slot_work[work->slot_id - 1];
        if (slot->running) {
            wait_behind_running(slot, work);
            continue;
        }
        slot->running = true;
        return work;
    }
    return nullptr;
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
    int ended_slot = 0;
    for (;;) {
        eventWork *work = wait_for_work(ended_slot);
        ended_slot = run_work(work);
        free(work);
    }
    return nullptr;
}
