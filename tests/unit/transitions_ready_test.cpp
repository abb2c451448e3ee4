/*
 * The ready transition: enable, gearbox update (one slot at a time), enable
 * again, soft reset, ready and INI polls, activation, reload of envd.
 * Failures along the way are logged and the card is brought up regardless.
 *
 * Stand-ins: `systemctl` first on PATH and the gearbox tool under the root
 * record their arguments; the simulated SDK records its calls.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

constexpr int kSlot = 3;

std::string enable_file(int slot) { return "/var/run/hw-management/system/lc" + std::to_string(slot) + "_enable"; }

std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

class ReadyTest : public TransitionTest {
  protected:
    void SetUp() override {
        TransitionTest::SetUp();
        install_standins();
        for (int slot = 1; slot <= 8; ++slot) {
            root_.write(enable_file(slot), "0");
            /* The card reports ready and its INI in use at once. */
            sim_slot(slot, "ini_identity", "3 2 5\n");
            sim_slot(slot, "ready", "1");
            sim_slot(slot, "ini_status", "3");
        }
        /* Powered and synced: what the earlier steps leave. */
        slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED;
        slot().card_type = CARD_TYPE_16X100G;
        slot().trans_timer.state_monitored = slot_ready_event;
    }

    void install_standins() {
        install_systemctl_with_exit_code();
        /* The gearbox stand-in notes the enable file as it found it, then
         * lowers it, so the second enable after the update shows. */
        script(kGearbox,
               "enable=" + root_.at("/var/run/hw-management/system") + "/lc$2_enable\n"
               "start=$(date +%s%N)\n"
               "[ -r \"$0.sleep\" ] && sleep \"$(cat \"$0.sleep\")\"\n"
               "[ -r \"$0.pull\" ] && printf 0 > " + root_.at("/var/run/hw-management/events") + "/lc$2_present\n"
               "echo \"$* enable=$(cat $enable)\" >> \"$0.calls\"\n"
               "echo \"$2 $start $(date +%s%N)\" >> \"$0.times\"\n"
               "printf 0 > $enable\n"
               "rc=0; [ -r \"$0.exit\" ] && read -r rc < \"$0.exit\"\n"
               "exit $rc\n");
    }

    void sim_slot(int slot, const std::string &name, const std::string &value) {
        root_.write("/var/run/ks-sim/slot" + std::to_string(slot) + "/" + name, value);
    }

    std::string gearbox_command(int slot) {
        return root_.at(kGearbox) + " -s " + std::to_string(slot) + " -t cardtype_16x100 -l INFO -f " +
               root_.at("/var/log/gb.log");
    }

    std::vector<std::string> sim_calls() { return split_lines(root_.read("/var/run/ks-sim/calls.log")); }
    long count_calls(const std::string &call) {
        auto calls = sim_calls();
        return std::count(calls.begin(), calls.end(), call);
    }

    slotInfo &slot() { return g_slots_info[kSlot - 1]; }
};

TEST_F(ReadyTest, ReadyCardIsEnabledUpdatedResetActivatedAndEnvdReloaded) {
    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_active_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Transitioned from 15 to SLOT_READY\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Updating gearbox\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "gearbox update done\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "READY after 0 poll loop\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "INI in-use after 0 poll loop\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Invoking reload envd\n"),
              }));
    EXPECT_TRUE(normalized_ring(0).empty());
    /* Enabled before the update, and again after it. */
    EXPECT_EQ(root_.read(std::string(kGearbox) + ".calls"),
              "-s 3 -t cardtype_16x100 -l INFO -f " + root_.at("/var/log/gb.log") + " enable=1\n");
    EXPECT_EQ(root_.read(enable_file(kSlot)), "1\n");
    EXPECT_EQ(sim_calls(), (std::vector<std::string>{
                               "ks_mgmt_slot_control_set slot=3 op=SOFT_RESET",
                               "ks_mgmt_slot_info_get slot=3",
                               "ks_mgmt_slot_ini_data_set slot=3 size=0 last=0",
                               "ks_mgmt_slot_control_set slot=3 op=ACTIVATE",
                           }));
    EXPECT_EQ(systemctl_calls(), "reload envd\n");
}

