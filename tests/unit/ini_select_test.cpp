/*
 * INI selection: the compatibility rule, the shipped-image and EEPROM
 * readers, and the whole decision for a verified card, run against the
 * simulated SDK, a real cards.conf and stand-in "uname" and "systemctl"
 * commands first on PATH.
 */
#include <gtest/gtest.h>

#include <algorithm>

#include "chmgr_sdk.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

const std::string kRelease = "5.10.0-test";
const std::string kCardsConf = "/etc/tarnel/cards.conf";

std::string ini_dir(const std::string &release = kRelease) {
    return "/usr/share/borlin/firmware/" + release + "/INI/";
}

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) out += (char)v;
    return out;
}

/* Header of a shipped 16-port image: minor 5, revision 2, card-type byte 2. */
const std::string kShippedHeader = bytes({0x05, 0x00, 0x00, 0x02, 0x02});

std::string conf_line(int slot, int detected, int provisioned, int configured, int dirty, const char *state = "Offline",
                      const char *admin = "enable") {
    char line[256];
    snprintf(line, sizeof line, "%d       %dG        %dG               %3dG        %d  %s   %s\n", slot, detected,
             provisioned, configured, dirty, state, admin);
    return line;
}

/* Only the lines a given source file wrote, in order. */
std::string lines_of(const std::string &text, const std::string &source) {
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        size_t stop = end == std::string::npos ? text.size() : end + 1;
        std::string line = text.substr(start, stop - start);
        if (line.find(source + ":<N> ") != std::string::npos) out += line;
        start = stop;
    }
    return out;
}

class IniSelectTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        saved_path_ = getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin";
        std::string bin = root_.at("/standins");
        root_.write("/standins/uname", "#!/bin/sh\ncat " + root_.at("/standins/uname.out") + "\n");
        root_.write("/standins/systemctl", "#!/bin/sh\necho \"$*\" >> " + root_.at("/standins/systemctl.log") + "\n");
        chmod((bin + "/uname").c_str(), 0755);
        chmod((bin + "/systemctl").c_str(), 0755);
        uname_prints(kRelease + "\n");
        setenv("PATH", (bin + ":" + saved_path_).c_str(), 1);
    }
    void TearDown() override { setenv("PATH", saved_path_.c_str(), 1); }

    void uname_prints(const std::string &text) { root_.write("/standins/uname.out", text); }
    std::string systemctl_log() const { return root_.read("/standins/systemctl.log"); }
    std::string calls() const { return root_.read("/var/run/ks-sim/calls.log"); }
    std::string console() const { return normalize(console_.text()); }
    std::string ini_lines() const { return lines_of(console(), "ini_select.cpp"); }
    void ship(const std::string &name, const std::string &content) { root_.write(ini_dir() + name, content); }
    void firmware_ini(int slot, const std::string &identity) {
        root_.write("/var/run/ks-sim/slot" + std::to_string(slot) + "/ini_identity", identity);
    }
    void eeprom(int slot, const std::string &parsed, const std::string &image) {
        std::string dir = "/var/run/hw-management/lc" + std::to_string(slot) + "/eeprom/";
        root_.write(dir + "ini_parsed", parsed);
        root_.write(dir + "ini", image);
    }
    /* cards.conf with a line per slot, `slot3` in place of slot 3's line. */
    void cards_conf(const std::string &slot3) {
        std::string text;
        for (int slot = 1; slot <= 8; ++slot) text += slot == 3 ? slot3 : conf_line(slot, 0, 0, 0, 0);
        root_.write(kCardsConf, text);
    }
    std::string cards_conf_with(const std::string &slot3) const {
        std::string text;
        for (int slot = 1; slot <= 8; ++slot) text += slot == 3 ? slot3 : conf_line(slot, 0, 0, 0, 0);
        return text;
    }
    static slotInfo &slot(int slot_id) { return g_slots_info[slot_id - 1]; }
    /* A verified card of `type` and `revision` in the slot. */
    static void card(int slot_id, int type, int revision) {
        slot(slot_id).current_state = SLOT_PRESENT | SLOT_VERIFIED;
        slot(slot_id).card_type = type;
        slot(slot_id).hw_revision = revision;
    }
    std::string executing_line(const std::string &release = kRelease) const {
        return "ini_select.cpp:<N> Executing:ls " + root_.at(ini_dir(release)) + "Buff_KTR9600-C16_INI_EPROM*.bin\n";
    }

    SandboxRoot root_;
    ConsoleCapture console_;
    std::string saved_path_;
};

