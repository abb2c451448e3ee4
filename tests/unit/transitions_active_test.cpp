/*
 * The synced and active transitions: a new card is recorded dirty and joins
 * the reload of portd; any other synced event only points the slot on.  The
 * active step marks the slot online, stamps the up time and turns green.
 */
#include <gtest/gtest.h>
#include <sys/time.h>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

constexpr int kSlot = 3;
const char *const kGreenFile = "/var/run/hw-management/lc3/led/led_status_green";

class ActiveTest : public TransitionTest {
  protected:
    ActiveTest() : TransitionTest("1") {}

    void SetUp() override {
        TransitionTest::SetUp();
        prepare_conf_and_stand_ins(kSlot);
    }

    slotInfo &slot() { return g_slots_info[kSlot - 1]; }
};

/* ---------------------------------------------------------------- synced */

TEST_F(ActiveTest, NewCardIsRecordedDirtyAndPortdReloadedOnce) {
    arriving_card(kSlot, CARD_TYPE_16X100G);

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED | SLOT_SYNCED);
    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    /* portd sees the new card dirty; afterwards the dirty bit is cleared. */
    EXPECT_EQ(conf_at_reload(), conf_with(3, conf_line(3, 100, 0, 100, 1, "Offline", "enable")));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf_with(3, conf_line(3, 100, 0, 100, 0, "Offline", "enable")));
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_GT(timer_remaining_ns(kSlot), 0);
    EXPECT_LE(timer_remaining_ns(kSlot), 1 * kSecond);
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_active.cpp", "Transitioned from 11 to SLOT_SYNCED\n"),
                  slot_line(kSlot, "INFO", "reload_rendezvous.cpp", "Transitioned to WAIT_RELOAD_PORTD\n"),
                  slot_line(kSlot, "INFO", "reload_rendezvous.cpp", "Reloading portd...\n"),
                  slot_line(kSlot, "INFO", "reload_rendezvous.cpp", "portd reloaded\n"),
              }));
}

TEST_F(ActiveTest, NewFourPortCardIsRecordedAt400) {
    arriving_card(kSlot, CARD_TYPE_4X400G);

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(conf_at_reload(), conf_with(3, conf_line(3, 400, 0, 400, 1, "Offline", "enable")));
}

TEST_F(ActiveTest, EightPortCardIsRecordedAt100Not200) {
    arriving_card(kSlot, CARD_TYPE_8X200G);

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(conf_at_reload(), conf_with(3, conf_line(3, 100, 0, 100, 1, "Offline", "enable")));
}

TEST_F(ActiveTest, NewCardInDisabledSlotIsRecordedWithDisable) {
    arriving_card(kSlot, CARD_TYPE_16X100G);
    slot().disabled = 1;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(conf_at_reload(), conf_with(3, conf_line(3, 100, 0, 100, 1, "Offline", "disable")));
}

TEST_F(ActiveTest, NewCardBeforePoweredIsReleasedTowardsPowered) {
    arriving_card(kSlot, CARD_TYPE_16X100G);
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_powered_event);
    EXPECT_EQ(systemctl_calls(), "reload portd\n");
}

TEST_F(ActiveTest, ProvisionedSlotNeverReloadsPortd) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED;
    slot().provisioned = 1;
    slot().provisioned_type = CARD_TYPE_16X100G;
    slot().card_type = CARD_TYPE_16X100G;
    slot().trans_timer.state_monitored = slot_synced_event;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(systemctl_calls(), "");
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_LE(timer_remaining_ns(kSlot), 1 * kSecond);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_active.cpp",
                                                                          "Transitioned from 11 to SLOT_SYNCED\n")});
}

TEST_F(ActiveTest, SecondSyncedEventOnlyRearms) {
    arriving_card(kSlot, CARD_TYPE_16X100G);
    ASSERT_TRUE(synced_transition(kSlot));
    clear_log_rings();
    disarm_timers();
    slot().trans_timer.state_monitored = slot_active_event;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_active.cpp",
                                                                          "Transitioned from 15 to SLOT_SYNCED\n")});
}

TEST_F(ActiveTest, RepeatedSyncedEventKeepsAParkedSlotParked) {
    /* Slot 5 is still on its way, so slot 3 parks and is held. */
    arriving_card(kSlot, CARD_TYPE_16X100G);
    arriving_card(5, CARD_TYPE_16X100G);
    ASSERT_TRUE(synced_transition(kSlot));
    ASSERT_EQ(slot().trans_timer.state_monitored, slot_wait_reload_portd);
    disarm_timers();

    /* A second synced event, decided before the slot parked, runs late. */
    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_wait_reload_portd);
    EXPECT_EQ(slot().in_transition_reload_portd, 1);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(systemctl_calls(), "");

    /* When slot 5 parks, one reload releases both. */
    g_slots_info[4].current_state |= SLOT_SYNCED;
    ASSERT_TRUE(wait_reload_portd(5));
    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
}

TEST_F(ActiveTest, SyncedSlotNotYetPoweredAwaitsPowered) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_synced_event;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_powered_event);
    EXPECT_TRUE(timer_armed(kSlot));
}

TEST_F(ActiveTest, SyncedEventForAbsentSlotChangesNothing) {
    slot().current_state = SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_present_event;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_SYNCED);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_active.cpp",
                                                                          "Transitioned from 4 to SLOT_SYNCED\n")});
}

TEST_F(ActiveTest, SyncedEventForDisabledSlotArmsNothing) {
    slot().current_state = SLOT_PRESENT | SLOT_SYNCED;
    slot().disabled = 1;
    slot().trans_timer.state_monitored = slot_verified_event;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_FALSE(timer_armed(kSlot));
}

