#include <gtest/gtest.h>

#include <sys/stat.h>

#include <regex>
#include <string>

#include "env.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        clear_log_rings();
        g_log_level = LOG_LEVEL_INFO;
    }
    void TearDown() override { g_log_level = LOG_LEVEL_INFO; }
};

TEST_F(LogTest, GlobalErrorLineHasConsoleWordAndRingLevelName) {
    ConsoleCapture console;
    CM_LOG(LOG_LEVEL_ERR, "Unable to alloc memory for events\n");
    EXPECT_EQ(normalize(console.text()), "log_test.cpp:<N> ERR Unable to alloc memory for events\n");
    ASSERT_EQ(ring_lines(0).size(), 1u);
    EXPECT_EQ(normalized_ring(0)[0], "[ERR]<T> log_test.cpp:<N> Unable to alloc memory for events\n");
}

TEST_F(LogTest, SlotErrorLineCarriesTheSlotTagInBothPlaces) {
    ConsoleCapture console;
    CM_LOG_SLOT(LOG_LEVEL_ERR, 3, "Unable to open file %s\n", "/path");
    EXPECT_EQ(normalize(console.text()), "[SLOT3] log_test.cpp:<N> ERR Unable to open file /path\n");
    EXPECT_TRUE(ring_lines(0).empty());
    ASSERT_EQ(ring_lines(3).size(), 1u);
    EXPECT_EQ(normalized_ring(3)[0], "[SLOT3:ERR]<T> log_test.cpp:<N> Unable to open file /path\n");
}

TEST_F(LogTest, SlotLineAboveEightKeepsItsTagAndGoesIntoTheDaemonRing) {
    ConsoleCapture console;
    int line = __LINE__ + 1;
    CM_LOG_SLOT(LOG_LEVEL_ERR, 9, "unable to get INI in-use\n");
    EXPECT_EQ(console.text(), "[SLOT9] log_test.cpp:" + std::to_string(line) + " ERR unable to get INI in-use\n");
    ASSERT_EQ(ring_lines(0).size(), 1u);
    EXPECT_EQ(normalized_ring(0)[0], "[SLOT9:ERR]<T> log_test.cpp:<N> unable to get INI in-use\n");
    for (int ring = 1; ring <= 8; ++ring) EXPECT_TRUE(ring_lines(ring).empty()) << ring;
}

TEST_F(LogTest, InfoHasNoConsoleWordAndWarnHasOne) {
    ConsoleCapture console;
    CM_LOG_SLOT(LOG_LEVEL_INFO, 1, "Received event\n");
    CM_LOG(LOG_LEVEL_WARN, "careful\n");
    EXPECT_EQ(normalize(console.text()),
              "[SLOT1] log_test.cpp:<N> Received event\n"
              "log_test.cpp:<N> WARN careful\n");
    EXPECT_EQ(normalized_ring(1)[0], "[SLOT1:INFO]<T> log_test.cpp:<N> Received event\n");
    EXPECT_EQ(normalized_ring(0)[0], "[WARN]<T> log_test.cpp:<N> careful\n");
}

TEST_F(LogTest, ConsoleLineNamesTheCallSiteLine) {
    ConsoleCapture console;
    int line = __LINE__ + 1;
    CM_LOG(LOG_LEVEL_ERR, "x\n");
    EXPECT_EQ(console.text(), "log_test.cpp:" + std::to_string(line) + " ERR x\n");
}

TEST_F(LogTest, CriticalThresholdPrintsNothingButRingsStillFill) {
    g_log_level = LOG_LEVEL_CRIT;
    ConsoleCapture console;
    CM_LOG(LOG_LEVEL_ERR, "an error\n");
    CM_LOG(LOG_LEVEL_WARN, "a warning\n");
    CM_LOG_SLOT(LOG_LEVEL_INFO, 4, "an info\n");
    EXPECT_EQ(console.text(), "");
    EXPECT_EQ(ring_lines(0).size(), 2u);
    EXPECT_EQ(ring_lines(4).size(), 1u);
}

TEST_F(LogTest, ErrorThresholdFiltersWarnAndInfoOnly) {
    g_log_level = LOG_LEVEL_ERR;
    ConsoleCapture console;
    CM_LOG(LOG_LEVEL_ERR, "e\n");
    CM_LOG(LOG_LEVEL_WARN, "w\n");
    CM_LOG(LOG_LEVEL_INFO, "i\n");
    EXPECT_EQ(normalize(console.text()), "log_test.cpp:<N> ERR e\n");
    EXPECT_EQ(ring_lines(0).size(), 3u);
}

TEST_F(LogTest, DebugThresholdPrintsTheSameAsInfo) {
    auto emit = [] {
        CM_LOG(LOG_LEVEL_ERR, "e\n");
        CM_LOG(LOG_LEVEL_WARN, "w\n");
        CM_LOG_SLOT(LOG_LEVEL_INFO, 2, "i\n");
    };
    std::string at_info, at_debug;
    {
        ConsoleCapture console;
        g_log_level = LOG_LEVEL_INFO;
        emit();
        at_info = normalize(console.text());
    }
    {
        ConsoleCapture console;
        g_log_level = LOG_LEVEL_DEBUG;
        emit();
        at_debug = normalize(console.text());
    }
    EXPECT_EQ(at_info, at_debug);
    EXPECT_EQ(at_info, "log_test.cpp:<N> ERR e\nlog_test.cpp:<N> WARN w\n[SLOT2] log_test.cpp:<N> i\n");
}