/* ---- compatibility rule ----------------------------------------------- */

TEST_F(IniSelectTest, EmptySlotAcceptsAnyIni) {
    iniInfo ini{};
    ini.card_type = 1;
    EXPECT_TRUE(compatible_ini(2, &ini));
    EXPECT_EQ(console(), "");
}

TEST_F(IniSelectTest, CardTypeMismatchIsIncompatible) {
    card(2, 3, 2);
    iniInfo ini{};
    ini.card_type = 1;
    ini.hw_revision = 2;
    EXPECT_FALSE(compatible_ini(2, &ini));
    EXPECT_EQ(normalized_ring(2),
              std::vector<std::string>{"[SLOT2:INFO]<T> ini_select.cpp:<N> Card Type in slot:3, card type in ini:1\n"});
}

TEST_F(IniSelectTest, RevisionMismatchIsIncompatible) {
    card(2, 3, 2);
    iniInfo ini{};
    ini.card_type = 3;
    ini.hw_revision = 4;
    EXPECT_FALSE(compatible_ini(2, &ini));
    EXPECT_EQ(normalized_ring(2),
              std::vector<std::string>{"[SLOT2:INFO]<T> ini_select.cpp:<N> HW revision in slot:2, HW revision in ini:4\n"});
}

TEST_F(IniSelectTest, MinorVersionNeverCounts) {
    card(2, 3, 2);
    iniInfo ini{};
    ini.card_type = 3;
    ini.hw_revision = 2;
    ini.minor = 77;
    EXPECT_TRUE(compatible_ini(2, &ini));
    EXPECT_EQ(console(), "");
}

TEST_F(IniSelectTest, ProvisionedSlotIsJudgedByProvisionedTypeOnly) {
    card(5, 1, 9);
    slot(5).provisioned = 1;
    slot(5).provisioned_type = 3;
    iniInfo ini{};
    ini.card_type = 3;
    ini.hw_revision = 2;
    EXPECT_TRUE(compatible_ini(5, &ini));
    ini.card_type = 1;
    ini.hw_revision = 9;
    EXPECT_FALSE(compatible_ini(5, &ini));
    EXPECT_EQ(normalized_ring(5), std::vector<std::string>{
                                      "[SLOT5:INFO]<T> ini_select.cpp:<N> Card Type provisioned for slot:3, card type in ini:1\n"});
}

/* ---- shipped image ----------------------------------------------------- */

TEST_F(IniSelectTest, OnlyTheSixteenPortCardHasAShippedImage) {
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    iniInfo ini{};
    ini.card_type = 9;
    ini.hw_revision = 9;
    ini.minor = 9;
    strcpy(ini.ini_file_name, "kept");
    EXPECT_FALSE(get_sdk_packaged_ini_info(1, &ini));
    EXPECT_EQ(ini.card_type, 0);
    EXPECT_EQ(ini.hw_revision, 0);
    EXPECT_EQ(ini.minor, 0);
    EXPECT_STREQ(ini.ini_file_name, "kept");
    EXPECT_EQ(console(), "");
}

TEST_F(IniSelectTest, ShippedHeaderGivesMinorRevisionAndRawCardByte) {
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader + "rest of the image");
    iniInfo ini{};
    EXPECT_TRUE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(ini.minor, 5);
    EXPECT_EQ(ini.hw_revision, 2);
    EXPECT_EQ(ini.card_type, 2);
    EXPECT_EQ(std::string(ini.ini_file_name), root_.at(ini_dir() + "Buff_KTR9600-C16_INI_EPROM_A.bin"));
    EXPECT_EQ(console(), executing_line());
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{"[INFO]<T> ini_select.cpp:<N> Executing:ls " +
                                                           root_.at(ini_dir()) + "Buff_KTR9600-C16_INI_EPROM*.bin\n"});
}

TEST_F(IniSelectTest, MinorVersionIsNotSwappedButRevisionIs) {
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", bytes({0x01, 0x02, 0x03, 0x04, 0x00}));
    iniInfo ini{};
    EXPECT_TRUE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(ini.minor, 0x0201);
    EXPECT_EQ(ini.hw_revision, 0x0304);
    EXPECT_EQ(ini.card_type, 0);
}

