/*
 * Event sources and the main loop, on real descriptors: the six watches per
 * slot, the per-slot timers, and one wake-up of the loop driven through
 * build_poll_set / poll / handle_poll_results.  No worker runs in this test
 * program, so the items a wake-up queues stay in the queue for inspection.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "event_watches.h"
#include "test_support.h"

namespace {

using chmgr_test::normalized_ring;
using chmgr_test::SandboxRoot;
using Item = std::pair<int, int>;  // (slot, event)

constexpr int kPollStepMs = 100;
const auto kWaitLimit = chmgr_test::wait_limit(std::chrono::seconds(10));

std::vector<Item> take_queue() {
    std::vector<Item> items;
    pthread_mutex_lock(&g_event_work_que.mutex);
    while (eventWork *work = get_work_from_que()) {
        items.push_back({work->slot_id, (int)work->event});
        free(work);
        g_event_work_que.work_in_que--;
    }
    pthread_mutex_unlock(&g_event_work_que.mutex);
    return items;
}

void close_watches() {
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        if (g_ifd[i] > 2) close(g_ifd[i]);
        g_ifd[i] = -1;
    }
}

/* The slot timers as start-up makes them (non-blocking), disarmed. */
void reset_timers() {
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        int fd = g_slots_info[i].trans_timer.timer_fd;
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        struct itimerspec off = {};
        timerfd_settime(fd, 0, &off, nullptr);
        uint64_t drained;
        while (read(fd, &drained, sizeof drained) > 0) {
        }
    }
}

/* Polls the loop's descriptors until `ready` holds for the results (bounded). */
template <typename Ready>
bool wait_for_wakeup(struct pollfd *fds, Ready ready) {
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    build_poll_set(fds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (poll(fds, POLL_SET_SIZE, kPollStepMs) > 0 && ready(fds)) return true;
    }
    return false;
}

bool file_ready(const struct pollfd *fds, int slot) { return fds[2 * (slot - 1)].revents & POLLIN; }
bool timer_ready(const struct pollfd *fds, int slot) { return fds[2 * (slot - 1) + 1].revents & POLLIN; }

/* One immediate look at the descriptors, as poll with no wait. */
int ready_now(struct pollfd *fds) {
    build_poll_set(fds);
    return poll(fds, POLL_SET_SIZE, 0);
}

/* Handles every wake-up that is already pending, one poll at a time. */
void run_pending_wakeups() {
    struct pollfd fds[POLL_SET_SIZE];
    while (ready_now(fds) > 0) handle_poll_results(fds);
}

std::string slot_line(int slot, const char *level, const char *file, const std::string &msg) {
    return "[SLOT" + std::to_string(slot) + ":" + level + "]<T> " + file + ":<N> " + msg;
}

class EventLoopTest : public ::testing::Test {
  protected:
    void SetUp() override {
        close_watches();
        root_.all_events("0");
        chmgr_test::reset_slots();
        chmgr_test::clear_log_rings();
        reset_timers();
        take_queue();
    }
    void TearDown() override {
        close_watches();
        take_queue();
    }
    /* A slot with no card, polled for one, as start-up leaves it. */
    void await_card(int slot) { g_slots_info[slot - 1].trans_timer.state_monitored = slot_present_event; }

    SandboxRoot root_;
};

// ---------------------------------------------------------------- watches

/* The fdinfo of an inotify descriptor lists one "inotify wd:" line per watch. */
std::vector<std::string> watch_lines(int ifd) {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(ifd));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        if (line.rfind("inotify wd:", 0) == 0) lines.push_back(line);
    return lines;
}

