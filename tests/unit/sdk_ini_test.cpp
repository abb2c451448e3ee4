/*
 * INI programming against the simulated SDK: the firmware INI identity, the
 * in-use query, the INI reset, and the transfer, apply, poll and port
 * read-back of a new image.  Chunking and call order are checked through
 * the simulator's call log.
 */
#include <gtest/gtest.h>
#include <unistd.h>

#include "chmgr_sdk.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

const std::string kImage = "/images/test.ini";

/* An image of `size` bytes whose header names card type 3, revision 2, minor 5. */
std::string image_bytes(size_t size) {
    std::string bytes(size, '\0');
    const unsigned char header[5] = {0x05, 0x00, 0x00, 0x02, 0x02};
    for (size_t i = 0; i < size; ++i) bytes[i] = i < 5 ? (char)header[i] : (char)('a' + i % 26);
    return bytes;
}

/* The port list of a 16-port card in `slot`, as the simulator assigns it. */
std::string card_entries(int slot) {
    std::string out;
    for (int m = 0; m < 16; ++m) out += port_list_entry(m, slot, m + 1, (slot - 1) * 16 + m + 1);
    return out;
}

class SdkIniTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
    }
    std::string sim(const std::string &name) const { return "/var/run/ks-sim/" + name; }
    std::string calls() const { return root_.read(sim("calls.log")); }
    std::string console() const { return normalize(console_.text()); }
    /* Writes an image and returns an identity naming it. */
    iniInfo image(size_t size) {
        root_.write(kImage, image_bytes(size));
        iniInfo ini{};
        snprintf(ini.ini_file_name, sizeof ini.ini_file_name, "%s", root_.at(kImage).c_str());
        return ini;
    }
    static std::string data_call(int slot, int size, int last) {
        return "ks_mgmt_slot_ini_data_set slot=" + std::to_string(slot) + " size=" + std::to_string(size) +
               " last=" + std::to_string(last) + "\n";
    }
    static std::string op_call(int slot, const char *op) {
        return "ks_mgmt_slot_ini_operation_set slot=" + std::to_string(slot) + " op=" + op + "\n";
    }
    static std::string mapping_call() { return "ks_api_port_device_mapping_get device=1\n"; }

    SandboxRoot root_;
    ConsoleCapture console_;
};

/* ---- firmware INI identity ------------------------------------------- */

TEST_F(SdkIniTest, FirmwareIdentityComesFromTheSlotInfo) {
    root_.write(sim("slot3/ini_identity"), "3 2 5\n");
    iniInfo ini{};
    strcpy(ini.ini_file_name, "kept");
    EXPECT_TRUE(sdk_get_fw_ini_info(3, &ini));
    EXPECT_EQ(ini.card_type, 3);
    EXPECT_EQ(ini.hw_revision, 2);
    EXPECT_EQ(ini.minor, 5);
    EXPECT_STREQ(ini.ini_file_name, "kept");
    EXPECT_EQ(calls(), "ks_mgmt_slot_info_get slot=3\n");
}

TEST_F(SdkIniTest, SixteenBitRevisionAndMinorAreZeroExtended) {
    root_.write(sim("slot4/ini_identity"), "1 65535 65534\n");
    iniInfo ini{};
    EXPECT_TRUE(sdk_get_fw_ini_info(4, &ini));
    EXPECT_EQ(ini.hw_revision, 65535);
    EXPECT_EQ(ini.minor, 65534);
}

TEST_F(SdkIniTest, FirmwareWithoutIniGivesZerosAndAGlobalLine) {
    iniInfo ini{};
    ini.card_type = 7;
    ini.hw_revision = 7;
    ini.minor = 7;
    EXPECT_FALSE(sdk_get_fw_ini_info(3, &ini));
    EXPECT_EQ(ini.card_type, 0);
    EXPECT_EQ(ini.hw_revision, 0);
    EXPECT_EQ(ini.minor, 0);
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> sdk_ini.cpp:<N> ks_mgmt_slot_info_get FAILED\n"});
    EXPECT_TRUE(normalized_ring(3).empty());
}

