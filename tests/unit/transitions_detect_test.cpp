/*
 * Card detection: the present transition (identity from the VPD, card type
 * from the part number) and the empty transition (the card is forgotten,
 * SLOT_SYNCED survives, cards.conf records the removal).
 */
#include <gtest/gtest.h>

#include "transition_test_support.h"

using namespace chmgr_test;

namespace {

constexpr int kSlot = 3;
const char *const kVpdPath = "/var/run/hw-management/lc3/eeprom/vpd_parsed";

std::string vpd(const std::string &part, const std::string &serial = "SN0000003", const std::string &rev = "2") {
    return "PN_VPD_FIELD: " + part + "\nSN_VPD_FIELD: " + serial + "\nHW_REV_FIELD: " + rev + "\n";
}

class DetectTest : public TransitionTest {
  protected:
    DetectTest() : TransitionTest("1") {}

    void SetUp() override {
        TransitionTest::SetUp();
        root_.write("/etc/tarnel/cards.conf", default_conf());
        record_led_state_runs(kSlot);
    }

    slotInfo &slot() { return g_slots_info[kSlot - 1]; }
};

/* ---------------------------------------------------------------- present */

TEST_F(DetectTest, NewCardIsIdentifiedFromVpdAndAwaitsVerified) {
    root_.write(kVpdPath, vpd("KTR9600-C16", "SN-C16-0042", "2"));

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT);
    EXPECT_EQ(slot().card_type, CARD_TYPE_16X100G);
    EXPECT_EQ(serial_of(kSlot), "SN-C16-0042");
    EXPECT_EQ(slot().hw_revision, 2);
    EXPECT_EQ(slot().in_transition_reload_portd, 1);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_GT(timer_remaining_ns(kSlot), 0);
    EXPECT_LE(timer_remaining_ns(kSlot), 1 * kSecond);
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_detect.cpp",
                                                                          "Transitioned from 0 to SLOT_PRESENT\n")});
    EXPECT_TRUE(normalized_ring(0).empty());
    EXPECT_EQ(normalize(console_.text()), "[SLOT3] transitions_detect.cpp:<N> Transitioned from 0 to SLOT_PRESENT\n");
}

TEST_F(DetectTest, FourPortCardIsTypeOne) {
    root_.write(kVpdPath, vpd("KTR9600-C4", "SN4", "7"));

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().card_type, CARD_TYPE_4X400G);
    EXPECT_EQ(slot().hw_revision, 7);
    EXPECT_EQ(serial_of(kSlot), "SN4");
}

TEST_F(DetectTest, PartNumberWithMoreCharactersAfterC16IsTypeThree) {
    root_.write(kVpdPath, vpd("KTR9600-C16XYZ"));
    EXPECT_EQ(get_card_type(kSlot), 1);
    EXPECT_EQ(slot().card_type, CARD_TYPE_16X100G);
}

TEST_F(DetectTest, PartNumberWithMoreCharactersAfterC4IsTypeOne) {
    root_.write(kVpdPath, vpd("KTR9600-C4-R2"));
    EXPECT_EQ(get_card_type(kSlot), 1);
    EXPECT_EQ(slot().card_type, CARD_TYPE_4X400G);
}

TEST_F(DetectTest, ShortOrOtherPartNumbersAreUnsupported) {
    for (const char *part : {"KTR9600-C1", "KTR9600-C", "KTR9600-C8", "ktr9600-c16", "XKTR9600-C16"}) {
        clear_log_rings();
        slot().card_type = CARD_TYPE_16X100G;
        root_.write(kVpdPath, vpd(part));
        EXPECT_EQ(get_card_type(kSlot), 0) << part;
        EXPECT_EQ(slot().card_type, CARD_TYPE_NONE) << part;
        EXPECT_EQ(normalized_ring(kSlot),
                  std::vector<std::string>{slot_line(kSlot, "ERR", "transitions_detect.cpp",
                                                     std::string("Unsupported line card inserted(vpd_value = ") + part +
                                                         ")\n")})
            << part;
    }
}