TEST_F(IniSelectTest, FirstImageInListingOrderWins) {
    ship("Buff_KTR9600-C16_INI_EPROM_B.bin", bytes({0x07, 0x00, 0x00, 0x03, 0x02}));
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    ship("Other_INI.bin", bytes({0x09, 0x00, 0x00, 0x09, 0x02}));
    iniInfo ini{};
    EXPECT_TRUE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(ini.minor, 5);
    EXPECT_EQ(std::string(ini.ini_file_name), root_.at(ini_dir() + "Buff_KTR9600-C16_INI_EPROM_A.bin"));
}

TEST_F(IniSelectTest, ShortImageReadsMissingBytesAsZero) {
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", bytes({0x05, 0x00, 0x01}));
    iniInfo ini{};
    EXPECT_TRUE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(ini.minor, 5);
    EXPECT_EQ(ini.hw_revision, 0x0100);
    EXPECT_EQ(ini.card_type, 0);
}

TEST_F(IniSelectTest, EmptyImageGivesAZeroIdentity) {
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", "");
    iniInfo ini{};
    ini.minor = 4;
    EXPECT_TRUE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(ini.minor, 0);
    EXPECT_EQ(ini.hw_revision, 0);
    EXPECT_EQ(ini.card_type, 0);
}

TEST_F(IniSelectTest, MissingImageDirectoryGivesAnEmptyName) {
    iniInfo ini{};
    EXPECT_FALSE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(console(), executing_line() + "ini_select.cpp:<N> ERR Unable to read INI file \n");
}

TEST_F(IniSelectTest, UnamePrintingNothingGivesAnEmptyRelease) {
    uname_prints("");
    iniInfo ini{};
    EXPECT_FALSE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(console(), executing_line("") + "ini_select.cpp:<N> ERR Unable to read INI file \n");
}

TEST_F(IniSelectTest, VeryLongUnameLineIsCutToTheLineBuffer) {
    uname_prints(std::string(300, 'x') + "\n");
    iniInfo ini{};
    EXPECT_FALSE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(console(), executing_line(std::string(126, 'x')) + "ini_select.cpp:<N> ERR Unable to read INI file \n");
}