/* ---- in-use query ----------------------------------------------------- */

TEST_F(SdkIniTest, InUseQueryIsAnEmptyTransfer) {
    root_.write(sim("slot2/ini_status"), "3\n");
    int in_use = -1;
    EXPECT_TRUE(sdk_check_ini_in_use(2, &in_use));
    EXPECT_EQ(in_use, 1);
    root_.write(sim("slot2/ini_status"), "2\n");
    EXPECT_TRUE(sdk_check_ini_in_use(2, &in_use));
    EXPECT_EQ(in_use, 0);
    EXPECT_EQ(calls(), data_call(2, 0, 0) + data_call(2, 0, 0));
}

TEST_F(SdkIniTest, FailedInUseQueryIsASlotLine) {
    root_.write(sim("faults"), "ks_mgmt_slot_ini_data_set 2\n");
    root_.write(sim("slot2/ini_status"), "3\n");
    int in_use = -1;
    EXPECT_FALSE(sdk_check_ini_in_use(2, &in_use));
    EXPECT_EQ(in_use, 0);
    EXPECT_EQ(normalized_ring(2), std::vector<std::string>{"[SLOT2:ERR]<T> sdk_ini.cpp:<N> Unable to get INI status\n"});
}

TEST_F(SdkIniTest, FailedInUseQueryForSlotZeroIsAGlobalLine) {
    int in_use = -1;
    EXPECT_FALSE(sdk_check_ini_in_use(0, &in_use));
    EXPECT_EQ(in_use, 0);
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{"[ERR]<T> sdk_ini.cpp:<N> Unable to get INI status\n"});
}

/* ---- reset ------------------------------------------------------------- */

TEST_F(SdkIniTest, ResetRemovesTheSlotsPortsThenErasesTheIni) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 3, 1, 33));
    root_.write(sim("slot3/ini_identity"), "3 2 5\n");
    EXPECT_TRUE(sdk_reset_ini(3));
    EXPECT_EQ(root_.read(kPortList), kPortListHeader + port_list_entry(0, 1, 1, 1));
    EXPECT_EQ(calls(), op_call(3, "RESET"));
    EXPECT_FALSE(root_.exists(sim("slot3/ini_identity")));
}

TEST_F(SdkIniTest, ResetFailingWithStatusZeroLogsBothLinesAtInfo) {
    root_.write(sim("faults"), "ks_mgmt_slot_ini_operation_set 3\n");
    root_.write(sim("slot3/ini_status"), "0\n");
    EXPECT_FALSE(sdk_reset_ini(3));
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{
                  "[SLOT3:INFO]<T> sdk_ini.cpp:<N> Unable to reset INI\n",
                  "[SLOT3:INFO]<T> sdk_ini.cpp:<N> ini_oper_set status = KS_MGMT_SLOT_INI_STATUS_NOT_VALID_E\n"}));
    EXPECT_EQ(calls(), "ks_mgmt_slot_ini_operation_set slot=3 op=RESET -> fault\n");
}

TEST_F(SdkIniTest, ResetFailingWithAStatusLogsItAsError) {
    root_.write(sim("faults"), "ks_mgmt_slot_ini_operation_set 3\n");
    root_.write(sim("slot3/ini_status"), "3\n");
    EXPECT_FALSE(sdk_reset_ini(3));
    EXPECT_EQ(normalized_ring(3), (std::vector<std::string>{"[SLOT3:INFO]<T> sdk_ini.cpp:<N> Unable to reset INI\n",
                                                            "[SLOT3:ERR]<T> sdk_ini.cpp:<N> ini_oper_set status = 3\n"}));
}

/* ---- programming: transfer ------------------------------------------- */