TEST_F(DetectTest, UnsupportedCardStopsAtPresentWithoutTimer) {
    root_.write(kVpdPath, vpd("KTR9600-C8"));
    slot().trans_timer.state_monitored = slot_present_event;

    EXPECT_FALSE(present_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT);
    EXPECT_EQ(slot().card_type, CARD_TYPE_NONE);
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(serial_of(kSlot), "none");
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Transitioned from 0 to SLOT_PRESENT\n"),
                  slot_line(kSlot, "ERR", "transitions_detect.cpp",
                            "Unsupported line card inserted(vpd_value = KTR9600-C8)\n"),
              }));
}

TEST_F(DetectTest, MissingVpdFileIsAnUnsupportedCard) {
    EXPECT_FALSE(present_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT);
    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(lines_from(kSlot, "transitions_detect.cpp").back(),
              slot_line(kSlot, "ERR", "transitions_detect.cpp", "Unsupported line card inserted(vpd_value = ERROR)\n"));
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "vpd.cpp", "Unable to open file " + root_.at(kVpdPath) + "\n")});
}

TEST_F(DetectTest, EmptyVpdFileIsAnUnsupportedCard) {
    root_.write(kVpdPath, "");

    EXPECT_FALSE(present_transition(kSlot));

    EXPECT_EQ(lines_from(kSlot, "transitions_detect.cpp").back(),
              slot_line(kSlot, "ERR", "transitions_detect.cpp", "Unsupported line card inserted(vpd_value = ERROR)\n"));
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{global_line("ERR", "vpd.cpp", "Unable to locate field PN_VPD_FIELD\n")});
}

TEST_F(DetectTest, MissingSerialAndRevisionFieldsReadAsErrorAndZero) {
    root_.write(kVpdPath, "PN_VPD_FIELD: KTR9600-C16\n");

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().card_type, CARD_TYPE_16X100G);
    EXPECT_EQ(serial_of(kSlot), "ERROR");
    EXPECT_EQ(slot().hw_revision, 0);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      global_line("ERR", "vpd.cpp", "Unable to locate field SN_VPD_FIELD\n"),
                                      global_line("ERR", "vpd.cpp", "Unable to locate field HW_REV_FIELD\n"),
                                  }));
}

TEST_F(DetectTest, OverlongValuesAreCutToTheirBuffers) {
    std::string part = "KTR9600-C16" + std::string(300, 'Z');
    std::string serial(100, 'S');
    std::string revision(200, '9');
    root_.write(kVpdPath, vpd(part, serial, revision));

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().card_type, CARD_TYPE_16X100G);
    EXPECT_EQ(serial_of(kSlot), std::string(SERIAL_NO_SIZE, 'S'));
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
}

TEST_F(DetectTest, SerialOf32CharactersIsKeptWhole) {
    std::string serial = "SN-0123456789-ABCDEFGHIJ-KLMNOPQ";
    ASSERT_EQ(serial.size(), 32u);
    root_.write(kVpdPath, vpd("KTR9600-C4", serial));

    EXPECT_TRUE(present_transition(kSlot));

    char field[SERIAL_NO_SIZE];
    slot_serial_get(kSlot, field);
    EXPECT_EQ(std::string(field, SERIAL_NO_SIZE), serial);
}

TEST_F(DetectTest, OverlongUnsupportedPartIsLoggedCut) {
    std::string part(300, 'P');
    root_.write(kVpdPath, vpd(part));

    EXPECT_EQ(get_card_type(kSlot), 0);

    EXPECT_EQ(normalized_ring(kSlot),
              std::vector<std::string>{slot_line(kSlot, "ERR", "transitions_detect.cpp",
                                                 "Unsupported line card inserted(vpd_value = " + std::string(127, 'P') +
                                                     ")\n")});
}

