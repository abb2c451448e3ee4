/*
 * The SDK connection and slot control against the simulated SDK: the calls
 * made (its call log), the readiness read from the slot state, the failure
 * lines, and emulation mode, where activation and soft reset are skipped.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "chmgr_sdk.h"
#include "test_support.h"

namespace {

using chmgr_test::normalize;
using chmgr_test::normalized_ring;
using chmgr_test::SandboxRoot;
using Lines = std::vector<std::string>;

class SdkConnectionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        chmgr_test::reset_slots();
        chmgr_test::clear_log_rings();
        g_emul_flag = 0;
        g_handle = 1;
    }
    void TearDown() override { g_emul_flag = 0; }

    std::string calls() const { return root_.read("/var/run/ks-sim/calls.log"); }
    void fault(const std::string &line) const { root_.write("/var/run/ks-sim/faults", line + "\n"); }
    /* A slot whose firmware holds an INI (so the slot query succeeds). */
    void card(int slot, const char *ready) const {
        std::string dir = "/var/run/ks-sim/slot" + std::to_string(slot);
        root_.write(dir + "/ini_identity", "3 2 5\n");
        root_.write(dir + "/ready", ready);
    }

    SandboxRoot root_;
};

// ---------------------------------------------------------------- connection

TEST_F(SdkConnectionTest, OpenSucceedsAndLogsTheHandle) {
    chmgr_test::ConsoleCapture console;
    g_handle = 0;
    EXPECT_TRUE(sdk_init_ks_api());
    EXPECT_EQ(g_handle, 1u);
    EXPECT_EQ(calls(), "ks_api_open\n");
    EXPECT_EQ(normalized_ring(0), (Lines{"[INFO]<T> sdk_connection.cpp:<N> KS api open success handle = 1\n"}));
    EXPECT_EQ(normalize(console.text()), "sdk_connection.cpp:<N> KS api open success handle = 1\n");
}

TEST_F(SdkConnectionTest, OpenFailureIsLoggedAndReturnsFalse) {
    chmgr_test::ConsoleCapture console;
    fault("ks_api_open");
    EXPECT_FALSE(sdk_init_ks_api());
    EXPECT_EQ(calls(), "ks_api_open -> fault\n");
    EXPECT_EQ(normalized_ring(0), (Lines{"[ERR]<T> sdk_connection.cpp:<N> KS api open failed\n"}));
    EXPECT_EQ(normalize(console.text()), "sdk_connection.cpp:<N> ERR KS api open failed\n");
}

TEST_F(SdkConnectionTest, PortListMutexIsUsableEvenWhenTheOpenFailed) {
    fault("ks_api_open");
    EXPECT_FALSE(sdk_init_ks_api());
    EXPECT_EQ(pthread_mutex_trylock(&g_port_list_file_mutex), 0);
    pthread_mutex_unlock(&g_port_list_file_mutex);
}

TEST_F(SdkConnectionTest, PortListMutexIsCreatedByTheOpen) {
    EXPECT_TRUE(sdk_init_ks_api());
    EXPECT_EQ(pthread_mutex_trylock(&g_port_list_file_mutex), 0);
    pthread_mutex_unlock(&g_port_list_file_mutex);
}

// ---------------------------------------------------------------- readiness

