/*
 * The port list file: rewrite on INI reset (delete) and after an INI apply
 * (update), the entry parser, and the module split query.
 */
#include <gtest/gtest.h>

#include "chmgr_sdk.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

const std::string kTemp = "/etc/brl/chmgr_ports_list.txttemp";

ks_port_attributes_t port(int slot, int module_port, int local_port, int width = 4, uint32_t log_port = 0) {
    ks_port_attributes_t attr;
    memset(&attr, 0, sizeof attr);
    attr.port_mapping.slot = (uint8_t)slot;
    attr.port_mapping.module_port = (uint8_t)module_port;
    attr.port_mapping.local_port = (uint16_t)local_port;
    attr.port_mapping.width = (uint8_t)width;
    attr.log_port = log_port ? log_port : (uint32_t)local_port;
    return attr;
}

/* The ports of a card in `slot` as the SDK numbers them: module m (0-based)
 * has local port (slot - 1) * 16 + m + 1. */
std::vector<ks_port_attributes_t> card_ports(int slot, int count) {
    std::vector<ks_port_attributes_t> ports;
    for (int m = 0; m < count; ++m) ports.push_back(port(slot, m, (slot - 1) * 16 + m + 1));
    return ports;
}

class PortListTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
    }
    std::string file() const { return root_.read(kPortList); }
    std::string console() const { return normalize(console_.text()); }
    std::string calls() const { return root_.read("/var/run/ks-sim/calls.log"); }

    SandboxRoot root_;
    ConsoleCapture console_;
};

/* ---- delete ---------------------------------------------------------- */

TEST_F(PortListTest, DeletingFromAMissingFileLogsNotFoundAndCreatesNothing) {
    EXPECT_TRUE(delete_ports_list_conf(3, nullptr, 0));
    EXPECT_FALSE(root_.exists(kPortList));
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> port_list.cpp:<N> " + root_.at(kPortList) + " file not found\n"});
    EXPECT_TRUE(normalized_ring(3).empty());
}

TEST_F(PortListTest, DeletingWithANullListAndACountIsRefused) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 3, 1, 33));
    EXPECT_FALSE(delete_ports_list_conf(3, nullptr, 2));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 3, 1, 33));
    EXPECT_EQ(normalized_ring(3),
              std::vector<std::string>{"[SLOT3:ERR]<T> port_list.cpp:<N> Empty port attribute list\n"});
}

TEST_F(PortListTest, DeletingASlotKeepsTheOtherSlotsWithTheirEntryNumbers) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 2) +
                               port_list_entry(0, 3, 1, 33) + port_list_entry(1, 3, 2, 34) +
                               port_list_entry(0, 4, 1, 49));
    EXPECT_TRUE(delete_ports_list_conf(3, nullptr, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 2) +
                          port_list_entry(0, 4, 1, 49));
    EXPECT_EQ(console(),
              "[SLOT3] port_list.cpp:<N> Deleting entries\n"
              "[SLOT3] port_list.cpp:<N> Config File after deleting slot\n"
              "port_list.cpp:<N>  0         1         1         1\n"
              "port_list.cpp:<N>  1         1         2         2\n"
              "port_list.cpp:<N>  0         4         1        49\n");
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{"[SLOT3:INFO]<T> port_list.cpp:<N> Deleting entries\n",
                                        "[SLOT3:INFO]<T> port_list.cpp:<N> Config File after deleting slot\n"}));
    EXPECT_EQ(normalized_ring(0)[0], "[INFO]<T> port_list.cpp:<N>  0         1         1         1\n");
}

TEST_F(PortListTest, DeletingDropsLinesWhoseLocalPortIsInTheList) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 17) +
                               port_list_entry(0, 5, 1, 65));
    std::vector<ks_port_attributes_t> ports = {port(2, 0, 17), port(2, 1, 18)};
    EXPECT_TRUE(delete_ports_list_conf(2, ports.data(), 2));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 5, 1, 65));
}

TEST_F(PortListTest, RewriteDropsCommentsBlankLinesAndText) {
    root_.write(kPortList, "# my own note\n" + kPortListHeader + "\n   \n\t\nnot an entry\n  " +
                               port_list_entry(0, 1, 1, 1) + "\t" + port_list_entry(1, 1, 2, 2) + "#" +
                               port_list_entry(9, 1, 9, 9));
    EXPECT_TRUE(delete_ports_list_conf(4, nullptr, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 2));
}

TEST_F(PortListTest, FieldsMaySeparateByTabsAndEndWithCarriageReturn) {
    root_.write(kPortList, kPortListHeader + "0\t2\t1\t17\r\n3 2 4 20\n");
    EXPECT_TRUE(delete_ports_list_conf(4, nullptr, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 2, 1, 17) + port_list_entry(3, 2, 4, 20));
}

