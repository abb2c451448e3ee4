/*
 * cards.conf: the line format, the start-up load, the query and the four
 * writers, run against real files in a sandbox root.  Resulting files are
 * compared byte for byte, log lines whole (time stamp and line number
 * normalised).
 */
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "cards_conf_line.h"
#include "test_support.h"

using namespace chmgr_test;
using namespace std::string_literals;

namespace {

const char *const kConf = "/etc/tarnel/cards.conf";

/* A data line as every writer produces it, built field by field. */
std::string data_line(int slot, int detected, int provisioned, int configured, int dirty, const std::string &state,
                      const std::string &admin) {
    char configured_text[16];
    snprintf(configured_text, sizeof configured_text, "%3d", configured);
    return std::to_string(slot) + "       " + std::to_string(detected) + "G        " + std::to_string(provisioned) +
           "G               " + configured_text + "G        " + std::to_string(dirty) + "  " + state + "   " +
           admin + "\n";
}

std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

/* Descriptors of this process open on `path`. */
std::vector<int> descriptors_open_on(const std::string &path) {
    std::vector<int> fds;
    DIR *dir = opendir("/proc/self/fd");
    if (!dir) return fds;
    while (struct dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::string link = "/proc/self/fd/"s + entry->d_name;
        char target[PATH_MAX];
        ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        if (path == target) fds.push_back(atoi(entry->d_name));
    }
    closedir(dir);
    return fds;
}

/*
 * Makes `fifo_path` (the temporary file of a rewrite) a named pipe read by a
 * helper thread.  Once the writer has opened it, the thread runs `meddle`
 * (e.g. another process removing a file) and only then drains the pipe.
 * With more content than the pipe holds, the writer cannot finish writing,
 * and so cannot reach its remove and rename, before `meddle` has run: the
 * order is certain without any timing.
 */
class DrainedFifo {
  public:
    DrainedFifo(std::string fifo_path, std::function<void()> meddle) : path_(std::move(fifo_path)) {
        if (mkfifo(path_.c_str(), 0644) != 0) abort();
        thread_ = std::thread([this, meddle] {
            int fd = open(path_.c_str(), O_RDONLY);
            if (fd < 0) return;
            pipe_size_ = fcntl(fd, F_GETPIPE_SZ);
            meddle();
            char buf[4096];
            ssize_t n;
            while ((n = read(fd, buf, sizeof buf)) > 0) data_.append(buf, (size_t)n);
            close(fd);
        });
    }
    ~DrainedFifo() {
        if (thread_.joinable()) join();
    }
    /* Waits for the thread; if the code under test never opened the pipe,
     * a short-lived writer releases the thread's open. */
    void join() {
        int fd = open(path_.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) close(fd);
        thread_.join();
    }
    const std::string &data() const { return data_; }
    long pipe_size() const { return pipe_size_; }

  private:
    std::string path_;
    std::thread thread_;
    std::string data_;
    long pipe_size_ = 0;
};

class CardsConfTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
    }
    void TearDown() override { g_log_level = LOG_LEVEL_INFO; }

    slotInfo &slot(int n) { return g_slots_info[n - 1]; }
    void write_conf(const std::string &content) { root_.write(kConf, content); }
    std::string conf() { return root_.read(kConf); }
    std::string main_path() { return root_.at(kConf); }
    std::string temp_path(int writer) { return root_.at(kConf + std::to_string(writer)); }
    std::string err_line(const std::string &message) { return "[ERR]<T> cards_conf.cpp:<N> " + message + "\n"; }
    std::string info_line(const std::string &message) { return "[INFO]<T> cards_conf.cpp:<N> " + message; }
    std::string slot_info_line(int n, const std::string &message) {
        return "[SLOT" + std::to_string(n) + ":INFO]<T> cards_conf.cpp:<N> " + message;
    }
    std::string dropped(long line, const std::string &reason) {
        return err_line("Dropping line " + std::to_string(line) + " of " + main_path() + ": " + reason);
    }
    /* Comment lines worth more than any pipe's capacity. */
    static std::string big_comment_block() {
        std::string block;
        for (int i = 0; i < 4000; ++i) block += "# padding line " + std::to_string(i) + std::string(60, '.') + "\n";
        return block;
    }
    void expect_records_untouched(int n) {
        EXPECT_EQ(slot(n).disabled, 0) << n;
        EXPECT_EQ(slot(n).provisioned, 0) << n;
        EXPECT_EQ(slot(n).provisioned_type, 0) << n;
        EXPECT_EQ(slot(n).card_type, 0) << n;
    }

    SandboxRoot root_;
    ConsoleCapture console_;
};

const std::string kEightLines = data_line(1, 400, 0, 400, 1, "Online", "enable") +
                                data_line(2, 100, 0, 100, 0, "Online", "enable") +
                                data_line(3, 0, 100, 100, 1, "Offline", "enable") +
                                data_line(4, 0, 0, 0, 0, "Offline", "enable") +
                                data_line(5, 0, 200, 200, 0, "Offline", "disable") +
                                data_line(6, 400, 400, 400, 1, "Online", "enable") +
                                data_line(7, 0, 0, 0, 0, "Offline", "enable") +
                                data_line(8, 100, 0, 100, 0, "Online", "enable");

/* ---- the line format --------------------------------------------------- */

TEST(CardsConfLine, WrittenLinesHaveTheFixedSpacing) {
    char out[CARDS_CONF_LINE_SIZE];
    cardsConfEntry in_service = {1, 400, 0, 400, 0, "Online", "enable"};
    const char *expected = "1       400G        0G               400G        0  Online   enable\n";
    ASSERT_EQ(cards_conf_format_line(&in_service, out), strlen(expected));
    EXPECT_STREQ(out, expected);
    cardsConfEntry recorded = {3, 100, 0, 100, 1, "Offline", "enable"};
    cards_conf_format_line(&recorded, out);
    EXPECT_STREQ(out, "3       100G        0G               100G        1  Offline   enable\n");
    cardsConfEntry provisioned = {5, 0, 200, 200, 0, "Offline", "disable"};
    cards_conf_format_line(&provisioned, out);
    EXPECT_STREQ(out, "5       0G        200G               200G        0  Offline   disable\n");
    cardsConfEntry nothing = {8, 0, 0, 0, 0, "Offline", "enable"};
    cards_conf_format_line(&nothing, out);
    EXPECT_STREQ(out, "8       0G        0G                 0G        0  Offline   enable\n");
}

