#include <gtest/gtest.h>

#include "test_support.h"

using namespace chmgr_test;

namespace {

class SlotModelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        root_.all_events("0");
    }
    slotInfo &slot(int n) { return g_slots_info[n - 1]; }
    std::string event_path(int n, const char *name) {
        return root_.at("/var/run/hw-management/events/lc" + std::to_string(n) + "_" + name);
    }
    SandboxRoot root_;
};

TEST_F(SlotModelTest, AwaitedReadyEventReadingOneIsReported) {
    slot(2).current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED;
    slot(2).trans_timer.state_monitored = slot_ready_event;
    root_.event(2, "present", "1");
    root_.event(2, "ready", "1");
    EXPECT_EQ(get_event_transition(2), slot_ready_event);
    ASSERT_EQ(normalized_ring(2).size(), 1u);
    EXPECT_EQ(normalized_ring(2)[0], "[SLOT2:INFO]<T> slot_model.cpp:<N> Event received\n");
}

TEST_F(SlotModelTest, RemovedCardGivesTheEmptyEventWhateverIsAwaited) {
    for (int awaited : {0, 1, 2, 3, 4, 5, 6, 7, 9}) {
        slot(1).current_state = SLOT_PRESENT | SLOT_VERIFIED;
        slot(1).trans_timer.state_monitored = awaited;
        root_.event(1, "present", "0");
        root_.event(1, "verified", "1");
        EXPECT_EQ(get_event_transition(1), slot_empty_event) << awaited;
    }
    EXPECT_TRUE(ring_lines(1).empty());
}

TEST_F(SlotModelTest, OnlyTheAwaitedEventFileDecides) {
    slot(3).current_state = SLOT_PRESENT;
    slot(3).trans_timer.state_monitored = slot_active_event;
    root_.event(3, "present", "1");
    root_.event(3, "ready", "1");
    root_.event(3, "active", "0");
    EXPECT_EQ(get_event_transition(3), slot_no_event);
    root_.event(3, "active", "1");
    EXPECT_EQ(get_event_transition(3), slot_active_event);
}

TEST_F(SlotModelTest, EmptySlotAwaitingPresenceSeesTheCard) {
    slot(4).trans_timer.state_monitored = slot_present_event;
    root_.event(4, "present", "1");
    EXPECT_EQ(get_event_transition(4), slot_present_event);
}

TEST_F(SlotModelTest, NothingAwaitedWithAPresentCardIsNoEvent) {
    slot(5).current_state = SLOT_PRESENT;
    slot(5).trans_timer.state_monitored = slot_empty_event;
    root_.event(5, "present", "1");
    EXPECT_EQ(get_event_transition(5), slot_no_event);
    EXPECT_TRUE(ring_lines(5).empty());
}

TEST_F(SlotModelTest, WaitReloadAwaitedIsNeverReportedFromAFile) {
    slot(5).current_state = SLOT_PRESENT;
    slot(5).trans_timer.state_monitored = slot_wait_reload_portd;
    root_.event(5, "present", "1");
    root_.event(5, "powered", "1");
    EXPECT_EQ(get_event_transition(5), slot_no_event);
}

TEST_F(SlotModelTest, MissingAwaitedEventFileCountsAsRemoval) {
    slot(6).current_state = SLOT_PRESENT;
    slot(6).trans_timer.state_monitored = slot_verified_event;
    root_.event(6, "present", "1");
    root_.remove("/var/run/hw-management/events/lc6_verified");
    EXPECT_EQ(get_event_transition(6), slot_empty_event);
    ASSERT_EQ(normalized_ring(6).size(), 1u);
    EXPECT_EQ(normalized_ring(6)[0],
              "[SLOT6:ERR]<T> slot_model.cpp:<N> Unable to open file " + event_path(6, "verified") + "\n");
}

TEST_F(SlotModelTest, MissingPresentFileOfAPresentCardCountsAsRemoval) {
    slot(7).current_state = SLOT_PRESENT;
    slot(7).trans_timer.state_monitored = slot_verified_event;
    root_.remove("/var/run/hw-management/events/lc7_present");
    EXPECT_EQ(get_event_transition(7), slot_empty_event);
    EXPECT_EQ(normalized_ring(7)[0],
              "[SLOT7:ERR]<T> slot_model.cpp:<N> Unable to open file " + event_path(7, "present") + "\n");
}

TEST_F(SlotModelTest, ADigitOtherThanOneCountsAsNotOne) {
    slot(8).trans_timer.state_monitored = slot_present_event;
    root_.event(8, "present", "2");
    EXPECT_EQ(get_event_transition(8), slot_no_event);
}

TEST_F(SlotModelTest, EmptyOrBinaryEventFilesCountAsZero) {
    slot(8).trans_timer.state_monitored = slot_present_event;
    for (const std::string &value : {std::string(""), std::string("\x01\x31", 2), std::string("x1"), std::string(" 1")}) {
        root_.event(8, "present", value);
        EXPECT_EQ(get_event_transition(8), slot_no_event);
    }
    root_.event(8, "present", "1garbage");
    EXPECT_EQ(get_event_transition(8), slot_present_event);
}

TEST_F(SlotModelTest, OutOfRangeSlotStopsTheProcess) {
    EXPECT_DEATH(get_event_transition(0), "Assertion `slot_id >= 1 && slot_id <= 8' failed");
    EXPECT_DEATH(get_event_transition(9), "Assertion `slot_id >= 1 && slot_id <= 8' failed");
}