TEST_F(IniSelectTest, ReleaseOutsideLettersDigitsAndDotsFindsItsImage) {
    const std::string release = "5.10.0~tarnel";
    uname_prints(release + "\n");
    root_.write(ini_dir(release) + "Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    iniInfo ini{};
    EXPECT_TRUE(get_sdk_packaged_ini_info(3, &ini));
    EXPECT_EQ(ini.card_type, 2);
    EXPECT_EQ(std::string(ini.ini_file_name), root_.at(ini_dir(release) + "Buff_KTR9600-C16_INI_EPROM_A.bin"));
    EXPECT_EQ(console(), executing_line(release));
}

/* ---- EEPROM image ------------------------------------------------------ */

TEST_F(IniSelectTest, EepromIdentityFromTheParsedFile) {
    eeprom(4, "HW_REVISION: 2\nMINOR_INI_VERSION: 7\nCARD_TYPE: 1\n", "");
    iniInfo ini{};
    EXPECT_TRUE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(ini.card_type, 1);
    EXPECT_EQ(ini.hw_revision, 2);
    EXPECT_EQ(ini.minor, 7);
    EXPECT_EQ(std::string(ini.ini_file_name), root_.at("/var/run/hw-management/lc4/eeprom/ini"));
    EXPECT_EQ(normalized_ring(4), std::vector<std::string>{"[SLOT4:INFO]<T> ini_select.cpp:<N> INI FILE FROM EEPROM=" +
                                                           root_.at("/var/run/hw-management/lc4/eeprom/ini") + "\n"});
}

TEST_F(IniSelectTest, PreProvisionedSlotNeverReadsTheEeprom) {
    eeprom(4, "HW_REVISION: 2\nMINOR_INI_VERSION: 7\nCARD_TYPE: 3\n", "");
    slot(4).provisioned = 1;
    slot(4).provisioned_type = 3;
    iniInfo ini{};
    ini.card_type = 3;
    ini.hw_revision = 3;
    ini.minor = 3;
    EXPECT_FALSE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(ini.card_type, 0);
    EXPECT_EQ(ini.hw_revision, 0);
    EXPECT_EQ(ini.minor, 0);
    EXPECT_EQ(console(), "[SLOT4] ini_select.cpp:<N> Will not provision from EEPROM for pre-provision\n");
}

TEST_F(IniSelectTest, EepromWithoutRevisionIsRefused) {
    eeprom(4, "MINOR_INI_VERSION: 7\nCARD_TYPE: 1\n", "");
    iniInfo ini{};
    EXPECT_FALSE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(console(), "vpd.cpp:<N> ERR Unable to locate field HW_REVISION\n"
                         "[SLOT4] ini_select.cpp:<N> ERR LC INI EEPROM missing HW_REVISION\n");
}

TEST_F(IniSelectTest, EepromWithoutMinorWarnsAndGoesOn) {
    eeprom(4, "HW_REVISION: 2\nCARD_TYPE: 3\n", "");
    iniInfo ini{};
    EXPECT_TRUE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(ini.minor, 0);
    EXPECT_EQ(ini.card_type, 3);
    EXPECT_EQ(normalized_ring(4),
              (std::vector<std::string>{"[SLOT4:WARN]<T> ini_select.cpp:<N> LC INI EEPPROM minor version missing\n",
                                        "[SLOT4:INFO]<T> ini_select.cpp:<N> INI FILE FROM EEPROM=" +
                                            root_.at("/var/run/hw-management/lc4/eeprom/ini") + "\n"}));
}

TEST_F(IniSelectTest, EepromWithoutCardTypeIsRefusedAfterTheRevision) {
    eeprom(4, "HW_REVISION: 2\nMINOR_INI_VERSION: 7\n", "");
    iniInfo ini{};
    EXPECT_FALSE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(ini.hw_revision, 2);
    EXPECT_EQ(ini.minor, 7);
    EXPECT_EQ(ini.card_type, 0);
    EXPECT_EQ(normalized_ring(4),
              std::vector<std::string>{"[SLOT4:ERR]<T> ini_select.cpp:<N> LC INI EEPROM missing card type\n"});
}

TEST_F(IniSelectTest, MissingEepromFileIsAMissingRevision) {
    iniInfo ini{};
    EXPECT_FALSE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(console(), "vpd.cpp:<N> ERR Unable to open file " +
                             root_.at("/var/run/hw-management/lc4/eeprom/ini_parsed") +
                             "\n[SLOT4] ini_select.cpp:<N> ERR LC INI EEPROM missing HW_REVISION\n");
}

TEST_F(IniSelectTest, NonNumericEepromValuesReadAsZeroOrTheirLeadingDigits) {
    eeprom(4, "HW_REVISION: abc\nMINOR_INI_VERSION: 12abc\nCARD_TYPE: -\n", "");
    iniInfo ini{};
    EXPECT_TRUE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(ini.hw_revision, 0);
    EXPECT_EQ(ini.minor, 12);
    EXPECT_EQ(ini.card_type, 0);
}

TEST_F(IniSelectTest, HugeEepromValuesAreReadAsStrtolsResultUsedAsAnInt) {
    eeprom(4, "HW_REVISION: 4294967298\nMINOR_INI_VERSION: -99999999999\nCARD_TYPE: " + std::string(200, '9') + "\n",
           "");
    iniInfo ini{};
    EXPECT_TRUE(get_lc_eeprom_ini_info(4, &ini));
    EXPECT_EQ(ini.hw_revision, 2);  // as a card whose VPD revision reads 4294967298
    EXPECT_EQ(ini.minor, -1215752191);
    EXPECT_EQ(ini.card_type, -1);  // beyond strtol: LONG_MAX, whose low 32 bits are -1
}

/* ---- assertions -------------------------------------------------------- */

TEST(IniSelectDeathTest, SlotOutsideTheChassisAborts) {
    iniInfo ini{};
    EXPECT_DEATH(compatible_ini(0, &ini), "Assertion `slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600' failed");
    EXPECT_DEATH(get_lc_eeprom_ini_info(9, &ini), "Assertion `slot_id >= 1 && slot_id <= MAX_SLOTS_FOR_9600' failed");
    EXPECT_DEATH(check_and_update_ini_for_lc_insert(9), "Assertion `slot_id >= 1 && slot_id <= 8' failed");
    EXPECT_DEATH(check_and_update_ini_for_lc_insert(0), "Assertion `slot_id >= 1 && slot_id <= 8' failed");
}

TEST(IniSelectDeathTest, NullIdentityAborts) {
    EXPECT_DEATH(compatible_ini(1, nullptr), "Assertion `ini_info != NULL' failed");
    EXPECT_DEATH(get_sdk_packaged_ini_info(3, nullptr), "Assertion `ini_info != NULL' failed");
    EXPECT_DEATH(get_lc_eeprom_ini_info(1, nullptr), "Assertion `ini_info != NULL' failed");
}

/* ---- the decision for a verified card ---------------------------------- */

TEST_F(IniSelectTest, FittingFirmwareIniIsKeptWithoutReload) {
    card(3, 3, 2);
    slot(3).ini_info.card_type = 1;
    slot(3).in_transition_reload_portd = 1;
    firmware_ini(3, "3 2 5\n");
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    cards_conf(conf_line(3, 100, 0, 100, 1));

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_EQ(ini_lines(),
              "[SLOT3] ini_select.cpp:<N> INI in slot FW: card type = 3, HW revision fw = 2, Minor fw = 5,: From eeprom "
              "card type = 3, HW revision = 2\n"
              "[SLOT3] ini_select.cpp:<N> Using FW stored INI\n");
    EXPECT_EQ(root_.read(kCardsConf), cards_conf_with(conf_line(3, 100, 0, 100, 0)));
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=3\n");
    EXPECT_FALSE(root_.exists("/standins/systemctl.log"));
    EXPECT_TRUE(slot(3).current_state & SLOT_SYNCED);
    EXPECT_EQ(slot(3).card_type, 3);
    EXPECT_EQ(slot(3).ini_info.card_type, 1);
    EXPECT_EQ(slot(3).ini_info.hw_revision, 2);
    EXPECT_EQ(slot(3).ini_info.minor, 5);
    EXPECT_EQ(slot(3).in_transition_reload_portd, 0);
}

TEST_F(IniSelectTest, FirmwareIniWithAnotherMinorIsStillKept) {
    card(3, 3, 2);
    firmware_ini(3, "3 2 9\n");
    cards_conf(conf_line(3, 100, 0, 100, 0));
    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_NE(ini_lines().find("Using FW stored INI\n"), std::string::npos);
    EXPECT_EQ(slot(3).ini_info.minor, 9);
}

TEST_F(IniSelectTest, KeptIniOfAProvisionedSlotRecordsTheProvisionedSpeed) {
    card(3, 1, 2);
    slot(3).provisioned = 1;
    slot(3).provisioned_type = 1;
    slot(3).disabled = 1;
    firmware_ini(3, "1 7 5\n");
    cards_conf(conf_line(3, 0, 400, 400, 0, "Offline", "disable"));
    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_EQ(ini_lines(),
              "[SLOT3] ini_select.cpp:<N> INI in slot FW: card type = 1, HW revision fw = 7, Minor fw = 5,: From eeprom "
              "card type = 1\n"
              "[SLOT3] ini_select.cpp:<N> Using FW stored INI\n");
    EXPECT_EQ(root_.read(kCardsConf), cards_conf_with(conf_line(3, 0, 400, 400, 0, "Offline", "disable")));
    EXPECT_EQ(slot(3).card_type, 1);
}

TEST_F(IniSelectTest, FittingIniIsReprogrammedWhenCardsConfGivesNoSpeed) {
    card(3, 3, 2);
    slot(3).current_state |= SLOT_SYNCED;
    firmware_ini(3, "3 2 5\n");
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader + std::string(1000, 'i'));
    cards_conf(conf_line(3, 100, 0, 0, 0));

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_EQ(ini_lines(),
              "[SLOT3] ini_select.cpp:<N> INI in slot FW: card type = 3, HW revision fw = 2, Minor fw = 5,: From eeprom "
              "card type = 3, HW revision = 2\n" +
                  executing_line() + "[SLOT3] ini_select.cpp:<N> Reprogramming INI\n");
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=3\n"
                       "ks_mgmt_slot_ini_operation_set slot=3 op=RESET\n"
                       "ks_mgmt_slot_ini_data_set slot=3 size=512 last=0\n"
                       "ks_mgmt_slot_ini_data_set slot=3 size=493 last=1\n"
                       "ks_mgmt_slot_ini_operation_set slot=3 op=APPLY\n"
                       "ks_mgmt_slot_ini_data_set slot=3 size=0 last=0\n"
                       "ks_api_port_device_mapping_get device=1\n");
    EXPECT_EQ(root_.read(kCardsConf), cards_conf_with(conf_line(3, 100, 0, 0, 0)));
    EXPECT_FALSE(root_.exists("/standins/systemctl.log"));
    EXPECT_FALSE(slot(3).current_state & SLOT_SYNCED);
    EXPECT_EQ(slot(3).in_transition_reload_portd, 1);
    EXPECT_EQ(slot(3).card_type, 3);
    EXPECT_EQ(slot(3).ini_info.card_type, 3);
    EXPECT_EQ(slot(3).ini_info.hw_revision, 2);
    EXPECT_EQ(slot(3).ini_info.minor, 5);
    std::string ports = kPortListHeader;
    for (int m = 0; m < 16; ++m) ports += port_list_entry(m, 3, m + 1, 33 + m);
    EXPECT_EQ(root_.read(kPortList), ports);
}