TEST_F(ActiveTest, SyncedTimerFailureIsLogged) {
    slot().current_state = SLOT_PRESENT | SLOT_SYNCED;
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(synced_transition(kSlot));

    EXPECT_EQ(lines_from(0, "transitions_active.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_active.cpp", "Unable to start timer\n")});
}

/* ---------------------------------------------------------------- active */

TEST_F(ActiveTest, ActiveCardIsMarkedOnlineStampedAndGreen) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY;
    slot().card_type = CARD_TYPE_16X100G;
    slot().trans_timer.state_monitored = slot_active_event;
    root_.write("/etc/tarnel/cards.conf", conf_with(3, conf_line(3, 100, 0, 100, 0, "Offline", "enable")));
    struct timeval before;
    gettimeofday(&before, nullptr);

    EXPECT_TRUE(active_transition(kSlot));

    struct timeval after;
    gettimeofday(&after, nullptr);
    EXPECT_EQ(slot().current_state, 63);
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf_with(3, conf_line(3, 100, 0, 100, 0, "Online", "enable")));
    struct timeval up = slot_uptime_get(kSlot);
    EXPECT_TRUE(!timercmp(&up, &before, <) && !timercmp(&up, &after, >));
    EXPECT_EQ(root_.read(kGreenFile), "255\n");
    EXPECT_EQ(root_.read("/var/run/hw-management/lc3/led/led_status_state.runs"), "ran\n");
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_empty_event);
    EXPECT_GT(timer_remaining_ns(kSlot), 1 * kSecond);
    EXPECT_LE(timer_remaining_ns(kSlot), 10 * kSecond);
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_active.cpp", "Transitioned from 31 to SLOT_ACTIVE\n"),
                  slot_line(kSlot, "INFO", "status_led.cpp", "Setting status LED green\n"),
              }));
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(ActiveTest, RepeatedActiveOnlyRearmsTheRemovalCheck) {
    slot().current_state = 63;
    struct timeval stamp = {1234, 5678};
    slot_uptime_set(kSlot, &stamp);

    EXPECT_TRUE(active_transition(kSlot));

    struct timeval up = slot_uptime_get(kSlot);
    EXPECT_EQ(up.tv_sec, 1234);
    EXPECT_EQ(up.tv_usec, 5678);
    EXPECT_FALSE(root_.exists(kGreenFile));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_empty_event);
    EXPECT_GT(timer_remaining_ns(kSlot), 1 * kSecond);
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_active.cpp",
                                                                          "Already in ACTIVE state\n")});
}

TEST_F(ActiveTest, ActiveOnUnpoweredSlotLeavesLedAlone) {
    slot().current_state = SLOT_PRESENT | SLOT_READY;

    EXPECT_TRUE(active_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_READY | SLOT_ACTIVE);
    EXPECT_FALSE(root_.exists(kGreenFile));
    EXPECT_FALSE(root_.exists("/var/run/hw-management/lc3/led/led_status_state.runs"));
}

TEST_F(ActiveTest, DisabledSlotFiveLogsIntoSlotFour) {
    g_slots_info[4].disabled = 1;
    g_slots_info[4].current_state = SLOT_PRESENT | SLOT_POWERED | SLOT_READY;
    g_slots_info[4].trans_timer.state_monitored = slot_active_event;

    EXPECT_TRUE(active_transition(5));

    EXPECT_TRUE(normalized_ring(5).empty());
    EXPECT_EQ(normalized_ring(4), std::vector<std::string>{slot_line(4, "INFO", "transitions_active.cpp",
                                                                      "Will not transition to active while in disabled state\n")});
    EXPECT_EQ(g_slots_info[4].current_state, SLOT_PRESENT | SLOT_POWERED | SLOT_READY);
    EXPECT_EQ(g_slots_info[4].trans_timer.state_monitored, slot_active_event);
    EXPECT_FALSE(timer_armed(5));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
}

TEST_F(ActiveTest, DisabledSlotOneLogsADaemonWideLine) {
    g_slots_info[0].disabled = 1;

    EXPECT_TRUE(active_transition(1));

    EXPECT_TRUE(normalized_ring(1).empty());
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{global_line(
                                      "INFO", "transitions_active.cpp", "Will not transition to active while in disabled state\n")});
}

TEST_F(ActiveTest, ActiveWithoutCardsConfStillComesUp) {
    root_.remove("/etc/tarnel/cards.conf");
    slot().current_state = SLOT_PRESENT | SLOT_POWERED | SLOT_READY;

    EXPECT_TRUE(active_transition(kSlot));

    EXPECT_EQ(slot().current_state & SLOT_ACTIVE, SLOT_ACTIVE);
    EXPECT_EQ(root_.read(kGreenFile), "255\n");
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_empty_event);
}

TEST_F(ActiveTest, ActiveTimerFailureIsLogged) {
    slot().current_state = SLOT_PRESENT | SLOT_READY;
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(active_transition(kSlot));

    EXPECT_EQ(slot().current_state & SLOT_ACTIVE, SLOT_ACTIVE);
    EXPECT_EQ(lines_from(0, "transitions_active.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_active.cpp", "Unable to start timer\n")});
}

using ActiveDeathTest = ActiveTest;

TEST_F(ActiveDeathTest, SlotOutOfRangeStopsTheProcess) {
    EXPECT_DEATH(synced_transition(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(synced_transition(9), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(active_transition(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(active_transition(9), "slot_id >= 1 && slot_id <= 8");
}

}  // namespace
