/*
 * The work queue and the worker pool: FIFO order, the stale tail after the
 * queue empties, four workers running items of different slots in parallel,
 * items of one slot serialised by the slot mutex, and short items of idle
 * slots started before a queued ready step, within a bound.
 *
 * The workers dispatch through g_transition_table; these tests point it at a
 * table whose transitions record their calls and wait at a gate the test
 * opens, so the tests decide when a transition returns.
 */
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using chmgr_test::normalized_ring;

const auto kWaitLimit = chmgr_test::wait_limit(10s);

struct Call {
    int slot_id;
    int event;
    bool slot_mutex_held;
};

/* What the test transitions saw, and the gates they wait at (one per slot). */
struct Probe {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Call> started;
    std::vector<Call> finished;
    bool gate_open[MAX_SLOTS_FOR_9600 + 1] = {};
    int running = 0;
    int max_running = 0;
    int running_in_slot[MAX_SLOTS_FOR_9600 + 1] = {};
    int max_running_in_slot[MAX_SLOTS_FOR_9600 + 1] = {};

    void reset() {
        std::lock_guard<std::mutex> lock(m);
        started.clear();
        finished.clear();
        running = max_running = 0;
        for (int i = 0; i <= MAX_SLOTS_FOR_9600; ++i) {
            gate_open[i] = true;
            running_in_slot[i] = max_running_in_slot[i] = 0;
        }
    }
    template <typename Pred>
    bool wait_until(Pred pred) {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, kWaitLimit, pred);
    }
    void set_gate(int slot_id, bool open) {
        std::lock_guard<std::mutex> lock(m);
        gate_open[slot_id] = open;
        cv.notify_all();
    }
    size_t started_count() {
        std::lock_guard<std::mutex> lock(m);
        return started.size();
    }
};

Probe g_probe;

template <int Event>
bool probe_transition(int slot_id) {
    /* Trylock from the thread that holds a default mutex reports EBUSY. */
    bool held = pthread_mutex_trylock(&g_slots_info[slot_id - 1].mutex) == EBUSY;
    std::unique_lock<std::mutex> lock(g_probe.m);
    g_probe.started.push_back({slot_id, Event, held});
    g_probe.running++;
    g_probe.max_running = std::max(g_probe.max_running, g_probe.running);
    g_probe.running_in_slot[slot_id]++;
    g_probe.max_running_in_slot[slot_id] =
        std::max(g_probe.max_running_in_slot[slot_id], g_probe.running_in_slot[slot_id]);
    g_probe.cv.notify_all();
    g_probe.cv.wait(lock, [slot_id] { return g_probe.gate_open[slot_id]; });
    g_probe.running--;
    g_probe.running_in_slot[slot_id]--;
    g_probe.finished.push_back({slot_id, Event, held});
    g_probe.cv.notify_all();
    return true;
}

const eventMapFnTable kProbeTable[SLOT_EVENT_COUNT] = {
    {slot_empty_event, probe_transition<0>, nullptr},       {slot_present_event, probe_transition<1>, nullptr},
    {slot_verified_event, probe_transition<2>, nullptr},    {slot_synced_event, probe_transition<3>, nullptr},
    {slot_wait_reload_portd, probe_transition<4>, nullptr}, {slot_powered_event, probe_transition<5>, nullptr},
    {slot_ready_event, probe_transition<6>, nullptr},       {slot_active_event, probe_transition<7>, nullptr},
    {slot_timeout_event, probe_transition<8>, nullptr},     {slot_no_event, probe_transition<9>, nullptr},
};

eventWork *make_work(int slot_id, slotEvent event) {
    eventWork *work = static_cast<eventWork *>(calloc(1, sizeof(eventWork)));
    work->slot_id = slot_id;
    work->event = event;
    return work;
}

/* Queues items as the main loop does: under the mutex, then broadcast. */
void queue_items(const std::vector<std::pair<int, slotEvent>> &items) {
    pthread_mutex_lock(&g_event_work_que.mutex);
    for (const auto &item : items) {
        add_work_to_que(make_work(item.first, item.second));
        g_event_work_que.work_in_que++;
    }
    pthread_cond_broadcast(&g_event_work_que.cond);
    pthread_mutex_unlock(&g_event_work_que.mutex);
}

