/*
 * Start-up: the options (exit statuses, the exact usage text, -V, -l), the
 * log threshold they set, the mutexes that must work before init_slots has
 * run, and init_slots itself on a sandbox tree.  The pid file and the whole
 * process are exercised by the system tests on the real binary.
 */
#include <gtest/gtest.h>
#include <sys/timerfd.h>

#include <string>
#include <vector>

#include "chmgr_sdk.h"
#include "test_support.h"

namespace {

using chmgr_test::normalize;
using chmgr_test::normalized_ring;
using chmgr_test::SandboxRoot;
using Lines = std::vector<std::string>;

const char kUsage[] =
    "usage: chassis-mgr [OPTIONS]\n"
    "OPTIONS:\n"
    "    -d: detach and become a daemon\n"
    "    -l: log level(DEBUG, INFO, WARNING, ERROR, CRITICAL)\n"
    "    -emul: run in emul environment\n"
    "\n";

struct Parsed {
    int status;
    int daemonize;
    std::string err;
};

Parsed parse(std::vector<std::string> args) {
    args.insert(args.begin(), "chassis-mgr");
    std::vector<char *> argv;
    for (auto &arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int daemonize = 0;
    testing::internal::CaptureStderr();
    int status = parse_options((int)args.size(), argv.data(), &daemonize);
    return {status, daemonize, testing::internal::GetCapturedStderr()};
}

class OptionsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log_level = LOG_LEVEL_INFO;
        g_emul_flag = 0;
    }
    void TearDown() override {
        g_log_level = LOG_LEVEL_INFO;
        g_emul_flag = 0;
    }
};

// ---------------------------------------------------------------- options

TEST_F(OptionsTest, NoArgumentsContinueWithTheDefaults) {
    Parsed p = parse({});
    EXPECT_EQ(p.status, STARTUP_CONTINUE);
    EXPECT_EQ(p.daemonize, 0);
    EXPECT_EQ(g_emul_flag, 0);
    EXPECT_EQ(g_log_level, LOG_LEVEL_INFO);
    EXPECT_EQ(p.err, "");
}

TEST_F(OptionsTest, VersionPrintsTheBannerAndExitsWithZero) {
    EXPECT_STRNE(version, "");
    Parsed p = parse({"-V"});
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.err, std::string(" Tarnel Linux chassis-mgr version ") + version + "\n");
}

TEST_F(OptionsTest, ArgumentsAfterVersionAreNotExamined) {
    Parsed p = parse({"-d", "-V", "--bogus", "-l"});
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.err, std::string(" Tarnel Linux chassis-mgr version ") + version + "\n");
}

TEST_F(OptionsTest, UnexpectedArgumentPrintsItAndTheUsageAndExitsWithTen) {
    Parsed p = parse({"--help"});
    EXPECT_EQ(p.status, 10);
    EXPECT_EQ(p.err, std::string("Unexpected argument '--help'\n") + kUsage);
}

TEST_F(OptionsTest, InvalidArgumentBeforeVersionExitsWithTenFirst) {
    Parsed p = parse({"-x", "-V"});
    EXPECT_EQ(p.status, 10);
    EXPECT_EQ(p.err, std::string("Unexpected argument '-x'\n") + kUsage);
}

TEST_F(OptionsTest, UsageTextLeavesOutTheVersionOption) {
    EXPECT_EQ(std::string(kUsage).find("-V"), std::string::npos);
    EXPECT_EQ(parse({"-q"}).err.find("-V"), std::string::npos);
}

TEST_F(OptionsTest, ArgumentsAreComparedWhole) {
    for (const char *arg : {"-dd", "-emulator", "-L", "d", "-v", "-d "}) {
        Parsed p = parse({arg});
        EXPECT_EQ(p.status, 10) << arg;
        EXPECT_EQ(p.err, std::string("Unexpected argument '") + arg + "'\n" + kUsage);
    }
}

TEST_F(OptionsTest, DetachAndEmulationAreSet) {
    Parsed p = parse({"-d", "-emul"});
    EXPECT_EQ(p.status, STARTUP_CONTINUE);
    EXPECT_EQ(p.daemonize, 1);
    EXPECT_EQ(g_emul_flag, 1);
}

