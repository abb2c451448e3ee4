/*
 * Transition timer supervision: what one expiry does for each awaited event,
 * the count of fruitless expiries and the stuck verdict at 240, and the whole
 * path through the main loop and the workers at a small clock factor.
 *
 * Transitions are dispatched through g_transition_table; these tests point
 * it at a table whose transitions only record the call, so the supervision
 * is seen on its own.  The timeout row keeps the real handler.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using chmgr_test::normalized_ring;
using chmgr_test::SandboxRoot;
using Call = std::pair<int, int>;  // (slot, event)

std::mutex g_calls_lock;
std::vector<Call> g_calls;
bool g_transition_result = true;
int g_err_at_entry = -1;   // in_err_state as the last transition found it
int g_hits_at_entry = -1;  // transition_timer_hits likewise

template <int Event>
bool recording_transition(int slot_id) {
    std::lock_guard<std::mutex> lock(g_calls_lock);
    g_calls.push_back({slot_id, Event});
    g_err_at_entry = g_slots_info[slot_id - 1].in_err_state;
    g_hits_at_entry = g_slots_info[slot_id - 1].trans_timer.transition_timer_hits;
    /* A transition may itself flag the slot; the supervision clears it after. */
    g_slots_info[slot_id - 1].in_err_state = 1;
    return g_transition_result;
}

#define EVENT_DIR "/var/run/hw-management/events/"
const eventMapFnTable kRecordingTable[SLOT_EVENT_COUNT] = {
    {slot_empty_event, recording_transition<0>, EVENT_DIR "lc%d_present"},
    {slot_present_event, recording_transition<1>, EVENT_DIR "lc%d_present"},
    {slot_verified_event, recording_transition<2>, EVENT_DIR "lc%d_verified"},
    {slot_synced_event, recording_transition<3>, EVENT_DIR "lc%d_synced"},
    {slot_wait_reload_portd, recording_transition<4>, EVENT_DIR "lc%d_powered"},
    {slot_powered_event, recording_transition<5>, EVENT_DIR "lc%d_powered"},
    {slot_ready_event, recording_transition<6>, EVENT_DIR "lc%d_ready"},
    {slot_active_event, recording_transition<7>, EVENT_DIR "lc%d_active"},
    {slot_timeout_event, handle_slot_timer_expired, nullptr},
    {slot_no_event, recording_transition<9>, EVENT_DIR "lc%d_present"},
};

std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(g_calls_lock);
    return g_calls;
}

std::string slot_line(int slot, const char *level, const std::string &msg) {
    return "[SLOT" + std::to_string(slot) + ":" + level + "]<T> supervision.cpp:<N> " + msg;
}

/* Seconds left before the slot's timer expires; 0 when it is not armed. */
double armed_seconds(int slot) {
    struct itimerspec current = {};
    timerfd_gettime(g_slots_info[slot - 1].trans_timer.timer_fd, &current);
    return (double)current.it_value.tv_sec + (double)current.it_value.tv_nsec / 1e9;
}

void disarm(int slot) {
    struct itimerspec off = {};
    timerfd_settime(g_slots_info[slot - 1].trans_timer.timer_fd, 0, &off, nullptr);
}

/* The clock factor is 1 here, so the armed period tells 10 s from 1 s. */
class SupervisionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root_.all_events("0");
        chmgr_test::reset_slots();
        chmgr_test::clear_log_rings();
        for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) disarm(slot);
        g_calls.clear();
        g_transition_result = true;
        g_transition_table = kRecordingTable;
    }
    void TearDown() override { g_transition_table = g_event_map_fn_table; }

    /* A card in the slot, past `state`, waiting for `awaited`. */
    void supervise(int slot, int state, slotEvent awaited, int hits = 0) {
        slotInfo *info = &g_slots_info[slot - 1];
        info->current_state = state;
        info->trans_timer.state_monitored = awaited;
        info->trans_timer.transition_timer_hits = hits;
        root_.event(slot, "present", "1");
    }

    SandboxRoot root_{"1"};
};