TEST(CardsConfLine, NumbersReadAsStrtolReadsThem) {
    for (const char *text : {"100G", "  7", "\t\v\r\f5x", "+3", "-1", "3abc", "#", "", "-", "+ 3", "0x1A",
                             "2147483647", "2147483648", "-2147483648", "-2147483649", "99999999999999999999",
                             "-99999999999999999999", "007"}) {
        char *end = nullptr;
        long expected = strtol(text, &end, 10);
        cardsConfNumber got = cards_conf_number(text);
        EXPECT_EQ(got.value, expected) << text;
        EXPECT_EQ(got.has_digits, end != text) << text;
        EXPECT_EQ(got.fits_int, expected >= INT_MIN && expected <= INT_MAX) << text;
    }
}

TEST(CardsConfLine, SixthFieldCannotEndTheLineButTheSeventhStopsAtTheLineFeed) {
    cardsConfEntry entry;
    EXPECT_EQ(cards_conf_parse_line("1 400G 0G 400G 0 Online\n", &entry), CARDS_CONF_LINE_MISSING_FIELDS);
    EXPECT_EQ(cards_conf_parse_line("1 400G 0G 400G 0 Online \n", &entry), CARDS_CONF_LINE_MISSING_FIELDS);
    ASSERT_EQ(cards_conf_parse_line("1\t400G 0G\t\t400G 0 Online enable\n", &entry), CARDS_CONF_LINE_OK);
    EXPECT_EQ(entry.slot_id, 1);
    EXPECT_EQ(entry.detected_speed, 400);
    EXPECT_EQ(entry.provisioned_speed, 0);
    EXPECT_EQ(entry.configured_speed, 400);
    EXPECT_EQ(entry.dirty_flag, 0);
    EXPECT_EQ(entry.state, "Online");
    EXPECT_EQ(entry.admin_state, "enable");
    ASSERT_EQ(cards_conf_parse_line("2 0G 0G 0G 1 Offline disable extra words\n", &entry), CARDS_CONF_LINE_OK);
    EXPECT_EQ(entry.admin_state, "disable");
    ASSERT_EQ(cards_conf_parse_line("2 0G 0G 0G 1 Offline enable", &entry), CARDS_CONF_LINE_OK);
    EXPECT_EQ(entry.admin_state, "enable");
    ASSERT_EQ(cards_conf_parse_line("4294967298 4294967296G 0G 4294967396G -1 Offline enable\n", &entry),
              CARDS_CONF_LINE_OK);
    EXPECT_EQ(entry.slot_id, 2);
    EXPECT_EQ(entry.detected_speed, 0);
    EXPECT_EQ(entry.configured_speed, 100);
    EXPECT_EQ(entry.dirty_flag, -1);
}

TEST(CardsConfLine, AdminWordDisablesByItsFirstSevenCharacters) {
    EXPECT_TRUE(cards_conf_admin_disables("disable"));
    EXPECT_TRUE(cards_conf_admin_disables("disabled"));
    EXPECT_TRUE(cards_conf_admin_disables("disable\r"));
    EXPECT_FALSE(cards_conf_admin_disables("Disable"));
    EXPECT_FALSE(cards_conf_admin_disables("disabl"));
    EXPECT_FALSE(cards_conf_admin_disables("enable"));
    EXPECT_FALSE(cards_conf_admin_disables(""));
}

TEST(CardsConfLine, OnlyHundredGigabitMapsToTheSixteenPortCard) {
    EXPECT_EQ(cards_conf_speed_card_type(100), CARD_TYPE_16X100G);
    EXPECT_EQ(cards_conf_speed_card_type(200), CARD_TYPE_4X400G);
    EXPECT_EQ(cards_conf_speed_card_type(400), CARD_TYPE_4X400G);
    EXPECT_EQ(cards_conf_speed_card_type(37), CARD_TYPE_4X400G);
    EXPECT_EQ(cards_conf_speed_card_type(0), CARD_TYPE_NONE);
    EXPECT_EQ(cards_conf_speed_card_type(-100), CARD_TYPE_NONE);
}

TEST(CardsConfLine, ParsersSeeTheLineUpToItsFirstNulByte) {
    EXPECT_EQ(cards_conf_line_text("1 400G\0 rest\n"s), "1 400G");
    EXPECT_EQ(cards_conf_line_text("\0\n"s), "");
    EXPECT_EQ(cards_conf_line_text("plain\n"), "plain\n");
}

TEST(CardsConfLine, LineThatWouldExceedTheReadersBufferIsNotFormatted) {
    char out[CARDS_CONF_LINE_SIZE];
    std::string word(194, 'w');
    cardsConfEntry fits = {1, 0, 0, 0, 0, "Offline", word};
    EXPECT_EQ(cards_conf_format_line(&fits, out), 255u);
    word += "w";
    cardsConfEntry too_long = {1, 0, 0, 0, 0, "Offline", word};
    EXPECT_EQ(cards_conf_format_line(&too_long, out), 0u);
    EXPECT_STREQ(out, "");
}

/* ---- start-up load ----------------------------------------------------- */

TEST_F(CardsConfTest, StartupLoadKeepsOnlyTheEightDataLinesOfACommentedFile) {
    write_conf("# slot detected provisioned configured dirty state admin\n#\n" + kEightLines);
    EXPECT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), data_line(1, 400, 0, 400, 0, "Offline", "enable") +
                          data_line(2, 100, 0, 100, 0, "Offline", "enable") +
                          data_line(3, 0, 100, 100, 0, "Offline", "enable") +
                          data_line(4, 0, 0, 0, 0, "Offline", "enable") +
                          data_line(5, 0, 200, 200, 0, "Offline", "disable") +
                          data_line(6, 400, 400, 400, 0, "Offline", "enable") +
                          data_line(7, 0, 0, 0, 0, "Offline", "enable") +
                          data_line(8, 100, 0, 100, 0, "Offline", "enable"));
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf0"));
    EXPECT_TRUE(ring_lines(0).empty());
}