TEST_F(OptionsTest, EmptyArgumentIsSkipped) {
    Parsed p = parse({"", "-emul", ""});
    EXPECT_EQ(p.status, STARTUP_CONTINUE);
    EXPECT_EQ(g_emul_flag, 1);
    EXPECT_EQ(p.err, "");
}

TEST_F(OptionsTest, LevelNamesSetTheThreshold) {
    const struct {
        const char *name;
        log_level_e level;
    } names[] = {{"DEBUG", LOG_LEVEL_DEBUG},
                 {"INFO", LOG_LEVEL_INFO},
                 {"WARNING", LOG_LEVEL_WARN},
                 {"ERROR", LOG_LEVEL_ERR},
                 {"CRITICAL", LOG_LEVEL_CRIT}};
    for (const auto &entry : names) {
        g_log_level = LOG_LEVEL_INFO;
        EXPECT_EQ(parse({"-l", entry.name}).status, STARTUP_CONTINUE);
        EXPECT_EQ(g_log_level, entry.level) << entry.name;
    }
}

TEST_F(OptionsTest, UnknownLevelNameLeavesTheThresholdAndParsingGoesOn) {
    g_log_level = LOG_LEVEL_WARN;
    Parsed p = parse({"-l", "VERBOSE", "-emul"});
    EXPECT_EQ(p.status, STARTUP_CONTINUE);
    EXPECT_EQ(g_log_level, LOG_LEVEL_WARN);
    EXPECT_EQ(g_emul_flag, 1);
    EXPECT_EQ(p.err, "");
}

TEST_F(OptionsTest, UnknownLevelNameIsSkippedThenTheNextArgumentIsJudged) {
    Parsed p = parse({"-l", "VERBOSE", "-bogus"});
    EXPECT_EQ(p.status, 10);
    EXPECT_EQ(p.err, std::string("Unexpected argument '-bogus'\n") + kUsage);
}

TEST_F(OptionsTest, LevelNamesAreCaseSensitive) {
    EXPECT_EQ(parse({"-l", "error"}).status, STARTUP_CONTINUE);
    EXPECT_EQ(g_log_level, LOG_LEVEL_INFO);
}

TEST_F(OptionsTest, TheArgumentAfterLevelIsTakenAsTheNameEvenWhenItIsAnOption) {
    Parsed p = parse({"-l", "-d"});
    EXPECT_EQ(p.status, STARTUP_CONTINUE);
    EXPECT_EQ(p.daemonize, 0);
}

TEST_F(OptionsTest, LevelAsTheLastArgumentIsAnUnexpectedArgument) {
    g_log_level = LOG_LEVEL_ERR;
    Parsed p = parse({"-emul", "-l"});
    EXPECT_EQ(p.status, 10);
    EXPECT_EQ(p.err, std::string("Unexpected argument '-l'\n") + kUsage);
    EXPECT_EQ(g_log_level, LOG_LEVEL_ERR);
}

TEST_F(OptionsTest, UsageNamesTheProgramAsItWasCalled) {
    std::string program = "/usr/sbin/chassis-mgr";
    std::string arg = "-z";
    char *argv[] = {program.data(), arg.data(), nullptr};
    int daemonize = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse_options(2, argv, &daemonize), 10);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.substr(0, err.find("OPTIONS:\n")), "Unexpected argument '-z'\nusage: /usr/sbin/chassis-mgr [OPTIONS]\n");
}

// ---------------------------------------------------------------- the threshold at work

class ThresholdTest : public OptionsTest {
  protected:
    void SetUp() override {
        OptionsTest::SetUp();
        chmgr_test::reset_slots();
        chmgr_test::clear_log_rings();
        g_handle = 1;
    }
    /* One INFO, one ERR and one WARN line from the daemon's own code. */
    void log_three_levels() {
        sdk_init_ks_api();
        g_slots_info[2].current_state = SLOT_PRESENT;
        g_slots_info[2].trans_timer.state_monitored = slot_ready_event;
        g_slots_info[2].trans_timer.transition_timer_hits = TRANSITION_MAX_TRIES;
        g_slots_info[2].in_transition_reload_portd = 1;
        root_.event(3, "present", "1");
        root_.event(3, "ready", "0");
        handle_slot_timer_expired(3);
    }
    SandboxRoot root_;
};