TEST_F(IniSelectTest, UnfittingIniWithConfiguredPortsRemovesThemFirst) {
    card(3, 3, 2);
    firmware_ini(3, "1 2 0\n");
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    cards_conf(conf_line(3, 100, 0, 100, 0, "Online"));

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_EQ(ini_lines(),
              "[SLOT3] ini_select.cpp:<N> INI in slot FW: card type = 1, HW revision fw = 2, Minor fw = 0,: From eeprom "
              "card type = 3, HW revision = 2\n"
              "[SLOT3] ini_select.cpp:<N> Card Type in slot:3, card type in ini:1\n"
              "[SLOT3] ini_select.cpp:<N> Reloading portd for removing ports\n"
              "[SLOT3] ini_select.cpp:<N> Reloaded portd\n" +
                  executing_line() + "[SLOT3] ini_select.cpp:<N> Reprogramming INI\n");
    EXPECT_EQ(systemctl_log(), "reload portd\n");
    /* Every hold of the locks has ended. */
    ASSERT_EQ(pthread_mutex_trylock(&g_cards_conf_mutex), 0);
    pthread_mutex_unlock(&g_cards_conf_mutex);
    ASSERT_EQ(pthread_mutex_trylock(&g_port_list_file_mutex), 0);
    pthread_mutex_unlock(&g_port_list_file_mutex);
    /* Written with dirty 1 and configured 0, then the dirty bits cleared. */
    EXPECT_EQ(root_.read(kCardsConf), cards_conf_with(conf_line(3, 100, 0, 0, 0)));
    EXPECT_EQ(slot(3).in_transition_reload_portd, 1);
}