TEST_F(DetectTest, VpdOf4095BytesOrMoreWarnsAndIsSearchedInItsStart) {
    std::string text = vpd("KTR9600-C4", "SNBIG", "3");
    text += "PAD: " + std::string(5000, 'x') + "\n";
    root_.write(kVpdPath, text);

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().card_type, CARD_TYPE_4X400G);
    EXPECT_EQ(serial_of(kSlot), "SNBIG");
    std::vector<std::string> expected(3, global_line("WARN", "vpd.cpp", "The VPD buffer read is overflowing\n"));
    EXPECT_EQ(normalized_ring(0), expected);
}

TEST_F(DetectTest, PartNumberBeyondTheFirst4095BytesIsNotFound) {
    root_.write(kVpdPath, "PAD: " + std::string(5000, 'x') + "\n" + vpd("KTR9600-C16"));

    EXPECT_FALSE(present_transition(kSlot));

    EXPECT_EQ(slot().card_type, CARD_TYPE_NONE);
    EXPECT_EQ(lines_from(kSlot, "transitions_detect.cpp").back(),
              slot_line(kSlot, "ERR", "transitions_detect.cpp", "Unsupported line card inserted(vpd_value = ERROR)\n"));
}

TEST_F(DetectTest, ProvisionedSlotDoesNotFlagReloadOfPortd) {
    root_.write(kVpdPath, vpd("KTR9600-C16"));
    slot().provisioned = 1;
    slot().provisioned_type = CARD_TYPE_16X100G;

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().in_transition_reload_portd, 0);
}

TEST_F(DetectTest, PresentOnPoweredSlotTurnsLedOrange) {
    root_.write(kVpdPath, vpd("KTR9600-C16"));
    slot().current_state = SLOT_POWERED | SLOT_SYNCED;

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_POWERED | SLOT_SYNCED);
    EXPECT_EQ(root_.read("/var/run/hw-management/lc3/led/led_status_orange"), "255\n");
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Transitioned from 12 to SLOT_PRESENT\n"),
                  slot_line(kSlot, "INFO", "status_led.cpp", "Setting status LED orange\n"),
              }));
}

TEST_F(DetectTest, PresentOnUnpoweredSlotLeavesLedAlone) {
    root_.write(kVpdPath, vpd("KTR9600-C16"));
    slot().current_state = SLOT_SYNCED;

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_FALSE(root_.exists("/var/run/hw-management/lc3/led/led_status_orange"));
    EXPECT_FALSE(root_.exists("/var/run/hw-management/lc3/led/led_status_state.runs"));
}

TEST_F(DetectTest, RepeatedPresentWithKnownCardOnlyRearms) {
    slot().current_state = SLOT_PRESENT;
    slot().card_type = CARD_TYPE_16X100G;
    slot_serial_set(kSlot, "SNKEEP");
    slot().trans_timer.state_monitored = slot_powered_event;

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT);
    EXPECT_EQ(serial_of(kSlot), "SNKEEP");
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_GT(timer_remaining_ns(kSlot), 0);
    EXPECT_LE(timer_remaining_ns(kSlot), 1 * kSecond);
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_detect.cpp",
                                                                          "Already in present state\n")});
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(DetectTest, RepeatedPresentWithUnknownTypeReadsTheTypeAgain) {
    root_.write(kVpdPath, vpd("KTR9600-C4"));
    slot().current_state = SLOT_PRESENT;

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().card_type, CARD_TYPE_4X400G);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_detect.cpp",
                                                                          "Already in present state\n")});
}