TEST_F(ThresholdTest, CriticalPrintsNoConsoleLineWhileTheRingsStillFill) {
    ASSERT_EQ(parse({"-l", "CRITICAL"}).status, STARTUP_CONTINUE);
    chmgr_test::ConsoleCapture console;
    log_three_levels();
    EXPECT_EQ(console.text(), "");
    EXPECT_EQ(normalized_ring(0), (Lines{"[INFO]<T> sdk_connection.cpp:<N> KS api open success handle = 1\n"}));
    EXPECT_EQ(normalized_ring(3),
              (Lines{
                  "[SLOT3:ERR]<T> supervision.cpp:<N> slot state stuck and not changing state MAX tries = 240\n",
                  "[SLOT3:WARN]<T> supervision.cpp:<N> Removing slot from wait_reload_portd\n",
              }));
}

TEST_F(ThresholdTest, ErrorPrintsOnlyErrorLines) {
    ASSERT_EQ(parse({"-l", "ERROR"}).status, STARTUP_CONTINUE);
    chmgr_test::ConsoleCapture console;
    log_three_levels();
    EXPECT_EQ(normalize(console.text()),
              "[SLOT3] supervision.cpp:<N> ERR slot state stuck and not changing state MAX tries = 240\n");
}

TEST_F(ThresholdTest, DebugPrintsTheSameAsInfo) {
    std::string at_info;
    {
        chmgr_test::ConsoleCapture console;
        log_three_levels();
        at_info = normalize(console.text());
    }
    ASSERT_EQ(parse({"-l", "DEBUG"}).status, STARTUP_CONTINUE);
    chmgr_test::ConsoleCapture console;
    log_three_levels();
    EXPECT_EQ(normalize(console.text()), at_info);
    EXPECT_EQ(at_info,
              "sdk_connection.cpp:<N> KS api open success handle = 1\n"
              "[SLOT3] supervision.cpp:<N> ERR slot state stuck and not changing state MAX tries = 240\n"
              "[SLOT3] supervision.cpp:<N> WARN Removing slot from wait_reload_portd\n");
}

// ---------------------------------------------------------------- mutexes and init_slots

TEST(StartupMutexes, CardsConfAndGearboxMutexesWorkBeforeInitSlots) {
    EXPECT_EQ(pthread_mutex_trylock(&g_cards_conf_mutex), 0);
    pthread_mutex_unlock(&g_cards_conf_mutex);
    EXPECT_EQ(pthread_mutex_trylock(&g_gearbox_update), 0);
    pthread_mutex_unlock(&g_gearbox_update);
}

std::vector<int> g_present_calls;
bool record_present(int slot_id) {
    g_present_calls.push_back(slot_id);
    return true;
}

double armed_seconds(int slot) {
    struct itimerspec current = {};
    timerfd_gettime(g_slots_info[slot - 1].trans_timer.timer_fd, &current);
    return (double)current.it_value.tv_sec + (double)current.it_value.tv_nsec / 1e9;
}

std::string slot_line(int slot, const char *file, const std::string &msg) {
    return "[SLOT" + std::to_string(slot) + ":INFO]<T> " + file + ":<N> " + msg;
}

/* The slot's ring lines written by start-up itself and the slot model (the
 * cards.conf reader reports each slot's settings in the same rings). */
Lines startup_lines(int slot) {
    Lines out;
    for (const auto &line : normalized_ring(slot))
        if (line.find(" startup.cpp:") != std::string::npos || line.find(" slot_model.cpp:") != std::string::npos)
            out.push_back(line);
    return out;
}

/* init_slots starts threads that never end, so it runs once per test program.
 * The root stays configured for the rest of the process (those threads keep
 * using it); only its files are removed at the end. */