TEST_F(PortListTest, EntryWithLocalPortZeroIsDropped) {
    root_.write(kPortList,
                kPortListHeader + port_list_entry(0, 1, 1, 0) + "1 1 2 x\n" + "2 1 3 \n" + port_list_entry(3, 1, 4, 4));
    EXPECT_TRUE(delete_ports_list_conf(8, nullptr, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(3, 1, 4, 4));
}

TEST_F(PortListTest, NonNumericFieldsReadAsZero) {
    root_.write(kPortList, kPortListHeader + "7 a b 12\n");
    EXPECT_TRUE(delete_ports_list_conf(8, nullptr, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(7, 0, 0, 12));
}

TEST_F(PortListTest, LineWithFewerThanFourFieldsIsSkippedSilently) {
    root_.write(kPortList, kPortListHeader + "5 1 2\n" + "6\r\n" + port_list_entry(0, 1, 1, 1));
    EXPECT_TRUE(delete_ports_list_conf(8, nullptr, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1));
    EXPECT_EQ(console(),
              "[SLOT8] port_list.cpp:<N> Deleting entries\n"
              "[SLOT8] port_list.cpp:<N> Config File after deleting slot\n"
              "port_list.cpp:<N>  0         1         1         1\n");
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[INFO]<T> port_list.cpp:<N>  0         1         1         1\n"});
}

TEST_F(PortListTest, FieldsOutsideZeroToIntMaxAreKeptAsTheir32Bits) {
    root_.write(kPortList, kPortListHeader + "99999999999 1 1 5\n" + "1 -2 3 4\n" + "2 1 3 2147483648\n" +
                               "2147483647 1 1 6\n");
    const std::string rewritten = kPortListHeader + "1215752191         1         1         5\n" +
                                  " 1        -2         3         4\n" + " 2         1         3        -2147483648\n" +
                                  "2147483647         1         1         6\n";
    EXPECT_TRUE(delete_ports_list_conf(8, nullptr, 0));
    EXPECT_EQ(file(), rewritten);
    EXPECT_TRUE(delete_ports_list_conf(8, nullptr, 0));
    EXPECT_EQ(file(), rewritten);
    for (const std::string &line : normalized_ring(0)) EXPECT_EQ(line.find("malformed"), std::string::npos) << line;
}

TEST_F(PortListTest, MoreThan128EntriesAreCutAt128Silently) {
    std::string text = kPortListHeader;
    std::string expected = kPortListHeader;
    for (int i = 0; i < 140; ++i) {
        text += port_list_entry(i % 16, 1 + i / 16, 1 + i % 16, i + 1);
        if (i < 128) expected += port_list_entry(i % 16, 1 + i / 16, 1 + i % 16, i + 1);
    }
    root_.write(kPortList, text);
    g_log_level = LOG_LEVEL_ERR;
    EXPECT_TRUE(delete_ports_list_conf(0, nullptr, 0));
    EXPECT_EQ(file(), expected);
    EXPECT_EQ(console(), "");
}

TEST_F(PortListTest, VeryLongLinesDoNotOverflow) {
    std::string text = kPortListHeader + std::string(600, '1') + "\n" + "1 2 3 " + std::string(500, '4') + "\n" +
                       port_list_entry(0, 1, 1, 1);
    root_.write(kPortList, text);
    EXPECT_TRUE(delete_ports_list_conf(8, nullptr, 0));
    std::string out = file();
    EXPECT_EQ(out.substr(0, kPortListHeader.size()), kPortListHeader);
    EXPECT_EQ(out.substr(out.size() - port_list_entry(0, 1, 1, 1).size()), port_list_entry(0, 1, 1, 1));
}

TEST_F(PortListTest, DirectoryInPlaceOfTheFileCannotBeOpened) {
    mkdir(root_.at(kPortList).c_str(), 0755);
    EXPECT_FALSE(delete_ports_list_conf(3, nullptr, 0));
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> port_list.cpp:<N> Unable to open file " + root_.at(kPortList) + "\n"});
}

TEST(PortListReadTest, ParsesEntriesAndHonoursTheCapacity) {
    clear_log_rings();
    std::string text =
        kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 2) + port_list_entry(2, 1, 3, 3);
    FILE *file = fmemopen(text.data(), text.size(), "r");
    chmgr_port_list_t table[2];
    int dropped = -1;
    EXPECT_EQ(port_list_read(file, table, 2, &dropped), 2);
    fclose(file);
    EXPECT_EQ(dropped, 1);
    EXPECT_EQ(table[1].line_no, 1u);
    EXPECT_EQ(table[1].slot_id, 1u);
    EXPECT_EQ(table[1].module_port, 2u);
    EXPECT_EQ(table[1].local_port, 2u);
}

/* ---- update ---------------------------------------------------------- */

TEST_F(PortListTest, UpdatingWithANullListIsRefused) {
    EXPECT_FALSE(update_ports_list_conf(nullptr, 4));
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> port_list.cpp:<N> Empty port attribute list\n"});
    EXPECT_FALSE(root_.exists(kPortList));
}

TEST_F(PortListTest, UpdatingWithoutAFileWritesHeaderAndEntriesFromZero) {
    std::vector<ks_port_attributes_t> ports = card_ports(1, 4);
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 4));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 2) +
                          port_list_entry(2, 1, 3, 3) + port_list_entry(3, 1, 4, 4));
    EXPECT_FALSE(root_.exists(kTemp));
    /* The old file is removed before the rename even when there was none. */
    EXPECT_EQ(console(),
              "[SLOT1] port_list.cpp:<N> Number of ports from INI apply = 4 for slot\n"
              "port_list.cpp:<N> :: 0         0         1 slot1 width/2 = 2::\n"
              "port_list.cpp:<N> :: 1         1         2 slot1 width/2 = 2::\n"
              "port_list.cpp:<N> :: 2         2         3 slot1 width/2 = 2::\n"
              "port_list.cpp:<N> :: 3         3         4 slot1 width/2 = 2::\n"
              "port_list.cpp:<N> ERR " + root_.at(kPortList) + " file not found\n"
              "port_list.cpp:<N> ERR Unable to remove " + root_.at(kPortList) + "\n"
              "port_list.cpp:<N> ERR This may setup ports incorrectly\n");
}