TEST_F(EventLoopTest, EachSlotGetsItsOwnInotifyInstanceWithSixCloseWriteWatches) {
    ASSERT_TRUE(init_inotify_events());
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        ASSERT_GE(g_ifd[i], 0);
        for (int j = 0; j < i; ++j) EXPECT_NE(g_ifd[i], g_ifd[j]);
        for (int wd : {g_wd_present[i], g_wd_verified[i], g_wd_synced[i], g_wd_powered[i], g_wd_active[i],
                       g_wd_ready[i]})
            EXPECT_GE(wd, 1);
        std::vector<std::string> lines = watch_lines(g_ifd[i]);
        ASSERT_EQ(lines.size(), 6u);
        for (const auto &line : lines) EXPECT_NE(line.find(" mask:8 "), std::string::npos) << line;
    }
}

TEST_F(EventLoopTest, WatchesArePlacedInTheOrderPresentVerifiedSyncedPoweredActiveReady) {
    ASSERT_TRUE(init_inotify_events());
    /* Watch descriptors of one instance are numbered in the order they are added. */
    EXPECT_EQ(g_wd_present[4], 1);
    EXPECT_EQ(g_wd_verified[4], 2);
    EXPECT_EQ(g_wd_synced[4], 3);
    EXPECT_EQ(g_wd_powered[4], 4);
    EXPECT_EQ(g_wd_active[4], 5);
    EXPECT_EQ(g_wd_ready[4], 6);
}

TEST_F(EventLoopTest, MissingEventFileGetsNoWatchAndTheOthersStillWork) {
    root_.remove("/var/run/hw-management/events/lc3_ready");
    ASSERT_TRUE(init_inotify_events());
    EXPECT_EQ(g_wd_ready[2], -1);
    EXPECT_EQ(watch_lines(g_ifd[2]).size(), 5u);
    await_card(3);
    root_.event(3, "present", "1");
    run_pending_wakeups();
    EXPECT_EQ(take_queue(), (std::vector<Item>{{3, slot_present_event}}));
}

TEST_F(EventLoopTest, MissingEventFoldersGiveNoWatchesAndNoCrash) {
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot)
        for (const char *name : {"present", "verified", "synced", "powered", "active", "ready"})
            root_.remove("/var/run/hw-management/events/lc" + std::to_string(slot) + "_" + name);
    rmdir(root_.at("/var/run/hw-management/events").c_str());
    ASSERT_TRUE(init_inotify_events());
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        EXPECT_GE(g_ifd[i], 0);
        EXPECT_EQ(g_wd_present[i], -1);
        EXPECT_EQ(g_wd_ready[i], -1);
    }
    struct pollfd fds[POLL_SET_SIZE];
    EXPECT_EQ(ready_now(fds), 0);
}

bool events_dir_ready(const struct pollfd *fds) { return fds[POLL_EVENTS_DIR_ENTRY].revents & POLLIN; }

const std::string kEventDir = "/var/run/hw-management/events/";

TEST_F(EventLoopTest, EventFileCreatedAfterStartupIsWatchedAndReRead) {
    root_.remove(kEventDir + "lc2_active");
    ASSERT_TRUE(init_inotify_events());
    EXPECT_EQ(g_wd_active[1], -1);
    root_.event(2, "active", "1");
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_EQ(ready_now(fds), 1);
    EXPECT_TRUE(events_dir_ready(fds));
    handle_poll_results(fds);
    EXPECT_NE(g_wd_active[1], -1);
    EXPECT_EQ(normalized_ring(2), (std::vector<std::string>{
                                      slot_line(2, "INFO", "event_watches.cpp",
                                                "Watching " + root_.at(kEventDir + "lc2_active") + "\n"),
                                  }));
    EXPECT_EQ(take_queue().size(), 1u);  // the files re-read once the watch is back
    /* The new watch reports the next write. */
    root_.event(2, "active", "0");
    ASSERT_EQ(ready_now(fds), 1);
    EXPECT_TRUE(file_ready(fds, 2));
}