bool queue_is_empty() {
    pthread_mutex_lock(&g_event_work_que.mutex);
    bool empty = g_event_work_que.head == nullptr;
    pthread_mutex_unlock(&g_event_work_que.mutex);
    return empty;
}

int waiting_in_slot(int slot_id) {
    int waiting = 0;
    bool running = false;
    work_queue_slot_work(slot_id, &waiting, &running);
    return waiting;
}

bool slot_running(int slot_id) {
    int waiting = 0;
    bool running = false;
    work_queue_slot_work(slot_id, &waiting, &running);
    return running;
}

/* True once the queue is empty and no slot is busy: every worker is back
 * waiting for work, none about to look up a transition. */
bool wait_for_pool_idle() {
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        bool busy = !queue_is_empty();
        for (int slot = 1; slot <= MAX_SLOTS_FOR_9600 && !busy; ++slot) busy = slot_running(slot);
        if (!busy) return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

/* True once `count` items of the slot wait in its own list for its running
 * transition to return (a free worker has moved them there). */
bool wait_for_waiting_in_slot(int slot_id, int count) {
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (waiting_in_slot(slot_id) == count) return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

/* True once no worker is inside a transition of the slot. */
bool wait_for_slot_idle(int slot_id) {
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!slot_running(slot_id)) return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

bool wait_for_queue_empty() {
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (queue_is_empty()) return true;
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

void start_workers_once() {
    static std::once_flag once;
    std::call_once(once, [] {
        for (int i = 0; i < WORKER_THREAD_COUNT; ++i) {
            ASSERT_EQ(pthread_create(&g_event_work_que.thread_id[i], nullptr, work_handler, nullptr), 0);
            pthread_detach(g_event_work_que.thread_id[i]);
        }
    });
}

void drain_queue() {
    pthread_mutex_lock(&g_event_work_que.mutex);
    while (eventWork *work = get_work_from_que()) free(work);
    g_event_work_que.work_in_que = 0;
    pthread_mutex_unlock(&g_event_work_que.mutex);
}

/* Works on the queue directly, holding its mutex as the callers must (and
 * so keeping any idle worker of this program away from the items). */
class QueueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        drain_queue();
        pthread_mutex_lock(&g_event_work_que.mutex);
    }
    void TearDown() override {
        pthread_mutex_unlock(&g_event_work_que.mutex);
        drain_queue();
    }
};

class WorkerPoolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        chmgr_test::reset_slots();
        chmgr_test::clear_log_rings();
        g_probe.reset();
        g_transition_table = kProbeTable;
        start_workers_once();
    }
    void TearDown() override {
        for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) g_probe.set_gate(slot, true);
        /* Items still queued run on the probe table before it is put back. */
        EXPECT_TRUE(wait_for_pool_idle());
        g_transition_table = g_event_map_fn_table;
    }
};

// ---------------------------------------------------------------- the queue

TEST_F(QueueTest, AddToEmptyQueueMakesItemHeadAndTail) {
    eventWork *work = make_work(3, slot_present_event);
    work->next = work;  // a stale link is overwritten
    ASSERT_TRUE(add_work_to_que(work));
    EXPECT_EQ(g_event_work_que.head, work);
    EXPECT_EQ(g_event_work_que.tail, work);
    EXPECT_EQ(work->next, nullptr);
}

TEST_F(QueueTest, AddingNothingReturnsFalse) {
    EXPECT_FALSE(add_work_to_que(nullptr));
    EXPECT_EQ(g_event_work_que.head, nullptr);
}

TEST_F(QueueTest, EmptyQueueGivesNothing) { EXPECT_EQ(get_work_from_que(), nullptr); }

TEST_F(QueueTest, ItemsComeOutInQueueOrder) {
    eventWork *a = make_work(1, slot_present_event);
    eventWork *b = make_work(2, slot_timeout_event);
    eventWork *c = make_work(1, slot_timeout_event);
    add_work_to_que(a);
    add_work_to_que(b);
    add_work_to_que(c);
    EXPECT_EQ(g_event_work_que.tail, c);
    eventWork *first = get_work_from_que();
    eventWork *second = get_work_from_que();
    eventWork *third = get_work_from_que();
    EXPECT_EQ(first, a);
    EXPECT_EQ(second, b);
    EXPECT_EQ(third, c);
    EXPECT_EQ(first->next, nullptr);
    EXPECT_EQ(second->next, nullptr);
    EXPECT_EQ(get_work_from_que(), nullptr);
    free(a);
    free(b);
    free(c);
}