TEST_F(CardsConfTest, StartupLoadSetsTheSlotRecordsFromTheFile) {
    write_conf(kEightLines);
    ASSERT_TRUE(update_info_from_cards_conf());
    const int disabled[] = {0, 0, 0, 0, 1, 0, 0, 0};
    const int provisioned[] = {0, 0, 1, 0, 1, 1, 0, 0};
    const int provisioned_type[] = {0, 0, 3, 0, 1, 1, 0, 0};
    const int card_type[] = {1, 3, 3, 0, 1, 1, 0, 3};
    for (int n = 1; n <= 8; ++n) {
        EXPECT_EQ(slot(n).disabled, disabled[n - 1]) << n;
        EXPECT_EQ(slot(n).provisioned, provisioned[n - 1]) << n;
        EXPECT_EQ(slot(n).provisioned_type, provisioned_type[n - 1]) << n;
        EXPECT_EQ(slot(n).card_type, card_type[n - 1]) << n;
    }
}

TEST_F(CardsConfTest, StartupLoadLogsSpeedsAndFlagsAsReadOnTheSlotRing) {
    write_conf("6       400G        400G               400G        1  Online   enable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(normalized_ring(6),
              (std::vector<std::string>{
                  slot_info_line(6, "detected speed = 400, provisioned speed = 400, configured speed = 400 in "
                                    "cards.conf\n"),
                  slot_info_line(6, "dirty_flag = 1, state = Online, admin_state = enable in cards.conf\n")}));
    EXPECT_EQ(normalize(console_.text()),
              "[SLOT6] cards_conf.cpp:<N> detected speed = 400, provisioned speed = 400, configured speed = 400 "
              "in cards.conf\n"
              "[SLOT6] cards_conf.cpp:<N> dirty_flag = 1, state = Online, admin_state = enable in cards.conf\n");
}

TEST_F(CardsConfTest, DisabledWordCountsAsDisabledAndIsWrittenBackUnchanged) {
    write_conf("2 400G 0G 400G 1 Online disabled\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(slot(2).disabled, 1);
    EXPECT_EQ(conf(), "2       400G        0G               400G        0  Offline   disabled\n");
    EXPECT_EQ(normalized_ring(2)[1],
              slot_info_line(2, "dirty_flag = 1, state = Online, admin_state = disabled in cards.conf\n"));
}

TEST_F(CardsConfTest, CapitalisedDisableDoesNotDisable) {
    write_conf("2 400G 0G 400G 1 Online Disable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(slot(2).disabled, 0);
    EXPECT_EQ(conf(), "2       400G        0G               400G        0  Offline   Disable\n");
}

TEST_F(CardsConfTest, EnableNeverClearsADisabledRecord) {
    slot(4).disabled = 1;
    write_conf("4 0G 0G 0G 0 Offline disable\n4 0G 0G 0G 0 Offline enable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(slot(4).disabled, 1);
    EXPECT_EQ(conf(), data_line(4, 0, 0, 0, 0, "Offline", "disable") + data_line(4, 0, 0, 0, 0, "Offline", "enable"));
}

TEST_F(CardsConfTest, ConfiguredTwoHundredGigabitGivesTheFourPortCardType) {
    write_conf("3 0G 0G 200G 0 Offline enable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(slot(3).card_type, CARD_TYPE_4X400G);
    EXPECT_EQ(slot(3).provisioned, 0);
}

TEST_F(CardsConfTest, ProvisionedHundredGigabitGivesTheSixteenPortType) {
    write_conf("3 0G 100G 0G 0 Offline enable\n7 0G 400G 0G 0 Offline enable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(slot(3).provisioned, 1);
    EXPECT_EQ(slot(3).provisioned_type, CARD_TYPE_16X100G);
    EXPECT_EQ(slot(3).card_type, CARD_TYPE_NONE);
    EXPECT_EQ(slot(7).provisioned, 1);
    EXPECT_EQ(slot(7).provisioned_type, CARD_TYPE_4X400G);
}

TEST_F(CardsConfTest, ConfiguredZeroIsWrittenRightAlignedOtherSpeedsUnpadded) {
    write_conf("8 0G 0G 0G 0 Offline enable\n1 0G 0G 5G 0 Offline enable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), "8       0G        0G                 0G        0  Offline   enable\n"
                      "1       0G        0G                 5G        0  Offline   enable\n");
}

TEST_F(CardsConfTest, StartupLoadWithoutTheFileLogsOneLineAndKeepsDefaults) {
    EXPECT_FALSE(update_info_from_cards_conf());
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to open file " + main_path())});
    EXPECT_EQ(normalize(console_.text()), "cards_conf.cpp:<N> ERR Unable to open file " + main_path() + "\n");
    for (int n = 1; n <= 8; ++n) {
        expect_records_untouched(n);
        EXPECT_TRUE(ring_lines(n).empty());
    }
    EXPECT_FALSE(root_.exists(kConf));
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf0"));
}

TEST_F(CardsConfTest, StartupLoadLeavesTheMainFileOpenWhenItsTemporaryFileCannotBeCreated) {
    write_conf(kEightLines);
    mkdir(temp_path(0).c_str(), 0755);
    ASSERT_TRUE(descriptors_open_on(main_path()).empty());
    EXPECT_FALSE(update_info_from_cards_conf());
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to open file " + temp_path(0))});
    EXPECT_EQ(conf(), kEightLines);
    for (int n = 1; n <= 8; ++n) expect_records_untouched(n);
    std::vector<int> left_open = descriptors_open_on(main_path());
    EXPECT_EQ(left_open.size(), 1u);
    for (int fd : left_open) close(fd);
}

TEST_F(CardsConfTest, StartupLoadDropsSlotZeroLinesSilently) {
    write_conf("0 400G 0G 400G 1 Online disable\n"
               "2 100G 0G 100G 1 Online enable\n"
               "00 400G 0G 400G 1 Online enable\n"
               "0abc 400G 400G 400G 1 Online disable\n"
               "\t0 400G 0G 400G 1 Online disable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), "2       100G        0G               100G        0  Offline   enable\n");
    EXPECT_TRUE(ring_lines(0).empty());
    for (int n : {1, 3, 4, 5, 6, 7, 8}) {
        expect_records_untouched(n);
        EXPECT_TRUE(ring_lines(n).empty()) << n;
    }
    EXPECT_EQ(ring_lines(2).size(), 2u);
}

TEST_F(CardsConfTest, StartupLoadLogsSlotNumbersOutsideOneToEightAndDropsThemWithoutARecord) {
    write_conf("# header\n"
               "0 400G 0G 400G 1 Online disable\n"
               "9 400G 0G 400G 1 Online disable\n"
               "-1 400G 0G 400G 1 Online disable\n"
               "2147483648 400G 0G 400G 1 Online disable\n"
               "99999999999999999999 400G 0G 400G 1 Online disable\n"
               "3abc 100G 0G 100G 1 Online enable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), data_line(3, 100, 0, 100, 0, "Offline", "enable"));
    const std::string speeds = "detected speed = 400, provisioned speed = 0, configured speed = 400 in cards.conf\n";
    const std::string flags = "dirty_flag = 1, state = Online, admin_state = disable in cards.conf\n";
    EXPECT_EQ(normalize(console_.text()),
              "[SLOT9] cards_conf.cpp:<N> " + speeds + "[SLOT9] cards_conf.cpp:<N> " + flags +
                  "cards_conf.cpp:<N> " + speeds + "cards_conf.cpp:<N> " + flags +
                  "cards_conf.cpp:<N> " + speeds + "cards_conf.cpp:<N> " + flags +
                  "cards_conf.cpp:<N> " + speeds + "cards_conf.cpp:<N> " + flags +
                  "[SLOT3] cards_conf.cpp:<N> detected speed = 100, provisioned speed = 0, configured speed = 100 "
                  "in cards.conf\n"
                  "[SLOT3] cards_conf.cpp:<N> dirty_flag = 1, state = Online, admin_state = enable in cards.conf\n");
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{"[SLOT9:INFO]<T> cards_conf.cpp:<N> " + speeds,
                                                            "[SLOT9:INFO]<T> cards_conf.cpp:<N> " + flags,
                                                            info_line(speeds), info_line(flags),
                                                            info_line(speeds), info_line(flags),
                                                            info_line(speeds), info_line(flags)}));
    EXPECT_EQ(slot(3).card_type, CARD_TYPE_16X100G);
    for (int n : {1, 2, 4, 5, 6, 7, 8}) {
        expect_records_untouched(n);
        EXPECT_TRUE(ring_lines(n).empty()) << n;
    }
    EXPECT_EQ(ring_lines(3).size(), 2u);
}

TEST_F(CardsConfTest, StartupLoadDropsADataLineWithMissingFields) {
    write_conf("4 100G 0G 100G 0 Online\n4 100G\n5 0G 0G 0G 0 Offline enable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), data_line(5, 0, 0, 0, 0, "Offline", "enable"));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{dropped(1, "fewer than seven fields"),
                                                            dropped(2, "fewer than seven fields")}));
    expect_records_untouched(4);
    EXPECT_TRUE(ring_lines(4).empty());
}

TEST_F(CardsConfTest, StartupLoadReadsNumbersBeyondAnIntAs32BitInts) {
    write_conf("5 0G 0G 4294967396G 0 Offline enable\n"
               "4294967299 400G 4294967696G 400G 1 Online disable\n"
               "4294967296 400G 0G 400G 1 Online disable\n");
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), "5       0G        0G               100G        0  Offline   enable\n"
                      "3       400G        400G               400G        0  Offline   disable\n");
    EXPECT_TRUE(ring_lines(0).empty());
    EXPECT_EQ(slot(5).card_type, CARD_TYPE_16X100G);
    EXPECT_EQ(slot(3).disabled, 1);
    EXPECT_EQ(slot(3).provisioned, 1);
    EXPECT_EQ(slot(3).provisioned_type, CARD_TYPE_4X400G);
}

TEST_F(CardsConfTest, StartupLoadReadsALineOnlyUpToANulByte) {
    write_conf("1 400G 0G 400G 1 Online enable\0trailing junk\n"s
               "2 100G\0 0G 100G 1 Online enable\n"s
               "\0003 100G 0G 100G 1 Online enable\n"s);
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), data_line(1, 400, 0, 400, 0, "Offline", "enable"));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{dropped(2, "fewer than seven fields")});
    expect_records_untouched(2);
    expect_records_untouched(3);
}