TEST_F(SdkIniTest, Image1300BytesIsSentAs512And512And276) {
    iniInfo ini = image(1300);
    EXPECT_TRUE(sdk_program_ini(3, true, &ini));
    EXPECT_EQ(calls(), op_call(3, "RESET") + data_call(3, 512, 0) + data_call(3, 512, 0) + data_call(3, 276, 1) +
                           op_call(3, "APPLY") + data_call(3, 0, 0) + mapping_call());
    EXPECT_EQ(root_.read(sim("slot3/ini_image")), image_bytes(1300));
}

TEST_F(SdkIniTest, Image1024BytesIsSentAsTwoChunks) {
    iniInfo ini = image(1024);
    EXPECT_TRUE(sdk_program_ini(3, true, &ini));
    EXPECT_EQ(calls(), op_call(3, "RESET") + data_call(3, 512, 0) + data_call(3, 512, 1) + op_call(3, "APPLY") +
                           data_call(3, 0, 0) + mapping_call());
    EXPECT_EQ(root_.read(sim("slot3/ini_image")), image_bytes(1024));
}

TEST_F(SdkIniTest, SmallImageIsOneLastChunk) {
    iniInfo ini = image(5);
    EXPECT_TRUE(sdk_program_ini(1, false, &ini));
    EXPECT_EQ(calls(), data_call(1, 5, 1) + op_call(1, "APPLY") + data_call(1, 0, 0) + mapping_call());
}

TEST_F(SdkIniTest, EmptyImageSendsNoChunkAndGoesStraightToApply) {
    /* The firmware still holds an earlier image, so the apply succeeds. */
    root_.write(sim("slot3/ini_image"), image_bytes(5));
    iniInfo ini = image(0);
    EXPECT_TRUE(sdk_program_ini(3, false, &ini));
    EXPECT_EQ(calls(), op_call(3, "APPLY") + data_call(3, 0, 0) + mapping_call());
    EXPECT_EQ(normalized_ring(3)[0], "[SLOT3:INFO]<T> sdk_ini.cpp:<N> INI File:" + root_.at(kImage) + "\n");
    EXPECT_EQ(normalized_ring(3)[1], "[SLOT3:INFO]<T> sdk_ini.cpp:<N> Finished programming INI and ready to apply\n");
}

TEST_F(SdkIniTest, EmptyImageAfterResetFailsAtApply) {
    iniInfo ini = image(0);
    EXPECT_FALSE(sdk_program_ini(3, true, &ini));
    EXPECT_EQ(calls(), op_call(3, "RESET") + op_call(3, "APPLY"));
    EXPECT_EQ(normalized_ring(3).back(), "[SLOT3:ERR]<T> sdk_ini.cpp:<N> Unable to apply INI\n");
}

TEST_F(SdkIniTest, MissingImageFailsAfterNamingIt) {
    iniInfo ini{};
    snprintf(ini.ini_file_name, sizeof ini.ini_file_name, "%s", root_.at("/images/none.ini").c_str());
    EXPECT_FALSE(sdk_program_ini(3, false, &ini));
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{"[SLOT3:INFO]<T> sdk_ini.cpp:<N> INI File:" + root_.at("/images/none.ini") + "\n",
                                        "[SLOT3:ERR]<T> sdk_ini.cpp:<N> Unable to open ini file\n"}));
    EXPECT_EQ(calls(), "");
}

TEST_F(SdkIniTest, UnterminatedFileNameIsCutAtTheField) {
    iniInfo ini{};
    memset(ini.ini_file_name, 'a', sizeof ini.ini_file_name);
    EXPECT_FALSE(sdk_program_ini(3, false, &ini));
    EXPECT_EQ(normalized_ring(3)[0],
              "[SLOT3:INFO]<T> sdk_ini.cpp:<N> INI File:" + std::string(INI_FILE_NAME_SIZE, 'a') + "\n");
}

TEST_F(SdkIniTest, UnreadableImageFailsTheTransfer) {
    /* A directory opens for reading but yields no bytes. */
    mkdir(root_.at("/images").c_str(), 0755);
    mkdir(root_.at("/images/dir.ini").c_str(), 0755);
    iniInfo ini{};
    snprintf(ini.ini_file_name, sizeof ini.ini_file_name, "%s", root_.at("/images/dir.ini").c_str());
    EXPECT_FALSE(sdk_program_ini(3, false, &ini));
    EXPECT_EQ(normalized_ring(3).back(), "[SLOT3:ERR]<T> sdk_ini.cpp:<N> Unable to program INI file\n");
    EXPECT_EQ(calls(), "");
}

