/*
 * Status LED: a colour is appended to its file through the shell and the
 * state file is then run as a command; nothing happens on an unpowered
 * card.  Also the transition for events a slot has nothing to do with.
 */
#include <gtest/gtest.h>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

constexpr int kSlot = 3;

class StatusLedTest : public TransitionTest {
  protected:
    StatusLedTest() : TransitionTest("1") {}

    void SetUp() override {
        TransitionTest::SetUp();
        /* The state file records each run, so a test can tell it ran. */
        install_state_script(kSlot, 0);
    }

    void install_state_script(int slot, int exit_code) {
        script(led_file(slot, "led_status_state"), "echo ran >> \"$0.runs\"\nexit " + std::to_string(exit_code) + "\n");
    }

    std::string state_runs(int slot) { return root_.read(led_file(slot, "led_status_state.runs")); }
};

TEST_F(StatusLedTest, OrangeOnPoweredCardAppendsToOrangeFileAndRunsStateFile) {
    g_slots_info[kSlot - 1].current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED;

    EXPECT_EQ(set_led_color(kSlot, 1), 1);

    EXPECT_EQ(root_.read(led_file(kSlot, "led_status_orange")), "255\n");
    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_green")));
    EXPECT_EQ(state_runs(kSlot), "ran\n");
    EXPECT_EQ(normalized_ring(kSlot),
              std::vector<std::string>{slot_line(kSlot, "INFO", "status_led.cpp", "Setting status LED orange\n")});
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(StatusLedTest, ColourValueIsAppendedNotWrittenOver) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED;
    root_.write(led_file(kSlot, "led_status_orange"), "0\n");

    set_led_color(kSlot, 1);
    set_led_color(kSlot, 1);

    EXPECT_EQ(root_.read(led_file(kSlot, "led_status_orange")), "0\n255\n255\n");
    EXPECT_EQ(state_runs(kSlot), "ran\nran\n");
}

TEST_F(StatusLedTest, GreenForValueTwo) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED | SLOT_ACTIVE;

    EXPECT_EQ(set_led_color(kSlot, 2), 1);

    EXPECT_EQ(root_.read(led_file(kSlot, "led_status_green")), "255\n");
    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_orange")));
    EXPECT_EQ(normalized_ring(kSlot),
              std::vector<std::string>{slot_line(kSlot, "INFO", "status_led.cpp", "Setting status LED green\n")});
}

TEST_F(StatusLedTest, AnyValueButOneMeansGreen) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED;

    EXPECT_EQ(set_led_color(kSlot, 0), 1);
    EXPECT_EQ(set_led_color(kSlot, 3), 1);
    EXPECT_EQ(set_led_color(kSlot, -7), 1);

    EXPECT_EQ(root_.read(led_file(kSlot, "led_status_green")), "255\n255\n255\n");
    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_orange")));
}

TEST_F(StatusLedTest, UnpoweredCardRunsNothingAndLogsNothing) {
    g_slots_info[kSlot - 1].current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_READY | SLOT_ACTIVE;

    EXPECT_EQ(set_led_color(kSlot, 1), 1);
    EXPECT_EQ(set_led_color(kSlot, 2), 1);

    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_orange")));
    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_green")));
    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_state.runs")));
    EXPECT_TRUE(normalized_ring(kSlot).empty());
    EXPECT_TRUE(normalized_ring(0).empty());
    EXPECT_EQ(console_.text(), "");
}

TEST_F(StatusLedTest, FailingEchoSkipsStateFile) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED;
    /* A directory in place of the colour file makes the append fail. */
    mkdir(root_.at(led_file(kSlot, "led_status_orange")).c_str(), 0755);

    EXPECT_EQ(set_led_color(kSlot, 1), 0);

    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_state.runs")));
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "shell_command.cpp",
                                                   "process echo 255 >> " + root_.at(led_file(kSlot, "led_status_orange")) +
                                                       " exited with 2 error code\n")});
}

TEST_F(StatusLedTest, MissingLedDirectoryFailsWithoutCrash) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED;
    std::string dir = root_.at("/var/run/hw-management/lc3/led");
    remove(root_.at(led_file(kSlot, "led_status_state")).c_str());
    rmdir(dir.c_str());
    ASSERT_NE(access(dir.c_str(), F_OK), 0);

    EXPECT_EQ(set_led_color(kSlot, 2), 0);

    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "shell_command.cpp",
                                                   "process echo 255 >> " + root_.at(led_file(kSlot, "led_status_green")) +
                                                       " exited with 2 error code\n")});
}

TEST_F(StatusLedTest, MissingStateFileIsLoggedWithItsPath) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED;
    root_.remove(led_file(kSlot, "led_status_state"));

    EXPECT_EQ(set_led_color(kSlot, 1), 0);

    EXPECT_EQ(root_.read(led_file(kSlot, "led_status_orange")), "255\n");
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "shell_command.cpp",
                                                   "process " + root_.at(led_file(kSlot, "led_status_state")) +
                                                       " exited with 127 error code\n")});
}

TEST_F(StatusLedTest, StateFileExitCodeIsLogged) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED;
    install_state_script(kSlot, 1);

    EXPECT_EQ(set_led_color(kSlot, 2), 0);

    EXPECT_EQ(state_runs(kSlot), "ran\n");
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "shell_command.cpp",
                                                   "process " + root_.at(led_file(kSlot, "led_status_state")) +
                                                       " exited with 1 error code\n")});
}

TEST_F(StatusLedTest, ConsoleShowsTheSlotLine) {
    g_slots_info[kSlot - 1].current_state = SLOT_POWERED;

    set_led_color(kSlot, 1);

    EXPECT_EQ(normalize(console_.text()), "[SLOT3] status_led.cpp:<N> Setting status LED orange\n");
}

TEST_F(StatusLedTest, NoValidTransitionOnlyLogsTheState) {
    slotInfo *slot = &g_slots_info[kSlot - 1];
    slot->current_state = SLOT_PRESENT | SLOT_SYNCED | SLOT_POWERED;
    slot->trans_timer.state_monitored = slot_ready_event;

    EXPECT_TRUE(no_valid_transition(kSlot));

    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(
                                          kSlot, "INFO", "status_led.cpp", "Transitioned from 13 to no_valid_transition\n")});
    EXPECT_EQ(slot->current_state, SLOT_PRESENT | SLOT_SYNCED | SLOT_POWERED);
    EXPECT_EQ(slot->trans_timer.state_monitored, slot_ready_event);
    EXPECT_FALSE(timer_armed(kSlot));
}

TEST_F(StatusLedTest, NoValidTransitionOnEmptySlot) {
    EXPECT_TRUE(no_valid_transition(8));
    EXPECT_EQ(normalized_ring(8), std::vector<std::string>{slot_line(8, "INFO", "status_led.cpp",
                                                                      "Transitioned from 0 to no_valid_transition\n")});
}

using StatusLedDeathTest = StatusLedTest;

TEST_F(StatusLedDeathTest, SlotOutOfRangeStopsTheProcess) {
    EXPECT_DEATH(set_led_color(0, 1), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(set_led_color(9, 2), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(no_valid_transition(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(no_valid_transition(9), "slot_id >= 1 && slot_id <= 8");
}

}  // namespace