TEST_F(QueueTest, TakingTheLastItemLeavesTheTailAsItWas) {
    eventWork *a = make_work(1, slot_present_event);
    add_work_to_que(a);
    EXPECT_EQ(get_work_from_que(), a);
    EXPECT_EQ(g_event_work_que.head, nullptr);
    EXPECT_EQ(g_event_work_que.tail, a);
    free(a);
}

TEST_F(QueueTest, RefillAfterEmptyMakesNewItemHeadAndTailDespiteStaleTail) {
    eventWork *a = make_work(1, slot_present_event);
    add_work_to_que(a);
    get_work_from_que();
    free(a);  // the tail now points at freed memory; it must not be used
    eventWork *b = make_work(2, slot_verified_event);
    add_work_to_que(b);
    EXPECT_EQ(g_event_work_que.head, b);
    EXPECT_EQ(g_event_work_que.tail, b);
    EXPECT_EQ(get_work_from_que(), b);
    free(b);
}

// ---------------------------------------------------------------- the workers

TEST_F(WorkerPoolTest, WorkerRunsTheEventTransitionWithTheSlotMutexHeld) {
    queue_items({{6, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 1; }));
    EXPECT_EQ(g_probe.finished[0].slot_id, 6);
    EXPECT_EQ(g_probe.finished[0].event, slot_ready_event);
    EXPECT_TRUE(g_probe.finished[0].slot_mutex_held);
    /* The worker released the slot (it is marked idle after the unlock) and
     * took the item off the count. */
    ASSERT_TRUE(wait_for_queue_empty());
    ASSERT_TRUE(wait_for_slot_idle(6));
    EXPECT_EQ(pthread_mutex_trylock(&g_slots_info[5].mutex), 0);
    pthread_mutex_unlock(&g_slots_info[5].mutex);
}

TEST_F(WorkerPoolTest, EveryEventIndexSelectsItsOwnRow) {
    std::vector<std::pair<int, slotEvent>> items;
    for (int event = 0; event < SLOT_EVENT_COUNT; ++event) items.push_back({1, (slotEvent)event});
    queue_items(items);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == SLOT_EVENT_COUNT; }));
    std::vector<int> events;
    for (const auto &call : g_probe.finished) events.push_back(call.event);
    std::sort(events.begin(), events.end());
    EXPECT_EQ(events, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(g_probe.max_running_in_slot[1], 1);
}

TEST_F(WorkerPoolTest, FiveItemsForFiveSlotsRunFourInParallelAndTheFifthWaitsForAFreeWorker) {
    for (int slot = 1; slot <= 5; ++slot) g_probe.set_gate(slot, false);
    queue_items({{1, slot_present_event},
                 {2, slot_present_event},
                 {3, slot_present_event},
                 {4, slot_present_event},
                 {5, slot_present_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 4; }));
    /* All four workers are inside a transition: the fifth item is still queued. */
    EXPECT_EQ(g_probe.started_count(), 4u);
    EXPECT_FALSE(queue_is_empty());
    pthread_mutex_lock(&g_event_work_que.mutex);
    EXPECT_EQ(g_event_work_que.work_in_que, 1);
    EXPECT_EQ(g_event_work_que.head->slot_id, 5);
    pthread_mutex_unlock(&g_event_work_que.mutex);

    g_probe.set_gate(1, true);  // slot 1 returns, freeing one worker
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.started.size() == 5; }));
    EXPECT_EQ(g_probe.started[4].slot_id, 5);
    EXPECT_EQ(g_probe.finished[0].slot_id, 1);
    EXPECT_EQ(g_probe.max_running, 4);
}

TEST_F(WorkerPoolTest, SecondItemOfASlotStartsOnlyAfterTheFirstReturns) {
    g_probe.set_gate(2, false);
    queue_items({{2, slot_present_event}, {2, slot_timeout_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.started.size() == 1; }));
    /* A free worker has moved the second item to the slot's own list, where it
     * waits for the first transition to return. */
    ASSERT_TRUE(wait_for_queue_empty());
    ASSERT_TRUE(wait_for_waiting_in_slot(2, 1));
    EXPECT_EQ(g_probe.started_count(), 1u);

    g_probe.set_gate(2, true);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 2; }));
    EXPECT_EQ(g_probe.finished[0].event, slot_present_event);
    EXPECT_EQ(g_probe.started[1].event, slot_timeout_event);
    EXPECT_EQ(g_probe.max_running_in_slot[2], 1);
    EXPECT_TRUE(g_probe.started[1].slot_mutex_held);
}