// ---------------------------------------------------------------- the awaited event arrives

TEST_F(SupervisionTest, AwaitedFileReadingOneRunsTheAwaitedTransitionAndClearsTheError) {
    supervise(2, SLOT_PRESENT | SLOT_VERIFIED, slot_powered_event, 57);
    g_slots_info[1].in_err_state = 1;
    root_.event(2, "powered", "1");
    g_transition_result = false;
    EXPECT_FALSE(handle_slot_timer_expired(2));  // the transition's result is passed on
    EXPECT_EQ(calls(), (std::vector<Call>{{2, slot_powered_event}}));
    EXPECT_EQ(g_err_at_entry, 0);  // cleared before the transition runs
    EXPECT_EQ(g_hits_at_entry, 0);
    EXPECT_EQ(g_slots_info[1].trans_timer.transition_timer_hits, 0);
    EXPECT_EQ(g_slots_info[1].in_err_state, 0);  // cleared again after the transition
    EXPECT_TRUE(normalized_ring(2).empty());
    EXPECT_EQ(armed_seconds(2), 0.0);  // the transition arms what it needs
}

TEST_F(SupervisionTest, EachAwaitedStageRunsItsOwnTransition) {
    const struct {
        slotEvent event;
        const char *file;
    } stages[] = {{slot_verified_event, "verified"}, {slot_synced_event, "synced"},
                  {slot_powered_event, "powered"},   {slot_ready_event, "ready"},
                  {slot_active_event, "active"}};
    for (const auto &stage : stages) {
        g_calls.clear();
        supervise(4, SLOT_PRESENT, stage.event, 3);
        root_.event(4, stage.file, "1");
        EXPECT_TRUE(handle_slot_timer_expired(4));
        EXPECT_EQ(calls(), (std::vector<Call>{{4, stage.event}})) << stage.file;
        root_.event(4, stage.file, "0");
    }
}

TEST_F(SupervisionTest, EmptySlotWhosePresentFileReadsOneRunsThePresentTransition) {
    supervise(1, SLOT_EMPTY, slot_present_event);
    EXPECT_TRUE(handle_slot_timer_expired(1));
    EXPECT_EQ(calls(), (std::vector<Call>{{1, slot_present_event}}));
}

// ---------------------------------------------------------------- nothing changes

TEST_F(SupervisionTest, ExpiriesOneTo240ReArmForOneSecondAndThe241stDeclaresTheSlotStuck) {
    supervise(3, SLOT_PRESENT, slot_verified_event);
    for (int expiry = 1; expiry <= TRANSITION_MAX_TRIES; ++expiry) {
        disarm(3);
        ASSERT_TRUE(handle_slot_timer_expired(3)) << expiry;
        double left = armed_seconds(3);
        ASSERT_GT(left, 0.0) << expiry;
        ASSERT_LE(left, 1.0) << expiry;
        ASSERT_EQ(g_slots_info[2].trans_timer.transition_timer_hits, expiry);
        ASSERT_EQ(g_slots_info[2].in_err_state, 0);
    }
    EXPECT_TRUE(normalized_ring(3).empty());

    disarm(3);
    EXPECT_TRUE(handle_slot_timer_expired(3));
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{
                  slot_line(3, "ERR", "slot state stuck and not changing state MAX tries = 240\n")}));
    EXPECT_EQ(g_slots_info[2].in_err_state, 1);
    EXPECT_EQ(g_slots_info[2].trans_timer.transition_timer_hits, 241);
    EXPECT_EQ(armed_seconds(3), 0.0);  // supervision ends
    EXPECT_TRUE(calls().empty());
}