TEST_F(CardsConfTest, StartupLoadReadsALongLineWhole) {
    std::string long_comment = "# " + std::string(1000, 'c') + " 3 100G 0G 100G 1 Online enable\n";
    std::string padded = "1 400G 0G 400G 1 Online enable" + std::string(300, ' ') + "7 100G\n";
    std::string long_word = "2 100G 0G 100G 1 Online " + std::string(300, 'e') + "\n";
    write_conf(long_comment + padded + long_word);
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), data_line(1, 400, 0, 400, 0, "Offline", "enable"));
    EXPECT_EQ(normalized_ring(0),
              std::vector<std::string>{dropped(3, "rewritten line would exceed 255 characters")});
    EXPECT_EQ(slot(1).card_type, CARD_TYPE_4X400G);
    for (int n : {2, 3, 7}) {
        expect_records_untouched(n);
        EXPECT_TRUE(ring_lines(n).empty()) << n;
    }
}

TEST_F(CardsConfTest, StartupLoadOfAHundredThousandLines) {
    g_log_level = LOG_LEVEL_CRIT;
    std::string content;
    std::string expected;
    for (int i = 0; i < 100000; ++i) {
        int n = i / 4 % 8 + 1;
        switch (i % 4) {
        case 0:
            content += std::to_string(n) + "\t100G 0G  100G 1 Online enable\n";
            expected += data_line(n, 100, 0, 100, 0, "Offline", "enable");
            break;
        case 1: content += "# comment " + std::to_string(i) + "\n"; break;
        case 2: content += "\n"; break;
        default: content += std::to_string(n) + " 0G 0G 0G\n"; break;
        }
    }
    write_conf(content);
    ASSERT_TRUE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), expected);
    EXPECT_EQ(normalized_ring(0).back(), dropped(100000, "fewer than seven fields"));
    for (int n = 1; n <= 8; ++n) EXPECT_EQ(ring_lines(n).size(), 24u) << n;
}