TEST_F(SlotModelTest, StartUpReadsSyncedAndPresence) {
    root_.event(3, "synced", "1");
    root_.event(3, "present", "1");
    char event = 0;
    ASSERT_TRUE(init_sm_for_slot(2, &event));
    EXPECT_EQ(event, '1');
    EXPECT_EQ(slot(3).current_state, SLOT_SYNCED);
    EXPECT_EQ(normalized_ring(3), std::vector<std::string>{"[SLOT3:INFO]<T> slot_model.cpp:<N> Synced during bootup\n"});
}

TEST_F(SlotModelTest, StartUpOfAnEmptyUnsyncedSlot) {
    char event = 0;
    ASSERT_TRUE(init_sm_for_slot(0, &event));
    EXPECT_EQ(event, '0');
    EXPECT_EQ(slot(1).current_state, 0);
    EXPECT_TRUE(ring_lines(1).empty());
}

TEST_F(SlotModelTest, StartUpWithoutSyncedFileLeavesTheSlotAlone) {
    root_.remove("/var/run/hw-management/events/lc4_synced");
    char event = 'x';
    EXPECT_FALSE(init_sm_for_slot(3, &event));
    EXPECT_EQ(event, 'x');
    EXPECT_EQ(normalized_ring(4), std::vector<std::string>{"[SLOT4:INFO]<T> slot_model.cpp:<N> Unable to open " +
                                                            event_path(4, "synced") + "\n"});
}

TEST_F(SlotModelTest, StartUpWithoutPresentFileLeavesTheSlotAlone) {
    root_.event(4, "synced", "1");
    root_.remove("/var/run/hw-management/events/lc4_present");
    char event = 'x';
    EXPECT_FALSE(init_sm_for_slot(3, &event));
    EXPECT_EQ(slot(4).current_state, SLOT_SYNCED);
    EXPECT_EQ(normalized_ring(4).back(), "[SLOT4:INFO]<T> slot_model.cpp:<N> Unable to open " +
                                             event_path(4, "present") + "\n");
}

TEST(EventTable, RowsAreIndexedByEventAndNameTheirFiles) {
    const char *paths[SLOT_EVENT_COUNT] = {
        "/var/run/hw-management/events/lc%d_present", "/var/run/hw-management/events/lc%d_present",
        "/var/run/hw-management/events/lc%d_verified", "/var/run/hw-management/events/lc%d_synced",
        "/var/run/hw-management/events/lc%d_powered", "/var/run/hw-management/events/lc%d_powered",
        "/var/run/hw-management/events/lc%d_ready",   "/var/run/hw-management/events/lc%d_active",
        nullptr,                                      "/var/run/hw-management/events/lc%d_present"};
    fnTransition fns[SLOT_EVENT_COUNT] = {empty_transition,  present_transition, verified_transition,
                                          synced_transition, wait_reload_portd,  powered_transition,
                                          ready_transition,  active_transition,  handle_slot_timer_expired,
                                          no_valid_transition};
    for (int i = 0; i < SLOT_EVENT_COUNT; ++i) {
        EXPECT_EQ(g_event_map_fn_table[i].event, i);
        EXPECT_EQ(g_event_map_fn_table[i].fn_transition, fns[i]);
        if (paths[i])
            EXPECT_STREQ(g_event_map_fn_table[i].sysfs_event_path, paths[i]);
        else
            EXPECT_EQ(g_event_map_fn_table[i].sysfs_event_path, nullptr);
    }
}

TEST(SlotHelpers, PowerBudgetAlwaysAllows) {
    EXPECT_TRUE(power_within_budget(1));
    EXPECT_TRUE(recalculate_power_budget(8));
}

TEST(SlotHelpers, PortSpeedAndNameOfEachCardType) {
    EXPECT_EQ(card_type_port_speed(1), 400);
    EXPECT_EQ(card_type_port_speed(2), 200);
    EXPECT_EQ(card_type_port_speed(3), 100);
    EXPECT_EQ(card_type_port_speed(0), 0);
    EXPECT_EQ(card_type_port_speed(4), 0);
    EXPECT_STREQ(card_type_name(1), "KTR9600-C4");
    EXPECT_STREQ(card_type_name(3), "KTR9600-C16");
    EXPECT_STREQ(card_type_name(2), "none");
    EXPECT_STREQ(card_type_name(0), "none");
}

TEST(SlotHelpers, AwaitedEventNames) {
    const char *names[] = {"empty", "present", "verified", "synced", "none", "powered", "ready", "active", "none", "none"};
    for (int i = 0; i < SLOT_EVENT_COUNT; ++i) EXPECT_STREQ(slot_event_name(i), names[i]);
    EXPECT_STREQ(slot_event_name(-1), "none");
}

TEST(SlotHelpers, SerialIsZeroPaddedAndMayFillAllBytes) {
    slot_serial_set(2, "none");
    char serial[SERIAL_NO_SIZE];
    slot_serial_get(2, serial);
    EXPECT_STREQ(serial, "none");
    for (int i = 5; i < SERIAL_NO_SIZE; ++i) EXPECT_EQ(serial[i], 0);
    std::string longer(40, 'S');
    slot_serial_set(2, longer.c_str());
    slot_serial_get(2, serial);
    EXPECT_EQ(std::string(serial, SERIAL_NO_SIZE), std::string(SERIAL_NO_SIZE, 'S'));
}

}  // namespace