TEST_F(ReadyTest, GearboxToolRunsWithTheSameTypeForEveryCard) {
    slot().card_type = CARD_TYPE_4X400G;

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(root_.read(std::string(kGearbox) + ".calls"),
              "-s 3 -t cardtype_16x100 -l INFO -f " + root_.at("/var/log/gb.log") + " enable=1\n");
}

TEST_F(ReadyTest, ReadyPollCountsTheSleepsBeforeTheCardWasReady) {
    sim_slot(kSlot, "ready", "0");
    sim_slot(kSlot, "ready_script", "0 0 1");

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(count_calls("ks_mgmt_slot_info_get slot=3"), 3);
    auto lines = lines_from(kSlot, "transitions_ready.cpp");
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        slot_line(kSlot, "INFO", "transitions_ready.cpp", "READY after 2 poll loop\n")),
              lines.end());
}

TEST_F(ReadyTest, CardNeverReadyIsReportedAfter25PollsAndStillActivated) {
    sim_slot(kSlot, "ready", "0");

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(count_calls("ks_mgmt_slot_info_get slot=3"), 25);
    EXPECT_EQ(count_calls("ks_mgmt_slot_control_set slot=3 op=ACTIVATE"), 1);
    EXPECT_EQ(systemctl_calls(), "reload envd\n");
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_active_event);
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Transitioned from 15 to SLOT_READY\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Updating gearbox\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "gearbox update done\n"),
                  slot_line(kSlot, "ERR", "transitions_ready.cpp", "Unable to get to ready state\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "INI in-use after 0 poll loop\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Invoking reload envd\n"),
              }));
}

TEST_F(ReadyTest, FailingReadinessQueryCountsAsNotReady) {
    root_.write("/var/run/ks-sim/faults", "ks_mgmt_slot_info_get 3\n");

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(count_calls("ks_mgmt_slot_info_get slot=3 -> fault"), 25);
    auto lines = lines_from(kSlot, "transitions_ready.cpp");
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        slot_line(kSlot, "ERR", "transitions_ready.cpp", "Unable to get to ready state\n")),
              lines.end());
    EXPECT_EQ(count_calls("ks_mgmt_slot_control_set slot=3 op=ACTIVATE"), 1);
}

TEST_F(ReadyTest, IniNeverInUseIsReportedAfterFivePolls) {
    sim_slot(kSlot, "ini_status", "1");

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(count_calls("ks_mgmt_slot_ini_data_set slot=3 size=0 last=0"), 5);
    auto lines = lines_from(kSlot, "transitions_ready.cpp");
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[4], slot_line(kSlot, "ERR", "transitions_ready.cpp", "INI is not in use\n"));
    EXPECT_EQ(count_calls("ks_mgmt_slot_control_set slot=3 op=ACTIVATE"), 1);
}

TEST_F(ReadyTest, IniPollCountsTheSleepsBeforeInUse) {
    sim_slot(kSlot, "ini_status", "1");
    sim_slot(kSlot, "ini_status_script", "2 1 1 3");

    EXPECT_TRUE(ready_transition(kSlot));

    auto lines = lines_from(kSlot, "transitions_ready.cpp");
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[4], slot_line(kSlot, "INFO", "transitions_ready.cpp", "INI in-use after 3 poll loop\n"));
}

TEST_F(ReadyTest, GearboxExitCodeIsLoggedThenUpdateDone) {
    root_.write(std::string(kGearbox) + ".exit", "2\n");

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "shell_command.cpp",
                                                   "process " + gearbox_command(kSlot) + " exited with 2 error code\n")});
    std::string console = normalize(console_.text());
    size_t error = console.find("shell_command.cpp:<N> ERR process " + gearbox_command(kSlot) +
                                " exited with 2 error code\n");
    size_t done = console.find("[SLOT3] transitions_ready.cpp:<N> gearbox update done\n");
    ASSERT_NE(error, std::string::npos);
    ASSERT_NE(done, std::string::npos);
    EXPECT_LT(error, done);
    EXPECT_EQ(count_calls("ks_mgmt_slot_control_set slot=3 op=ACTIVATE"), 1);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_active_event);
}

