/*
 * The work queue and the worker pool.  Transitions may block for seconds
 * (SDK calls, shell commands, sleeps), so the main loop only queues
 * (slot, event) items; four workers pop them and run the event's transition
 * with the slot's mutex held.  The queue is a plain FIFO under one mutex and
 * one condition variable; exclusion comes from the slot mutex.  A worker never
 * holds the queue mutex and a slot mutex together.
 *
 * Items of one slot start in queue order.  Each item takes a turn number for
 * its slot as it leaves the queue and waits for that turn before it takes the
 * slot mutex.  A mutex alone hands over in any order: under load a later item
 * (a timer expiry) could overtake an earlier one, and an event decided while
 * the card was still in place could then run after its removal.
 */
#include <stdlib.h>

#include "chassis_mgr.h"

eventWorkQue g_event_work_que = {nullptr, nullptr, 0, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, {}};

const eventMapFnTable *g_transition_table = g_event_map_fn_table;

namespace {

/* Turn numbers per slot; a leaf lock, taken inside the queue mutex when a
 * turn is handed out and on its own when a turn is awaited or ended. */
struct SlotTurns {
    unsigned long next_turn;
    unsigned long current_turn;
};
SlotTurns g_slot_turns[MAX_SLOTS_FOR_9600];
pthread_mutex_t g_turn_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_turn_cond = PTHREAD_COND_INITIALIZER;

/* Producers only build items for slots 1 to 8 and events 0 to 9; anything
 * else would index past the slot records or the event table. */
bool work_is_valid(const eventWork *work) {
    return work->slot_id >= 1 && work->slot_id <= MAX_SLOTS_FOR_9600 && work->event >= 0 &&
           work->event < SLOT_EVENT_COUNT;
}

/* Called with the queue mutex held, so turns follow queue order. */
unsigned long take_turn(const eventWork *work) {
    if (!work_is_valid(work)) return 0;
    pthread_mutex_lock(&g_turn_mutex);
    unsigned long turn = g_slot_turns[work->slot_id - 1].next_turn++;
    pthread_mutex_unlock(&g_turn_mutex);
    return turn;
}

void wait_for_turn(int slot_id, unsigned long turn) {
    pthread_mutex_lock(&g_turn_mutex);
    while (g_slot_turns[slot_id - 1].current_turn != turn) pthread_cond_wait(&g_turn_cond, &g_turn_mutex);
    pthread_mutex_unlock(&g_turn_mutex);
}

void end_turn(int slot_id) {
    pthread_mutex_lock(&g_turn_mutex);
    g_slot_turns[slot_id - 1].current_turn++;
    pthread_cond_broadcast(&g_turn_cond);
    pthread_mutex_unlock(&g_turn_mutex);
}

eventWork *wait_for_work(unsigned long *turn) {
    eventWorkQue *que = &g_event_work_que;
    pthread_mutex_lock(&que->mutex);
    eventWork *work;
    /* Broadcast wakes every idle worker; the ones that find nothing wait again. */
    while (!(work = get_work_from_que())) pthread_cond_wait(&que->cond, &que->mutex);
    que->work_in_que--;
    work->next = nullptr;
    *turn = take_turn(work);
    pthread_mutex_unlock(&que->mutex);
    return work;
}

void run_work(const eventWork *work, unsigned long turn) {
    if (!work_is_valid(work)) {
        CM_LOG(LOG_LEVEL_ERR, "Dropping work item for slot %d event %d\n", work->slot_id, (int)work->event);
        return;
    }
    wait_for_turn(work->slot_id, turn);
    pthread_mutex_t *slot_mutex = &g_slots_info[work->slot_id - 1].mutex;
    pthread_mutex_lock(slot_mutex);
    g_transition_table[work->event].fn_transition(work->slot_id);  // the result is not used
    pthread_mutex_unlock(slot_mutex);
    end_turn(work->slot_id);
}

}  // namespace

void work_queue_slot_turns(int slot_id, unsigned long *handed_out, unsigned long *ended) {
    CM_ASSERT(slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600);
    pthread_mutex_lock(&g_turn_mutex);
    *handed_out = g_slot_turns[slot_id - 1].next_turn;
    *ended = g_slot_turns[slot_id - 1].current_turn;
    pthread_mutex_unlock(&g_turn_mutex);
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
    for (;;) {
        unsigned long turn = 0;
        eventWork *work = wait_for_work(&turn);
        run_work(work, turn);
        free(work);
    }
    return nullptr;
}
