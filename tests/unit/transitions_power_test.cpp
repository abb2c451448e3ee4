/*
 * Verification and power-up: a disabled slot or a wrong card for a
 * pre-provisioned slot is refused without power; an accepted card is
 * powered and its INI checked; power-up turns the LED orange and chooses
 * SYNCED or READY as the next step.
 */
#include <gtest/gtest.h>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

constexpr int kSlot = 3;
const char *const kPowerFile = "/var/run/hw-management/system/lc3_pwr";
const char *const kOrangeFile = "/var/run/hw-management/lc3/led/led_status_orange";
const char *const kStateRuns = "/var/run/hw-management/lc3/led/led_status_state.runs";

class PowerTest : public TransitionTest {
  protected:
    void SetUp() override {
        TransitionTest::SetUp();
        root_.write("/etc/tarnel/cards.conf", default_conf());
        root_.write(kPowerFile, "0");
        record_led_state_runs(kSlot);
        /* A present, identified 16-port card, as the present step leaves it. */
        slot().current_state = SLOT_PRESENT;
        slot().card_type = CARD_TYPE_16X100G;
        slot().hw_revision = 2;
        slot().in_transition_reload_portd = 1;
        slot().trans_timer.state_monitored = slot_verified_event;
    }

    slotInfo &slot() { return g_slots_info[kSlot - 1]; }
    std::string power_line() { return "Writing to " + root_.at(kPowerFile) + "\n"; }

    /* What the verified step logs for a card it powers and checks the INI
     * of; `more` follows. */
    std::vector<std::string> powering_lines(const std::vector<std::string> &more = {}) {
        std::vector<std::string> lines{
            slot_line(kSlot, "INFO", "transitions_power.cpp", "Transitioned from 1 to SLOT_VERIFIED\n"),
            slot_line(kSlot, "INFO", "transitions_power.cpp", power_line()),
            slot_line(kSlot, "INFO", "transitions_power.cpp", "Checking INI for slot\n"),
        };
        lines.insert(lines.end(), more.begin(), more.end());
        return lines;
    }
};

/* ---------------------------------------------------------------- verified */

TEST_F(PowerTest, VerifiedCardIsPoweredAndKeepsFittingFirmwareIni) {
    root_.write("/var/run/ks-sim/slot3/ini_identity", "3 2 5\n");
    root_.write("/etc/tarnel/cards.conf", conf_with(3, conf_line(3, 0, 0, 100, 0, "Offline", "enable")));

    EXPECT_TRUE(verified_transition(kSlot));

    EXPECT_EQ(root_.read(kPowerFile), "1\n");
    /* The firmware INI fits: synced at once, no reload of portd needed. */
    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED);
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_powered_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(lines_from(kSlot, "transitions_power.cpp"), powering_lines());
    EXPECT_NE(all_rings_text().find("Using FW stored INI\n"), std::string::npos);
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf_with(3, conf_line(3, 100, 0, 100, 0, "Offline", "enable")));
}

TEST_F(PowerTest, VerifiedCardWithoutUsableIniIsPoweredAnyway) {
    /* A 4-port card: no firmware INI, no shipped image, no EEPROM INI. */
    slot().card_type = CARD_TYPE_4X400G;

    EXPECT_TRUE(verified_transition(kSlot));

    EXPECT_EQ(root_.read(kPowerFile), "1\n");
    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_powered_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(lines_from(kSlot, "transitions_power.cpp"),
              powering_lines({slot_line(kSlot, "ERR", "transitions_power.cpp",
                                        "Failed to locate and program INI file\n")}));
    /* It will not reach SYNCED by itself: it holds no other card's reload. */
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
}

TEST_F(PowerTest, PowerRequestIsWrittenBeforeTheIniCheck) {
    /* The card EEPROM INI is read during the check; by then power must be on. */
    slot().card_type = CARD_TYPE_4X400G;
    console_.text();

    verified_transition(kSlot);

    std::string console = normalize(console_.text());
    size_t writing = console.find("Writing to ");
    size_t checking = console.find("Checking INI for slot");
    ASSERT_NE(writing, std::string::npos);
    ASSERT_NE(checking, std::string::npos);
    EXPECT_LT(writing, checking);
}

TEST_F(PowerTest, DisabledSlotClearsReloadFlagAndPowersNothing) {
    slot().disabled = 1;

    EXPECT_TRUE(verified_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT);
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(root_.read(kPowerFile), "0");
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_power.cpp",
                                                                          "card inserted in a slot that is disabled\n")});
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
}

TEST_F(PowerTest, WrongCardInProvisionedSlotStopsVerifiedWithoutPower) {
    slot().provisioned = 1;
    slot().provisioned_type = CARD_TYPE_4X400G;
    slot().in_transition_reload_portd = 0;

    EXPECT_FALSE(verified_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(root_.read(kPowerFile), "0");
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_power.cpp", "Transitioned from 1 to SLOT_VERIFIED\n"),
                  slot_line(kSlot, "ERR", "transitions_power.cpp",
                            "Different card inserted than what is pre-provisioned\n"),
              }));
}