TEST_F(LogTest, RingOf25LinesShowsLines2To25) {
    for (int i = 1; i <= 25; ++i) CM_LOG_SLOT(LOG_LEVEL_INFO, 5, "line %d\n", i);
    auto lines = normalized_ring(5);
    ASSERT_EQ(lines.size(), 24u);
    EXPECT_EQ(lines.front(), "[SLOT5:INFO]<T> log_test.cpp:<N> line 2\n");
    EXPECT_EQ(lines.back(), "[SLOT5:INFO]<T> log_test.cpp:<N> line 25\n");
}

TEST_F(LogTest, RingOf26LinesShowsLines3To26) {
    for (int i = 1; i <= 26; ++i) CM_LOG(LOG_LEVEL_INFO, "line %d\n", i);
    auto lines = normalized_ring(0);
    ASSERT_EQ(lines.size(), 24u);
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(lines[i], "[INFO]<T> log_test.cpp:<N> line " + std::to_string(i + 3) + "\n");
}

TEST_F(LogTest, SlotZeroWritesTheGlobalForms) {
    ConsoleCapture console;
    CM_LOG_SLOT(LOG_LEVEL_ERR, 0, "Unable to start timer\n");
    EXPECT_EQ(normalize(console.text()), "log_test.cpp:<N> ERR Unable to start timer\n");
    EXPECT_EQ(normalized_ring(0)[0], "[ERR]<T> log_test.cpp:<N> Unable to start timer\n");
}

TEST_F(LogTest, NegativeSlotWritesTheGlobalForms) {
    ConsoleCapture console;
    CM_LOG_SLOT(LOG_LEVEL_INFO, -1, "negative\n");
    EXPECT_EQ(normalize(console.text()), "log_test.cpp:<N> negative\n");
    EXPECT_EQ(normalized_ring(0), std::vector<std::string>{"[INFO]<T> log_test.cpp:<N> negative\n"});
}

TEST_F(LogTest, MessageWithoutNewlineStaysWithoutOne) {
    ConsoleCapture console;
    CM_LOG(LOG_LEVEL_ERR, "couldn't write pid file %s", "/var/run/chassis-mgr.pid");
    EXPECT_EQ(normalize(console.text()), "log_test.cpp:<N> ERR couldn't write pid file /var/run/chassis-mgr.pid");
    EXPECT_EQ(normalized_ring(0)[0], "[ERR]<T> log_test.cpp:<N> couldn't write pid file /var/run/chassis-mgr.pid");
}

TEST_F(LogTest, LongRingLineIsCutAt511CharactersButConsoleIsNot) {
    ConsoleCapture console;
    std::string text(700, 'x');
    CM_LOG(LOG_LEVEL_INFO, "%s\n", text.c_str());
    EXPECT_EQ(console.text().size(), std::string("log_test.cpp:").size() + std::to_string(__LINE__ - 1).size() +
                                         1 + 700 + 1);
    std::string ring = ring_lines(0)[0];
    EXPECT_EQ(ring.size(), 511u);
    EXPECT_EQ(ring.back(), 'x');
}

TEST_F(LogTest, DatestampHasEpochMicrosecondsDateAndTime) {
    std::string stamp = _log_datestamp();
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d+\.\d{6} \d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << stamp;
}

TEST_F(LogTest, RingLineCarriesTheTimeStampRightAfterTheLevel) {
    CM_LOG(LOG_LEVEL_INFO, "x\n");
    EXPECT_TRUE(std::regex_match(ring_lines(0)[0],
                                 std::regex(R"(\[INFO\]\d+\.\d{6} \d{4}-\d\d-\d\d \d\d:\d\d:\d\d log_test\.cpp:\d+ x\n)")));
}

TEST_F(LogTest, ConsoleGoesToStderrUntilAStreamIsSet) {
    FILE *saved = g_log_fd;
    g_log_fd = nullptr;
    testing::internal::CaptureStderr();
    CM_LOG(LOG_LEVEL_ERR, "to stderr\n");
    std::string err = testing::internal::GetCapturedStderr();
    g_log_fd = saved;
    EXPECT_EQ(normalize(err), "log_test.cpp:<N> ERR to stderr\n");
}

/* Names the captured console as the journal stream, as the service manager
 * does through JOURNAL_STREAM, for the life of the object. */
class JournalConsole {
  public:
    explicit JournalConsole(const ConsoleCapture &console) {
        struct stat st;
        fstat(fileno(console.stream()), &st);
        std::string stream = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
        env_configure_journal_stream(stream.c_str());
        followed_ = log_console_follow_journal();
    }
    ~JournalConsole() {
        env_configure_journal_stream(nullptr);
        log_console_follow_journal();
    }
    bool followed() const { return followed_; }