TEST_F(EventLoopTest, EventFileDeletedAndReCreatedIsWatchedAgain) {
    ASSERT_TRUE(init_inotify_events());
    int old_watch = g_wd_verified[2];
    root_.remove(kEventDir + "lc3_verified");
    run_pending_wakeups();  // the lost watch's record: read and forgotten
    EXPECT_EQ(g_wd_verified[2], -1);
    take_queue();
    chmgr_test::clear_log_rings();
    root_.event(3, "verified", "1");
    run_pending_wakeups();
    EXPECT_NE(g_wd_verified[2], -1);
    EXPECT_NE(g_wd_verified[2], old_watch);
    EXPECT_EQ(normalized_ring(3)[0],
              slot_line(3, "INFO", "event_watches.cpp", "Watching " + root_.at(kEventDir + "lc3_verified") + "\n"));
    EXPECT_EQ(take_queue().size(), 1u);
}

TEST_F(EventLoopTest, EventFileReplacedByARenameIsWatchedAgainOnce) {
    ASSERT_TRUE(init_inotify_events());
    int old_watch = g_wd_ready[4];
    root_.write(kEventDir + "lc5_ready.tmp", "1");
    ASSERT_EQ(rename(root_.at(kEventDir + "lc5_ready.tmp").c_str(), root_.at(kEventDir + "lc5_ready").c_str()), 0);
    run_pending_wakeups();
    EXPECT_NE(g_wd_ready[4], -1);
    EXPECT_NE(g_wd_ready[4], old_watch);
    int watching = 0;
    for (const auto &line : normalized_ring(5)) watching += line.find("Watching ") != std::string::npos;
    EXPECT_EQ(watching, 1);
    take_queue();
    root_.event(5, "ready", "0");  // written in place: the new file's watch reports it
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_EQ(ready_now(fds), 1);
    EXPECT_TRUE(file_ready(fds, 5));
}

TEST_F(EventLoopTest, DirectoryAtAnEventPathGivesOneErrLineAndNoSpin) {
    ASSERT_TRUE(init_inotify_events());
    root_.remove(kEventDir + "lc6_synced");
    run_pending_wakeups();
    ASSERT_EQ(mkdir(root_.at(kEventDir + "lc6_synced").c_str(), 0755), 0);
    run_pending_wakeups();
    EXPECT_EQ(g_wd_synced[5], -1);
    root_.write(kEventDir + "lc6_synced/inner", "1");  // would queue records with names
    struct pollfd fds[POLL_SET_SIZE];
    EXPECT_EQ(ready_now(fds), 0);
    std::string err = slot_line(6, "ERR", "event_watches.cpp",
                                root_.at(kEventDir + "lc6_synced") + " is a directory, not an event file\n");
    int errs = 0;
    for (const auto &line : normalized_ring(6)) errs += line == err;
    EXPECT_EQ(errs, 1);

    /* Replaced by a file, the path is watched again. */
    root_.remove(kEventDir + "lc6_synced/inner");
    ASSERT_EQ(rmdir(root_.at(kEventDir + "lc6_synced").c_str()), 0);
    root_.event(6, "synced", "1");
    run_pending_wakeups();
    EXPECT_NE(g_wd_synced[5], -1);
}