TEST_F(CardsConfTest, StartupLoadWhenTheFileVanishesBeforeItsRemove) {
    g_log_level = LOG_LEVEL_CRIT;
    std::string content, expected;
    for (int i = 0; i < 3000; ++i) {
        content += "1 400G 0G 400G 1 Online enable\n";
        expected += data_line(1, 400, 0, 400, 0, "Offline", "enable");
    }
    write_conf(content);
    DrainedFifo fifo(temp_path(0), [this] { unlink(main_path().c_str()); });
    EXPECT_TRUE(update_info_from_cards_conf());
    fifo.join();
    EXPECT_GT((long)fifo.data().size(), fifo.pipe_size());
    EXPECT_EQ(fifo.data(), expected);
    std::vector<std::string> ring = normalized_ring(0);
    EXPECT_EQ(ring, (std::vector<std::string>{err_line("Unable to remove " + main_path()),
                                              err_line("This may setup slots incorrectly")}));
    EXPECT_EQ(slot(1).card_type, CARD_TYPE_4X400G);
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf0"));
}

TEST_F(CardsConfTest, StartupLoadWhenItsTemporaryFileVanishesBeforeTheRename) {
    g_log_level = LOG_LEVEL_CRIT;
    std::string content;
    for (int i = 0; i < 3000; ++i) content += "2 100G 0G 100G 1 Online enable\n";
    write_conf(content);
    DrainedFifo fifo(temp_path(0), [this] { unlink(temp_path(0).c_str()); });
    EXPECT_TRUE(update_info_from_cards_conf());
    fifo.join();
    EXPECT_GT((long)fifo.data().size(), fifo.pipe_size());
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{err_line("Unable to rename " + temp_path(0)),
                                                            err_line("This may setup slots incorrectly")}));
    EXPECT_FALSE(root_.exists(kConf));
    EXPECT_EQ(slot(2).card_type, CARD_TYPE_16X100G);
    clear_log_rings();
    EXPECT_FALSE(cards_conf_clear_dirty_bits());
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to open file " + main_path())});
}

TEST_F(CardsConfTest, StartupLoadKeepsTheFileWhenTheNewContentCannotBeWritten) {
    write_conf(kEightLines);
    ASSERT_EQ(symlink("/dev/full", temp_path(0).c_str()), 0);
    EXPECT_FALSE(update_info_from_cards_conf());
    EXPECT_EQ(conf(), kEightLines);
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to write " + temp_path(0))});
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf0"));
}

/* ---- the query --------------------------------------------------------- */

TEST_F(CardsConfTest, QueryFindsAConfiguredSpeedAndLogsEachLineItRead) {
    write_conf(data_line(1, 400, 0, 400, 0, "Online", "enable") + data_line(3, 100, 0, 100, 0, "Offline", "enable") +
               data_line(4, 0, 0, 0, 0, "Offline", "enable"));
    EXPECT_TRUE(check_cards_conf_for_valid_card(3));
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{
                  info_line("cards.conf line - " + data_line(1, 400, 0, 400, 0, "Online", "enable") + "\n"),
                  info_line("From cards.conf slot = 1, speed = 400G\n"),
                  info_line("cards.conf line - " + data_line(3, 100, 0, 100, 0, "Offline", "enable") + "\n"),
                  info_line("From cards.conf slot = 3, speed = 100G\n")}));
    EXPECT_EQ(normalized_ring(3),
              std::vector<std::string>{slot_info_line(3, "cards.conf entry valid for slot with speed 100G\n")});
}

TEST_F(CardsConfTest, QueryForASlotConfiguredForZeroIsFalse) {
    write_conf(data_line(3, 100, 0, 0, 0, "Offline", "enable"));
    EXPECT_FALSE(check_cards_conf_for_valid_card(3));
    EXPECT_TRUE(ring_lines(3).empty());
    EXPECT_EQ(normalized_ring(0).back(), info_line("From cards.conf slot = 3, speed = 0G\n"));
}

TEST_F(CardsConfTest, QueryGoesOnPastAZeroLineToALaterLineForTheSameSlot) {
    write_conf(data_line(3, 0, 0, 0, 0, "Offline", "enable") + data_line(3, 200, 0, 200, 1, "Offline", "enable"));
    EXPECT_TRUE(check_cards_conf_for_valid_card(3));
    EXPECT_EQ(normalized_ring(3),
              std::vector<std::string>{slot_info_line(3, "cards.conf entry valid for slot with speed 200G\n")});
}

TEST_F(CardsConfTest, QueryWithoutTheFileLogsAndIsFalse) {
    EXPECT_FALSE(check_cards_conf_for_valid_card(2));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to open file " + main_path())});
}

TEST_F(CardsConfTest, QueryWritesNothing) {
    std::string content = "# keep\n\n" + kEightLines;
    write_conf(content);
    EXPECT_FALSE(check_cards_conf_for_valid_card(4));
    EXPECT_EQ(conf(), content);
    for (int writer = 0; writer <= 9; ++writer) EXPECT_FALSE(root_.exists(kConf + std::to_string(writer)));
    EXPECT_TRUE(descriptors_open_on(main_path()).empty());
}

TEST_F(CardsConfTest, QueryLogsShortLinesButTakesNoFieldsFromThem) {
    write_conf("\n# x\n3 100G\n3 0G 0G 100G");
    EXPECT_TRUE(check_cards_conf_for_valid_card(3));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{info_line("cards.conf line - \n\n"),
                                                            info_line("cards.conf line - # x\n\n"),
                                                            info_line("cards.conf line - 3 100G\n\n"),
                                                            info_line("cards.conf line - 3 0G 0G 100G\n"),
                                                            info_line("From cards.conf slot = 3, speed = 100G\n")}));
}

TEST_F(CardsConfTest, QueryTakesTheConfiguredSpeedAsItsFourthField) {
    write_conf("5 400G 400G 0G 0 Offline enable\n5\t0G\t0G\t100G\n");
    EXPECT_TRUE(check_cards_conf_for_valid_card(5));
    EXPECT_EQ(normalized_ring(0).back(), info_line("From cards.conf slot = 5, speed = 100G\n\n"));
}

TEST_F(CardsConfTest, QueryIgnoresOtherSlots) {
    write_conf("13 0G 0G 100G 0 Offline enable\n10 0G 0G 100G 0 Offline enable\n");
    EXPECT_FALSE(check_cards_conf_for_valid_card(2));
    EXPECT_TRUE(ring_lines(2).empty());
}