TEST_F(SupervisionTest, StuckVerdictIsTheSameForVerifiedPoweredReadyAndActive) {
    for (slotEvent awaited : {slot_verified_event, slot_powered_event, slot_ready_event, slot_active_event}) {
        chmgr_test::clear_log_rings();
        supervise(5, SLOT_PRESENT, awaited, TRANSITION_MAX_TRIES - 1);
        g_slots_info[4].in_err_state = 0;
        EXPECT_TRUE(handle_slot_timer_expired(5));
        EXPECT_GT(armed_seconds(5), 0.0);
        disarm(5);
        EXPECT_TRUE(handle_slot_timer_expired(5));
        EXPECT_EQ(normalized_ring(5),
                  (std::vector<std::string>{
                      slot_line(5, "ERR", "slot state stuck and not changing state MAX tries = 240\n")}))
            << awaited;
        EXPECT_EQ(g_slots_info[4].in_err_state, 1);
        EXPECT_EQ(armed_seconds(5), 0.0);
    }
}

TEST_F(SupervisionTest, StuckStageWaitingForTheReloadLeavesItAfterAWarning) {
    supervise(6, SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED, slot_ready_event, TRANSITION_MAX_TRIES);
    g_slots_info[5].in_transition_reload_portd = 1;
    EXPECT_TRUE(handle_slot_timer_expired(6));
    EXPECT_EQ(normalized_ring(6),
              (std::vector<std::string>{
                  slot_line(6, "ERR", "slot state stuck and not changing state MAX tries = 240\n"),
                  slot_line(6, "WARN", "Removing slot from wait_reload_portd\n"),
              }));
    EXPECT_EQ(g_slots_info[5].in_transition_reload_portd, 0);
    EXPECT_EQ(g_slots_info[5].in_err_state, 1);
}

TEST_F(SupervisionTest, StuckSyncedStageLeavesTheReloadSilentlyBeforeItsErrorLine) {
    supervise(7, SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED, slot_synced_event, TRANSITION_MAX_TRIES);
    g_slots_info[6].in_transition_reload_portd = 1;
    EXPECT_TRUE(handle_slot_timer_expired(7));
    EXPECT_EQ(normalized_ring(7), (std::vector<std::string>{
                                      slot_line(7, "ERR", "State stuck and not changing state to synced\n")}));
    EXPECT_EQ(g_slots_info[6].in_transition_reload_portd, 0);
    EXPECT_EQ(g_slots_info[6].in_err_state, 1);
    EXPECT_EQ(g_slots_info[6].trans_timer.transition_timer_hits, 241);
    EXPECT_EQ(armed_seconds(7), 0.0);
}

TEST_F(SupervisionTest, SyncedStageBelowTheLimitReArmsForOneSecond) {
    supervise(7, SLOT_PRESENT, slot_synced_event, 100);
    g_slots_info[6].in_transition_reload_portd = 1;
    EXPECT_TRUE(handle_slot_timer_expired(7));
    EXPECT_GT(armed_seconds(7), 0.0);
    EXPECT_LE(armed_seconds(7), 1.0);
    EXPECT_EQ(g_slots_info[6].trans_timer.transition_timer_hits, 101);
    EXPECT_EQ(g_slots_info[6].in_transition_reload_portd, 1);
}

TEST_F(SupervisionTest, CountPastTheLimitKeepsReArmingWithoutASecondVerdict) {
    supervise(8, SLOT_PRESENT, slot_active_event, TRANSITION_MAX_TRIES + 1);
    EXPECT_TRUE(handle_slot_timer_expired(8));
    EXPECT_GT(armed_seconds(8), 0.0);
    EXPECT_TRUE(normalized_ring(8).empty());
}

// ---------------------------------------------------------------- a disabled slot

TEST_F(SupervisionTest, DisabledSlotStopsWithoutCountingOrVerdictAtEveryStage) {
    for (slotEvent stage : {slot_verified_event, slot_synced_event, slot_powered_event, slot_ready_event,
                            slot_active_event}) {
        supervise(4, SLOT_PRESENT | SLOT_SYNCED, stage, TRANSITION_MAX_TRIES);
        g_slots_info[3].disabled = 1;
        g_slots_info[3].in_transition_reload_portd = 1;
        disarm(4);
        EXPECT_TRUE(handle_slot_timer_expired(4)) << stage;
        EXPECT_EQ(g_slots_info[3].trans_timer.transition_timer_hits, TRANSITION_MAX_TRIES) << stage;
        EXPECT_EQ(g_slots_info[3].in_err_state, 0) << stage;
        EXPECT_EQ(g_slots_info[3].in_transition_reload_portd, 1) << stage;
        EXPECT_EQ(g_slots_info[3].trans_timer.state_monitored, stage);
        EXPECT_EQ(armed_seconds(4), 0.0) << stage;
    }
    EXPECT_TRUE(normalized_ring(4).empty());
    EXPECT_TRUE(calls().empty());
}

