/*
 * The status document: member order, the STATE text, the awaited event's
 * name, the up time and the log rings, compared as whole files.  Ring lines
 * carry wall-clock stamps, so expected documents are built from the ring
 * contents read back (escaped as the encoder escapes them).
 */
#include <gtest/gtest.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "json.h"
#include "test_support.h"

using namespace chmgr_test;
using namespace std::string_literals;

namespace {

const char *const kDocument = "/etc/tarnel/cm_status.json";

/* A ring line as a JSON string: its only special character is the final line feed. */
std::string json_quoted(const std::string &line) {
    std::string out = "\"";
    for (char c : line) out += c == '\n' ? "\\n"s : std::string(1, c);
    return out + "\"";
}

/* The "Log" array of ring `ring`, indented for `depth` tabs. */
std::string log_array(int ring, int depth) {
    std::vector<std::string> lines = ring_lines(ring);
    if (lines.empty()) return "[]";
    std::string inner(depth + 1, '\t');
    std::string out = "[\n";
    for (size_t i = 0; i < lines.size(); ++i) out += inner + json_quoted(lines[i]) + (i + 1 < lines.size() ? ",\n" : "\n");
    return out + std::string(depth, '\t') + "]";
}

struct SlotView {
    explicit SlotView(int slot_id) : slot(slot_id) {}
    int slot;
    std::string state = " ";
    std::string expected = "empty";
    std::string card_type = "none";
    bool provisioned = false;
    bool disabled = false;
    std::string serial = "none";
    std::string up_time;  // the members' text when the slot is active
};

std::string slot_object(const SlotView &v) {
    std::string out = "\t\"slot" + std::to_string(v.slot) + "\": {\n";
    out += "\t\t\"SLOT\": " + std::to_string(v.slot) + ",\n";
    out += "\t\t\"STATE\": \"" + v.state + "\",\n";
    out += "\t\t\"Exp Event\": \"" + v.expected + "\",\n";
    out += "\t\t\"Card Type\": \"" + v.card_type + "\",\n";
    out += "\t\t\"Provisioned\": "s + (v.provisioned ? "true" : "false") + ",\n";
    out += "\t\t\"Disabled\": "s + (v.disabled ? "true" : "false") + ",\n";
    out += "\t\t\"Serial No\": \"" + v.serial + "\",\n";
    if (!v.up_time.empty()) out += "\t\t\"Up Time\": {\n" + v.up_time + "\t\t},\n";
    out += "\t\t\"Log\": " + log_array(v.slot, 2) + "\n";
    return out + "\t}";
}

std::string document(const std::vector<SlotView> &slots) {
    std::string out = "{\n\t\"chassis\": \"KTR9600\",\n\t\"Log\": " + log_array(0, 1);
    for (const SlotView &v : slots) out += ",\n" + slot_object(v);
    return out + "\n}";
}

class StatusReportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
    }
    SandboxRoot root;
};

TEST_F(StatusReportTest, EmptySlotDocumentIsExact) {
    int length = get_json_obj_for_slots(3);
    std::string expected = "{\n"
                           "\t\"chassis\": \"KTR9600\",\n"
                           "\t\"Log\": [],\n"
                           "\t\"slot3\": {\n"
                           "\t\t\"SLOT\": 3,\n"
                           "\t\t\"STATE\": \" \",\n"
                           "\t\t\"Exp Event\": \"empty\",\n"
                           "\t\t\"Card Type\": \"none\",\n"
                           "\t\t\"Provisioned\": false,\n"
                           "\t\t\"Disabled\": false,\n"
                           "\t\t\"Serial No\": \"none\",\n"
                           "\t\t\"Log\": []\n"
                           "\t}\n"
                           "}";
    EXPECT_EQ(root.read(kDocument), expected);
    EXPECT_EQ(length, (int)expected.size());
}

TEST_F(StatusReportTest, StateListsBitsInOrderThenErrThenABlank) {
    slotInfo *slot = &g_slots_info[0];
    slot->current_state = 0x3F;
    slot->in_err_state = 1;
    get_json_obj_for_slots(1);
    std::string text = root.read(kDocument);
    EXPECT_NE(text.find("\"STATE\": \"SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED |SLOT_POWERED |SLOT_READY "
                        "|SLOT_ACTIVE |ERR \""),
              std::string::npos)
        << text;

    slot->current_state = SLOT_SYNCED;
    slot->in_err_state = 0;
    get_json_obj_for_slots(1);
    EXPECT_NE(root.read(kDocument).find("\"STATE\": \"SLOT_SYNCED | \""), std::string::npos);

    slot->current_state = 0;
    slot->in_err_state = 1;
    get_json_obj_for_slots(1);
    EXPECT_NE(root.read(kDocument).find("\"STATE\": \"ERR \""), std::string::npos);
}