TEST_F(EventLoopTest, DirectoryWatchedBeforeItsRecordsArriveIsDrainedWithOneErrLine) {
    ASSERT_TRUE(init_inotify_events());
    /* A watch placed on a directory (as on a path that became one between
     * the check and the watch) queues records with names. */
    ASSERT_EQ(mkdir(root_.at(kEventDir + "lc7_dir").c_str(), 0755), 0);
    inotify_rm_watch(g_ifd[6], g_wd_powered[6]);
    g_wd_powered[6] = inotify_add_watch(g_ifd[6], root_.at(kEventDir + "lc7_dir").c_str(), IN_CLOSE_WRITE);
    run_pending_wakeups();
    take_queue();
    chmgr_test::clear_log_rings();
    for (int i = 0; i < 3; ++i) root_.write(kEventDir + "lc7_dir/f" + std::to_string(i), "1");
    for (int round = 0; round < 5; ++round) run_pending_wakeups();
    EXPECT_EQ(g_wd_powered[6], -1);
    std::vector<std::string> ring = normalized_ring(7);
    ASSERT_GE(ring.size(), 2u);
    EXPECT_EQ(ring[0], slot_line(7, "INFO", "event_loop.cpp", "Received event\n"));
    EXPECT_EQ(ring[1], slot_line(7, "ERR", "event_watches.cpp",
                                 root_.at(kEventDir + "lc7_powered") + " is a directory, not an event file\n"));
    EXPECT_LE(ring.size(), 4u);
    struct pollfd fds[POLL_SET_SIZE];
    EXPECT_EQ(ready_now(fds), 0);
}

TEST_F(EventLoopTest, MissingEventsDirectoryIsLookedForEachSupervisionPeriod) {
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot)
        for (const char *name : {"present", "verified", "synced", "powered", "active", "ready"})
            root_.remove(kEventDir + "lc" + std::to_string(slot) + "_" + name);
    rmdir(root_.at(kEventDir).c_str());
    chmgr_test::clear_log_rings();
    ASSERT_TRUE(init_inotify_events());
    EXPECT_GE(events_dir_retry_timeout_ms(), 0);
    retry_events_dir();
    const std::string dir = root_.at(kEventDir);
    const std::string warn = "[WARN]<T> event_watches.cpp:<N> Directory " + dir +
                             " is missing, looking for it every supervision period\n";
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{warn}));  // once, not per retry

    root_.all_events("0");
    root_.event(1, "present", "1");
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (g_wd_present[0] == -1 && std::chrono::steady_clock::now() < deadline) {
        struct pollfd none[1] = {{-1, 0, 0}};
        poll(none, 1, events_dir_retry_timeout_ms());
        retry_events_dir();
    }
    EXPECT_NE(g_wd_present[0], -1);
    EXPECT_EQ(events_dir_retry_timeout_ms(), -1);
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{warn, "[INFO]<T> event_watches.cpp:<N> Directory " + dir +
                                                  " found, watching its event files\n"}));
    EXPECT_EQ(take_queue().size(), (size_t)MAX_SLOTS_FOR_9600);  // every slot re-reads its files
}

// ---------------------------------------------------------------- file wake-ups

TEST_F(EventLoopTest, FileWakeupQueuesTheEventDecidedFromTheFiles) {
    ASSERT_TRUE(init_inotify_events());
    await_card(4);
    root_.event(4, "present", "1");
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_TRUE(wait_for_wakeup(fds, [](const pollfd *f) { return file_ready(f, 4); }));
    handle_poll_results(fds);
    EXPECT_EQ(take_queue(), (std::vector<Item>{{4, slot_present_event}}));
    EXPECT_EQ(normalized_ring(4), (std::vector<std::string>{
                                      slot_line(4, "INFO", "event_loop.cpp", "Received event\n"),
                                      slot_line(4, "INFO", "slot_model.cpp", "Event received\n"),
                                  }));
    EXPECT_EQ(g_event_work_que.work_in_que, 0);  // take_queue counted it down again
}

TEST_F(EventLoopTest, FileWakeupLogsReceivedEventOnTheConsoleAsASlotLine) {
    chmgr_test::ConsoleCapture console;
    ASSERT_TRUE(init_inotify_events());
    await_card(1);
    root_.event(1, "synced", "1");  // not the awaited file: decided as no event
    run_pending_wakeups();
    EXPECT_EQ(chmgr_test::normalize(console.text()), "[SLOT1] event_loop.cpp:<N> Received event\n");
    EXPECT_EQ(take_queue(), (std::vector<Item>{{1, slot_no_event}}));
}