TEST_F(WorkerPoolTest, ItemsOfOneSlotStartInQueueOrderWhileTheyWaitForTheSlot) {
    /* Three items wait behind a running one; they start in the order the main
     * loop queued them. */
    for (int round = 0; round < 20; ++round) {
        g_probe.reset();
        g_probe.set_gate(3, false);
        queue_items({{3, slot_present_event}, {3, slot_verified_event}, {3, slot_powered_event},
                     {3, slot_timeout_event}});
        ASSERT_TRUE(g_probe.wait_until([] { return g_probe.started.size() == 1; }));
        ASSERT_TRUE(wait_for_waiting_in_slot(3, 3));
        g_probe.set_gate(3, true);
        ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 4; }));
        std::vector<int> order;
        for (const Call &call : g_probe.started) order.push_back(call.event);
        EXPECT_EQ(order, (std::vector<int>{slot_present_event, slot_verified_event, slot_powered_event,
                                           slot_timeout_event}))
            << "round " << round;
    }
}

TEST_F(WorkerPoolTest, ItemsOfDifferentSlotsDoNotWaitForEachOther) {
    g_probe.set_gate(7, false);
    queue_items({{7, slot_ready_event}, {8, slot_ready_event}});
    /* Both have started and one has finished: slot 8 ran to its end while
     * slot 7 is still inside its transition. */
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.started.size() == 2 && g_probe.finished.size() == 1; }));
    EXPECT_EQ(g_probe.finished[0].slot_id, 8);
    EXPECT_EQ(g_probe.running, 1);
}

/* The events of each slot, in the order their transitions started. */
std::vector<std::vector<int>> started_events_per_slot() {
    std::lock_guard<std::mutex> lock(g_probe.m);
    std::vector<std::vector<int>> events(MAX_SLOTS_FOR_9600 + 1);
    for (const Call &call : g_probe.started) events[call.slot_id].push_back(call.event);
    return events;
}

TEST_F(WorkerPoolTest, AnIdleSlotsItemStartsAtOnceWhileItemsOfBusySlotsAreQueuedBeforeIt) {
    for (int slot = 1; slot <= 4; ++slot) g_probe.set_gate(slot, false);
    queue_items({{1, slot_ready_event}, {2, slot_ready_event}, {3, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 3; }));
    /* Supervision expiries and repeated events of the three busy slots come
     * first; no worker may sleep on them, so slot 4 starts on the free one. */
    queue_items({{1, slot_timeout_event},
                 {2, slot_timeout_event},
                 {3, slot_timeout_event},
                 {1, slot_no_event},
                 {2, slot_no_event},
                 {3, slot_no_event},
                 {4, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 4; }));
    EXPECT_EQ(g_probe.started_count(), 4u);
    ASSERT_TRUE(wait_for_queue_empty());
    for (int slot = 1; slot <= 3; ++slot) EXPECT_EQ(waiting_in_slot(slot), 2) << slot;
    EXPECT_EQ(waiting_in_slot(4), 0);

    for (int slot = 1; slot <= 4; ++slot) g_probe.set_gate(slot, true);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 10; }));
    std::vector<std::vector<int>> events = started_events_per_slot();
    for (int slot = 1; slot <= 3; ++slot) {
        EXPECT_EQ(events[slot], (std::vector<int>{slot_ready_event, slot_timeout_event, slot_no_event})) << slot;
        EXPECT_EQ(g_probe.max_running_in_slot[slot], 1) << slot;
    }
    EXPECT_EQ(events[4], (std::vector<int>{slot_ready_event}));
    EXPECT_EQ(g_probe.max_running, 4);
}