TEST_F(StatusReportTest, AwaitedEventIsNamedAndOthersReadNone) {
    const char *names[] = {"empty", "present", "verified", "synced", "none",
                           "powered", "ready",  "active",   "none",   "none"};
    for (int event = 0; event <= 10; ++event) {
        g_slots_info[1].trans_timer.state_monitored = event;
        get_json_obj_for_slots(2);
        std::string name = event < 10 ? names[event] : "none";
        EXPECT_NE(root.read(kDocument).find("\"Exp Event\": \"" + name + "\""), std::string::npos) << event;
    }
}

TEST_F(StatusReportTest, CardTypeProvisionedDisabledAndSerialAreShown) {
    slotInfo *slot = &g_slots_info[6];
    slot->card_type = CARD_TYPE_4X400G;
    slot->provisioned = 1;
    slot->disabled = 1;
    slot->trans_timer.state_monitored = slot_verified_event;
    slot->current_state = SLOT_PRESENT;
    slot_serial_set(7, "SN000007");
    CM_LOG_SLOT(LOG_LEVEL_INFO, 7, "line for seven\n");
    CM_LOG(LOG_LEVEL_WARN, "daemon line\n");

    get_json_obj_for_slots(7);
    SlotView view(7);
    view.state = "SLOT_PRESENT | ";
    view.expected = "verified";
    view.card_type = "KTR9600-C4";
    view.provisioned = true;
    view.disabled = true;
    view.serial = "SN000007";
    EXPECT_EQ(root.read(kDocument), document({view}));
}

TEST_F(StatusReportTest, CardTypeTwoReadsNone) {
    g_slots_info[0].card_type = CARD_TYPE_8X200G;
    get_json_obj_for_slots(1);
    EXPECT_NE(root.read(kDocument).find("\"Card Type\": \"none\""), std::string::npos);
}

TEST_F(StatusReportTest, AllSlotsAppearInSlotOrderFor255) {
    for (int s = 1; s <= 8; ++s) CM_LOG_SLOT(LOG_LEVEL_INFO, s, "slot %d says hello\n", s);
    int length = get_json_obj_for_slots(255);
    std::vector<SlotView> views;
    for (int s = 1; s <= 8; ++s) views.push_back(SlotView(s));
    std::string expected = document(views);
    EXPECT_EQ(root.read(kDocument), expected);
    EXPECT_EQ(length, (int)expected.size());
}

TEST_F(StatusReportTest, OtherNumbersGiveOnlyTheChassisPart) {
    CM_LOG(LOG_LEVEL_INFO, "something happened\n");
    for (int slot_id : {0, 9, 254, 256, -1}) {
        get_json_obj_for_slots(slot_id);
        EXPECT_EQ(root.read(kDocument), document({})) << slot_id;
    }
}

TEST_F(StatusReportTest, LogArraysHoldTheNewestTwentyFourLinesOldestFirst) {
    for (int i = 1; i <= 26; ++i) CM_LOG_SLOT(LOG_LEVEL_INFO, 2, "line %d\n", i);
    get_json_obj_for_slots(2);
    std::string text = root.read(kDocument);
    EXPECT_EQ(text, document({SlotView(2)}));
    EXPECT_EQ(text.find("line 2\\n"), std::string::npos);
    size_t third = text.find("line 3\\n");
    size_t last = text.find("line 26\\n");
    ASSERT_NE(third, std::string::npos);
    ASSERT_NE(last, std::string::npos);
    EXPECT_LT(third, last);
}

/* The clock is read before and after; only a run that stayed within one
 * second is judged (a bounded number of tries). */
TEST_F(StatusReportTest, UpTimeOf3725SecondsReadsOneHourTwoMinutesFiveSeconds) {
    g_slots_info[3].current_state = SLOT_PRESENT | SLOT_ACTIVE;
    bool judged = false;
    for (int attempt = 0; attempt < 20 && !judged; ++attempt) {
        struct timeval before, after;
        gettimeofday(&before, nullptr);
        struct timeval up = {before.tv_sec - 3725, 0};
        slot_uptime_set(4, &up);
        get_json_obj_for_slots(4);
        gettimeofday(&after, nullptr);
        if (after.tv_sec != before.tv_sec) continue;
        judged = true;
        SlotView view(4);
        view.state = "SLOT_PRESENT |SLOT_ACTIVE | ";
        view.up_time = "\t\t\t\"Hours\": 1,\n\t\t\t\"Minutes\": 2,\n\t\t\t\"Seconds\": 5\n";
        EXPECT_EQ(root.read(kDocument), document({view}));
    }
    EXPECT_TRUE(judged);
}