TEST_F(SupervisionTest, DisabledSlotWhoseAwaitedFileReadsOneStillRunsTheTransition) {
    supervise(3, SLOT_PRESENT | SLOT_SYNCED, slot_ready_event);
    g_slots_info[2].disabled = 1;
    root_.event(3, "ready", "1");
    EXPECT_TRUE(handle_slot_timer_expired(3));
    EXPECT_EQ(calls(), (std::vector<Call>{{3, slot_ready_event}}));
}

TEST_F(SupervisionTest, DisabledEmptySlotIsStillPolledForACard) {
    g_slots_info[1].trans_timer.state_monitored = slot_present_event;
    g_slots_info[1].disabled = 1;
    EXPECT_TRUE(handle_slot_timer_expired(2));
    EXPECT_GT(armed_seconds(2), 5.0);
}

// ---------------------------------------------------------------- waiting for a card

TEST_F(SupervisionTest, EmptySlotIsPolledEveryTenSecondsForEverAndNeverStuck) {
    g_slots_info[0].trans_timer.state_monitored = slot_present_event;
    for (int expiry = 1; expiry <= 3 * TRANSITION_MAX_TRIES; ++expiry) {
        disarm(1);
        ASSERT_TRUE(handle_slot_timer_expired(1));
        ASSERT_GT(armed_seconds(1), 5.0) << expiry;  // 10 s, not the 1 s of a stage
        ASSERT_EQ(g_slots_info[0].trans_timer.transition_timer_hits, 0);
    }
    EXPECT_EQ(g_slots_info[0].in_err_state, 0);
    EXPECT_TRUE(normalized_ring(1).empty());
    EXPECT_TRUE(calls().empty());
}

// ---------------------------------------------------------------- removal and idle states

TEST_F(SupervisionTest, CardPulledDuringAStageRunsTheEmptyTransitionAndClearsTheCount) {
    supervise(2, SLOT_PRESENT | SLOT_VERIFIED, slot_powered_event, 150);
    g_slots_info[1].in_err_state = 1;
    root_.event(2, "present", "0");
    g_transition_result = false;
    EXPECT_FALSE(handle_slot_timer_expired(2));
    EXPECT_EQ(calls(), (std::vector<Call>{{2, slot_empty_event}}));
    EXPECT_EQ(g_slots_info[1].trans_timer.transition_timer_hits, 0);
    EXPECT_EQ(g_slots_info[1].in_err_state, 1);  // set by the (recording) transition itself
    EXPECT_EQ(armed_seconds(2), 0.0);
}

TEST_F(SupervisionTest, CardPulledClearsTheErrorBeforeTheEmptyTransitionRuns) {
    supervise(2, SLOT_PRESENT, slot_verified_event, TRANSITION_MAX_TRIES + 1);
    g_slots_info[1].in_err_state = 1;
    root_.event(2, "present", "0");
    EXPECT_TRUE(handle_slot_timer_expired(2));
    EXPECT_EQ(calls(), (std::vector<Call>{{2, slot_empty_event}}));
    EXPECT_EQ(g_err_at_entry, 0);
    EXPECT_EQ(g_hits_at_entry, 0);
}

TEST_F(SupervisionTest, NothingAwaitedWithACardPresentDoesNothing) {
    supervise(3, SLOT_PRESENT | SLOT_ACTIVE, slot_empty_event, 9);
    EXPECT_TRUE(handle_slot_timer_expired(3));
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(armed_seconds(3), 0.0);
    EXPECT_EQ(g_slots_info[2].trans_timer.transition_timer_hits, 9);
    EXPECT_TRUE(normalized_ring(3).empty());
}