TEST_F(ReadyTest, MissingGearboxToolIsLoggedAndBringUpGoesOn) {
    root_.remove(kGearbox);

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "shell_command.cpp", "process " + gearbox_command(kSlot) +
                                                                                    " exited with 127 error code\n")});
    EXPECT_EQ(count_calls("ks_mgmt_slot_control_set slot=3 op=ACTIVATE"), 1);
    EXPECT_EQ(systemctl_calls(), "reload envd\n");
}

TEST_F(ReadyTest, GearboxToolThatIsNotExecutableIsLogged) {
    chmod(root_.at(kGearbox).c_str(), 0644);

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "shell_command.cpp", "process " + gearbox_command(kSlot) +
                                                                                    " exited with 126 error code\n")});
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_active_event);
}

TEST_F(ReadyTest, SoftResetAndActivationFailuresAreLoggedAndTheStepsGoOn) {
    root_.write("/var/run/ks-sim/faults", "ks_mgmt_slot_control_set 3\n");

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(lines_from(kSlot, "transitions_ready.cpp"),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Transitioned from 15 to SLOT_READY\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Updating gearbox\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "gearbox update done\n"),
                  slot_line(kSlot, "ERR", "transitions_ready.cpp", "Unable to soft reset the card\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "READY after 0 poll loop\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "INI in-use after 0 poll loop\n"),
                  slot_line(kSlot, "ERR", "transitions_ready.cpp", "Unable to activate card\n"),
                  slot_line(kSlot, "INFO", "transitions_ready.cpp", "Invoking reload envd\n"),
              }));
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_active_event);
    EXPECT_EQ(systemctl_calls(), "reload envd\n");
}

TEST_F(ReadyTest, FailedEnvdReloadIsLoggedAndTheTransitionSucceeds) {
    root_.write(std::string(kStandinBin) + "/systemctl.exit", "1\n");

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(lines_from(kSlot, "transitions_ready.cpp").back(),
              slot_line(kSlot, "ERR", "transitions_ready.cpp", "reload envd failed\n"));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{global_line(
                                      "ERR", "shell_command.cpp", "process systemctl reload envd exited with 1 error code\n")});
}

TEST_F(ReadyTest, DisabledSlotThreeLogsIntoSlotTwo) {
    slot().disabled = 1;

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_TRUE(normalized_ring(kSlot).empty());
    EXPECT_EQ(normalized_ring(2), std::vector<std::string>{slot_line(2, "INFO", "transitions_ready.cpp",
                                                                      "Will not transition to ready while in disabled state\n")});
    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(root_.read(enable_file(kSlot)), "0");
    EXPECT_FALSE(root_.exists(std::string(kGearbox) + ".calls"));
    EXPECT_FALSE(root_.exists("/var/run/ks-sim/calls.log"));
}

TEST_F(ReadyTest, DisabledSlotOneLogsADaemonWideLine) {
    g_slots_info[0].disabled = 1;
    g_slots_info[0].current_state = SLOT_PRESENT | SLOT_POWERED;

    EXPECT_TRUE(ready_transition(1));

    EXPECT_TRUE(normalized_ring(1).empty());
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{global_line(
                                      "INFO", "transitions_ready.cpp", "Will not transition to ready while in disabled state\n")});
    EXPECT_EQ(normalize(console_.text()),
              "transitions_ready.cpp:<N> Will not transition to ready while in disabled state\n");
    EXPECT_FALSE(timer_armed(1));
}

TEST_F(ReadyTest, RepeatedReadyOnlyRearmsForActive) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY;

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_active_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_ready.cpp",
                                                                          "Already in READY state\n")});
    EXPECT_FALSE(root_.exists(std::string(kGearbox) + ".calls"));
    EXPECT_FALSE(root_.exists("/var/run/ks-sim/calls.log"));
}