TEST_F(CardsConfTest, QueryReadsNumbersAs32BitInts) {
    write_conf("2 0G 0G 4294967296G 0 Offline enable\n4294967298 0G 0G 4294967396G 0 Offline enable\n");
    EXPECT_TRUE(check_cards_conf_for_valid_card(2));
    EXPECT_EQ(normalized_ring(2),
              std::vector<std::string>{slot_info_line(2, "cards.conf entry valid for slot with speed 100G\n")});
}

/* ---- update_cards_conf ------------------------------------------------- */

TEST_F(CardsConfTest, NewLineGoesBeforeTheFirstSlotTwoAbove) {
    std::string one = data_line(1, 0, 0, 0, 0, "Offline", "enable");
    std::string two = data_line(2, 0, 0, 0, 0, "Offline", "enable");
    std::string four = data_line(4, 0, 0, 0, 0, "Offline", "enable");
    std::string five = data_line(5, 0, 0, 0, 0, "Offline", "enable");
    write_conf(one + two + four + five);
    EXPECT_TRUE(update_cards_conf(3, 100, 0, 100, 1, 0, 0));
    EXPECT_EQ(conf(), one + two + four + data_line(3, 100, 0, 100, 1, "Offline", "enable") + five);
    EXPECT_TRUE(ring_lines(0).empty());
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf3"));
}

TEST_F(CardsConfTest, NewLineIsAppendedAfterFourWhenNoSlotIsTwoAbove) {
    std::string head = data_line(1, 0, 0, 0, 0, "Offline", "enable") + data_line(2, 0, 0, 0, 0, "Offline", "enable") +
                       data_line(4, 0, 0, 0, 0, "Offline", "enable");
    write_conf(head);
    EXPECT_TRUE(update_cards_conf(3, 400, 0, 400, 1, 0, 0));
    EXPECT_EQ(conf(), head + "3       400G        0G               400G        1  Offline   enable\n");
}

TEST_F(CardsConfTest, EmptyFileGetsTheSingleNewLine) {
    write_conf("");
    EXPECT_TRUE(update_cards_conf(6, 0, 200, 200, 1, 0, 1));
    EXPECT_EQ(conf(), "6       0G        200G               200G        1  Offline   disable\n");
}

TEST_F(CardsConfTest, CommentAtTheTopStaysInPlace) {
    write_conf("# cards\n" + data_line(8, 0, 0, 0, 0, "Offline", "enable"));
    EXPECT_TRUE(update_cards_conf(2, 100, 0, 100, 1, 0, 0));
    EXPECT_EQ(conf(), "# cards\n" + data_line(2, 100, 0, 100, 1, "Offline", "enable") +
                          data_line(8, 0, 0, 0, 0, "Offline", "enable"));
}

TEST_F(CardsConfTest, StateAndAdminWordsNeedExactlyOne) {
    write_conf("");
    EXPECT_TRUE(update_cards_conf(1, 0, 0, 0, 0, 2, 2));
    EXPECT_EQ(conf(), data_line(1, 0, 0, 0, 0, "Offline", "enable"));
    EXPECT_TRUE(update_cards_conf(1, 0, 0, 0, 0, 1, 1));
    EXPECT_EQ(conf(), data_line(1, 0, 0, 0, 0, "Online", "disable"));
    EXPECT_TRUE(update_cards_conf(1, 0, 0, 0, 0, -1, -1));
    EXPECT_EQ(conf(), data_line(1, 0, 0, 0, 0, "Offline", "enable"));
}

TEST_F(CardsConfTest, EveryLineOfTheSlotIsReplaced) {
    write_conf(data_line(5, 0, 0, 0, 0, "Offline", "enable") + "# between\n" +
               data_line(5, 400, 0, 400, 0, "Online", "disable") + "  5 junk\n");
    EXPECT_TRUE(update_cards_conf(5, 100, 0, 100, 1, 0, 0));
    std::string replaced = data_line(5, 100, 0, 100, 1, "Offline", "enable");
    EXPECT_EQ(conf(), replaced + "# between\n" + replaced + replaced);
}