TEST_F(SupervisionTest, PresentFileReadingZeroWithoutACardKeepsPollingForOne) {
    g_slots_info[0].trans_timer.state_monitored = slot_present_event;
    EXPECT_TRUE(handle_slot_timer_expired(1));
    EXPECT_TRUE(calls().empty());
    EXPECT_GT(armed_seconds(1), 5.0);
}

TEST_F(SupervisionTest, WaitForReloadIsHandedToTheRendezvousWhichKeepsItsOwnTime) {
    supervise(4, SLOT_PRESENT | SLOT_POWERED, slot_wait_reload_portd, 30);
    EXPECT_TRUE(handle_slot_timer_expired(4));
    EXPECT_EQ(calls(), (std::vector<Call>{{4, slot_wait_reload_portd}}));
    EXPECT_EQ(g_slots_info[3].trans_timer.transition_timer_hits, 30);
    EXPECT_EQ(armed_seconds(4), 0.0);
}

TEST_F(SupervisionTest, WaitForReloadWithThePoweredFileAtOneAlsoResetsTheCount) {
    supervise(4, SLOT_PRESENT | SLOT_POWERED, slot_wait_reload_portd, 30);
    root_.event(4, "powered", "1");
    EXPECT_TRUE(handle_slot_timer_expired(4));
    EXPECT_EQ(calls(), (std::vector<Call>{{4, slot_wait_reload_portd}}));
    EXPECT_EQ(g_slots_info[3].trans_timer.transition_timer_hits, 0);
}

TEST_F(SupervisionTest, NoEventAwaitedRunsTheNoValidTransitionOnlyWhenThePresentFileReadsOne) {
    supervise(5, SLOT_PRESENT, slot_no_event);
    EXPECT_TRUE(handle_slot_timer_expired(5));
    EXPECT_EQ(calls(), (std::vector<Call>{{5, slot_no_event}}));

    g_calls.clear();
    supervise(6, SLOT_EMPTY, slot_no_event);
    root_.event(6, "present", "0");
    EXPECT_TRUE(handle_slot_timer_expired(6));
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(armed_seconds(6), 0.0);
}

TEST_F(SupervisionTest, AwaitedValueWithoutAnEventFileDoesNothing) {
    for (int awaited : {(int)slot_timeout_event, 10, 1000, -3}) {
        supervise(1, SLOT_PRESENT, slot_empty_event);
        g_slots_info[0].trans_timer.state_monitored = awaited;
        EXPECT_TRUE(handle_slot_timer_expired(1)) << awaited;
    }
    EXPECT_TRUE(calls().empty());
    EXPECT_TRUE(normalized_ring(1).empty());
    EXPECT_EQ(armed_seconds(1), 0.0);
}

TEST_F(SupervisionTest, FileHoldingTwoIsNotTheAwaitedEvent) {
    supervise(2, SLOT_PRESENT, slot_ready_event, 4);
    root_.event(2, "ready", "2");
    EXPECT_TRUE(handle_slot_timer_expired(2));
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ(g_slots_info[1].trans_timer.transition_timer_hits, 5);
}

// ---------------------------------------------------------------- failures

TEST_F(SupervisionTest, UnreadablePresentFileStopsTheSupervisionWithAnErrorLine) {
    supervise(3, SLOT_PRESENT, slot_verified_event, 8);
    root_.remove("/var/run/hw-management/events/lc3_present");
    EXPECT_FALSE(handle_slot_timer_expired(3));
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{slot_line(
                  3, "ERR", "Unable to open file " + root_.at(EVENT_DIR "lc3_present") + "\n")}));
    EXPECT_EQ(armed_seconds(3), 0.0);
    EXPECT_EQ(g_slots_info[2].trans_timer.transition_timer_hits, 8);
}