TEST_F(IniSelectTest, FailedReloadForRemovedPortsLeavesTheLineDirty) {
    card(3, 3, 2);
    firmware_ini(3, "1 2 0\n");
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    cards_conf(conf_line(3, 100, 0, 100, 0, "Online"));
    root_.write("/standins/systemctl", "#!/bin/sh\nexit 1\n");

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_NE(ini_lines().find("[SLOT3] ini_select.cpp:<N> Reloaded portd\n"), std::string::npos);
    /* portd still has the old ports: the line says so. */
    EXPECT_EQ(root_.read(kCardsConf), cards_conf_with(conf_line(3, 100, 0, 0, 1)));
}

TEST_F(IniSelectTest, FourPortCardTakesItsIniFromTheEeprom) {
    card(3, 1, 2);
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    eeprom(3, "HW_REVISION: 2\nMINOR_INI_VERSION: 4\nCARD_TYPE: 1\n", bytes({0x04, 0x00, 0x00, 0x02, 0x00}));
    cards_conf(conf_line(3, 0, 0, 0, 0));

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    std::string eeprom_image = root_.at("/var/run/hw-management/lc3/eeprom/ini");
    EXPECT_EQ(ini_lines(),
              "[SLOT3] ini_select.cpp:<N> No valid INI in FW\n"
              "[SLOT3] ini_select.cpp:<N> INI in slot FW: card type = 0, HW revision fw = 0, Minor fw = 0,: From eeprom "
              "card type = 1, HW revision = 2\n"
              "[SLOT3] ini_select.cpp:<N> Card Type in slot:1, card type in ini:0\n"
              "[SLOT3] ini_select.cpp:<N> Card Type in slot:1, card type in ini:0\n"
              "[SLOT3] ini_select.cpp:<N> WILL TRY USING EEPROM INI\n"
              "[SLOT3] ini_select.cpp:<N> INI FILE FROM EEPROM=" + eeprom_image + "\n"
              "[SLOT3] ini_select.cpp:<N> Reprogramming INI\n");
    EXPECT_NE(console().find("[SLOT3] sdk_ini.cpp:<N> INI File:" + eeprom_image + "\n"), std::string::npos);
    EXPECT_FALSE(root_.exists("/standins/systemctl.log"));
    EXPECT_EQ(slot(3).card_type, 1);
    EXPECT_EQ(slot(3).ini_info.card_type, 1);
    EXPECT_EQ(slot(3).ini_info.hw_revision, 2);
    EXPECT_EQ(slot(3).ini_info.minor, 4);
    /* The image transferred is the card's own. */
    EXPECT_EQ(root_.read("/var/run/ks-sim/slot3/ini_image"), bytes({0x04, 0x00, 0x00, 0x02, 0x00}));
    EXPECT_NE(calls().find("ks_mgmt_slot_ini_data_set slot=3 size=5 last=1\n"
                           "ks_mgmt_slot_ini_operation_set slot=3 op=APPLY\n"),
              std::string::npos);
}

