/*
 * Supervision: the chassis summary line, the time limits of outside
 * commands, the watchdog's limits and health verdicts, the reports to the
 * service manager and the environment they are configured from.
 */
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <string>

#include "notify.h"
#include "slot_summary.h"
#include "test_support.h"
#include "watchdog.h"

namespace {

constexpr int64_t kSecond = 1000000000LL;

/* Console lines with their line numbers made "<N>". */
std::vector<std::string> lines_of(const chmgr_test::ConsoleCapture &console) {
    std::vector<std::string> lines;
    std::stringstream text(console.text());
    std::string line;
    while (std::getline(text, line)) lines.push_back(chmgr_test::normalize(line + "\n"));
    return lines;
}

SlotSummaryInput empty_slot() { return {}; }
SlotSummaryInput card(int state, int type = CARD_TYPE_16X100G) { return {state, 0, 0, type, 0, 0}; }

std::string render(const SlotSummaryInput (&slots)[MAX_SLOTS_FOR_9600]) {
    char line[512];
    size_t length = slot_summary_render(slots, line, sizeof line);
    EXPECT_EQ(length, strlen(line));
    return line;
}

constexpr int kUpToSynced = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED | SLOT_SYNCED;
constexpr int kActive = kUpToSynced | SLOT_READY | SLOT_ACTIVE;

TEST(SlotSummary, EmptyChassis) {
    SlotSummaryInput slots[MAX_SLOTS_FOR_9600] = {};
    EXPECT_EQ(render(slots), "8 slots: 8 empty");
}

TEST(SlotSummary, EveryKindInItsOrder) {
    SlotSummaryInput slots[MAX_SLOTS_FOR_9600] = {
        card(kActive), card(kActive), card(kActive), card(kUpToSynced), empty_slot(), card(SLOT_PRESENT | SLOT_VERIFIED),
        empty_slot(), empty_slot()};
    slots[5].in_err_state = 1;
    EXPECT_EQ(render(slots), "8 slots: 3 operational, 1 bringing up (slot 4 at SYNCED), 1 stuck (slot 6), 3 empty");
}

TEST(SlotSummary, SeveralSlotsOfOneKind) {
    SlotSummaryInput slots[MAX_SLOTS_FOR_9600] = {card(SLOT_PRESENT), card(SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED),
                                                  card(kUpToSynced | SLOT_READY), empty_slot(), empty_slot(),
                                                  empty_slot(), empty_slot(), empty_slot()};
    slots[3].disabled = 1;
    slots[4].disabled = 1;
    slots[4].current_state = SLOT_PRESENT | SLOT_SYNCED;
    EXPECT_EQ(render(slots),
              "8 slots: 3 bringing up (slot 1 at PRESENT, slot 2 at POWERED, slot 3 at READY), 2 disabled (slots 4, 5), "
              "3 empty");
}

TEST(SlotSummary, SyncedCountsOnlyOncePowered) {
    EXPECT_STREQ(slot_summary_stage(SLOT_PRESENT | SLOT_SYNCED), "PRESENT");
    EXPECT_STREQ(slot_summary_stage(SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED), "VERIFIED");
    EXPECT_STREQ(slot_summary_stage(kUpToSynced), "SYNCED");
    EXPECT_STREQ(slot_summary_stage(SLOT_SYNCED), "PRESENT");  // no card: never shown as a stage
}

TEST(SlotSummary, UnsupportedAndWrongTypeCardsAreRefused) {
    SlotSummaryInput slots[MAX_SLOTS_FOR_9600] = {card(SLOT_PRESENT, CARD_TYPE_NONE),
                                                  card(SLOT_PRESENT | SLOT_VERIFIED, CARD_TYPE_4X400G)};
    slots[1].provisioned = 1;
    slots[1].provisioned_type = CARD_TYPE_16X100G;
    EXPECT_EQ(render(slots), "8 slots: 2 refused (slots 1, 2), 6 empty");
}

TEST(SlotSummary, AnActiveCardOnceStuckIsOperational) {
    SlotSummaryInput slots[MAX_SLOTS_FOR_9600] = {card(kActive)};
    slots[0].in_err_state = 1;
    EXPECT_EQ(render(slots), "8 slots: 1 operational, 7 empty");
}

TEST(SlotSummary, ShortBufferIsCutAndTerminated) {
    SlotSummaryInput slots[MAX_SLOTS_FOR_9600] = {};
    char line[6];
    EXPECT_EQ(slot_summary_render(slots, line, sizeof line), 5u);
    EXPECT_STREQ(line, "8 slo");
}

/* ---- outside commands and their limits ---- */

class CommandLimits : public ::testing::Test {
  protected:
    chmgr_test::SandboxRoot root_{"0.001"};
    std::string file(const char *name) { return root_.path() + "/" + name; }
    static std::string read(const std::string &path) {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
};

TEST_F(CommandLimits, LimitIsScaledPlusTheStartAllowance) {
    EXPECT_EQ(cm_command_limit_ns(GEARBOX_TOOL_LIMIT_SEC), 120 * kSecond / 1000 + 2 * kSecond);
    EXPECT_EQ(cm_command_limit_ns(LED_COMMAND_LIMIT_SEC), 30 * kSecond / 1000 + 2 * kSecond);
}

TEST_F(CommandLimits, ExitStatusIsThatOfTheCommand) {
    int status = cm_system("exit 3", SYSTEMCTL_LIMIT_SEC);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_TRUE(cm_command_succeeded("true", cm_system("true", SYSTEMCTL_LIMIT_SEC)));
}

TEST_F(CommandLimits, CommandPastItsLimitIsKilledWithItsGroup) {
    std::string pid_file = file("group");
    std::string command = "echo $$ > " + pid_file + "; sleep 100 & sleep 100";
    chmgr_test::ConsoleCapture console;
    int64_t start = watchdog_now_ns();
    EXPECT_EQ(cm_system(command.c_str(), LED_COMMAND_LIMIT_SEC), CM_COMMAND_TIMED_OUT);
    int64_t took = watchdog_now_ns() - start;
    EXPECT_GE(took, cm_command_limit_ns(LED_COMMAND_LIMIT_SEC));
    pid_t group = (pid_t)std::stol(read(pid_file));
    /* The background sleep is gone too, once whoever inherited it has reaped it. */
    bool gone = false;
    for (int tries = 0; tries < 2000 && !gone; ++tries) {
        gone = kill(-group, 0) == -1 && errno == ESRCH;
        if (!gone) usleep(1000);
    }
    EXPECT_TRUE(gone);
    EXPECT_FALSE(cm_command_succeeded(command.c_str(), CM_COMMAND_TIMED_OUT));
    EXPECT_EQ(lines_of(console),
              std::vector<std::string>{"shell_command.cpp:<N> ERR process " + command +
                                       " still running after its time limit of 2.03 s: killed with its process group\n"});
}

TEST_F(CommandLimits, FirstLineOfTheOutput) {
    char line[128];
    ASSERT_TRUE(cm_command_first_line("echo hello; echo second", QUERY_COMMAND_LIMIT_SEC, line, sizeof line));
    EXPECT_STREQ(line, "hello\n");
    ASSERT_TRUE(cm_command_first_line("true", QUERY_COMMAND_LIMIT_SEC, line, sizeof line));
    EXPECT_STREQ(line, "");
    char small[4];
    ASSERT_TRUE(cm_command_first_line("echo abcdef", QUERY_COMMAND_LIMIT_SEC, small, sizeof small));
    EXPECT_STREQ(small, "abc");
}

TEST_F(CommandLimits, QueryPastItsLimitFails) {
    char line[128];
    chmgr_test::ConsoleCapture console;
    EXPECT_FALSE(cm_command_first_line("echo early; sleep 100", QUERY_COMMAND_LIMIT_SEC, line, sizeof line));
    EXPECT_FALSE(cm_command_first_line("sleep 100", QUERY_COMMAND_LIMIT_SEC, line, sizeof line));
    EXPECT_EQ(lines_of(console).size(), 2u);
}

/* ---- the watchdog ---- */

class Watchdog : public ::testing::Test {
  protected:
    chmgr_test::SandboxRoot root_{"0.001"};
};

TEST_F(Watchdog, ReadyStepLimitAddsWaitsCommandsLocksAndMargin) {
    /* At factor 0.001: waits 80 + 14 s -> 94 ms; gearbox 4 x (120 ms + 2 s),
     * systemctl 2 x (120 ms + 2 s), queries 4 x (30 ms + 2 s); margin 5 s. */
    EXPECT_EQ(watchdog_item_limit_ns(slot_ready_event), 25934 * kSecond / 1000);
    EXPECT_EQ(watchdog_item_limit_ns(slot_timeout_event), watchdog_item_limit_ns(slot_ready_event));
    EXPECT_LT(watchdog_item_limit_ns(slot_no_event), watchdog_item_limit_ns(slot_powered_event));
}

TEST(WatchdogAtFullSpeed, LimitsAsDocumented) {
    chmgr_test::SandboxRoot root("1");
    EXPECT_EQ(watchdog_item_limit_ns(slot_ready_event), 959 * kSecond);
    EXPECT_EQ(watchdog_item_limit_ns(slot_verified_event), 341 * kSecond);
    EXPECT_EQ(watchdog_item_limit_ns(slot_empty_event), 269 * kSecond);
    EXPECT_EQ(watchdog_item_limit_ns(slot_synced_event), 391 * kSecond);
    EXPECT_EQ(watchdog_request_limit_ns(LINECARD_ENABLE, 1), 1292 * kSecond);
    EXPECT_EQ(watchdog_request_limit_ns(PRE_PROVISION_ENABLE, 1), 1416 * kSecond);
    EXPECT_EQ(watchdog_request_limit_ns(SHOW_DETAIL, 1), 269 * kSecond);
    EXPECT_EQ(watchdog_main_loop_limit_ns(), 5 * kSecond);
    EXPECT_EQ(cm_command_limit_ns(GEARBOX_TOOL_LIMIT_SEC), 122 * kSecond);
}

TEST_F(Watchdog, AllSlotsRequestGetsEightTimesOneSlot) {
    EXPECT_EQ(watchdog_request_limit_ns(LINECARD_DISABLE, CTL_ALL_SLOTS),
              MAX_SLOTS_FOR_9600 * watchdog_request_limit_ns(LINECARD_DISABLE, 3));
    EXPECT_GT(watchdog_request_limit_ns(LINECARD_DISABLE, 3), watchdog_item_limit_ns(slot_ready_event));
    EXPECT_LT(watchdog_request_limit_ns(SHOW_SUMMARY, 255), watchdog_request_limit_ns(LINECARD_ENABLE, 1));
}

TEST_F(Watchdog, WorkItemPastItsLimitIsUnhealthyUntilItEnds) {
    chmgr_test::ConsoleCapture console;
    int64_t limit = watchdog_item_limit_ns(slot_verified_event);
    {
        WorkItemStamp stamp(3, slot_verified_event);
        int64_t now = watchdog_now_ns();
        EXPECT_TRUE(watchdog_healthy(now));
        EXPECT_FALSE(watchdog_healthy(now + limit + kSecond));
        EXPECT_FALSE(watchdog_healthy(now + limit + 2 * kSecond));  // logged once
    }
    EXPECT_TRUE(watchdog_healthy(watchdog_now_ns() + limit + kSecond));
    std::vector<std::string> lines = lines_of(console);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("watchdog.cpp:<N> ERR Worker in slot_verified_event of slot 3 for ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(" ms (limit " + std::to_string(limit / 1000000) + " ms): watchdog pings stop\n"),
              std::string::npos)
        << lines[0];
    EXPECT_EQ(lines[1], "watchdog.cpp:<N> Every thread is making progress again: watchdog pings resume\n");
}

TEST_F(Watchdog, ControlRequestAndMainLoopAreWatched) {
    chmgr_test::ConsoleCapture console;
    {
        ControlRequestStamp request(SHOW_SUMMARY, 255, false);
        EXPECT_FALSE(watchdog_healthy(watchdog_now_ns() + watchdog_request_limit_ns(SHOW_SUMMARY, 255) + kSecond));
    }
    {
        MainLoopStamp loop;
        EXPECT_FALSE(watchdog_healthy(watchdog_now_ns() + watchdog_main_loop_limit_ns() + kSecond));
    }
    EXPECT_TRUE(watchdog_healthy(watchdog_now_ns()));
    std::vector<std::string> lines = lines_of(console);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].rfind("watchdog.cpp:<N> ERR Control thread in command 5 for slot 255 for ", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1].rfind("watchdog.cpp:<N> ERR Main loop busy for ", 0), 0u) << lines[1];
    EXPECT_EQ(lines[2], "watchdog.cpp:<N> Every thread is making progress again: watchdog pings resume\n");
}