TEST_F(DetectTest, RepeatedPresentGivesUpAfterTwoFailedReads) {
    char err[256];
    ASSERT_TRUE(env_configure(root_.path().c_str(), "0.0001", err, sizeof err));  /* the retry waits 5 s */
    root_.write(kVpdPath, vpd("KTR9600-C8"));
    slot().current_state = SLOT_PRESENT;
    slot().in_transition_reload_portd = 1;
    slot().trans_timer.state_monitored = slot_verified_event;

    EXPECT_FALSE(present_transition(kSlot));

    EXPECT_EQ(slot().in_transition_reload_portd, 0);
    EXPECT_EQ(slot().current_state, SLOT_PRESENT);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Already in present state\n"),
                  slot_line(kSlot, "ERR", "transitions_detect.cpp",
                            "Unsupported line card inserted(vpd_value = KTR9600-C8)\n"),
                  slot_line(kSlot, "ERR", "transitions_detect.cpp",
                            "Unsupported line card inserted(vpd_value = KTR9600-C8)\n"),
                  /* This message has no line end. */
                  slot_line(kSlot, "ERR", "transitions_detect.cpp", "Unable to determine card type"),
              }));
}

TEST_F(DetectTest, PresentTimerFailureIsLogged) {
    root_.write(kVpdPath, vpd("KTR9600-C16"));
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(present_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_verified_event);
    EXPECT_EQ(lines_from(0, "transitions_detect.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_detect.cpp", "Unable to set timer\n")});
}

/* ---------------------------------------------------------------- empty */

TEST_F(DetectTest, RemovalForgetsCardKeepsSyncedAndRecordsConfiguredSpeed) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY | SLOT_ACTIVE;
    slot().card_type = CARD_TYPE_16X100G;
    slot().hw_revision = 2;
    slot_serial_set(kSlot, "SN0000003");
    slot().trans_timer.state_monitored = slot_empty_event;
    std::string conf = default_conf();
    conf.replace(conf.find("3       0G"), conf_line(3, 0, 0, 0, 0, "Offline", "enable").size(),
                 conf_line(3, 100, 0, 100, 0, "Online", "enable"));
    root_.write("/etc/tarnel/cards.conf", conf);

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_SYNCED);
    EXPECT_EQ(serial_of(kSlot), "none");
    EXPECT_EQ(slot().card_type, CARD_TYPE_NONE);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
    EXPECT_GT(timer_remaining_ns(kSlot), 1 * kSecond);
    EXPECT_LE(timer_remaining_ns(kSlot), 10 * kSecond);
    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Transitioned from 63 to SLOT_EMPTY\n"),
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Card type present:3\n"),
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "port_speed setting for cards.conf- 100\n"),
              }));
    std::string expected = default_conf();
    expected.replace(expected.find("3       0G"), conf_line(3, 0, 0, 0, 0, "Offline", "enable").size(),
                     conf_line(3, 0, 0, 100, 0, "Offline", "enable"));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), expected);
}

TEST_F(DetectTest, RemovalFromDisabledSlotWritesDisable) {
    slot().current_state = SLOT_PRESENT;
    slot().card_type = CARD_TYPE_4X400G;
    slot().disabled = 1;

    EXPECT_TRUE(empty_transition(kSlot));

    std::string expected = default_conf();
    expected.replace(expected.find("3       0G"), conf_line(3, 0, 0, 0, 0, "Offline", "enable").size(),
                     conf_line(3, 0, 0, 400, 0, "Offline", "disable"));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), expected);
}

TEST_F(DetectTest, RemovalOfUnknownCardRecordsNoPorts) {
    slot().current_state = SLOT_PRESENT;

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(normalized_ring(kSlot),
              (std::vector<std::string>{
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Transitioned from 1 to SLOT_EMPTY\n"),
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "Card type present:0\n"),
                  slot_line(kSlot, "INFO", "transitions_detect.cpp", "port_speed setting for cards.conf- 0\n"),
              }));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
}

TEST_F(DetectTest, RemovalFromProvisionedSlotKeepsProvisionedSpeed) {
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED;
    slot().provisioned = 1;
    slot().provisioned_type = CARD_TYPE_4X400G;
    slot().card_type = CARD_TYPE_4X400G;

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_SYNCED);
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_detect.cpp",
                                                                          "Transitioned from 15 to SLOT_EMPTY\n")});
    std::string expected = default_conf();
    expected.replace(expected.find("3       0G"), conf_line(3, 0, 0, 0, 0, "Offline", "enable").size(),
                     conf_line(3, 0, 400, 400, 0, "Offline", "enable"));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), expected);
}