TEST_F(IniSelectTest, ProvisionedSlotProgramsTheShippedImageForItsProvisionedType) {
    card(3, 1, 1);
    slot(3).provisioned = 1;
    slot(3).provisioned_type = 3;
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    eeprom(3, "HW_REVISION: 1\nMINOR_INI_VERSION: 4\nCARD_TYPE: 1\n", bytes({0x04, 0x00, 0x00, 0x01, 0x00}));
    cards_conf(conf_line(3, 0, 100, 100, 0));

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_EQ(ini_lines(),
              "[SLOT3] ini_select.cpp:<N> No valid INI in FW\n"
              "[SLOT3] ini_select.cpp:<N> INI in slot FW: card type = 0, HW revision fw = 0, Minor fw = 0,: From eeprom "
              "card type = 3\n"
              "[SLOT3] ini_select.cpp:<N> Card Type provisioned for slot:3, card type in ini:0\n"
              "[SLOT3] ini_select.cpp:<N> Reloading portd for removing ports\n"
              "[SLOT3] ini_select.cpp:<N> Reloaded portd\n" +
                  executing_line() + "[SLOT3] ini_select.cpp:<N> Reprogramming INI\n");
    /* The provisioned speed leaves the file with the ports. */
    EXPECT_EQ(root_.read(kCardsConf), cards_conf_with(conf_line(3, 400, 0, 0, 0)));
    EXPECT_EQ(slot(3).card_type, 3);
    EXPECT_EQ(slot(3).ini_info.card_type, 3);
}

TEST_F(IniSelectTest, ProvisionedSlotWithoutShippedImageNeverConsultsTheEeprom) {
    card(3, 1, 1);
    slot(3).provisioned = 1;
    slot(3).provisioned_type = 3;
    slot(3).in_transition_reload_portd = 1;
    eeprom(3, "HW_REVISION: 1\nMINOR_INI_VERSION: 4\nCARD_TYPE: 3\n", bytes({0x04, 0x00, 0x00, 0x01, 0x02}));
    cards_conf(conf_line(3, 0, 0, 0, 0));

    EXPECT_FALSE(check_and_update_ini_for_lc_insert(3));
    EXPECT_EQ(ini_lines(),
              "[SLOT3] ini_select.cpp:<N> No valid INI in FW\n"
              "[SLOT3] ini_select.cpp:<N> INI in slot FW: card type = 0, HW revision fw = 0, Minor fw = 0,: From eeprom "
              "card type = 3\n"
              "[SLOT3] ini_select.cpp:<N> Card Type provisioned for slot:3, card type in ini:0\n" +
                  executing_line() +
                  "ini_select.cpp:<N> ERR Unable to read INI file \n"
                  "[SLOT3] ini_select.cpp:<N> Card Type provisioned for slot:3, card type in ini:0\n"
                  "[SLOT3] ini_select.cpp:<N> WILL TRY USING EEPROM INI\n"
                  "[SLOT3] ini_select.cpp:<N> Will not provision from EEPROM for pre-provision\n"
                  "[SLOT3] ini_select.cpp:<N> Card Type provisioned for slot:3, card type in ini:0\n"
                  "[SLOT3] ini_select.cpp:<N> ERR Not able to find compatible INI");
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=3\n");
    EXPECT_EQ(slot(3).in_transition_reload_portd, 1);
}

