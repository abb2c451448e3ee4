/*
 * The debug trigger: a slot number written into the trigger file rewrites
 * the status document.  Most tests drive one wake-up at a time
 * (debug_trigger_init, then debug_trigger_serve_one with a bounded wait);
 * one runs the whole thread and ends it the way it ends, with a failing
 * poll (a signal interrupts it).
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "test_support.h"

using namespace chmgr_test;
using namespace std::string_literals;

namespace {

const char *const kTrigger = "/etc/tarnel/debug_slot";
const char *const kDocument = "/etc/tarnel/cm_status.json";
const int kWaitMs = (int)chmgr_test::wait_limit(std::chrono::milliseconds(5000)).count();

/* One open-write-close: the watch sees one IN_CLOSE_WRITE. */
void write_once(const std::string &path, const std::string &text) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, text.data(), text.size()), (ssize_t)text.size());
    close(fd);
}

std::string info(const std::string &message) { return "[INFO]<T> debug_trigger.cpp:<N> " + message; }

std::vector<std::string> slot_keys(const std::string &document) {
    std::vector<std::string> keys;
    for (int s = 1; s <= 8; ++s)
        if (document.find("\n\t\"slot" + std::to_string(s) + "\": {") != std::string::npos)
            keys.push_back("slot" + std::to_string(s));
    return keys;
}

class DebugTriggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        root.write(kTrigger, "");  // created empty, as the hardware emulator does
    }
    void TearDown() override {
        if (g_ifd_debugcli >= 0) close(g_ifd_debugcli);
        g_ifd_debugcli = -1;
        g_wd_debugcli = -1;
    }
    /* Writes `text` into the trigger file and handles the one wake-up. */
    void trigger(const std::string &text) {
        debug_trigger_init();
        clear_log_rings();
        write_once(root.at(kTrigger), text);
        ASSERT_TRUE(debug_trigger_serve_one(kWaitMs));
    }
    SandboxRoot root;
};

TEST_F(DebugTriggerTest, ThreeAndALineFeedRewritesTheDocumentForSlotThree) {
    trigger("3\n");
    std::string document = root.read(kDocument);
    EXPECT_EQ(slot_keys(document), (std::vector<std::string>{"slot3"}));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      info("Received debug command\n"),
                                      info("About to read " + root.at(kTrigger) + "\n"),
                                      info("SLOT ID read = 3\n"),
                                  }));
}

TEST_F(DebugTriggerTest, TwoHundredFiftyFiveRewritesItWithAllEightSlots) {
    trigger("255");
    EXPECT_EQ(slot_keys(root.read(kDocument)),
              (std::vector<std::string>{"slot1", "slot2", "slot3", "slot4", "slot5", "slot6", "slot7", "slot8"}));
}

TEST_F(DebugTriggerTest, TextThatIsNotANumberGivesSlotZeroAndOnlyTheChassisPart) {
    trigger("hello\n");
    std::string document = root.read(kDocument);
    EXPECT_TRUE(slot_keys(document).empty());
    EXPECT_EQ(document.rfind("{\n\t\"chassis\": \"KTR9600\",\n\t\"Log\": [", 0), 0u);
    EXPECT_EQ(normalized_ring(0).back(), info("SLOT ID read = 0\n"));
}

TEST_F(DebugTriggerTest, NumberEndsAtTheFirstNonDigit) {
    trigger("7abc255");
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot7"}));
}

TEST_F(DebugTriggerTest, EmptyTriggerFileGivesSlotZero) {
    trigger("");
    EXPECT_EQ(normalized_ring(0).back(), info("SLOT ID read = 0\n"));
    EXPECT_TRUE(slot_keys(root.read(kDocument)).empty());
}

TEST_F(DebugTriggerTest, OnlyTheFirstSeventeenBytesAreRead) {
    trigger("000000000000000031234");  // the 17 bytes read end in "3"
    EXPECT_EQ(normalized_ring(0).back(), info("SLOT ID read = 3\n"));
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot3"}));
}

TEST_F(DebugTriggerTest, HugeNumberIsReadWithoutHarm) {
    trigger("99999999999999999999999");
    long value = strtol("99999999999999999", nullptr, 10);
    EXPECT_EQ(normalized_ring(0).back(), info("SLOT ID read = " + std::to_string((int)value) + "\n"));
    EXPECT_TRUE(slot_keys(root.read(kDocument)).empty());
}

TEST_F(DebugTriggerTest, NumberBeyondAnIntIsReadAsStrtolsResultUsedAsAnInt) {
    trigger("4294967299\n");
    EXPECT_EQ(normalized_ring(0).back(), info("SLOT ID read = 3\n"));
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot3"}));
}

TEST_F(DebugTriggerTest, NegativeNumberGivesOnlyTheChassisPart) {
    trigger("-1\n");
    EXPECT_EQ(normalized_ring(0).back(), info("SLOT ID read = -1\n"));
    EXPECT_TRUE(slot_keys(root.read(kDocument)).empty());
}