TEST_F(SdkIniTest, ImageOf1100000BytesIsStreamedIn2148ChunksOf512AndOneOf224) {
    iniInfo ini = image(1100000);
    EXPECT_TRUE(sdk_program_ini(3, true, &ini));
    std::string chunks;
    for (int i = 0; i < 2148; ++i) chunks += data_call(3, 512, 0);
    chunks += data_call(3, 224, 1);
    EXPECT_EQ(calls(), op_call(3, "RESET") + chunks + op_call(3, "APPLY") + data_call(3, 0, 0) + mapping_call());
    EXPECT_EQ(root_.read(sim("slot3/ini_image")), image_bytes(1100000));
    EXPECT_EQ(console().find("too large"), std::string::npos);
}

TEST_F(SdkIniTest, ImageBeyondTheSigned32BitCountIsRefusedBeforeTheReset) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 3, 1, 1));
    root_.write(sim("slot3/ini_identity"), "3 2 5\n");
    iniInfo ini = image(0);
    /* Sparse: 2 GiB of size without 2 GiB of disk. */
    ASSERT_EQ(truncate(root_.at(kImage).c_str(), (off_t)INT32_MAX + 1), 0);
    EXPECT_FALSE(sdk_program_ini(3, true, &ini));
    EXPECT_EQ(calls(), "");
    EXPECT_EQ(normalized_ring(3), std::vector<std::string>{"[SLOT3:ERR]<T> sdk_ini.cpp:<N> INI file " +
                                                           root_.at(kImage) +
                                                           " is too large (2147483648 bytes, at most 2147483647)\n"});
    EXPECT_EQ(root_.read(kPortList), kPortListHeader + port_list_entry(0, 3, 1, 1));
    EXPECT_EQ(root_.read(sim("slot3/ini_identity")), "3 2 5\n");
}

TEST_F(SdkIniTest, FailedChunkStopsTheTransfer) {
    root_.write(sim("faults"), "ks_mgmt_slot_ini_data_set 3\n");
    iniInfo ini = image(1300);
    EXPECT_FALSE(sdk_program_ini(3, false, &ini));
    EXPECT_EQ(calls(), "ks_mgmt_slot_ini_data_set slot=3 size=512 last=0 -> fault\n");
    EXPECT_EQ(normalized_ring(3).back(), "[SLOT3:ERR]<T> sdk_ini.cpp:<N> Unable to program INI file\n");
}

TEST_F(SdkIniTest, FailedResetStillProgrammes) {
    root_.write(sim("faults"), "ks_mgmt_slot_ini_operation_set 3\n");
    iniInfo ini = image(600);
    EXPECT_FALSE(sdk_program_ini(3, true, &ini));
    EXPECT_EQ(calls(), "ks_mgmt_slot_ini_operation_set slot=3 op=RESET -> fault\n" + data_call(3, 512, 0) +
                           data_call(3, 88, 1) + "ks_mgmt_slot_ini_operation_set slot=3 op=APPLY -> fault\n");
    std::vector<std::string> ring = normalized_ring(3);
    ASSERT_GE(ring.size(), 3u);
    EXPECT_EQ(ring[2], "[SLOT3:INFO]<T> sdk_ini.cpp:<N> Trying to program without resetting INI\n");
    EXPECT_EQ(ring.back(), "[SLOT3:ERR]<T> sdk_ini.cpp:<N> Unable to apply INI\n");
}

/* ---- programming: whole sequence and in-use poll ---------------------- */

