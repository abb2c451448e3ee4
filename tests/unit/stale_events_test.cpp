/*
 * Events decided from a snapshot of a slot may run after the slot changed:
 * a card pulled meanwhile, a slot disabled meanwhile.  Such an event changes
 * nothing and is logged as no valid transition; and a card that is gone, or
 * will not come up, never holds the portd reload of the cards that will.
 */
#include <gtest/gtest.h>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

constexpr int kSlot = 4;

class StaleEventTest : public TransitionTest {
  protected:
    StaleEventTest() : TransitionTest("1") {}

    void SetUp() override {
        TransitionTest::SetUp();
        prepare_conf_and_stand_ins(kSlot);
    }

    slotInfo &slot() { return g_slots_info[kSlot - 1]; }

    /* The slot just after its card was pulled: only SLOT_SYNCED is left and
     * presence is awaited again. */
    void pulled_card() {
        slot().current_state = SLOT_SYNCED;
        slot().trans_timer.state_monitored = slot_present_event;
    }

    std::vector<std::string> no_valid_line(int state) {
        return {slot_line(kSlot, "INFO", "status_led.cpp",
                          "Transitioned from " + std::to_string(state) + " to no_valid_transition\n")};
    }

    /* Nothing changed: bits, awaited event, timer, cards.conf, commands. */
    void expect_untouched(int state, slotEvent monitored) {
        EXPECT_EQ(slot().current_state, state);
        EXPECT_EQ(slot().trans_timer.state_monitored, monitored);
        EXPECT_FALSE(timer_armed(kSlot));
        EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
        EXPECT_EQ(systemctl_calls(), "");
        EXPECT_EQ(normalized_ring(kSlot), no_valid_line(state));
    }
};

TEST_F(StaleEventTest, ActiveEventAfterRemovalLeavesTheSlotEmpty) {
    pulled_card();

    EXPECT_TRUE(active_transition(kSlot));

    expect_untouched(SLOT_SYNCED, slot_present_event);
    EXPECT_FALSE(root_.exists(led_file(kSlot, "led_status_state.runs")));
}

TEST_F(StaleEventTest, ReadyEventAfterRemovalRunsNoBringUp) {
    pulled_card();
    root_.write("/var/run/hw-management/system/lc4_enable", "0");

    EXPECT_TRUE(ready_transition(kSlot));

    expect_untouched(SLOT_SYNCED, slot_present_event);
    EXPECT_EQ(root_.read("/var/run/hw-management/system/lc4_enable"), "0");
}

TEST_F(StaleEventTest, VerifiedEventAfterRemovalPowersNothing) {
    pulled_card();
    root_.write("/var/run/hw-management/system/lc4_pwr", "0");

    EXPECT_TRUE(verified_transition(kSlot));

    expect_untouched(SLOT_SYNCED, slot_present_event);
    EXPECT_EQ(root_.read("/var/run/hw-management/system/lc4_pwr"), "0");
}

TEST_F(StaleEventTest, PoweredEventAfterRemovalChangesNothing) {
    pulled_card();

    EXPECT_TRUE(powered_transition(kSlot));

    expect_untouched(SLOT_SYNCED, slot_present_event);
}

TEST_F(StaleEventTest, SyncedEventAfterRemovalRecordsNoCardAndReloadsNothing) {
    slot().current_state = SLOT_EMPTY;
    slot().trans_timer.state_monitored = slot_present_event;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_EMPTY);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
    EXPECT_EQ(systemctl_calls(), "");
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_active.cpp", "Transitioned from 0 to SLOT_SYNCED\n"),
                  no_valid_line(0)[0],
              }));
}

TEST_F(StaleEventTest, PoweredEventAfterDisableLeavesThePowerBitClear) {
    /* A disable took the bring-up bits back while the event waited. */
    slot().current_state = SLOT_PRESENT | SLOT_SYNCED;
    slot().disabled = 1;
    slot().trans_timer.state_monitored = slot_ready_event;

    EXPECT_TRUE(powered_transition(kSlot));

    expect_untouched(SLOT_PRESENT | SLOT_SYNCED, slot_ready_event);
}

TEST_F(StaleEventTest, ReinsertedCardComesUpAfterAStaleVerifiedEvent) {
    pulled_card();
    verified_transition(kSlot);  // decided before the removal, run after it
    root_.write("/var/run/hw-management/lc4/eeprom/vpd_parsed",
                "PN_VPD_FIELD: KTR9600-C16\nSN_VPD_FIELD: SN4\nHW_REV_FIELD: 2\n");

    EXPECT_TRUE(present_transition(kSlot));
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_SYNCED);
}

/* ---------------------------------------------------------------- removal and the reload */

TEST_F(StaleEventTest, RemovalReleasesTheReloadHold) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED;
    slot().in_transition_reload_portd = 1;
    slot().trans_timer.state_monitored = slot_powered_event;

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
}

TEST_F(StaleEventTest, EmptiedParkedSlotLeavesTheRendezvous) {
    arriving_card(kSlot);
    slot().current_state |= SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_wait_reload_portd;

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
}

TEST_F(StaleEventTest, NewCardReloadsAtOnceAfterAnotherWasPulledBeforeSynced) {
    constexpr int kOther = 6;
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED;
    slot().in_transition_reload_portd = 1;
    slot().trans_timer.state_monitored = slot_synced_event;
    empty_transition(kSlot);
    arriving_card(kOther);

    EXPECT_TRUE(synced_transition(kOther));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(g_slots_info[kOther - 1].trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(g_slots_info[kOther - 1].in_transition_reload_portd, 0);
}

TEST_F(StaleEventTest, DisabledSlotReleasedWithItsBatchAwaitsItsNextStep) {
    constexpr int kOther = 6;
    arriving_card(kSlot);
    slot().current_state |= SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_wait_reload_portd;
    slot().disabled = 1;
    arriving_card(kOther);

    EXPECT_TRUE(synced_transition(kOther));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(g_slots_info[kOther - 1].trans_timer.state_monitored, slot_ready_event);
}

/* ---------------------------------------------------------------- late synced after the stuck verdict */

TEST_F(StaleEventTest, LateSyncedAfterStuckVerdictReloadsAndMovesOn) {
    arriving_card(kSlot);
    slot().in_transition_reload_portd = 0;  // the supervision gave up on synced
    slot().in_err_state = 1;

    EXPECT_TRUE(synced_transition(kSlot));

    EXPECT_EQ(systemctl_calls(), "reload portd\n");
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_GT(timer_remaining_ns(kSlot), 0);
}

TEST_F(StaleEventTest, ParkedSlotWithoutReloadFlagMovesOnWithItsNextEvent) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_wait_reload_portd;
    slot().in_transition_reload_portd = 0;

    EXPECT_TRUE(powered_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
}

TEST_F(StaleEventTest, ParkedSlotWithReloadFlagStaysParked) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_wait_reload_portd;
    slot().in_transition_reload_portd = 1;

    EXPECT_TRUE(powered_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_wait_reload_portd);
}

}  // namespace