TEST_F(Watchdog, AdministrationCommandStaysWatchedWhileAReadIsServed) {
    chmgr_test::ConsoleCapture console;
    {
        ControlRequestStamp command(LINECARD_DISABLE, 3, true);
        { ControlRequestStamp read(SHOW_SUMMARY, 255, false); }
        EXPECT_FALSE(watchdog_healthy(watchdog_now_ns() + watchdog_request_limit_ns(LINECARD_DISABLE, 3) + kSecond));
    }
    EXPECT_TRUE(watchdog_healthy(watchdog_now_ns()));
    std::vector<std::string> lines = lines_of(console);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("watchdog.cpp:<N> ERR Administration thread in command 4 for slot 3 for ", 0), 0u)
        << lines[0];
    EXPECT_EQ(lines[1], "watchdog.cpp:<N> Every thread is making progress again: watchdog pings resume\n");
}

/* ---- reports to the service manager ---- */

class Notify : public ::testing::Test {
  protected:
    void SetUp() override {
        chmgr_test::reset_slots();
        path_ = root_.path() + "/notify.sock";
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path, path_.c_str(), path_.size());
        ASSERT_EQ(bind(fd_, (struct sockaddr *)&addr, sizeof addr), 0);
    }
    void TearDown() override {
        notify_reset_for_test();
        env_configure_supervision(nullptr, nullptr, nullptr, getpid());
        close(fd_);
    }
    std::vector<std::string> received() {
        std::vector<std::string> texts;
        char buf[1024];
        ssize_t got;
        while ((got = recv(fd_, buf, sizeof buf, 0)) > 0) texts.emplace_back(buf, (size_t)got);
        return texts;
    }
    chmgr_test::SandboxRoot root_{"0.001"};
    std::string path_;
    int fd_ = -1;
};