TEST_F(IniSelectTest, NoFittingCandidateFailsWithoutChangingTheSlot) {
    card(3, 3, 5);
    slot(3).current_state |= SLOT_SYNCED;
    slot(3).ini_info.card_type = 3;
    slot(3).ini_info.hw_revision = 5;
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    eeprom(3, "HW_REVISION: 2\nMINOR_INI_VERSION: 4\nCARD_TYPE: 3\n", kShippedHeader);
    cards_conf(conf_line(3, 100, 0, 0, 0));

    EXPECT_FALSE(check_and_update_ini_for_lc_insert(3));
    std::vector<std::string> ring = normalized_ring(3);
    EXPECT_EQ(ring.back(), "[SLOT3:ERR]<T> ini_select.cpp:<N> Not able to find compatible INI");
    EXPECT_EQ(std::count(ring.begin(), ring.end(),
                         "[SLOT3:INFO]<T> ini_select.cpp:<N> HW revision in slot:5, HW revision in ini:2\n"),
              2);
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=3\n");
    EXPECT_TRUE(slot(3).current_state & SLOT_SYNCED);
    EXPECT_EQ(slot(3).ini_info.hw_revision, 5);
    EXPECT_EQ(root_.read(kCardsConf), cards_conf_with(conf_line(3, 100, 0, 0, 0)));
}

TEST_F(IniSelectTest, FailedProgrammingStillSucceedsAndRecordsTheAttempt) {
    card(3, 1, 1);
    slot(3).provisioned = 1;
    slot(3).provisioned_type = 3;
    slot(3).current_state |= SLOT_SYNCED;
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    root_.write("/var/run/ks-sim/faults", "ks_mgmt_slot_ini_operation_set 3\n");
    cards_conf(conf_line(3, 0, 0, 0, 0));

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_NE(console().find("[SLOT3] sdk_ini.cpp:<N> ERR Unable to apply INI\n"), std::string::npos);
    EXPECT_EQ(slot(3).card_type, 1);
    EXPECT_EQ(slot(3).ini_info.card_type, 3);
    EXPECT_EQ(slot(3).ini_info.hw_revision, 2);
    EXPECT_EQ(slot(3).ini_info.minor, 5);
    EXPECT_EQ(slot(3).in_transition_reload_portd, 1);
    EXPECT_FALSE(slot(3).current_state & SLOT_SYNCED);
}

TEST_F(IniSelectTest, FailedProgrammingForANewCardReleasesItsReloadHold) {
    card(3, 3, 2);
    slot(3).in_transition_reload_portd = 1;
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    root_.write("/var/run/ks-sim/faults", "ks_mgmt_slot_ini_operation_set 3\n");
    cards_conf(conf_line(3, 0, 0, 0, 0));

    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_NE(console().find("[SLOT3] sdk_ini.cpp:<N> ERR Unable to apply INI\n"), std::string::npos);
    EXPECT_EQ(slot(3).in_transition_reload_portd, 0);
    EXPECT_EQ(slot(3).ini_info.hw_revision, 2);
}

TEST_F(IniSelectTest, MissingCardsConfCountsAsNoConfiguredSpeed) {
    card(3, 3, 2);
    firmware_ini(3, "3 2 5\n");
    ship("Buff_KTR9600-C16_INI_EPROM_A.bin", kShippedHeader);
    EXPECT_TRUE(check_and_update_ini_for_lc_insert(3));
    EXPECT_NE(ini_lines().find("Reprogramming INI\n"), std::string::npos);
    EXPECT_FALSE(root_.exists(kCardsConf));
}

}  // namespace