TEST_F(SupervisionTest, UnreadableAwaitedFileStopsTheSupervisionWithAnErrorLine) {
    supervise(3, SLOT_PRESENT, slot_ready_event, 8);
    root_.remove("/var/run/hw-management/events/lc3_ready");
    EXPECT_FALSE(handle_slot_timer_expired(3));
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{slot_line(
                  3, "ERR", "Unable to open file " + root_.at(EVENT_DIR "lc3_ready") + "\n")}));
    EXPECT_EQ(armed_seconds(3), 0.0);
}

TEST_F(SupervisionTest, ReArmFailureLogsAGlobalLineAndReturnsFalse) {
    supervise(8, SLOT_PRESENT, slot_active_event, 1);
    int saved = g_slots_info[7].trans_timer.timer_fd;
    g_slots_info[7].trans_timer.timer_fd = -1;
    EXPECT_FALSE(handle_slot_timer_expired(8));
    g_slots_info[7].trans_timer.timer_fd = saved;
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{"[ERR]<T> supervision.cpp:<N> Unable to start timer\n"}));
}

TEST(SupervisionDeathTest, SlotOutsideOneToEightStopsTheProcess) {
    EXPECT_DEATH(handle_slot_timer_expired(0), "slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600");
    EXPECT_DEATH(handle_slot_timer_expired(9), "slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600");
}

// ---------------------------------------------------------------- through the loop and the workers

/* Runs the main loop's wake-up handling on a thread until stopped. */
class LoopThread {
  public:
    LoopThread() : stop_fd_(eventfd(0, 0)), thread_([this] { run(); }) {}
    ~LoopThread() {
        uint64_t one = 1;
        if (write(stop_fd_, &one, sizeof one) != sizeof one) abort();
        thread_.join();
        close(stop_fd_);
    }

  private:
    void run() {
        struct pollfd fds[POLL_SET_SIZE + 1];
        build_poll_set(fds);
        fds[POLL_SET_SIZE] = {stop_fd_, POLLIN, 0};
        for (;;) {
            if (poll(fds, POLL_SET_SIZE + 1, -1) < 0) continue;
            if (fds[POLL_SET_SIZE].revents) return;
            handle_poll_results(fds);
        }
    }
    int stop_fd_;
    std::thread thread_;
};

void start_workers() {
    for (int i = 0; i < WORKER_THREAD_COUNT; ++i) {
        ASSERT_EQ(pthread_create(&g_event_work_que.thread_id[i], nullptr, work_handler, nullptr), 0);
        pthread_detach(g_event_work_que.thread_id[i]);
    }
}

TEST(SupervisionThroughTheLoop, StuckVerdictArrivesAfter241ExpiriesAtASmallClockFactor) {
    SandboxRoot root("0.001");
    root.all_events("0");
    chmgr_test::reset_slots();
    chmgr_test::clear_log_rings();
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        g_ifd[i] = -1;  // timers only
        int fd = g_slots_info[i].trans_timer.timer_fd;
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        disarm(i + 1);
    }
    g_transition_table = kRecordingTable;
    start_workers();
    root.event(3, "present", "1");
    g_slots_info[2].current_state = SLOT_PRESENT;
    g_slots_info[2].trans_timer.state_monitored = slot_verified_event;

    auto started = std::chrono::steady_clock::now();
    {
        LoopThread loop;
        ASSERT_TRUE(set_slot_timer(3, SUPERVISION_PERIOD_SEC, 0));
        auto deadline = started + chmgr_test::wait_limit(30s);
        while (g_slots_info[2].in_err_state == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        ASSERT_EQ(g_slots_info[2].in_err_state, 1);
    }
    auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    printf("stuck verdict after %.3f s at clock factor 0.001\n", elapsed);

    EXPECT_EQ(g_slots_info[2].trans_timer.transition_timer_hits, 241);
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{
                  "[SLOT3:INFO]<T> event_loop.cpp:<N> Received timer event\n",
                  slot_line(3, "ERR", "slot state stuck and not changing state MAX tries = 240\n"),
              }));
    EXPECT_EQ(armed_seconds(3), 0.0);
    EXPECT_TRUE(calls().empty());
    g_transition_table = g_event_map_fn_table;
}

}  // namespace