TEST_F(EventLoopTest, FileWakeupResetsTheSlotsCountOfFruitlessExpiries) {
    ASSERT_TRUE(init_inotify_events());
    g_slots_info[5].trans_timer.transition_timer_hits = 239;
    g_slots_info[6].trans_timer.transition_timer_hits = 17;
    root_.event(6, "powered", "1");
    run_pending_wakeups();
    EXPECT_EQ(g_slots_info[5].trans_timer.transition_timer_hits, 0);
    EXPECT_EQ(g_slots_info[6].trans_timer.transition_timer_hits, 17);  // other slots keep theirs
}

TEST_F(EventLoopTest, TwoWritesReadOneByOneGiveTwoWorkItems) {
    ASSERT_TRUE(init_inotify_events());
    await_card(2);
    struct pollfd fds[POLL_SET_SIZE];
    root_.event(2, "present", "1");
    ASSERT_TRUE(wait_for_wakeup(fds, [](const pollfd *f) { return file_ready(f, 2); }));
    handle_poll_results(fds);
    root_.event(2, "present", "1");
    ASSERT_TRUE(wait_for_wakeup(fds, [](const pollfd *f) { return file_ready(f, 2); }));
    handle_poll_results(fds);
    EXPECT_EQ(take_queue(), (std::vector<Item>{{2, slot_present_event}, {2, slot_present_event}}));
}

TEST_F(EventLoopTest, TwoPendingRecordsGiveTwoWakeupsEachDecidedFromTheFilesAtItsRead) {
    ASSERT_TRUE(init_inotify_events());
    await_card(2);
    root_.event(2, "present", "1");
    root_.event(2, "verified", "1");  // a second record, pending behind the first
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_EQ(ready_now(fds), 1);
    handle_poll_results(fds);  // the 17-byte read takes one record
    /* Emptied without a close-after-write, so no third record is made. */
    ASSERT_EQ(truncate(root_.at("/var/run/hw-management/events/lc2_present").c_str(), 0), 0);
    ASSERT_EQ(ready_now(fds), 1);  // the second record wakes the loop at once
    handle_poll_results(fds);
    EXPECT_EQ(ready_now(fds), 0);
    /* The second item is decided from the files as they read at its wake-up. */
    EXPECT_EQ(take_queue(), (std::vector<Item>{{2, slot_present_event}, {2, slot_no_event}}));
}

TEST_F(EventLoopTest, RepeatedWriteOfOneFileBeforeTheReadIsOneRecord) {
    /* The kernel merges identical unread records of one watch: the loop then
     * sees one wake-up, decided from the file as it reads at that moment. */
    ASSERT_TRUE(init_inotify_events());
    await_card(2);
    root_.event(2, "present", "1");
    root_.event(2, "present", "1");
    run_pending_wakeups();
    EXPECT_EQ(take_queue(), (std::vector<Item>{{2, slot_present_event}}));
}

TEST_F(EventLoopTest, OnlyTheSlotWhoseFileChangedIsWoken) {
    ASSERT_TRUE(init_inotify_events());
    root_.event(8, "ready", "1");
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_EQ(ready_now(fds), 1);
    for (int slot = 1; slot < 8; ++slot) EXPECT_FALSE(file_ready(fds, slot));
    EXPECT_TRUE(file_ready(fds, 8));
}

TEST_F(EventLoopTest, WakeupsOfSeveralSlotsAreQueuedInAscendingSlotOrder) {
    ASSERT_TRUE(init_inotify_events());
    for (int slot : {7, 3, 5}) await_card(slot);
    root_.event(7, "present", "1");
    root_.event(3, "present", "1");
    root_.event(5, "present", "1");
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_EQ(ready_now(fds), 3);
    handle_poll_results(fds);
    EXPECT_EQ(take_queue(),
              (std::vector<Item>{{3, slot_present_event}, {5, slot_present_event}, {7, slot_present_event}}));
}

// ---------------------------------------------------------------- timer wake-ups