TEST_F(SdkIniTest, ProgrammingLogsEveryStepAndWritesTheSlotsPorts) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1));
    iniInfo ini = image(700);
    g_log_level = LOG_LEVEL_INFO;
    EXPECT_TRUE(sdk_program_ini(3, true, &ini));
    EXPECT_EQ(root_.read(kPortList), kPortListHeader + port_list_entry(0, 1, 1, 1) + card_entries(3));
    EXPECT_EQ(root_.read(sim("slot3/ini_identity")), "3 2 5\n");
    std::string expected =
        "[SLOT3] port_list.cpp:<N> Deleting entries\n"
        "[SLOT3] port_list.cpp:<N> Config File after deleting slot\n"
        "port_list.cpp:<N>  0         1         1         1\n"
        "[SLOT3] sdk_ini.cpp:<N> INI File:" + root_.at(kImage) + "\n"
        "[SLOT3] sdk_ini.cpp:<N> Finished programming INI and ready to apply\n"
        "[SLOT3] sdk_ini.cpp:<N> Successfully programmed INI\n"
        "[SLOT3] sdk_ini.cpp:<N> INI in-use after 0 poll loop\n"
        "[SLOT3] sdk_ini.cpp:<N> port list length from device_mapping_get=16\n"
        "[SLOT3] sdk_ini.cpp:<N> ports for slot from device_mapping_get=16\n"
        "[SLOT3] port_list.cpp:<N> Number of ports from INI apply = 16 for slot\n";
    EXPECT_EQ(console().substr(0, expected.size()), expected);
}

TEST_F(SdkIniTest, InUseAtTheThirdPollReportsTwoSleeps) {
    root_.write(sim("slot3/ini_status_script"), "0 1 3\n");
    iniInfo ini = image(100);
    EXPECT_TRUE(sdk_program_ini(3, false, &ini));
    EXPECT_EQ(calls(), data_call(3, 100, 1) + op_call(3, "APPLY") + data_call(3, 0, 0) + data_call(3, 0, 0) +
                           data_call(3, 0, 0) + mapping_call());
    EXPECT_NE(console().find("[SLOT3] sdk_ini.cpp:<N> INI in-use after 2 poll loop\n"), std::string::npos);
}

TEST_F(SdkIniTest, NeverInUseLogsUnderTheNextSlotAndStillSucceeds) {
    root_.write(sim("slot3/ini_status_script"), "0 0 0 0 0 3\n");
    iniInfo ini = image(100);
    EXPECT_TRUE(sdk_program_ini(3, false, &ini));
    std::string polls;
    for (int i = 0; i < 5; ++i) polls += data_call(3, 0, 0);
    EXPECT_EQ(calls(), data_call(3, 100, 1) + op_call(3, "APPLY") + polls + mapping_call());
    EXPECT_EQ(normalized_ring(4), std::vector<std::string>{"[SLOT4:ERR]<T> sdk_ini.cpp:<N> unable to get INI in-use\n"});
    EXPECT_EQ(console().find("in-use after"), std::string::npos);
    EXPECT_EQ(root_.read(kPortList), kPortListHeader + card_entries(3));
}

TEST_F(SdkIniTest, NeverInUseOnSlotEightIsTaggedSlot9InTheDaemonRing) {
    root_.write(sim("slot8/ini_status_script"), "0 0 0 0 0\n");
    iniInfo ini = image(100);
    EXPECT_TRUE(sdk_program_ini(8, false, &ini));
    std::vector<std::string> ring0 = normalized_ring(0);
    ASSERT_FALSE(ring0.empty());
    EXPECT_EQ(ring0.front(), "[SLOT9:ERR]<T> sdk_ini.cpp:<N> unable to get INI in-use\n");
    EXPECT_NE(console().find("\n[SLOT9] sdk_ini.cpp:<N> ERR unable to get INI in-use\n"), std::string::npos);
    EXPECT_EQ(console().find("\nsdk_ini.cpp:<N> ERR unable to get INI in-use\n"), std::string::npos);
    std::vector<std::string> ring8 = normalized_ring(8);
    EXPECT_EQ(std::count_if(ring8.begin(), ring8.end(),
                            [](const std::string &line) { return line.find("unable to get INI") != std::string::npos; }),
              0);
}