TEST_F(DebugTriggerTest, EachWriteIsOneTrigger) {
    debug_trigger_init();
    write_once(root.at(kTrigger), "1");
    ASSERT_TRUE(debug_trigger_serve_one(kWaitMs));
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot1"}));
    write_once(root.at(kTrigger), "2");
    ASSERT_TRUE(debug_trigger_serve_one(kWaitMs));
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot2"}));
}

TEST_F(DebugTriggerTest, InitLogsAndWatchesTheTriggerFile) {
    debug_trigger_init();
    EXPECT_GE(g_ifd_debugcli, 0);
    EXPECT_GE(g_wd_debugcli, 0);
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{info("Initializing debug_thread\n")}));
}

/* Serves every wake-up that comes within a short wait. */
void serve_pending() {
    while (true) {
        int before = (int)normalized_ring(0).size();
        ASSERT_TRUE(debug_trigger_serve_one(50));
        if ((int)normalized_ring(0).size() == before) return;
    }
}

TEST_F(DebugTriggerTest, TriggerFileCreatedAfterStartIsWatchedAndRead) {
    root.remove(kTrigger);
    debug_trigger_init();
    EXPECT_EQ(g_wd_debugcli, -1);
    clear_log_rings();
    std::string temporary = root.at(kTrigger) + ".new";
    write_once(temporary, "3");
    ASSERT_EQ(rename(temporary.c_str(), root.at(kTrigger).c_str()), 0);
    serve_pending();
    EXPECT_NE(g_wd_debugcli, -1);
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot3"}));  // read once watched
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      info("Watching " + root.at(kTrigger) + "\n"),
                                      info("About to read " + root.at(kTrigger) + "\n"),
                                      info("SLOT ID read = 3\n"),
                                  }));
    write_once(root.at(kTrigger), "2");
    serve_pending();
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot2"}));
}

TEST_F(DebugTriggerTest, TriggerFileReplacedByARenameIsWatchedAgain) {
    debug_trigger_init();
    int old_watch = g_wd_debugcli;
    std::string temporary = root.at(kTrigger) + ".new";
    write_once(temporary, "4");
    ASSERT_EQ(rename(temporary.c_str(), root.at(kTrigger).c_str()), 0);
    serve_pending();
    EXPECT_NE(g_wd_debugcli, -1);
    EXPECT_NE(g_wd_debugcli, old_watch);
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot4"}));
    write_once(root.at(kTrigger), "5");
    serve_pending();
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot5"}));
}

TEST_F(DebugTriggerTest, TriggerFileCreatedEmptyIsWatchedWithoutAReport) {
    root.remove(kTrigger);
    debug_trigger_init();
    clear_log_rings();
    root.write(kTrigger, "");
    serve_pending();
    EXPECT_NE(g_wd_debugcli, -1);
    EXPECT_FALSE(root.exists(kDocument));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{info("Watching " + root.at(kTrigger) + "\n")}));
}

TEST_F(DebugTriggerTest, RemovedTriggerFileIsReportedAsUnreadable) {
    debug_trigger_init();
    clear_log_rings();
    root.remove(kTrigger);  // the watch goes away with an event of its own
    ASSERT_TRUE(debug_trigger_serve_one(kWaitMs));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      info("Received debug command\n"),
                                      info("About to read " + root.at(kTrigger) + "\n"),
                                      "[ERR]<T> debug_trigger.cpp:<N> Unable to open file " + root.at(kTrigger) + "\n",
                                  }));
    EXPECT_FALSE(root.exists(kDocument));
}

void on_signal(int) {}

bool ring_has(const std::string &line) {
    for (const auto &l : normalized_ring(0))
        if (l == line) return true;
    return false;
}

TEST_F(DebugTriggerTest, ThreadServesTriggersUntilPollFails) {
    struct sigaction action = {};
    action.sa_handler = on_signal;  // no SA_RESTART: poll() fails with EINTR
    struct sigaction saved;
    sigaction(SIGUSR1, &action, &saved);

    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, debug_thread, nullptr), 0);
    struct timespec ms = {0, 1000000};
    for (int i = 0; i < kWaitMs && !ring_has(info("Initializing debug_thread\n")); ++i) nanosleep(&ms, nullptr);
    /* The watch is placed right after that line; triggers repeat until seen. */
    for (int i = 0; i < kWaitMs && !root.exists(kDocument); ++i) {
        if (i % 100 == 0) write_once(root.at(kTrigger), "5\n");
        nanosleep(&ms, nullptr);
    }
    ASSERT_TRUE(root.exists(kDocument));
    for (int i = 0; i < kWaitMs && slot_keys(root.read(kDocument)) != std::vector<std::string>{"slot5"}; ++i)
        nanosleep(&ms, nullptr);
    EXPECT_EQ(slot_keys(root.read(kDocument)), (std::vector<std::string>{"slot5"}));

    const std::string poll_error = "[ERR]<T> debug_trigger.cpp:<N> poll() error";
    for (int i = 0; i < kWaitMs && !ring_has(poll_error); ++i) {
        pthread_kill(thread, SIGUSR1);
        nanosleep(&ms, nullptr);
    }
    pthread_join(thread, nullptr);
    sigaction(SIGUSR1, &saved, nullptr);
    EXPECT_EQ(normalized_ring(0).back(), poll_error);
}

}  // namespace