TEST_F(EventLoopTest, TimerExpiryQueuesATimeoutWithoutTouchingTheCount) {
    ASSERT_TRUE(init_inotify_events());
    g_slots_info[0].trans_timer.transition_timer_hits = 12;
    ASSERT_TRUE(set_slot_timer(1, 0, 1));
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_TRUE(wait_for_wakeup(fds, [](const pollfd *f) { return timer_ready(f, 1); }));
    handle_poll_results(fds);
    EXPECT_EQ(take_queue(), (std::vector<Item>{{1, slot_timeout_event}}));
    EXPECT_EQ(g_slots_info[0].trans_timer.transition_timer_hits, 12);
    EXPECT_TRUE(normalized_ring(1).empty());  // "Received timer event" only at count 240
    EXPECT_EQ(ready_now(fds), 0);             // the expiry was acknowledged
}

TEST_F(EventLoopTest, ReceivedTimerEventIsLoggedOnlyAtCount240) {
    ASSERT_TRUE(init_inotify_events());
    struct pollfd fds[POLL_SET_SIZE];
    for (int hits : {0, 239, 240, 241}) {
        g_slots_info[2].trans_timer.transition_timer_hits = hits;
        ASSERT_TRUE(set_slot_timer(3, 0, 1));
        ASSERT_TRUE(wait_for_wakeup(fds, [](const pollfd *f) { return timer_ready(f, 3); }));
        handle_poll_results(fds);
    }
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{slot_line(3, "INFO", "event_loop.cpp", "Received timer event\n")}));
    EXPECT_EQ(take_queue().size(), 4u);
}

TEST_F(EventLoopTest, TimerAndFileEventInOneWakeupQueueTheFileEventFirst) {
    ASSERT_TRUE(init_inotify_events());
    await_card(6);
    ASSERT_TRUE(set_slot_timer(6, 0, 1));
    root_.event(6, "present", "1");
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_TRUE(wait_for_wakeup(fds, [](const pollfd *f) { return file_ready(f, 6) && timer_ready(f, 6); }));
    handle_poll_results(fds);
    EXPECT_EQ(take_queue(), (std::vector<Item>{{6, slot_present_event}, {6, slot_timeout_event}}));
}

TEST_F(EventLoopTest, ExpiryCancelledByAReArmBeforeTheReadIsDropped) {
    ASSERT_TRUE(init_inotify_events());
    ASSERT_TRUE(set_slot_timer(2, 0, 1));
    struct pollfd fds[POLL_SET_SIZE];
    ASSERT_TRUE(wait_for_wakeup(fds, [](const pollfd *f) { return timer_ready(f, 2); }));
    /* A worker re-arms the slot between the poll and the read. */
    struct itimerspec later = {};
    later.it_value.tv_sec = 3600;
    timerfd_settime(g_slots_info[1].trans_timer.timer_fd, 0, &later, nullptr);
    handle_poll_results(fds);  // returns at once instead of blocking for the new period
    EXPECT_TRUE(take_queue().empty());
}

TEST(SetSlotTimer, ArmsAOneShotForThePeriodTimesTheClockFactor) {
    SandboxRoot root("0.5");
    chmgr_test::reset_slots();
    ASSERT_TRUE(set_slot_timer(1, 10, 0));
    struct itimerspec current;
    ASSERT_EQ(timerfd_gettime(g_slots_info[0].trans_timer.timer_fd, &current), 0);
    EXPECT_EQ(current.it_interval.tv_sec, 0);
    EXPECT_EQ(current.it_interval.tv_nsec, 0);
    EXPECT_EQ(current.it_value.tv_sec, 4);  // 5 s, already running down
    EXPECT_GT(current.it_value.tv_nsec, 0);
}