TEST_F(Notify, ReadyAfterBothHalvesOfStartUpThenStatusOnChange) {
    env_configure_supervision(path_.c_str(), nullptr, nullptr, getpid());
    ASSERT_TRUE(notify_init());
    notify_status_refresh();  // before READY=1: nothing
    notify_startup_done();
    EXPECT_EQ(received(), std::vector<std::string>{});
    notify_control_socket_ready();
    EXPECT_EQ(received(), std::vector<std::string>{"READY=1\nSTATUS=8 slots: 8 empty"});
    notify_status_refresh();
    EXPECT_EQ(received(), std::vector<std::string>{});  // unchanged
    g_slots_info[1].current_state = SLOT_PRESENT;
    g_slots_info[1].card_type = CARD_TYPE_4X400G;
    notify_status_refresh();
    EXPECT_EQ(received(), std::vector<std::string>{"STATUS=8 slots: 1 bringing up (slot 2 at PRESENT), 7 empty"});
}

TEST_F(Notify, AbstractSocketName) {
    std::string name = "@chmgr-notify-test-" + std::to_string(getpid());
    int abstract = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.c_str() + 1, name.size() - 1);
    ASSERT_EQ(bind(abstract, (struct sockaddr *)&addr, (socklen_t)(offsetof(struct sockaddr_un, sun_path) + name.size())),
              0);
    env_configure_supervision(name.c_str(), nullptr, nullptr, getpid());
    ASSERT_TRUE(notify_init());
    ASSERT_TRUE(notify_send("X=1", 3));
    char buf[16];
    EXPECT_EQ(recv(abstract, buf, sizeof buf, 0), 3);
    close(abstract);
}

