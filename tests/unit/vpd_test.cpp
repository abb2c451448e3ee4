/*
 * get_vpd_value: one field's value out of a card's parsed EEPROM file.
 */
#include <gtest/gtest.h>

#include "test_support.h"

namespace {

using chmgr_test::normalized_ring;
using chmgr_test::SandboxRoot;

const std::string kVpdFile = "/var/run/hw-management/lc2/eeprom/vpd_parsed";

class VpdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        chmgr_test::reset_slots();
        chmgr_test::clear_log_rings();
    }
    /* Reads `field` from the VPD file into a 128-byte buffer pre-filled with 'X'. */
    int read(const char *field, int buf_len = 128) {
        memset(value_, 'X', sizeof value_);
        value_[sizeof value_ - 1] = '\0';
        return get_vpd_value(root_.at(kVpdFile).c_str(), field, value_, buf_len);
    }
    std::string value() const { return std::string(value_); }

    SandboxRoot root_;
    char value_[256];
};

TEST_F(VpdTest, ReturnsTheValueAfterTheColon) {
    root_.write(kVpdFile, "PN_VPD_FIELD: KTR9600-C16\nSN_VPD_FIELD: MT1234X00001\nHW_REV_FIELD: 2\n");
    EXPECT_EQ(read("SN_VPD_FIELD"), 1);
    EXPECT_EQ(value(), "MT1234X00001");
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(VpdTest, ValueEndsAtTheFirstBlank) {
    root_.write(kVpdFile, "PN_VPD_FIELD: KTR9600-C16 spare\n");
    EXPECT_EQ(read("PN_VPD_FIELD"), 1);
    EXPECT_EQ(value(), "KTR9600-C16");
}

TEST_F(VpdTest, ValueEndsAtTheFirstTab) {
    root_.write(kVpdFile, "PN_VPD_FIELD:\tKTR9600-C4\tspare\n");
    EXPECT_EQ(read("PN_VPD_FIELD"), 1);
    EXPECT_EQ(value(), "KTR9600-C4");
}

TEST_F(VpdTest, ValueEndsAtCarriageReturn) {
    root_.write(kVpdFile, "HW_REV_FIELD: 7\r\nSN_VPD_FIELD: A\r\n");
    EXPECT_EQ(read("HW_REV_FIELD"), 1);
    EXPECT_EQ(value(), "7");
}

TEST_F(VpdTest, ValueEndsAtLineFeedAndAtEndOfFile) {
    root_.write(kVpdFile, "A_FIELD: one\nB_FIELD: two");
    EXPECT_EQ(read("A_FIELD"), 1);
    EXPECT_EQ(value(), "one");
    EXPECT_EQ(read("B_FIELD"), 1);
    EXPECT_EQ(value(), "two");
}

TEST_F(VpdTest, FirstOccurrenceOfTheNameWins) {
    root_.write(kVpdFile, "XHW_REV_FIELD: 9\nHW_REV_FIELD: 3\n");
    EXPECT_EQ(read("HW_REV_FIELD"), 1);
    EXPECT_EQ(value(), "9");
}

TEST_F(VpdTest, MissingFileGivesErrorText) {
    EXPECT_EQ(read("SN_VPD_FIELD"), 0);
    EXPECT_EQ(value(), "ERROR");
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> vpd.cpp:<N> Unable to open file " + root_.at(kVpdFile) + "\n"});
}

TEST_F(VpdTest, MissingFieldGivesErrorText) {
    root_.write(kVpdFile, "PN_VPD_FIELD: KTR9600-C16\n");
    EXPECT_EQ(read("SN_VPD_FIELD"), 0);
    EXPECT_EQ(value(), "ERROR");
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> vpd.cpp:<N> Unable to locate field SN_VPD_FIELD\n"});
}

TEST_F(VpdTest, FieldWithoutValueGivesErrorText) {
    root_.write(kVpdFile, "PN_VPD_FIELD: KTR9600-C16\nSN_VPD_FIELD: \t\r\n");
    EXPECT_EQ(read("SN_VPD_FIELD"), 0);
    EXPECT_EQ(value(), "ERROR");
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> vpd.cpp:<N> No vpd value for SN_VPD_FIELD\n"});
}

TEST_F(VpdTest, FieldWithoutColonGivesErrorText) {
    root_.write(kVpdFile, "SN_VPD_FIELD");
    EXPECT_EQ(read("SN_VPD_FIELD"), 0);
    EXPECT_EQ(value(), "ERROR");
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{"[ERR]<T> vpd.cpp:<N> No vpd value for SN_VPD_FIELD\n"});
}