TEST_F(PowerTest, MatchingCardInProvisionedSlotIsRecordedAndPoweredWithoutIniCheck) {
    slot().provisioned = 1;
    slot().provisioned_type = CARD_TYPE_16X100G;
    slot().in_transition_reload_portd = 0;
    slot().disabled = 0;

    EXPECT_TRUE(verified_transition(kSlot));

    EXPECT_EQ(root_.read(kPowerFile), "1\n");
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), conf_with(3, conf_line(3, 100, 100, 100, 0, "Offline", "enable")));
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_powered_event);
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_power.cpp", "Transitioned from 1 to SLOT_VERIFIED\n"),
                  slot_line(kSlot, "INFO", "transitions_power.cpp", power_line()),
              }));
    EXPECT_TRUE(root_.read("/var/run/ks-sim/calls.log").empty());
}

TEST_F(PowerTest, SlotUnderDebugSkipsIniCheck) {
    slot().slot_in_debug = 1;

    EXPECT_TRUE(verified_transition(kSlot));

    EXPECT_EQ(root_.read(kPowerFile), "1\n");
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_power.cpp", "Transitioned from 1 to SLOT_VERIFIED\n"),
                  slot_line(kSlot, "INFO", "transitions_power.cpp", power_line()),
              }));
}

TEST_F(PowerTest, RepeatedVerifiedOnlyRearmsForPowered) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED;
    slot().disabled = 1;  /* the repeat is recognised before the disabled check */
    slot().trans_timer.state_monitored = slot_synced_event;

    EXPECT_TRUE(verified_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED);
    EXPECT_EQ(slot().in_transition_reload_portd, 1);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_powered_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(root_.read(kPowerFile), "0");
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_power.cpp",
                                                                          "Already in VERIFIED state\n")});
}

TEST_F(PowerTest, MissingPowerDirectoryIsPassedOver) {
    slot().slot_in_debug = 1;
    root_.remove(kPowerFile);
    rmdir(root_.at("/var/run/hw-management/system").c_str());

    EXPECT_TRUE(verified_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_powered_event);
    EXPECT_EQ(normalized_ring(kSlot)[1], slot_line(kSlot, "INFO", "transitions_power.cpp", power_line()));
}

TEST_F(PowerTest, VerifiedTimerFailureIsLogged) {
    slot().slot_in_debug = 1;
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(verified_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED);
    EXPECT_EQ(root_.read(kPowerFile), "1\n");
    EXPECT_EQ(lines_from(0, "transitions_power.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_power.cpp", "Unable to start timer\n")});
}

/* ---------------------------------------------------------------- powered */

TEST_F(PowerTest, PoweredNewCardTurnsOrangeAndAwaitsSynced) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED;
    slot().trans_timer.state_monitored = slot_powered_event;

    EXPECT_TRUE(powered_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_synced_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(root_.read(kOrangeFile), "255\n");
    EXPECT_EQ(root_.read(kStateRuns), "ran\n");
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_power.cpp", "Transitioned from 3 to SLOT_POWERED\n"),
                  slot_line(kSlot, "INFO", "status_led.cpp", "Setting status LED orange\n"),
              }));
}

TEST_F(PowerTest, PoweredSlotThatKeptSyncedAwaitsReady) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_powered_event;

    EXPECT_TRUE(powered_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_ready_event);
    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED);
}

TEST_F(PowerTest, PoweredWhileParkedForPortdReloadStaysParked) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_wait_reload_portd;

    EXPECT_TRUE(powered_transition(kSlot));

    EXPECT_EQ(slot().trans_timer.state_monitored, slot_wait_reload_portd);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(slot().current_state & SLOT_POWERED, SLOT_POWERED);
}

TEST_F(PowerTest, RepeatedPoweredDoesNotWriteLedAgain) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED;
    slot().trans_timer.state_monitored = slot_ready_event;

    EXPECT_TRUE(powered_transition(kSlot));

    EXPECT_FALSE(root_.exists(kOrangeFile));
    EXPECT_FALSE(root_.exists(kStateRuns));
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_synced_event);
    EXPECT_TRUE(timer_armed(kSlot));
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_power.cpp",
                                                                          "Already in POWERED state\n")});
}

TEST_F(PowerTest, PoweredTimerFailureKeepsBitAndLed) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED;
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(powered_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED);
    EXPECT_EQ(root_.read(kOrangeFile), "255\n");
    EXPECT_EQ(lines_from(0, "transitions_power.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_power.cpp", "Unable to start timer\n")});
}

TEST_F(PowerTest, PowerBudgetAlwaysAllows) {
    EXPECT_TRUE(power_within_budget(kSlot));
    EXPECT_TRUE(recalculate_power_budget(kSlot));
}

using PowerDeathTest = PowerTest;

TEST_F(PowerDeathTest, SlotOutOfRangeStopsTheProcess) {
    EXPECT_DEATH(verified_transition(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(verified_transition(9), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(powered_transition(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(powered_transition(9), "slot_id >= 1 && slot_id <= 8");
}

}  // namespace