TEST(SetSlotTimer, ArmingReplacesThePendingExpiry) {
    SandboxRoot root("1");
    chmgr_test::reset_slots();
    ASSERT_TRUE(set_slot_timer(2, 10, 0));
    ASSERT_TRUE(set_slot_timer(2, 1, 0));
    struct itimerspec current;
    ASSERT_EQ(timerfd_gettime(g_slots_info[1].trans_timer.timer_fd, &current), 0);
    EXPECT_EQ(current.it_value.tv_sec, 0);
    EXPECT_GT(current.it_value.tv_nsec, 0);
}

TEST(SetSlotTimer, SlotOutsideOneToEightIsRefusedWithoutTouchingAnyTimer) {
    SandboxRoot root("1");
    chmgr_test::reset_slots();
    EXPECT_FALSE(set_slot_timer(0, 1, 0));
    EXPECT_FALSE(set_slot_timer(9, 1, 0));
    EXPECT_FALSE(set_slot_timer(-5, 1, 0));
}

TEST(SetSlotTimer, FailsWhenTheTimerCannotBeArmed) {
    SandboxRoot root("1");
    chmgr_test::reset_slots();
    int saved = g_slots_info[7].trans_timer.timer_fd;
    g_slots_info[7].trans_timer.timer_fd = -1;
    EXPECT_FALSE(set_slot_timer(8, 1, 0));
    g_slots_info[7].trans_timer.timer_fd = saved;
}

// ---------------------------------------------------------------- bad event files

TEST_F(EventLoopTest, EmptyEventFileCountsAsZero) {
    ASSERT_TRUE(init_inotify_events());
    await_card(1);
    root_.event(1, "present", "");
    run_pending_wakeups();
    EXPECT_EQ(take_queue(), (std::vector<Item>{{1, slot_no_event}}));
}

TEST_F(EventLoopTest, BinaryEventFileCountsAsZero) {
    ASSERT_TRUE(init_inotify_events());
    await_card(1);
    root_.event(1, "present", std::string("\xff\x00\x01", 3));
    run_pending_wakeups();
    EXPECT_EQ(take_queue(), (std::vector<Item>{{1, slot_no_event}}));
}

TEST_F(EventLoopTest, HugeEventFileIsJudgedByItsFirstCharacter) {
    ASSERT_TRUE(init_inotify_events());
    await_card(1);
    root_.event(1, "present", "1" + std::string(4 << 20, 'x'));
    run_pending_wakeups();
    EXPECT_EQ(take_queue(), (std::vector<Item>{{1, slot_present_event}}));
}

TEST_F(EventLoopTest, MissingFileOfTheAwaitedEventIsTakenAsRemoval) {
    root_.remove("/var/run/hw-management/events/lc5_verified");
    ASSERT_TRUE(init_inotify_events());
    g_slots_info[4].current_state = SLOT_PRESENT;
    g_slots_info[4].trans_timer.state_monitored = slot_verified_event;
    root_.event(5, "present", "1");
    run_pending_wakeups();
    EXPECT_EQ(take_queue(), (std::vector<Item>{{5, slot_empty_event}}));
    EXPECT_EQ(normalized_ring(5).back(),
              slot_line(5, "ERR", "slot_model.cpp",
                        "Unable to open file " + root_.at("/var/run/hw-management/events/lc5_verified") + "\n"));
}

// ---------------------------------------------------------------- poll failure

/* poll refuses more descriptors than the process may open. */
[[noreturn]] void run_loop_with_too_few_descriptors() {
    g_log_fd = nullptr;
    struct rlimit limit = {4, 4};
    setrlimit(RLIMIT_NOFILE, &limit);
    run_main_loop();
}

TEST(EventLoopDeathTest, PollFailureLogsAndExitsWithStatus1) {
    EXPECT_EXIT(run_loop_with_too_few_descriptors(), ::testing::ExitedWithCode(1),
                "event_loop\\.cpp:[0-9]+ ERR poll\\(\\) error exiting\n");
}

}  // namespace