TEST_F(StatusReportTest, UpTimeAppearsOnlyForActiveSlots) {
    struct timeval up = {1, 0};
    slot_uptime_set(5, &up);
    g_slots_info[4].current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED | SLOT_READY;
    get_json_obj_for_slots(5);
    EXPECT_EQ(root.read(kDocument).find("Up Time"), std::string::npos);
    g_slots_info[4].current_state = SLOT_ACTIVE;
    get_json_obj_for_slots(5);
    EXPECT_NE(root.read(kDocument).find("\"Up Time\": {\n\t\t\t\"Hours\": "), std::string::npos);
}

TEST_F(StatusReportTest, UpTimeInTheFutureGivesNegativeNumbers) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct timeval up = {now.tv_sec + 3600 + 120, 0};
    slot_uptime_set(6, &up);
    g_slots_info[5].current_state = SLOT_ACTIVE;
    get_json_obj_for_slots(6);
    EXPECT_NE(root.read(kDocument).find("\"Hours\": -1,"), std::string::npos);
}

TEST_F(StatusReportTest, SerialOfThirtyTwoCharactersIsShownWhole) {
    std::string serial(32, 'Q');
    slot_serial_set(8, serial.c_str());
    get_json_obj_for_slots(8);
    EXPECT_NE(root.read(kDocument).find("\"Serial No\": \"" + serial + "\","), std::string::npos);
}

TEST_F(StatusReportTest, BytesThatAreNotUtf8AreShownAsQuestionMarks) {
    slot_serial_set(2, "SN\xff\xfe" "ok\xc3\xa9");  // two stray bytes, then a valid "é"
    CM_LOG_SLOT(LOG_LEVEL_INFO, 2, "raw \xc0\xaf bytes\n");
    int length = get_json_obj_for_slots(2);
    std::string text = root.read(kDocument);
    EXPECT_GT(length, 0);
    EXPECT_NE(text.find("\"Serial No\": \"SN??ok\xc3\xa9\","), std::string::npos) << text;
    EXPECT_NE(text.find("raw ?? bytes\\n\""), std::string::npos) << text;
}

TEST_F(StatusReportTest, SerialKeepsTheEncoderEscapesAndOnlyUnitSeparatorBecomesQuestionMark) {
    slot_serial_set(1, "A\tB\x01" "C\x1e" "D\x1f" "E\x7f");
    int length = get_json_obj_for_slots(1);
    std::string text = root.read(kDocument);
    EXPECT_GT(length, 0);
    EXPECT_NE(text.find("\"Serial No\": \"A\\tB\\u0001C\\u001ED?E\x7f\","), std::string::npos) << text;
    EXPECT_TRUE(json_validate(text.c_str())) << text;
}

TEST_F(StatusReportTest, EveryControlByteOfASerialBelowUnitSeparatorIsEscaped) {
    char serial[SERIAL_NO_SIZE] = {};
    for (int c = 1; c <= 0x1F; ++c) serial[c - 1] = (char)c;
    slot_serial_set(1, serial);
    get_json_obj_for_slots(1);
    std::string text = root.read(kDocument);
    EXPECT_NE(text.find("\"Serial No\": \"\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\\b\\t\\n"
                        "\\u000B\\f\\r\\u000E\\u000F\\u0010\\u0011\\u0012\\u0013\\u0014\\u0015\\u0016"
                        "\\u0017\\u0018\\u0019\\u001A\\u001B\\u001C\\u001D\\u001E?\","),
              std::string::npos)
        << text;
    EXPECT_TRUE(json_validate(text.c_str())) << text;
}

TEST_F(StatusReportTest, ControlCharactersInLogLinesAreEscapedAndUnitSeparatorShownAsQuestionMark) {
    CM_LOG_SLOT(LOG_LEVEL_INFO, 1, "a\tb\x01" "c\x1f" "d\x7f" "e\n");
    get_json_obj_for_slots(1);
    std::string text = root.read(kDocument);
    EXPECT_NE(text.find("a\\tb\\u0001c?d\x7f" "e\\n\""), std::string::npos) << text;
    EXPECT_TRUE(json_validate(text.c_str())) << text;
}

TEST_F(StatusReportTest, UnwritableDocumentGivesZeroAndNoLogLine) {
    rmdir(root.at("/etc/tarnel").c_str());
    EXPECT_EQ(get_json_obj_for_slots(255), 0);
    EXPECT_EQ(all_rings_text(), "");
}

TEST_F(StatusReportTest, DocumentIsRewrittenWhole) {
    root.write(kDocument, std::string(100000, 'x'));
    int length = get_json_obj_for_slots(0);
    EXPECT_EQ(root.read(kDocument), document({}));
    EXPECT_EQ(length, (int)document({}).size());
}

}  // namespace
