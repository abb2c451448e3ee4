/*
 * The work queue and the worker pool.  Transitions may block for seconds
 * (SDK calls, shell commands, sleeps), so the main loop only queues
 * (slot, event) items; four workers pop them and run the event's transition
 * with the slot's mutex held.  The queue is a plain FIFO under one mutex and
 * one condition variable; per-slot ordering and exclusion come from the slot
 * mutex.  A worker never holds the queue mutex and a slot mutex together.
 */
#include <stdlib.h>

#include "chassis_mgr.h"

eventWorkQue g_event_work_que = {nullptr, nullptr, 0, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, {}};

const eventMapFnTable *g_transition_table = g_event_map_fn_table;

namespace {

eventWork *wait_for_work(void) {
    eventWorkQue *que = &g_event_work_que;
    pthread_mutex_lock(&que->mutex);
    eventWork *work;
    /* Broadcast wakes every idle worker; the ones that find nothing wait again. */
    while (!(work = get_work_from_que())) pthread_cond_wait(&que->cond, &que->mutex);
    que->work_in_que--;
    work->next = nullptr;
    pthread_mutex_unlock(&que->mutex);
    return work;
}

/* Producers only build items for slots 1 to 8 and events 0 to 9; anything
 * else would index past the slot records or the event table. */
bool work_is_valid(const eventWork *work) {
    return work->slot_id >= 1 && work->slot_id <= MAX_SLOTS_FOR_9600 && work->event >= 0 &&
           work->event < SLOT_EVENT_COUNT;
}

void run_work(const eventWork *work) {
    if (!work_is_valid(work)) {
        CM_LOG(LOG_LEVEL_ERR, "Dropping work item for slot %d event %d\n", work->slot_id, (int)work->event);
        return;
    }
    pthread_mutex_t *slot_mutex = &g_slots_info[work->slot_id - 1].mutex;
    pthread_mutex_lock(slot_mutex);
    g_transition_table[work->event].fn_transition(work->slot_id);  // the result is not used
    pthread_mutex_unlock(slot_mutex);
}

}  // namespace

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
    for (;;) {
        eventWork *work = wait_for_work();
        run_work(work);
        free(work);
    }
    return nullptr;
}