TEST_F(ReadyTest, RepeatedReadyTimerFailureIsLogged) {
    slot().current_state = SLOT_PRESENT | SLOT_READY;
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(ready_transition(kSlot));

    EXPECT_EQ(lines_from(0, "transitions_ready.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_ready.cpp", "Unable to start timer\n")});
}

TEST_F(ReadyTest, TimerFailureEndsBeforeEnvdReload) {
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(ready_transition(kSlot));

    EXPECT_EQ(count_calls("ks_mgmt_slot_control_set slot=3 op=ACTIVATE"), 1);
    EXPECT_FALSE(root_.exists(std::string(kStandinBin) + "/systemctl.calls"));
    EXPECT_EQ(lines_from(0, "transitions_ready.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_ready.cpp", "Unable to start timer\n")});
    EXPECT_EQ(lines_from(kSlot, "transitions_ready.cpp").back(),
              slot_line(kSlot, "INFO", "transitions_ready.cpp", "INI in-use after 0 poll loop\n"));
}

TEST_F(ReadyTest, MissingEnableFileIsPassedOver) {
    for (int slot = 1; slot <= 8; ++slot) root_.remove(enable_file(slot));
    rmdir(root_.at("/var/run/hw-management/system").c_str());

    EXPECT_TRUE(ready_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_active_event);
    EXPECT_EQ(count_calls("ks_mgmt_slot_control_set slot=3 op=ACTIVATE"), 1);
}

TEST_F(ReadyTest, CardPulledDuringReadyIsRemovedAfterwards) {
    root_.event(kSlot, "present", "1");
    /* The gearbox stand-in pulls the card while the slot is busy. */
    root_.write(std::string(kGearbox) + ".pull", "");

    EXPECT_TRUE(ready_transition(kSlot));
    ASSERT_EQ(root_.read("/var/run/hw-management/events/lc3_present"), "0");
    slotEvent next = get_event_transition(kSlot);
    ASSERT_EQ(next, slot_empty_event);
    EXPECT_TRUE(g_event_map_fn_table[next].fn_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_SYNCED);
    EXPECT_EQ(slot().card_type, CARD_TYPE_NONE);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
}

TEST_F(ReadyTest, GearboxUpdatesOfSlotsComingUpTogetherNeverOverlap) {
    root_.write(std::string(kGearbox) + ".sleep", "0.05\n");
    for (int slot : {3, 4, 5, 6}) {
        g_slots_info[slot - 1].current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED;
        g_slots_info[slot - 1].card_type = CARD_TYPE_16X100G;
    }

    std::vector<std::thread> workers;
    for (int slot : {3, 4, 5, 6}) workers.emplace_back([slot] { ready_transition(slot); });
    for (auto &worker : workers) worker.join();

    auto times = split_lines(root_.read(std::string(kGearbox) + ".times"));
    ASSERT_EQ(times.size(), 4u);
    std::vector<std::pair<long long, long long>> runs;
    std::vector<int> slots;
    for (const auto &line : times) {
        int slot = 0;
        long long start = 0, end = 0;
        ASSERT_EQ(sscanf(line.c_str(), "%d %lld %lld", &slot, &start, &end), 3) << line;
        slots.push_back(slot);
        runs.emplace_back(start, end);
    }
    std::sort(slots.begin(), slots.end());
    EXPECT_EQ(slots, (std::vector<int>{3, 4, 5, 6}));
    std::sort(runs.begin(), runs.end());
    for (size_t i = 1; i < runs.size(); ++i) EXPECT_LE(runs[i - 1].second, runs[i].first) << "run " << i;
}

using ReadyDeathTest = ReadyTest;

TEST_F(ReadyDeathTest, SlotOutOfRangeStopsTheProcess) {
    EXPECT_DEATH(ready_transition(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(ready_transition(9), "slot_id >= 1 && slot_id <= 8");
}

}  // namespace