  private:
    bool followed_ = false;
};

TEST_F(LogTest, JournalConsoleLinesStartWithTheirSyslogPriority) {
    g_log_level = LOG_LEVEL_DEBUG;
    ConsoleCapture console;
    JournalConsole journal(console);
    ASSERT_TRUE(journal.followed());
    CM_LOG(LOG_LEVEL_CRIT, "critical\n");
    CM_LOG(LOG_LEVEL_ERR, "an error\n");
    CM_LOG_SLOT(LOG_LEVEL_WARN, 3, "a warning\n");
    CM_LOG_SLOT(LOG_LEVEL_INFO, 3, "Received event\n");
    CM_LOG(LOG_LEVEL_DEBUG, "detail\n");
    EXPECT_EQ(normalize(console.text()),
              "<2>log_test.cpp:<N> CRIT critical\n"
              "<3>log_test.cpp:<N> ERR an error\n"
              "<4>[SLOT3] log_test.cpp:<N> WARN a warning\n"
              "<6>[SLOT3] log_test.cpp:<N> Received event\n"
              "<7>log_test.cpp:<N> DEBUG detail\n");
    EXPECT_EQ(normalized_ring(3)[0], "[SLOT3:WARN]<T> log_test.cpp:<N> a warning\n");
}

TEST_F(LogTest, JournalLinePrintedWhateverTheThresholdIsANotice) {
    ConsoleCapture console;
    JournalConsole journal(console);
    _log_log(LOG_LEVEL_ALWAYS, "always %d\n", 11, 1);
    EXPECT_EQ(console.text(), "<5>always 1\n");
}

TEST_F(LogTest, JournalMessageOfSeveralLinesHasOnePrefixPerLine) {
    ConsoleCapture console;
    JournalConsole journal(console);
    CM_LOG(LOG_LEVEL_ERR, "first\nsecond\n");
    EXPECT_EQ(normalize(console.text()), "<3>log_test.cpp:<N> ERR first\n<3>second\n");
}

TEST_F(LogTest, JournalLineWithoutNewlineIsContinuedWithoutASecondPrefix) {
    ConsoleCapture console;
    JournalConsole journal(console);
    CM_LOG(LOG_LEVEL_ERR, "couldn't write pid file %s", "/p");
    CM_LOG(LOG_LEVEL_INFO, "next\n");
    CM_LOG(LOG_LEVEL_INFO, "after\n");
    EXPECT_EQ(normalize(console.text()),
              "<3>log_test.cpp:<N> ERR couldn't write pid file /plog_test.cpp:<N> next\n<6>log_test.cpp:<N> after\n");
}

TEST_F(LogTest, JournalLongLineIsNotCut) {
    ConsoleCapture console;
    JournalConsole journal(console);
    std::string text(3000, 'y');
    CM_LOG(LOG_LEVEL_WARN, "%s\n", text.c_str());
    EXPECT_EQ(normalize(console.text()), "<4>log_test.cpp:<N> WARN " + text + "\n");
}

TEST_F(LogTest, ConsoleThatIsNotTheJournalStreamHasNoPrefix) {
    ConsoleCapture other;
    ConsoleCapture console;
    JournalConsole journal(other);
    EXPECT_FALSE(journal.followed());
    CM_LOG(LOG_LEVEL_ERR, "plain\n");
    EXPECT_EQ(normalize(console.text()), "log_test.cpp:<N> ERR plain\n");
}

TEST(LogLevelNames, OptionValuesMapToThresholds) {
    log_level_e level = LOG_LEVEL_INFO;
    EXPECT_TRUE(log_level_from_name("DEBUG", &level));
    EXPECT_EQ(level, LOG_LEVEL_DEBUG);
    EXPECT_TRUE(log_level_from_name("INFO", &level));
    EXPECT_EQ(level, LOG_LEVEL_INFO);
    EXPECT_TRUE(log_level_from_name("WARNING", &level));
    EXPECT_EQ(level, LOG_LEVEL_WARN);
    EXPECT_TRUE(log_level_from_name("ERROR", &level));
    EXPECT_EQ(level, LOG_LEVEL_ERR);
    EXPECT_TRUE(log_level_from_name("CRITICAL", &level));
    EXPECT_EQ(level, LOG_LEVEL_CRIT);
}

TEST(LogLevelNames, UnknownOrDifferentlyCasedNamesLeaveTheThreshold) {
    log_level_e level = LOG_LEVEL_WARN;
    EXPECT_FALSE(log_level_from_name("VERBOSE", &level));
    EXPECT_FALSE(log_level_from_name("info", &level));
    EXPECT_FALSE(log_level_from_name("", &level));
    EXPECT_EQ(level, LOG_LEVEL_WARN);
}

TEST(Assertions, PrintTheExpressionAndAbort) {
    EXPECT_DEATH(CM_ASSERT(1 + 1 == 3), "Assertion `1 \\+ 1 == 3' failed");
}

}  // namespace