TEST_F(VpdTest, EmptyValueTakesTheNextToken) {
    /* The value is the next token after the colon, wherever it is. */
    root_.write(kVpdFile, "SN_VPD_FIELD:\nHW_REV_FIELD: 2\n");
    EXPECT_EQ(read("SN_VPD_FIELD"), 1);
    EXPECT_EQ(value(), "HW_REV_FIELD:");
}

TEST_F(VpdTest, NullFileNameGivesErrorText) {
    memset(value_, 'X', sizeof value_);
    value_[sizeof value_ - 1] = '\0';
    EXPECT_EQ(get_vpd_value(nullptr, "SN_VPD_FIELD", value_, 128), 0);
    EXPECT_EQ(value(), "ERROR");
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{"[ERR]<T> vpd.cpp:<N> NULL file name\n"});
}

TEST_F(VpdTest, NullFieldIsReportedAsNotFound) {
    root_.write(kVpdFile, "SN_VPD_FIELD: A\n");
    EXPECT_EQ(read(nullptr), 0);
    EXPECT_EQ(value(), "ERROR");
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{"[ERR]<T> vpd.cpp:<N> Unable to locate field (null)\n"});
}

TEST_F(VpdTest, ValueAsLongAsTheBufferIsNotTerminated) {
    root_.write(kVpdFile, "SN_VPD_FIELD: ABCDEFGH\n");
    EXPECT_EQ(read("SN_VPD_FIELD", 4), 1);
    EXPECT_EQ(std::string(value_, 6), "ABCDXX");
}

TEST_F(VpdTest, ShortValueIsPaddedWithZeros) {
    root_.write(kVpdFile, "SN_VPD_FIELD: AB\n");
    EXPECT_EQ(read("SN_VPD_FIELD", 6), 1);
    EXPECT_EQ(std::string(value_, 7), std::string("AB\0\0\0\0X", 7));
}

TEST_F(VpdTest, ErrorTextIsCutToTheBuffer) {
    EXPECT_EQ(read("SN_VPD_FIELD", 3), 0);
    EXPECT_EQ(std::string(value_, 4), "ERRX");
}

TEST_F(VpdTest, FileOf4094BytesDoesNotWarn) {
    std::string text = "SN_VPD_FIELD: A\n";
    text += std::string(4094 - text.size() - 9, '.') + "\nPN: LAST";
    ASSERT_EQ(text.size(), 4094u);
    root_.write(kVpdFile, text);
    EXPECT_EQ(read("PN"), 1);
    EXPECT_EQ(value(), "LAST");
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(VpdTest, FileOf4095BytesWarnsAndIsStillSearched) {
    std::string text = "SN_VPD_FIELD: A\n";
    text += std::string(4095 - text.size() - 9, '.') + "\nPN: LAST";
    ASSERT_EQ(text.size(), 4095u);
    root_.write(kVpdFile, text);
    EXPECT_EQ(read("PN"), 1);
    EXPECT_EQ(value(), "LAST");
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{"[WARN]<T> vpd.cpp:<N> The VPD buffer read is overflowing\n"});
}

TEST_F(VpdTest, LargeFileIsSearchedOnlyInItsFirst4095Bytes) {
    std::string text = "SN_VPD_FIELD: A\n";
    text += std::string(4095 - text.size() - 8, '.') + "\nPN: CUT";
    ASSERT_EQ(text.size(), 4095u);
    text += "TAIL\nHW_REV_FIELD: 2\n";
    root_.write(kVpdFile, text);
    EXPECT_EQ(read("PN"), 1);
    EXPECT_EQ(value(), "CUT");
    EXPECT_EQ(read("HW_REV_FIELD"), 0);
    EXPECT_EQ(value(), "ERROR");
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{"[WARN]<T> vpd.cpp:<N> The VPD buffer read is overflowing\n",
                                        "[WARN]<T> vpd.cpp:<N> The VPD buffer read is overflowing\n",
                                        "[ERR]<T> vpd.cpp:<N> Unable to locate field HW_REV_FIELD\n"}));
}

TEST_F(VpdTest, BinaryContentDoesNotCrash) {
    std::string text("SN_VPD_FIELD: A\0B\nPN: X\n", 24);
    root_.write(kVpdFile, text);
    EXPECT_EQ(read("SN_VPD_FIELD"), 1);
    EXPECT_EQ(value(), "A");
    /* Text after a NUL byte is not searched. */
    EXPECT_EQ(read("PN"), 0);
}

TEST_F(VpdTest, ErrorsAreNotSlotLines) {
    read("SN_VPD_FIELD");
    for (int ring = 1; ring <= MAX_SLOTS_FOR_9600; ++ring) EXPECT_TRUE(normalized_ring(ring).empty());
}

}  // namespace
