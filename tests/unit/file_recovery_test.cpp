/*
 * Start-up recovery of cards.conf and of the port list from the temporary
 * file an interrupted rewrite left behind, and the cards.conf made when
 * nothing can be recovered.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "cards_conf_recovery.h"
#include "chmgr_sdk.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

const std::string kConf = "/etc/tarnel/cards.conf";
const std::string kPortTemp = "/etc/brl/chmgr_ports_list.txttemp";

std::string eight_lines(const std::string &admin5 = "disable") {
    std::string text;
    for (int n = 1; n <= MAX_SLOTS_FOR_9600; ++n)
        text += conf_data_line(n, 0, n == 3 ? 100 : 0, n == 3 ? 100 : 0, 0, "Offline", n == 5 ? admin5 : "enable");
    return text;
}

class FileRecoveryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
    }
    std::string temp(int writer) const { return kConf + std::to_string(writer); }
    /* Sets a file's modification time `seconds` after the epoch. */
    void set_mtime(const std::string &abs, long seconds) const {
        struct timeval times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(utimes(root_.at(abs).c_str(), times), 0);
    }
    std::string warn_restored(const std::string &main, const std::string &from) const {
        return "[WARN]<T> " + std::string(main == kConf ? "cards_conf_recovery.cpp" : "port_list.cpp") + ":<N> " +
               root_.at(main) + " is missing: restoring it from " + root_.at(from) +
               ", left by an interrupted rewrite\n";
    }

    SandboxRoot root_;
    ConsoleCapture console_;
};

/* ---- what counts as complete ------------------------------------------ */

TEST(CardsConfCompleteness, EightDataLinesEndingWithALineFeedAreComplete) {
    EXPECT_TRUE(cards_conf_text_complete(eight_lines()));
}

TEST(CardsConfCompleteness, CommentsHeadersBlankLinesAndSlotZeroMayAppear) {
    std::string text = "# cards\nslot detected\n\n" + conf_data_line(0, 0, 0, 0, 0, "Offline", "enable") + eight_lines() +
                       conf_data_line(9, 0, 0, 0, 0, "Offline", "enable");
    EXPECT_TRUE(cards_conf_text_complete(text));
}

TEST(CardsConfCompleteness, EveryCutOfACompleteFileIsIncomplete) {
    std::string text = eight_lines();
    for (size_t cut = 0; cut < text.size(); ++cut)
        EXPECT_FALSE(cards_conf_text_complete(std::string_view(text).substr(0, cut))) << cut;
}

TEST(CardsConfCompleteness, MissingSlotOrShortLineOrNulByteIsIncomplete) {
    std::string text = eight_lines();
    std::string without6 = text;
    size_t at = without6.find("6       ");
    without6.erase(at, without6.find('\n', at) + 1 - at);
    EXPECT_FALSE(cards_conf_text_complete(without6));
    std::string short6 = without6 + "6 0G 0G 0G 0 Offline\n";
    EXPECT_FALSE(cards_conf_text_complete(short6));
    std::string with_nul = text;
    with_nul[with_nul.size() - 3] = '\0';
    EXPECT_FALSE(cards_conf_text_complete(with_nul));
}

TEST(PortListCompleteness, HeaderAloneAndExactEntriesAreComplete) {
    EXPECT_TRUE(port_list_text_complete(kPortListHeader));
    EXPECT_TRUE(port_list_text_complete(kPortListHeader + port_list_entry(0, 1, 1, 1) +
                                        port_list_entry(15, 2, 16, 132)));
}

TEST(PortListCompleteness, CutLineOtherSpacingOrTextIsIncomplete) {
    std::string full = kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(1, 1, 2, 2);
    for (size_t cut = 0; cut < full.size(); ++cut) {
        bool at_line_end = cut > 0 && full[cut - 1] == '\n';
        if (cut >= kPortListHeader.size() && at_line_end) continue;  // a line boundary cannot be told
        EXPECT_FALSE(port_list_text_complete(std::string_view(full).substr(0, cut))) << cut;
    }
    EXPECT_FALSE(port_list_text_complete(kPortListHeader + " 0 1 1 1\n"));
    EXPECT_FALSE(port_list_text_complete(kPortListHeader + "# note\n"));
    EXPECT_FALSE(port_list_text_complete(kPortListHeader + "\n"));
}

/* ---- cards.conf -------------------------------------------------------- */

TEST_F(FileRecoveryTest, MissingCardsConfIsRestoredFromTheNewestCompleteTemporaryFile) {
    root_.write(temp(3), eight_lines("enable"));
    set_mtime(temp(3), 1000);
    root_.write(temp(9), eight_lines());
    set_mtime(temp(9), 2000);
    root_.write(temp(6), eight_lines().substr(0, 100));  // newer, but cut short
    set_mtime(temp(6), 3000);
    EXPECT_TRUE(recover_cards_conf());
    EXPECT_EQ(root_.read(kConf), eight_lines());
    EXPECT_FALSE(root_.exists(temp(9)));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{warn_restored(kConf, temp(9))});
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(g_slots_info[4].disabled, 1);
    EXPECT_EQ(g_slots_info[2].provisioned, 1);
    EXPECT_EQ(g_slots_info[2].provisioned_type, 3);
}

TEST_F(FileRecoveryTest, ExistingCardsConfIsNeverReplaced) {
    root_.write(kConf, eight_lines("enable"));
    root_.write(temp(4), eight_lines());
    EXPECT_FALSE(recover_cards_conf());
    EXPECT_EQ(root_.read(kConf), eight_lines("enable"));
    EXPECT_TRUE(root_.exists(temp(4)));
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(FileRecoveryTest, NoCompleteTemporaryFileRestoresNothing) {
    root_.write(temp(0), eight_lines().substr(0, eight_lines().size() - 1));
    EXPECT_FALSE(recover_cards_conf());
    EXPECT_FALSE(root_.exists(kConf));
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(FileRecoveryTest, MissingCardsConfWithNothingToRestoreStaysMissing) {
    EXPECT_FALSE(recover_cards_conf());
    EXPECT_FALSE(update_info_from_cards_conf());
    EXPECT_FALSE(root_.exists(kConf));
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{"[ERR]<T> cards_conf.cpp:<N> Unable to open file " + root_.at(kConf) + "\n"}));
}

/* ---- port list --------------------------------------------------------- */

TEST_F(FileRecoveryTest, MissingPortListIsRestoredFromItsCompleteTemporaryFile) {
    std::string list = kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 2, 1, 17);
    root_.write(kPortTemp, list);
    EXPECT_TRUE(recover_port_list());
    EXPECT_EQ(root_.read(kPortList), list);
    EXPECT_FALSE(root_.exists(kPortTemp));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{warn_restored(kPortList, kPortTemp)});
}

TEST_F(FileRecoveryTest, PortListTemporaryFileCutMidLineIsNotRestored) {
    std::string list = kPortListHeader + port_list_entry(0, 1, 1, 1) + port_list_entry(0, 2, 1, 17);
    root_.write(kPortTemp, list.substr(0, list.size() - 4));
    EXPECT_FALSE(recover_port_list());
    EXPECT_FALSE(root_.exists(kPortList));
    EXPECT_TRUE(root_.exists(kPortTemp));
}

TEST_F(FileRecoveryTest, ExistingPortListIsNeverReplaced) {
    root_.write(kPortList, kPortListHeader);
    root_.write(kPortTemp, kPortListHeader + port_list_entry(0, 1, 1, 1));
    EXPECT_FALSE(recover_port_list());
    EXPECT_EQ(root_.read(kPortList), kPortListHeader);
}

}  // namespace