TEST_F(Notify, WithoutSocketNothingIsSent) {
    env_configure_supervision(nullptr, "1000000", nullptr, getpid());
    EXPECT_FALSE(notify_init());
    EXPECT_FALSE(notify_enabled());
    EXPECT_FALSE(notify_send("READY=1", 7));
    notify_startup_done();
    notify_control_socket_ready();
    EXPECT_EQ(received(), std::vector<std::string>{});
}

/* ---- the environment ---- */

TEST(EnvSupervision, WatchdogNeedsASocketAPeriodAndThisProcess) {
    pid_t self = getpid();
    env_configure_supervision("/run/systemd/notify", "60000000", nullptr, self);
    EXPECT_STREQ(env_notify_socket(), "/run/systemd/notify");
    EXPECT_EQ(env_watchdog_usec(), 60000000u);
    env_configure_supervision("/run/systemd/notify", "60000000", std::to_string(self).c_str(), self);
    EXPECT_EQ(env_watchdog_usec(), 60000000u);
    env_configure_supervision("/run/systemd/notify", "60000000", std::to_string(self + 1).c_str(), self);
    EXPECT_EQ(env_watchdog_usec(), 0u);
    for (const char *bad : {"", "0", "-5", "12x", "99999999999999999999999"}) {
        env_configure_supervision("/run/systemd/notify", bad, nullptr, self);
        EXPECT_EQ(env_watchdog_usec(), 0u) << bad;
    }
    env_configure_supervision(nullptr, "60000000", nullptr, self);
    EXPECT_STREQ(env_notify_socket(), "");
    EXPECT_EQ(env_watchdog_usec(), 0u);
    env_configure_supervision("relative/path", "60000000", nullptr, self);
    EXPECT_STREQ(env_notify_socket(), "");
    env_configure_supervision(("/" + std::string(107, 'x')).c_str(), nullptr, nullptr, self);
    EXPECT_STREQ(env_notify_socket(), "");
    env_configure_supervision(nullptr, nullptr, nullptr, self);
}

}  // namespace