TEST(InitSlots, GivesEachSlotItsStartUpStateInOrder) {
    static SandboxRoot *kept_root = new SandboxRoot("1");
    SandboxRoot &root = *kept_root;
    root.all_events("0");
    std::string conf;
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot)
        conf += std::to_string(slot) + "       0G        0G                 0G        0  Offline   enable\n";
    root.write("/etc/tarnel/cards.conf", conf);
    root.write("/etc/tarnel/debug_slot", "");
    root.event(4, "synced", "1");   // synced before the daemon started
    root.event(6, "present", "1");  // a card is in slot 6
    root.remove("/var/run/hw-management/events/lc5_synced");  // slot 5's files are missing
    root.remove("/var/run/hw-management/events/lc5_present");
    chmgr_test::clear_log_rings();
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        g_slots_info[i].current_state = SLOT_ACTIVE;  // stale values that start-up clears
        g_slots_info[i].in_err_state = 1;
        g_slots_info[i].slot_in_debug = 1;
        slot_serial_set(i + 1, "OLD");
    }

    eventMapFnTable table[SLOT_EVENT_COUNT];
    for (int i = 0; i < SLOT_EVENT_COUNT; ++i) table[i] = g_event_map_fn_table[i];
    table[slot_present_event].fn_transition = record_present;
    g_transition_table = table;
    EXPECT_TRUE(init_slots());
    g_transition_table = g_event_map_fn_table;

    EXPECT_EQ(root.read("/var/run/ks-sim/calls.log").rfind("ks_api_open\n", 0), 0u);
    EXPECT_EQ(normalized_ring(0).at(0), "[INFO]<T> sdk_connection.cpp:<N> KS api open success handle = 1\n");
    EXPECT_EQ(g_present_calls, (std::vector<int>{6}));
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) {
        const slotInfo *info = &g_slots_info[slot - 1];
        char serial[SERIAL_NO_SIZE];
        slot_serial_get(slot, serial);
        EXPECT_EQ(info->slot_id, slot);
        EXPECT_STREQ(serial, "none");
        EXPECT_EQ(info->in_err_state, 0);
        EXPECT_EQ(info->slot_in_debug, 0);
        EXPECT_EQ(info->current_state, slot == 4 ? SLOT_SYNCED : 0) << slot;
        if (slot == 5 || slot == 6) {
            EXPECT_EQ(info->trans_timer.state_monitored, 0) << slot;
            EXPECT_EQ(armed_seconds(slot), 0.0) << slot;
        } else {
            EXPECT_EQ(info->trans_timer.state_monitored, slot_present_event) << slot;
            EXPECT_GT(armed_seconds(slot), 5.0) << slot;  // polled for a card every 10 s
        }
    }
    std::string empty = "Initial empty slot detected\n";
    EXPECT_EQ(startup_lines(1), (Lines{slot_line(1, "startup.cpp", empty)}));
    EXPECT_EQ(startup_lines(4),
              (Lines{slot_line(4, "slot_model.cpp", "Synced during bootup\n"), slot_line(4, "startup.cpp", empty)}));
    EXPECT_EQ(startup_lines(5),
              (Lines{slot_line(5, "slot_model.cpp",
                               "Unable to open " + root.at("/var/run/hw-management/events/lc5_synced") + "\n")}));
    EXPECT_TRUE(startup_lines(6).empty());
    EXPECT_EQ(startup_lines(8), (Lines{slot_line(8, "startup.cpp", empty)}));

    /* Both shared mutexes are usable after their re-initialisation. */
    EXPECT_EQ(pthread_mutex_trylock(&g_cards_conf_mutex), 0);
    pthread_mutex_unlock(&g_cards_conf_mutex);
    EXPECT_EQ(pthread_mutex_trylock(&g_gearbox_update), 0);
    pthread_mutex_unlock(&g_gearbox_update);

    std::string remove_tree = "rm -rf " + root.path();
    EXPECT_EQ(system(remove_tree.c_str()), 0);
}

}  // namespace