TEST_F(SdkConnectionTest, ReadyCardReportsReady) {
    card(3, "1");
    int ready = -1;
    EXPECT_TRUE(sdk_check_slot_ready(3, &ready));
    EXPECT_EQ(ready, 1);
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=3\n");
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(SdkConnectionTest, CardNotReadyReturnsTrueWithReadyZero) {
    card(3, "0");
    int ready = -1;
    EXPECT_TRUE(sdk_check_slot_ready(3, &ready));
    EXPECT_EQ(ready, 0);
}

TEST_F(SdkConnectionTest, QueryFailureReturnsFalseWithReadyZeroAndAGlobalLine) {
    card(5, "1");
    fault("ks_mgmt_slot_info_get 5");
    int ready = -1;
    EXPECT_FALSE(sdk_check_slot_ready(5, &ready));
    EXPECT_EQ(ready, 0);
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=5 -> fault\n");
    EXPECT_EQ(normalized_ring(0), (Lines{"[ERR]<T> sdk_connection.cpp:<N> ks_mgmt_slot_info_get FAILED\n"}));
    EXPECT_TRUE(normalized_ring(5).empty());
}

TEST_F(SdkConnectionTest, SlotWithoutAnIniInTheFirmwareIsNotReady) {
    int ready = -1;
    EXPECT_FALSE(sdk_check_slot_ready(2, &ready));
    EXPECT_EQ(ready, 0);
}

TEST_F(SdkConnectionTest, ReadinessIsStillAskedInEmulationMode) {
    g_emul_flag = 1;
    card(4, "1");
    int ready = -1;
    EXPECT_TRUE(sdk_check_slot_ready(4, &ready));
    EXPECT_EQ(ready, 1);
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=4\n");
}

TEST_F(SdkConnectionTest, ReadinessWithoutAPlaceForTheAnswerDoesNotCrash) {
    card(4, "1");
    EXPECT_TRUE(sdk_check_slot_ready(4, nullptr));
}

// ---------------------------------------------------------------- activation and reset

TEST_F(SdkConnectionTest, ActivationAsksTheSdkToActivateTheSlot) {
    EXPECT_TRUE(sdk_activate_card(6));
    EXPECT_EQ(calls(), "ks_mgmt_slot_control_set slot=6 op=ACTIVATE\n");
    EXPECT_TRUE(normalized_ring(0).empty());
    EXPECT_TRUE(normalized_ring(6).empty());
}

TEST_F(SdkConnectionTest, SoftResetAsksTheSdkToResetTheSlot) {
    EXPECT_TRUE(sdk_soft_reset_card(7));
    EXPECT_EQ(calls(), "ks_mgmt_slot_control_set slot=7 op=SOFT_RESET\n");
}

TEST_F(SdkConnectionTest, ActivationFailureIsASlotLine) {
    chmgr_test::ConsoleCapture console;
    fault("ks_mgmt_slot_control_set 6");
    EXPECT_FALSE(sdk_activate_card(6));
    EXPECT_EQ(normalized_ring(6),
              (Lines{"[SLOT6:ERR]<T> sdk_connection.cpp:<N> ks_mgmt_slot_control_set activate failed\n"}));
    EXPECT_EQ(normalize(console.text()), "[SLOT6] sdk_connection.cpp:<N> ERR ks_mgmt_slot_control_set activate failed\n");
}

TEST_F(SdkConnectionTest, SoftResetFailureIsASlotLine) {
    fault("ks_mgmt_slot_control_set");
    EXPECT_FALSE(sdk_soft_reset_card(1));
    EXPECT_EQ(calls(), "ks_mgmt_slot_control_set slot=1 op=SOFT_RESET -> fault\n");
    EXPECT_EQ(normalized_ring(1),
              (Lines{"[SLOT1:ERR]<T> sdk_connection.cpp:<N> ks_mgmt_slot_control_set reset failed\n"}));
}

TEST_F(SdkConnectionTest, EmulationModeSkipsActivationWithAnInfoLine) {
    chmgr_test::ConsoleCapture console;
    g_emul_flag = 1;
    EXPECT_TRUE(sdk_activate_card(2));
    EXPECT_FALSE(root_.exists("/var/run/ks-sim/calls.log"));
    EXPECT_EQ(normalized_ring(0),
              (Lines{"[INFO]<T> sdk_connection.cpp:<N> This is running on EMUL and will not activate slot2\n"}));
    EXPECT_EQ(normalize(console.text()), "sdk_connection.cpp:<N> This is running on EMUL and will not activate slot2\n");
}

TEST_F(SdkConnectionTest, EmulationModeSkipsSoftResetWithTheActivationWording) {
    g_emul_flag = 1;
    fault("ks_mgmt_slot_control_set");  // would fail, were it called
    EXPECT_TRUE(sdk_soft_reset_card(8));
    EXPECT_FALSE(root_.exists("/var/run/ks-sim/calls.log"));
    EXPECT_EQ(normalized_ring(0),
              (Lines{"[INFO]<T> sdk_connection.cpp:<N> This is running on EMUL and will not activate slot8\n"}));
}

}  // namespace