TEST_F(PortListTest, SixteenUnsplitModulesGiveSixteenLinesWithModulesShiftedByOne) {
    std::vector<ks_port_attributes_t> ports = card_ports(3, 16);
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 16));
    std::string expected = kPortListHeader;
    for (int m = 0; m < 16; ++m) expected += port_list_entry(m, 3, m + 1, 33 + m);
    EXPECT_EQ(file(), expected);
    EXPECT_EQ(calls(), "");
}

TEST_F(PortListTest, SeventeenPortsAreAllWritten) {
    std::vector<ks_port_attributes_t> ports = card_ports(2, 16);
    ports.push_back(port(2, 16, 40));
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 17));
    std::string expected = kPortListHeader;
    for (int m = 0; m < 16; ++m) expected += port_list_entry(m, 2, m + 1, 17 + m);
    expected += port_list_entry(16, 2, 17, 40);
    EXPECT_EQ(file(), expected);
}

TEST_F(PortListTest, UpdateReplacesTheSlotAndAppendsAfterTheOtherSlots) {
    root_.write(kPortList, "#old comment\n" + kPortListHeader + port_list_entry(0, 2, 1, 17) +
                               port_list_entry(1, 2, 2, 18) + port_list_entry(0, 4, 1, 49) + "\n");
    std::vector<ks_port_attributes_t> ports = card_ports(2, 4);
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 4));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 4, 1, 49) + port_list_entry(0, 2, 1, 17) +
                          port_list_entry(1, 2, 2, 18) + port_list_entry(2, 2, 3, 19) + port_list_entry(3, 2, 4, 20));
}

TEST_F(PortListTest, LineOfAnotherSlotWithANewLocalPortIsRemoved) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 34) +
                               port_list_entry(0, 5, 1, 65));
    std::vector<ks_port_attributes_t> ports = card_ports(3, 2);
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 2));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 5, 1, 65) +
                          port_list_entry(0, 3, 1, 33) + port_list_entry(1, 3, 2, 34));
}

TEST_F(PortListTest, EntryNumbersRestartForEverySlot) {
    std::vector<ks_port_attributes_t> slot1 = card_ports(1, 2);
    std::vector<ks_port_attributes_t> slot2 = card_ports(2, 2);
    EXPECT_TRUE(update_ports_list_conf(slot1.data(), 2));
    EXPECT_TRUE(update_ports_list_conf(slot2.data(), 2));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 2) +
                          port_list_entry(0, 2, 1, 17) + port_list_entry(1, 2, 2, 18));
}

TEST_F(PortListTest, SplitModuleIsAskedOfTheSdkAndWritesOneLinePerSubPort) {
    root_.write("/var/run/ks-sim/module_split", "2 3 1044 1045 2070 3095\n");
    std::vector<ks_port_attributes_t> ports = {port(2, 2, 19), port(2, 3, 20, 8), port(2, 4, 21)};
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 3));
    /* Only the low 10 bits of a logical port are the local port. */
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 2, 3, 19) + port_list_entry(1, 2, 4, 20) +
                          port_list_entry(2, 2, 4, 21) + port_list_entry(3, 2, 4, 22) + port_list_entry(4, 2, 4, 23) +
                          port_list_entry(5, 2, 5, 21));
    EXPECT_EQ(calls(), "ks_mgmt_phy_module_split_get slot=2 module=3 split=4 width=2\n");
}