/* ---- programming: port read-back -------------------------------------- */

/* Sets the port mapping by hand: `count` ports of `slot` after one port of slot 1. */
void manual_port_map(const SandboxRoot &root, int slot, int count, bool trailing_other_slot) {
    root.write("/var/run/ks-sim/manual_ports", "");
    std::string map = "1 0 1 4 1\n";
    for (int m = 0; m < count; ++m) {
        int local = (slot - 1) * 16 + m + 1;
        map += std::to_string(slot) + " " + std::to_string(m) + " " + std::to_string(local) + " 4 " +
               std::to_string(local) + "\n";
    }
    if (trailing_other_slot) map += "7 0 97 4 97\n";
    root.write("/var/run/ks-sim/port_map", map);
}

TEST_F(SdkIniTest, TwentyPortsForASlotStopAfterTheSeventeenth) {
    manual_port_map(root_, 2, 20, false);
    iniInfo ini = image(100);
    EXPECT_TRUE(sdk_program_ini(2, false, &ini));
    std::string expected = kPortListHeader;
    for (int m = 0; m < 17; ++m) expected += port_list_entry(m, 2, m + 1, 17 + m);
    EXPECT_EQ(root_.read(kPortList), expected);
    std::string out = console();
    EXPECT_NE(out.find("[SLOT2] sdk_ini.cpp:<N> port list length from device_mapping_get=21\n"
                       "[SLOT2] sdk_ini.cpp:<N> ERR FW has returned more than 16 ports\n"
                       "[SLOT2] sdk_ini.cpp:<N> ports for slot from device_mapping_get=17\n"),
              std::string::npos);
}

TEST_F(SdkIniTest, SeventeenthPortAsTheLastEntryEndsTheWalkWithoutTheMessage) {
    manual_port_map(root_, 2, 17, false);
    iniInfo ini = image(100);
    EXPECT_TRUE(sdk_program_ini(2, false, &ini));
    EXPECT_EQ(console().find("more than 16 ports"), std::string::npos);
    EXPECT_NE(console().find("[SLOT2] sdk_ini.cpp:<N> ports for slot from device_mapping_get=17\n"), std::string::npos);
}

TEST_F(SdkIniTest, SeventeenthPortFollowedByAnotherEntryLogsTheMessage) {
    manual_port_map(root_, 2, 17, true);
    iniInfo ini = image(100);
    EXPECT_TRUE(sdk_program_ini(2, false, &ini));
    EXPECT_NE(console().find("[SLOT2] sdk_ini.cpp:<N> ERR FW has returned more than 16 ports\n"), std::string::npos);
}

TEST_F(SdkIniTest, FullPortMappingOf128EntriesIsWalked) {
    root_.write(sim("manual_ports"), "");
    std::string map;
    for (int i = 0; i < 130; ++i) map += "1 0 " + std::to_string(i + 1) + " 4 " + std::to_string(i + 1) + "\n";
    map += "6 0 81 4 81\n";
    root_.write(sim("port_map"), map);
    iniInfo ini = image(100);
    EXPECT_TRUE(sdk_program_ini(6, false, &ini));
    std::string out = console();
    EXPECT_NE(out.find("[SLOT6] sdk_ini.cpp:<N> port list length from device_mapping_get=128\n"
                       "[SLOT6] sdk_ini.cpp:<N> ports for slot from device_mapping_get=0\n"),
              std::string::npos);
}

TEST_F(SdkIniTest, FailedPortMappingFailsTheProgramming) {
    root_.write(sim("faults"), "ks_api_port_device_mapping_get\n");
    iniInfo ini = image(100);
    EXPECT_FALSE(sdk_program_ini(3, false, &ini));
    EXPECT_EQ(normalized_ring(3).back(), "[SLOT3:ERR]<T> sdk_ini.cpp:<N> Unable to get port list\n");
    EXPECT_FALSE(root_.exists(kPortList));
}

}  // namespace