TEST_F(WorkerPoolTest, FourSlotsRunTheirTransitionsAtOnceWhateverIsQueuedBetweenThem) {
    for (int slot = 1; slot <= 4; ++slot) g_probe.set_gate(slot, false);
    queue_items({{1, slot_ready_event},
                 {1, slot_timeout_event},
                 {1, slot_ready_event},
                 {2, slot_ready_event},
                 {1, slot_no_event},
                 {2, slot_timeout_event},
                 {3, slot_ready_event},
                 {2, slot_no_event},
                 {3, slot_timeout_event},
                 {4, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 4; }));
    std::vector<std::vector<int>> events = started_events_per_slot();
    for (int slot = 1; slot <= 4; ++slot) EXPECT_EQ(events[slot], (std::vector<int>{slot_ready_event})) << slot;
    ASSERT_TRUE(wait_for_queue_empty());
    EXPECT_EQ(waiting_in_slot(1), 3);
    EXPECT_EQ(waiting_in_slot(2), 2);
    EXPECT_EQ(waiting_in_slot(3), 1);
    pthread_mutex_lock(&g_event_work_que.mutex);
    EXPECT_EQ(g_event_work_que.work_in_que, 6);  // waiting items still count as queued
    pthread_mutex_unlock(&g_event_work_que.mutex);

    for (int slot = 1; slot <= 4; ++slot) g_probe.set_gate(slot, true);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 10; }));
    events = started_events_per_slot();
    EXPECT_EQ(events[1], (std::vector<int>{slot_ready_event, slot_timeout_event, slot_ready_event, slot_no_event}));
    EXPECT_EQ(events[2], (std::vector<int>{slot_ready_event, slot_timeout_event, slot_no_event}));
    EXPECT_EQ(events[3], (std::vector<int>{slot_ready_event, slot_timeout_event}));
    pthread_mutex_lock(&g_event_work_que.mutex);
    EXPECT_EQ(g_event_work_que.work_in_que, 0);
    pthread_mutex_unlock(&g_event_work_que.mutex);
}

TEST_F(WorkerPoolTest, AFreedWorkerTakesTheOldestItemOfASlotThatIsNotBusy) {
    for (int slot = 1; slot <= 4; ++slot) g_probe.set_gate(slot, false);
    queue_items({{1, slot_ready_event}, {2, slot_ready_event}, {3, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 3; }));
    queue_items({{1, slot_timeout_event}, {1, slot_no_event}});
    ASSERT_TRUE(wait_for_waiting_in_slot(1, 2));
    queue_items({{4, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 4; }));
    /* Every worker is busy: these stay in the queue, newer than slot 1's two. */
    queue_items({{5, slot_present_event}, {2, slot_timeout_event}, {6, slot_present_event}});

    g_probe.set_gate(1, true);  // one worker comes free; slots 2 to 4 stay busy
    /* That worker runs slot 1's two waiting items (the oldest), then slot 5;
     * slot 2's expiry waits for slot 2, and slot 6, after it in the queue,
     * runs on the same worker. */
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 5; }));
    std::vector<std::pair<int, int>> order;
    {
        std::lock_guard<std::mutex> lock(g_probe.m);
        for (size_t i = 3; i < g_probe.started.size(); ++i)
            order.push_back({g_probe.started[i].slot_id, g_probe.started[i].event});
    }
    EXPECT_EQ(order, (std::vector<std::pair<int, int>>{{4, slot_ready_event},
                                                       {1, slot_timeout_event},
                                                       {1, slot_no_event},
                                                       {5, slot_present_event},
                                                       {6, slot_present_event}}));
    EXPECT_EQ(waiting_in_slot(2), 1);
    EXPECT_EQ(g_probe.running, 3);
}

/* (slot, event) of the transitions started from `first` on, in start order. */
std::vector<std::pair<int, int>> started_from(size_t first) {
    std::lock_guard<std::mutex> lock(g_probe.m);
    std::vector<std::pair<int, int>> order;
    for (size_t i = first; i < g_probe.started.size(); ++i)
        order.push_back({g_probe.started[i].slot_id, g_probe.started[i].event});
    return order;
}

/* Four cards inside their ready steps hold every worker. */
void four_ready_steps_running() {
    for (int slot = 1; slot <= 4; ++slot) g_probe.set_gate(slot, false);
    queue_items({{1, slot_ready_event}, {2, slot_ready_event}, {3, slot_ready_event}, {4, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 4; }));
}