TEST_F(CardsConfTest, OtherLinesPassThroughByteForByte) {
    std::string others = "# comment\n"
                         "\n"
                         "1\t400G 0G 400G 0 Online enable\r\n"
                         "x not a slot\n"
                         "2 100G\0 nul inside\n"s
                         "  \t \n"
                         "# " +
                         std::string(600, 'L') +
                         "\n"
                         "0 400G 0G 400G 1 Online enable\n"
                         "-7 odd\n";
    write_conf(others);
    EXPECT_TRUE(update_cards_conf(7, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(conf(), others + data_line(7, 0, 0, 0, 0, "Offline", "enable"));
}

TEST_F(CardsConfTest, SlotNumberIsTheStartOfTheLineAsANumber) {
    write_conf("  3abc anything\n\t3\n+3 x\n03 y\n13 z\n");
    EXPECT_TRUE(update_cards_conf(3, 0, 0, 0, 0, 0, 0));
    std::string line = data_line(3, 0, 0, 0, 0, "Offline", "enable");
    EXPECT_EQ(conf(), line + line + line + line + "13 z\n");
}

TEST_F(CardsConfTest, LineAppendedAfterALastLineWithoutLineFeedStartsALineOfItsOwn) {
    write_conf("1 400G 0G 400G 0 Online enable");
    EXPECT_TRUE(update_cards_conf(2, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(conf(), "1 400G 0G 400G 0 Online enable\n" + data_line(2, 0, 0, 0, 0, "Offline", "enable"));
}

TEST_F(CardsConfTest, UpdateUsesATemporaryFileNamedAfterTheSlotAndClosesTheMainFileOnFailure) {
    write_conf(kEightLines);
    mkdir(temp_path(5).c_str(), 0755);
    EXPECT_FALSE(update_cards_conf(5, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to open file " + temp_path(5))});
    EXPECT_EQ(conf(), kEightLines);
    EXPECT_TRUE(descriptors_open_on(main_path()).empty());
}

TEST_F(CardsConfTest, UpdateWithoutTheFileCreatesNothing) {
    EXPECT_FALSE(update_cards_conf(1, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to open file " + main_path())});
    EXPECT_FALSE(root_.exists(kConf));
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf1"));
}

TEST_F(CardsConfTest, UpdateWarnsAboutPortsWhenTheRemoveFails) {
    std::string comments = big_comment_block();
    write_conf(comments);
    DrainedFifo fifo(temp_path(4), [this] { unlink(main_path().c_str()); });
    EXPECT_TRUE(update_cards_conf(4, 100, 0, 100, 1, 0, 0));
    fifo.join();
    EXPECT_GT((long)fifo.data().size(), fifo.pipe_size());
    EXPECT_EQ(fifo.data(), comments + data_line(4, 100, 0, 100, 1, "Offline", "enable"));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{err_line("Unable to remove " + main_path()),
                                                            err_line("This may setup ports incorrectly")}));
    EXPECT_EQ(normalize(console_.text()), "cards_conf.cpp:<N> ERR Unable to remove " + main_path() +
                                              "\n"
                                              "cards_conf.cpp:<N> ERR This may setup ports incorrectly\n");
}

TEST_F(CardsConfTest, UpdateWarnsAboutSlotsWhenTheRenameFails) {
    write_conf(big_comment_block());
    DrainedFifo fifo(temp_path(4), [this] { unlink(temp_path(4).c_str()); });
    EXPECT_TRUE(update_cards_conf(4, 100, 0, 100, 1, 0, 0));
    fifo.join();
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{err_line("Unable to rename " + temp_path(4)),
                                                            err_line("This may setup slots incorrectly")}));
    EXPECT_FALSE(root_.exists(kConf));
    clear_log_rings();
    EXPECT_FALSE(update_cards_conf(4, 100, 0, 100, 1, 0, 0));
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{err_line("Unable to open file " + main_path())});
}

/* ---- the single-field writers ------------------------------------------ */

TEST_F(CardsConfTest, SetSlotOnlineTakesAnyNonZeroValueAsOnline) {
    write_conf(data_line(2, 100, 0, 100, 0, "Offline", "enable") + data_line(3, 100, 0, 100, 0, "Offline", "enable"));
    EXPECT_TRUE(cards_conf_set_slot_online(2, 2));
    EXPECT_EQ(conf(), data_line(2, 100, 0, 100, 0, "Online", "enable") + data_line(3, 100, 0, 100, 0, "Offline", "enable"));
    EXPECT_TRUE(cards_conf_set_slot_online(3, -5));
    EXPECT_EQ(conf(), data_line(2, 100, 0, 100, 0, "Online", "enable") + data_line(3, 100, 0, 100, 0, "Online", "enable"));
    EXPECT_TRUE(cards_conf_set_slot_online(2, 0));
    EXPECT_EQ(conf(), data_line(2, 100, 0, 100, 0, "Offline", "enable") + data_line(3, 100, 0, 100, 0, "Online", "enable"));
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf9"));
    EXPECT_TRUE(ring_lines(0).empty());
}

TEST_F(CardsConfTest, DisableSlotNeedsExactlyOne) {
    write_conf(data_line(6, 0, 0, 0, 0, "Offline", "enable"));
    EXPECT_TRUE(cards_conf_disable_slot(6, 1));
    EXPECT_EQ(conf(), data_line(6, 0, 0, 0, 0, "Offline", "disable"));
    EXPECT_TRUE(cards_conf_disable_slot(6, 2));
    EXPECT_EQ(conf(), data_line(6, 0, 0, 0, 0, "Offline", "enable"));
    EXPECT_TRUE(cards_conf_disable_slot(6, 1));
    EXPECT_TRUE(cards_conf_disable_slot(6, 0));
    EXPECT_EQ(conf(), data_line(6, 0, 0, 0, 0, "Offline", "enable"));
}

TEST_F(CardsConfTest, DisablingASlotWithoutALineOnlyRespacesTheOthersAndDropsBlankLines) {
    write_conf("1 400G 0G 400G 1 Online enable\n\n   \n2\t100G\t0G\t100G\t0\tOffline\tdisabled\n\n");
    EXPECT_TRUE(cards_conf_disable_slot(6, 1));
    EXPECT_EQ(conf(), data_line(1, 400, 0, 400, 1, "Online", "enable") +
                          data_line(2, 100, 0, 100, 0, "Offline", "disabled"));
    EXPECT_TRUE(ring_lines(0).empty());
}

TEST_F(CardsConfTest, ClearingDirtyBitsKeepsHashLinesAndDropsOtherText) {
    write_conf("# portd reads this file\n"
               "x 1 400G 0G 400G 1 Online enable\n"
               "1 400G 0G 400G 1 Online enable\n"
               " # indented comment\n"
               "\t3 100G 0G 100G 1 Offline disable\n"
               "-4 0G 0G 0G 1 Offline enable\n"
               "\0005 0G 0G 0G 1 Offline enable\n"s
               "#last without line feed");
    EXPECT_TRUE(cards_conf_clear_dirty_bits());
    EXPECT_EQ(conf(), "# portd reads this file\n" + data_line(1, 400, 0, 400, 0, "Online", "enable") +
                          data_line(3, 100, 0, 100, 0, "Offline", "disable") + "#last without line feed");
    EXPECT_TRUE(ring_lines(0).empty());
}

TEST_F(CardsConfTest, SingleFieldWritersKeepWordsAsParsed) {
    write_conf("4 0G 0G 0G 1 online Disabled\n5 0G 0G 0G 7 Online enable\r\n");
    EXPECT_TRUE(cards_conf_set_slot_online(5, 1));
    EXPECT_EQ(conf(), data_line(4, 0, 0, 0, 1, "online", "Disabled") + data_line(5, 0, 0, 0, 7, "Online", "enable\r"));
}

TEST_F(CardsConfTest, SingleFieldWritersRewriteOtherSlotNumbersButDropUnusableLines) {
    write_conf("0 0G 0G 0G 1 Offline enable\n"
               "9 0G 0G 0G 1 Offline enable\n"
               "3abc 0G 0G 0G 1 Offline enable\n"
               "2147483648 0G 0G 0G 1 Offline enable\n"
               "2 0G 0G 0G 1 Offline\n"
               "7 0G 0G 0G 1 Offline " +
               std::string(250, 'e') + "\n");
    EXPECT_TRUE(cards_conf_clear_dirty_bits());
    EXPECT_EQ(conf(), data_line(0, 0, 0, 0, 0, "Offline", "enable") + data_line(9, 0, 0, 0, 0, "Offline", "enable") +
                          data_line(3, 0, 0, 0, 0, "Offline", "enable") +
                          data_line(INT_MIN, 0, 0, 0, 0, "Offline", "enable"));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{dropped(5, "fewer than seven fields"),
                                                            dropped(6, "rewritten line would exceed 255 characters")}));
}

TEST_F(CardsConfTest, SingleFieldWriterClosesTheMainFileWhenItsTemporaryFileCannotBeCreated) {
    write_conf(kEightLines);
    mkdir(temp_path(9).c_str(), 0755);
    EXPECT_FALSE(cards_conf_set_slot_online(1, 1));
    EXPECT_FALSE(cards_conf_disable_slot(1, 1));
    EXPECT_FALSE(cards_conf_clear_dirty_bits());
    std::string line = err_line("Unable to open file " + temp_path(9));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{line, line, line}));
    EXPECT_EQ(conf(), kEightLines);
    EXPECT_TRUE(descriptors_open_on(main_path()).empty());
}