TEST_F(PortListTest, FailedSplitQueryDropsThatModule) {
    std::vector<ks_port_attributes_t> ports = {port(2, 0, 17), port(2, 1, 18, 2), port(2, 2, 19)};
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 3));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 2, 1, 17) + port_list_entry(1, 2, 3, 19));
    EXPECT_EQ(calls(), "ks_mgmt_phy_module_split_get slot=2 module=1 split=1 width=2\n");
    EXPECT_NE(console().find("port_list.cpp:<N> ERR ks_mgmt_phy_module_split_get error for logical port 18\n"),
              std::string::npos);
}

TEST_F(PortListTest, SplitCountAboveEightIsHeldAtEight) {
    root_.write("/var/run/ks-sim/module_split", "1 0 1 2 3 4 5 6 7 8\n");
    std::vector<ks_port_attributes_t> ports = {port(1, 0, 1, 255)};
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 1));
    std::string expected = kPortListHeader;
    for (int k = 0; k < 8; ++k) expected += port_list_entry(k, 1, 1, k + 1);
    EXPECT_EQ(file(), expected);
    EXPECT_EQ(calls(), "ks_mgmt_phy_module_split_get slot=1 module=0 split=127 width=2\n");
}

TEST_F(PortListTest, ZeroPortsLeaveOnlyTheOtherSlots) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1));
    ks_port_attributes_t none[1];
    memset(none, 0, sizeof none);
    EXPECT_TRUE(update_ports_list_conf(none, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1));
    EXPECT_EQ(normalized_ring(0)[0], "[INFO]<T> port_list.cpp:<N> Number of ports from INI apply = 0 for slot\n");
}

TEST_F(PortListTest, TemporaryFileThatCannotBeCreatedLeavesTheListAsItWas) {
    std::string before = kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 2, 1, 17);
    root_.write(kPortList, before);
    mkdir(root_.at(kTemp).c_str(), 0755);
    std::vector<ks_port_attributes_t> ports = card_ports(2, 1);
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 1));
    EXPECT_EQ(file(), before);
    std::string open_failed = "port_list.cpp:<N> ERR Unable to open file " + root_.at(kTemp) + "\n";
    std::string out = console();
    size_t first = out.find(open_failed);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(out.find(open_failed, first + 1), std::string::npos);  // the delete's and the update's
    EXPECT_EQ(out.find("Config File after deleting slot"), std::string::npos);
}

TEST_F(PortListTest, NewContentThatCannotBeWrittenNeverReplacesTheList) {
    std::string before = kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 2, 1, 17);
    root_.write(kPortList, before);
    ASSERT_EQ(symlink("/dev/full", root_.at(kTemp).c_str()), 0);
    EXPECT_TRUE(delete_ports_list_conf(2, nullptr, 0));
    EXPECT_EQ(file(), before);
    EXPECT_NE(console().find("port_list.cpp:<N> ERR Unable to write " + root_.at(kTemp) + "\n"), std::string::npos);
    EXPECT_FALSE(root_.exists(kTemp));
}

TEST_F(PortListTest, DeleteRewritesThroughTheTemporaryFileAndLeavesNoneBehind) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 2, 1, 17));
    struct stat before;
    ASSERT_EQ(stat(root_.at(kPortList).c_str(), &before), 0);
    EXPECT_TRUE(delete_ports_list_conf(2, nullptr, 0));
    EXPECT_EQ(file(), kPortListHeader + port_list_entry(0, 1, 1, 1));
    struct stat after;
    ASSERT_EQ(stat(root_.at(kPortList).c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino);  // a new file renamed into place, not the old one truncated
    EXPECT_FALSE(root_.exists(kTemp));
}

TEST_F(PortListTest, FailedRemoveAndRenameAreLoggedAndStillSucceed) {
    /* A non-empty directory in place of the file can be neither removed nor replaced. */
    mkdir(root_.at(kPortList).c_str(), 0755);
    root_.write(kPortList + "/keep", "x");
    std::vector<ks_port_attributes_t> ports = card_ports(2, 1);
    EXPECT_TRUE(update_ports_list_conf(ports.data(), 1));
    std::string out = console();
    EXPECT_NE(out.find("port_list.cpp:<N> ERR Unable to remove " + root_.at(kPortList) +
                       "\nport_list.cpp:<N> ERR This may setup ports incorrectly\n"
                       "port_list.cpp:<N> ERR Unable to copy " + root_.at(kTemp) +
                       "\nport_list.cpp:<N> ERR This may setup ports incorrectly\n"),
              std::string::npos);
}

}  // namespace