TEST_F(WorkerPoolTest, ShortItemsOfIdleSlotsStartBeforeOlderReadySteps) {
    four_ready_steps_running();
    queue_items({{5, slot_ready_event}, {6, slot_ready_event}, {7, slot_active_event}, {8, slot_present_event}});

    g_probe.set_gate(1, true);  // one worker comes free
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 5; }));
    EXPECT_EQ(started_from(4), (std::vector<std::pair<int, int>>{{7, slot_active_event},
                                                                 {8, slot_present_event},
                                                                 {5, slot_ready_event},
                                                                 {6, slot_ready_event}}));
}

TEST_F(WorkerPoolTest, ACardWhoseReadyStepEndsGoesActiveBeforeTheNextCardsReadySteps) {
    /* Eight cards inserted together: the second four's ready items are queued
     * while the first four run theirs; then the first cards report active. */
    four_ready_steps_running();
    queue_items({{5, slot_ready_event}, {6, slot_ready_event}, {7, slot_ready_event}, {8, slot_ready_event}});
    queue_items({{1, slot_active_event}, {2, slot_active_event}, {3, slot_active_event}, {4, slot_active_event}});
    for (int slot = 5; slot <= 8; ++slot) g_probe.set_gate(slot, false);

    /* The second four's ready steps do not end while the test runs: every
     * active item must start beside them, not behind them. */
    for (int slot = 1; slot <= 4; ++slot) g_probe.set_gate(slot, true);
    ASSERT_TRUE(g_probe.wait_until([] {
        int actives = 0;
        for (const Call &call : g_probe.started) actives += call.event == slot_active_event;
        return actives == 4 && g_probe.running == 4;
    }));
    std::vector<std::pair<int, int>> after = started_from(4);
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, (std::vector<std::pair<int, int>>{{1, slot_active_event},
                                                       {2, slot_active_event},
                                                       {3, slot_active_event},
                                                       {4, slot_active_event},
                                                       {5, slot_ready_event},
                                                       {6, slot_ready_event},
                                                       {7, slot_ready_event},
                                                       {8, slot_ready_event}}));
    EXPECT_EQ(g_probe.max_running, 4);
}

TEST_F(WorkerPoolTest, ASupervisionExpiryOfASlotAwaitingReadyWaitsLikeTheReadyStep) {
    /* With its ready file written, such an expiry runs the ready step itself. */
    four_ready_steps_running();
    g_slots_info[4].trans_timer.state_monitored = slot_ready_event;  // slot 5
    g_slots_info[5].trans_timer.state_monitored = slot_active_event;  // slot 6
    queue_items({{5, slot_timeout_event}, {6, slot_timeout_event}});

    g_probe.set_gate(1, true);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 3; }));
    EXPECT_EQ(started_from(4),
              (std::vector<std::pair<int, int>>{{6, slot_timeout_event}, {5, slot_timeout_event}}));
}

TEST_F(WorkerPoolTest, PrecedenceNeverReordersTheItemsOfOneSlot) {
    four_ready_steps_running();
    /* Slot 7's active item is short but comes after its ready item. */
    queue_items({{7, slot_ready_event}, {7, slot_active_event}, {8, slot_timeout_event}, {7, slot_timeout_event}});

    g_probe.set_gate(1, true);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 5; }));
    EXPECT_EQ(started_from(4), (std::vector<std::pair<int, int>>{{8, slot_timeout_event},
                                                                 {7, slot_ready_event},
                                                                 {7, slot_active_event},
                                                                 {7, slot_timeout_event}}));
    EXPECT_EQ(g_probe.max_running_in_slot[7], 1);
}

TEST_F(WorkerPoolTest, AReadyItemStartsAfterABoundedNumberOfShortItemsPassIt) {
    /* Three workers stay busy; the fourth sees slot 5's ready item and a
     * stream of short items for idle slots queued after it. */
    for (int slot = 1; slot <= 3; ++slot) g_probe.set_gate(slot, false);
    queue_items({{1, slot_ready_event}, {2, slot_ready_event}, {3, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 3; }));
    g_probe.set_gate(5, false);
    std::vector<std::pair<int, slotEvent>> items = {{5, slot_ready_event}};
    constexpr int kShortItems = 3 * MAX_PASSES_OVER_READY;
    for (int i = 0; i < kShortItems; ++i) items.push_back({6 + i % 3, slot_timeout_event});
    queue_items(items);

    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 4; }));
    std::vector<std::pair<int, int>> after = started_from(3);
    ASSERT_EQ(after.size(), MAX_PASSES_OVER_READY + 1u);
    EXPECT_EQ(after.back(), (std::pair<int, int>{5, slot_ready_event}));
    g_probe.set_gate(5, true);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == kShortItems + 1u; }));
}