TEST_F(DetectTest, RemovalLeavesLedAndPowerAlone) {
    slot().current_state = SLOT_PRESENT | SLOT_POWERED;
    root_.write("/var/run/hw-management/system/lc3_pwr", "1\n");

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(root_.read("/var/run/hw-management/system/lc3_pwr"), "1\n");
    EXPECT_FALSE(root_.exists("/var/run/hw-management/lc3/led/led_status_state.runs"));
}

TEST_F(DetectTest, RemovalEventForEmptySlotChangesNothing) {
    slot().current_state = SLOT_SYNCED;
    slot().trans_timer.state_monitored = slot_present_event;
    slot().card_type = CARD_TYPE_16X100G;

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_SYNCED);
    EXPECT_EQ(slot().card_type, CARD_TYPE_16X100G);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
    EXPECT_FALSE(timer_armed(kSlot));
    EXPECT_EQ(root_.read("/etc/tarnel/cards.conf"), default_conf());
    EXPECT_EQ(normalized_ring(kSlot), std::vector<std::string>{slot_line(kSlot, "INFO", "transitions_detect.cpp",
                                                                          "Already in SLOT_EMPTY state\n")});
}

TEST_F(DetectTest, RemovalWithoutCardsConfStillForgetsTheCard) {
    root_.remove("/etc/tarnel/cards.conf");
    slot().current_state = SLOT_PRESENT | SLOT_VERIFIED;
    slot().card_type = CARD_TYPE_16X100G;

    EXPECT_TRUE(empty_transition(kSlot));

    EXPECT_EQ(slot().current_state, 0);
    EXPECT_EQ(slot().card_type, CARD_TYPE_NONE);
    EXPECT_EQ(slot().trans_timer.state_monitored, slot_present_event);
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf"));
}

TEST_F(DetectTest, RemovalTimerFailureIsLogged) {
    slot().current_state = SLOT_PRESENT;
    BrokenTimer broken(kSlot);

    EXPECT_FALSE(empty_transition(kSlot));

    EXPECT_EQ(slot().current_state, 0);
    EXPECT_EQ(lines_from(0, "transitions_detect.cpp"),
              std::vector<std::string>{global_line("ERR", "transitions_detect.cpp", "Unable to set timer\n")});
}

TEST_F(DetectTest, InsertRemoveInsertKeepsSyncedAndReadsTheNewCard) {
    root_.write(kVpdPath, vpd("KTR9600-C16", "SNFIRST"));
    ASSERT_TRUE(present_transition(kSlot));
    slot().current_state |= SLOT_SYNCED;
    ASSERT_TRUE(empty_transition(kSlot));
    root_.write(kVpdPath, vpd("KTR9600-C4", "SNSECOND", "5"));

    EXPECT_TRUE(present_transition(kSlot));

    EXPECT_EQ(slot().current_state, SLOT_PRESENT | SLOT_SYNCED);
    EXPECT_EQ(slot().card_type, CARD_TYPE_4X400G);
    EXPECT_EQ(serial_of(kSlot), "SNSECOND");
    EXPECT_EQ(slot().hw_revision, 5);
}

using DetectDeathTest = DetectTest;

TEST_F(DetectDeathTest, SlotOutOfRangeStopsTheProcess) {
    EXPECT_DEATH(present_transition(0), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(present_transition(9), "slot_id >= 1 && slot_id <= 8");
    EXPECT_DEATH(empty_transition(0), "slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600");
    EXPECT_DEATH(empty_transition(9), "slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600");
    EXPECT_DEATH(get_card_type(0), "slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600");
    EXPECT_DEATH(get_card_type(9), "slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600");
}

}  // namespace