TEST_F(CardsConfTest, SingleFieldWritersWithoutTheFileCreateNothing) {
    EXPECT_FALSE(cards_conf_disable_slot(1, 1));
    EXPECT_FALSE(cards_conf_set_slot_online(1, 1));
    EXPECT_FALSE(cards_conf_clear_dirty_bits());
    std::string line = err_line("Unable to open file " + main_path());
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{line, line, line}));
    EXPECT_FALSE(root_.exists(kConf));
    EXPECT_FALSE(root_.exists("/etc/tarnel/cards.conf9"));
}

TEST_F(CardsConfTest, SingleFieldWriterWarnsAboutSlotsWhenTheRemoveFails) {
    std::string comments = big_comment_block();
    write_conf(comments + "1 400G 0G 400G 0 Offline enable\n");
    DrainedFifo fifo(temp_path(9), [this] { unlink(main_path().c_str()); });
    EXPECT_TRUE(cards_conf_set_slot_online(1, 1));
    fifo.join();
    EXPECT_GT((long)fifo.data().size(), fifo.pipe_size());
    EXPECT_EQ(fifo.data(), comments + data_line(1, 400, 0, 400, 0, "Online", "enable"));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{err_line("Unable to remove " + main_path()),
                                                            err_line("This may setup slots incorrectly")}));
}

TEST_F(CardsConfTest, SingleFieldWriterWarnsAboutSlotsWhenTheRenameFails) {
    write_conf(big_comment_block());
    DrainedFifo fifo(temp_path(9), [this] { unlink(temp_path(9).c_str()); });
    EXPECT_TRUE(cards_conf_disable_slot(2, 1));
    fifo.join();
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{err_line("Unable to rename " + temp_path(9)),
                                                            err_line("This may setup slots incorrectly")}));
    EXPECT_FALSE(root_.exists(kConf));
}

TEST_F(CardsConfTest, WritersKeepTheFileWhenTheNewContentCannotBeWritten) {
    write_conf(kEightLines);
    ASSERT_EQ(symlink("/dev/full", temp_path(9).c_str()), 0);
    EXPECT_FALSE(cards_conf_clear_dirty_bits());
    ASSERT_EQ(symlink("/dev/full", temp_path(2).c_str()), 0);
    EXPECT_FALSE(update_cards_conf(2, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(conf(), kEightLines);
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{err_line("Unable to write " + temp_path(9)),
                                                            err_line("Unable to write " + temp_path(2))}));
}

TEST_F(CardsConfTest, WritersOnAHundredThousandLineFile) {
    g_log_level = LOG_LEVEL_CRIT;
    std::string content;
    for (int i = 0; i < 100000; ++i) {
        if (i % 10 == 0) content += "# " + std::to_string(i) + "\n";
        else content += std::to_string(i % 8 + 1) + " 100G 0G 100G 1 Offline enable\n";
    }
    write_conf(content);
    ASSERT_TRUE(cards_conf_clear_dirty_bits());
    ASSERT_TRUE(cards_conf_set_slot_online(3, 1));
    ASSERT_TRUE(cards_conf_disable_slot(4, 1));
    ASSERT_TRUE(update_cards_conf(5, 0, 0, 0, 1, 0, 1));
    std::vector<std::string> lines = split_lines(conf());
    ASSERT_EQ(lines.size(), 100000u);
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i % 10 == 0) {
            ASSERT_EQ(lines[i], "# " + std::to_string(i) + "\n");
            continue;
        }
        int n = (int)(i % 8 + 1);
        std::string expected = n == 5   ? data_line(5, 0, 0, 0, 1, "Offline", "disable")
                               : n == 3 ? data_line(3, 100, 0, 100, 0, "Online", "enable")
                               : n == 4 ? data_line(4, 100, 0, 100, 0, "Offline", "disable")
                                        : data_line(n, 100, 0, 100, 0, "Offline", "enable");
        ASSERT_EQ(lines[i], expected) << i;
    }
}

/* ---- contract with the callers ------------------------------------------ */

TEST_F(CardsConfTest, CallsRunWhileTheCallerHoldsTheCardsConfMutex) {
    write_conf(kEightLines);
    /* A call that took the mutex itself would block here for good. */
    pthread_mutex_lock(&g_cards_conf_mutex);
    EXPECT_TRUE(check_cards_conf_for_valid_card(1));
    EXPECT_TRUE(update_cards_conf(1, 400, 0, 400, 1, 0, 0));
    EXPECT_TRUE(cards_conf_disable_slot(1, 1));
    EXPECT_TRUE(cards_conf_set_slot_online(1, 1));
    EXPECT_TRUE(cards_conf_clear_dirty_bits());
    EXPECT_TRUE(update_info_from_cards_conf());
    pthread_mutex_unlock(&g_cards_conf_mutex);
}

using CardsConfDeathTest = CardsConfTest;

TEST_F(CardsConfDeathTest, SlotOutsideOneToEightStopsTheProcess) {
    const char *message = "Assertion `slot_id >= 1 && slot_id <= 8' failed";
    write_conf(kEightLines);
    for (int bad : {0, 9, -1}) {
        EXPECT_DEATH(check_cards_conf_for_valid_card(bad), message) << bad;
        EXPECT_DEATH(update_cards_conf(bad, 0, 0, 0, 0, 0, 0), message) << bad;
        EXPECT_DEATH(cards_conf_disable_slot(bad, 1), message) << bad;
        EXPECT_DEATH(cards_conf_set_slot_online(bad, 1), message) << bad;
    }
    EXPECT_EQ(conf(), kEightLines);
}

}  // namespace