TEST_F(WorkerPoolTest, ReadyItemsOfSeveralSlotsPassedOverTogetherBecomeDueTogether) {
    /* Two workers stay busy; the other two see two ready items and a stream
     * of short items queued after them.  Every short start passes over both. */
    for (int slot = 1; slot <= 2; ++slot) g_probe.set_gate(slot, false);
    queue_items({{1, slot_ready_event}, {2, slot_ready_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 2; }));
    g_probe.set_gate(5, false);
    g_probe.set_gate(6, false);
    std::vector<std::pair<int, slotEvent>> items = {{5, slot_ready_event}, {6, slot_ready_event}};
    constexpr int kShortItems = 3 * MAX_PASSES_OVER_READY;
    for (int i = 0; i < kShortItems; ++i) items.push_back({7 + i % 2, slot_timeout_event});
    queue_items(items);

    /* Both ready steps run (their gates are closed): no worker is left.  The
     * two workers record their starts in either order, so count them. */
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.running == 4; }));
    std::vector<std::pair<int, int>> after = started_from(2);
    EXPECT_EQ(std::count(after.begin(), after.end(), std::pair<int, int>{5, slot_ready_event}), 1);
    EXPECT_EQ(std::count(after.begin(), after.end(), std::pair<int, int>{6, slot_ready_event}), 1);
    EXPECT_EQ(after.size(), MAX_PASSES_OVER_READY + 2u);
    g_probe.set_gate(5, true);
    g_probe.set_gate(6, true);
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == kShortItems + 2u; }));
}

TEST_F(WorkerPoolTest, EveryItemRunsOnceAndInItsSlotsOrderUnderABurstForAllSlots) {
    /* A burst from several producers at once, as the main loop and the
     * control thread would give; the transitions return at once. */
    constexpr int kProducers = 4;
    constexpr int kItemsPerProducer = 300;
    std::vector<std::vector<int>> queued(MAX_SLOTS_FOR_9600 + 1);
    std::mutex queued_mutex;
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([producer, &queued, &queued_mutex] {
            unsigned seed = 12345u + producer;
            for (int i = 0; i < kItemsPerProducer; ++i) {
                seed = seed * 1103515245u + 12345u;
                int slot = 1 + (int)((seed >> 16) % MAX_SLOTS_FOR_9600);
                slotEvent event = (slotEvent)((seed >> 8) % SLOT_EVENT_COUNT);
                /* Recording and queueing under one lock keeps the recorded
                 * order the queue's order. */
                std::lock_guard<std::mutex> lock(queued_mutex);
                queued[slot].push_back(event);
                queue_items({{slot, event}});
            }
        });
    }
    for (std::thread &producer : producers) producer.join();
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == kProducers * kItemsPerProducer; }));
    EXPECT_EQ(started_events_per_slot(), queued);
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) EXPECT_EQ(g_probe.max_running_in_slot[slot], 1) << slot;
    EXPECT_LE(g_probe.max_running, WORKER_THREAD_COUNT);
    ASSERT_TRUE(wait_for_queue_empty());
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) {
        ASSERT_TRUE(wait_for_slot_idle(slot)) << slot;
        EXPECT_EQ(waiting_in_slot(slot), 0) << slot;
    }
}

TEST_F(WorkerPoolTest, ItemForASlotOutOfRangeIsDroppedWithALine) {
    queue_items({{0, slot_present_event}, {9, slot_present_event}, {3, (slotEvent)10}, {4, slot_active_event}});
    ASSERT_TRUE(g_probe.wait_until([] { return g_probe.finished.size() == 1; }));
    EXPECT_EQ(g_probe.finished[0].slot_id, 4);
    ASSERT_TRUE(wait_for_queue_empty());
    /* The three bad items are logged by whichever workers took them. */
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (normalized_ring(0).size() < 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    std::vector<std::string> lines = normalized_ring(0);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "[ERR]<T> work_queue.cpp:<N> Dropping work item for slot 0 event 1\n",
                         "[ERR]<T> work_queue.cpp:<N> Dropping work item for slot 3 event 10\n",
                         "[ERR]<T> work_queue.cpp:<N> Dropping work item for slot 9 event 1\n",
                     }));
}

}  // namespace
