/*
 * The read-only control commands, driven through their handlers with the
 * request placed in g_ctl_resp_buf as the control thread leaves it.  Reply
 * bytes are compared whole: header, records, and the bytes a handler must
 * leave alone (filled with a marker beforehand).
 */
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "test_support.h"

using namespace chmgr_test;
using namespace std::string_literals;

namespace {

constexpr unsigned char kMarker = 0xAB;
const char *const kDocument = "/etc/tarnel/cm_status.json";

void put_request(uint32_t cmd, uint32_t slot_no, uint32_t seq = 7, uint32_t card_type = 0x55, uint32_t len = 24) {
    ctlCmdHeader header = {cmd, len, seq, slot_no, 0x12345678, card_type};
    memcpy(g_ctl_resp_buf, &header, sizeof header);
}

ctlCmdHeader header_at(const void *bytes) {
    ctlCmdHeader header;
    memcpy(&header, bytes, sizeof header);
    return header;
}

std::string u32_bytes(uint32_t value) { return std::string((const char *)&value, sizeof value); }

std::string padded(const std::string &text, size_t size) {
    std::string out = text.substr(0, size);
    out.resize(size, '\0');
    return out;
}

/* A summary record as the daemon writes it; `uptime` stays the marker. */
std::string record(uint32_t slot, const std::string &serial, const std::string &type, uint32_t major, uint32_t minor,
                   const std::string &state, uint32_t provisioned) {
    return u32_bytes(slot) + padded(serial, 32) + padded(type, 32) + u32_bytes(major) + u32_bytes(minor) +
           padded(state, 32) + u32_bytes(provisioned) + std::string(8, (char)kMarker);
}

std::string reply_bytes(size_t from, size_t count) { return std::string((const char *)g_ctl_resp_buf + from, count); }

std::string record_bytes(int index) { return reply_bytes(24 + 120 * (size_t)index, 120); }

std::string marker_bytes(size_t count) { return std::string(count, (char)kMarker); }

std::string empty_record(uint32_t slot) { return record(slot, "none", "none", 0, 0, "Empty", 0); }

class CtlShowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        memset(g_ctl_resp_buf, kMarker, sizeof g_ctl_resp_buf);
        memset(&g_ctl_debug_cmd_resp, 0, sizeof g_ctl_debug_cmd_resp);
    }

    /* Slot 3 holds an active 16-port card with INI 2.5, pre-provisioned. */
    void active_card_in_slot_three() {
        slotInfo *slot = &g_slots_info[2];
        slot->card_type = CARD_TYPE_16X100G;
        slot_serial_set(3, "MT2231X00042");
        slot->ini_info.hw_revision = 2;
        slot->ini_info.minor = 5;
        slot->current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY | SLOT_ACTIVE;
        slot->provisioned = 1;
    }

    SandboxRoot root;
};

TEST_F(CtlShowTest, SummaryOfAllSlotsFillsEightRecordsInSlotOrder) {
    active_card_in_slot_three();
    put_request(SHOW_SUMMARY, CTL_ALL_SLOTS);
    ctlReply reply;
    ASSERT_TRUE(ctl_show_summary(&reply));

    EXPECT_EQ(reply.data, (const void *)g_ctl_resp_buf);
    EXPECT_EQ(reply.size, 1024u);
    ctlCmdHeader header = header_at(g_ctl_resp_buf);
    EXPECT_EQ(header.cmd, 5u);
    EXPECT_EQ(header.len, 1024u);
    EXPECT_EQ(header.seq, 7u);
    EXPECT_EQ(header.slot_no, 255u);
    EXPECT_EQ(header.status, 0u);
    EXPECT_EQ(header.card_type, 0x55u);
    for (int index = 0; index < 8; ++index) {
        std::string expected = index == 2 ? record(3, "MT2231X00042", "KTR9600-C16", 2, 5, "Operational", 1)
                                          : empty_record((uint32_t)index + 1);
        EXPECT_EQ(record_bytes(index), expected) << "record " << index;
    }
    EXPECT_EQ(reply_bytes(984, 40), marker_bytes(40));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      "[INFO]<T> ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY\n",
                                      "[INFO]<T> ctl_show.cpp:<N> sending response to client\n",
                                  }));
}

TEST_F(CtlShowTest, SummaryOfSlotThreePutsItInRecordZero) {
    active_card_in_slot_three();
    put_request(SHOW_SUMMARY, 3);
    ctlReply reply;
    ASSERT_TRUE(ctl_show_summary(&reply));

    EXPECT_EQ(record_bytes(0), record(3, "MT2231X00042", "KTR9600-C16", 2, 5, "Operational", 1));
    EXPECT_EQ(reply_bytes(144, 1024 - 144), marker_bytes(1024 - 144));
    EXPECT_EQ(header_at(g_ctl_resp_buf).slot_no, 3u);
}

TEST_F(CtlShowTest, SummaryOfSlotZeroNineOrAboveAnswersSuccessWithoutRecords) {
    for (uint32_t slot_no : {0u, 9u, 254u, 256u, 0xFFFFFFFFu}) {
        memset(g_ctl_resp_buf, kMarker, sizeof g_ctl_resp_buf);
        put_request(SHOW_SUMMARY, slot_no);
        ctlReply reply;
        ASSERT_TRUE(ctl_show_summary(&reply));
        ctlCmdHeader header = header_at(g_ctl_resp_buf);
        EXPECT_EQ(header.status, 0u) << slot_no;
        EXPECT_EQ(header.len, 1024u) << slot_no;
        EXPECT_EQ(header.slot_no, slot_no);
        EXPECT_EQ(reply_bytes(24, 1000), marker_bytes(1000)) << slot_no;
        EXPECT_EQ(reply.size, 1024u);
    }
}

TEST_F(CtlShowTest, CardTypeTwoShowsNone) {
    g_slots_info[1].card_type = CARD_TYPE_8X200G;
    g_slots_info[1].current_state = SLOT_PRESENT;
    put_request(SHOW_SUMMARY, 2);
    ctlReply reply;
    ctl_show_summary(&reply);
    EXPECT_EQ(record_bytes(0), record(2, "none", "none", 0, 0, "Offline", 0));
}

TEST_F(CtlShowTest, CardTypeOneShowsTheFourPortCard) {
    g_slots_info[0].card_type = CARD_TYPE_4X400G;
    put_request(SHOW_SUMMARY, 1);
    ctlReply reply;
    ctl_show_summary(&reply);
    EXPECT_EQ(record_bytes(0), record(1, "none", "KTR9600-C4", 0, 0, "Empty", 0));
}

TEST_F(CtlShowTest, StateIsEmptyOfflineOrOperational) {
    struct {
        int bits;
        const char *state;
    } cases[] = {
        {0, "Empty"},
        {SLOT_SYNCED, "Empty"},
        {SLOT_ACTIVE, "Empty"},  // only SLOT_PRESENT tells a card is there
        {SLOT_PRESENT, "Offline"},
        {SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED | SLOT_READY, "Offline"},
        {SLOT_PRESENT | SLOT_ACTIVE, "Operational"},
    };
    for (const auto &c : cases) {
        g_slots_info[4].current_state = c.bits;
        put_request(SHOW_SUMMARY, 5);
        ctlReply reply;
        ctl_show_summary(&reply);
        EXPECT_EQ(record_bytes(0), record(5, "none", "none", 0, 0, c.state, 0)) << c.bits;
    }
}

TEST_F(CtlShowTest, SerialOfThirtyTwoCharactersFillsTheFieldWithoutNul) {
    std::string serial(32, 'S');
    slot_serial_set(6, serial.c_str());
    put_request(SHOW_SUMMARY, 6);
    ctlReply reply;
    ctl_show_summary(&reply);
    EXPECT_EQ(reply_bytes(24 + 4, 32), serial);
    EXPECT_EQ(reply_bytes(24 + 36, 5), "none"s + '\0');
}

TEST_F(CtlShowTest, NegativeIniNumbersTravelAsTheirBitPatterns) {
    g_slots_info[7].ini_info.hw_revision = -1;
    g_slots_info[7].ini_info.minor = -2;
    put_request(SHOW_SUMMARY, 8);
    ctlReply reply;
    ctl_show_summary(&reply);
    EXPECT_EQ(record_bytes(0), record(8, "none", "none", 0xFFFFFFFF, 0xFFFFFFFE, "Empty", 0));
}

TEST_F(CtlShowTest, UptimeFieldKeepsWhatTheBufferHeld) {
    put_request(SHOW_SUMMARY, CTL_ALL_SLOTS);
    for (int index = 0; index < 8; ++index) memset(g_ctl_resp_buf + 24 + 120 * index + 112, index + 1, 8);
    ctlReply reply;
    ctl_show_summary(&reply);
    for (int index = 0; index < 8; ++index)
        EXPECT_EQ(reply_bytes(24 + 120 * (size_t)index + 112, 8), std::string(8, (char)(index + 1)));
}

TEST_F(CtlShowTest, DetailAnswersLikeSummaryAndLogsIniNumbersOfEachSlot) {
    active_card_in_slot_three();
    for (int s = 1; s <= 8; ++s) g_slots_info[s - 1].ini_info.minor = 10 + s;
    put_request(SHOW_DETAIL, CTL_ALL_SLOTS);
    ctlReply reply;
    ASSERT_TRUE(ctl_show_detail(&reply));

    EXPECT_EQ(reply.size, 1024u);
    ctlCmdHeader header = header_at(g_ctl_resp_buf);
    EXPECT_EQ(header.cmd, 6u);
    EXPECT_EQ(header.len, 1024u);
    EXPECT_EQ(header.status, 0u);
    EXPECT_EQ(record_bytes(2), record(3, "MT2231X00042", "KTR9600-C16", 2, 13, "Operational", 1));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      "[INFO]<T> ctl_show.cpp:<N> Received CTL cmd SHOW_DETAIL\n",
                                      "[INFO]<T> ctl_show.cpp:<N> sending response to client\n",
                                  }));
    for (int s = 1; s <= 8; ++s) {
        int major = s == 3 ? 2 : 0;
        EXPECT_EQ(normalized_ring(s), (std::vector<std::string>{"[SLOT" + std::to_string(s) +
                                                                ":INFO]<T> ctl_show.cpp:<N> INI Major = " +
                                                                std::to_string(major) + ", INI Minor = " +
                                                                std::to_string(10 + s) + "\n"}));
    }
}

TEST_F(CtlShowTest, DetailOfOneSlotLogsItsIniNumbersAsALineOfSlotOne) {
    g_slots_info[4].ini_info.hw_revision = 7;
    g_slots_info[4].ini_info.minor = 9;
    put_request(SHOW_DETAIL, 5);
    ctlReply reply;
    ctl_show_detail(&reply);

    EXPECT_EQ(record_bytes(0), record(5, "none", "none", 7, 9, "Empty", 0));
    EXPECT_EQ(normalized_ring(1),
              (std::vector<std::string>{"[SLOT1:INFO]<T> ctl_show.cpp:<N> INI Major = 7, INI Minor = 9\n"}));
    EXPECT_TRUE(ring_lines(5).empty());
}

TEST_F(CtlShowTest, DetailOfSlotOutsideOneToEightLogsNoIniLine) {
    put_request(SHOW_DETAIL, 9);
    ctlReply reply;
    ctl_show_detail(&reply);
    EXPECT_EQ(all_rings_text(), "[INFO]<T> ctl_show.cpp:<N> Received CTL cmd SHOW_DETAIL\n"
                                "[INFO]<T> ctl_show.cpp:<N> sending response to client\n");
}

TEST_F(CtlShowTest, DebugSlotSendsTheHeaderAndTheDocumentBytes) {
    active_card_in_slot_three();
    g_ctl_debug_cmd_resp.hdr.len = 0x1111;
    g_ctl_debug_cmd_resp.hdr.card_type = 0x2222;
    g_ctl_debug_cmd_resp.hdr.status = 0xFFFFFFF0;
    put_request(DEBUG_SLOT, 3, 99, 0x55);
    ctlReply reply;
    ASSERT_TRUE(ctl_debug_slot(&reply));

    std::string document = root.read(kDocument);
    ASSERT_FALSE(document.empty());
    EXPECT_EQ(reply.data, (const void *)&g_ctl_debug_cmd_resp);
    EXPECT_EQ(reply.size, 24 + document.size());
    EXPECT_EQ(std::string(g_ctl_debug_cmd_resp.buffer, document.size()), document);
    const ctlCmdHeader &header = g_ctl_debug_cmd_resp.hdr;
    EXPECT_EQ(header.cmd, 9u);
    EXPECT_EQ(header.seq, 99u);
    EXPECT_EQ(header.slot_no, 3u);
    EXPECT_EQ(header.status, 0u);
    EXPECT_EQ(header.len, 0x1111u);        // never written
    EXPECT_EQ(header.card_type, 0x2222u);  // never written
    EXPECT_NE(document.find("\"slot3\": {"), std::string::npos);
    EXPECT_EQ(document.find("\"slot4\""), std::string::npos);
    /* Nothing logged but what the document build itself logs: no "Received CTL cmd". */
    EXPECT_TRUE(ring_lines(0).empty());
}

TEST_F(CtlShowTest, DebugSlotForAllSlotsSendsEveryObject) {
    put_request(DEBUG_SLOT, CTL_ALL_SLOTS);
    ctlReply reply;
    ASSERT_TRUE(ctl_debug_slot(&reply));
    std::string document = root.read(kDocument);
    EXPECT_EQ(reply.size, 24 + document.size());
    for (int s = 1; s <= 8; ++s)
        EXPECT_NE(document.find("\"slot" + std::to_string(s) + "\": {"), std::string::npos) << s;
}

TEST_F(CtlShowTest, DebugSlotForBadSlotPreparesTheErrorButSendsNothing) {
    for (uint32_t slot_no : {0u, 9u, 254u, 0xFFFFFFFFu}) {
        clear_log_rings();
        memset(&g_ctl_debug_cmd_resp, kMarker, sizeof(ctlCmdHeader) + 200);
        put_request(DEBUG_SLOT, slot_no, 41);
        ctlReply reply;
        EXPECT_FALSE(ctl_debug_slot(&reply)) << slot_no;

        const ctlCmdHeader &header = g_ctl_debug_cmd_resp.hdr;
        EXPECT_EQ(header.cmd, 9u);
        EXPECT_EQ(header.seq, 41u);
        EXPECT_EQ(header.slot_no, slot_no);
        EXPECT_EQ(header.status, (uint32_t)CTL_UNKNOWN_FAILURE);
        EXPECT_EQ(std::string(g_ctl_debug_cmd_resp.buffer, 128), padded("Bad slot received from CTL cmd", 128));
        EXPECT_EQ(std::string(g_ctl_debug_cmd_resp.buffer + 128, 72), marker_bytes(72));
        EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{"[ERR]<T> ctl_show.cpp:<N> Bad slot(" +
                                                                std::to_string((int)slot_no) +
                                                                ") received from CTL cmd\n"}));
        EXPECT_FALSE(root.exists(kDocument));
    }
}

TEST_F(CtlShowTest, DebugSlotWithoutReadableDocumentSendsJsonOutputError) {
    rmdir(root.at("/etc/tarnel").c_str());  // the document can be neither written nor read
    memset(g_ctl_debug_cmd_resp.buffer, kMarker, 300);
    put_request(DEBUG_SLOT, 2);
    ctlReply reply;
    ASSERT_TRUE(ctl_debug_slot(&reply));

    EXPECT_EQ(reply.data, (const void *)&g_ctl_debug_cmd_resp);
    EXPECT_EQ(reply.size, 24u + 18u);
    EXPECT_EQ(std::string(g_ctl_debug_cmd_resp.buffer, 128), padded("JSON output error\n", 128));
    EXPECT_EQ(std::string(g_ctl_debug_cmd_resp.buffer + 128, 172), marker_bytes(172));
    EXPECT_EQ(g_ctl_debug_cmd_resp.hdr.status, 0u);
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{"[ERR]<T> ctl_show.cpp:<N> Unable to open JSON file\n"}));
}

TEST_F(CtlShowTest, DebugSlotAfterBadSlotAnswersWithStatusZeroAgain) {
    put_request(DEBUG_SLOT, 9);
    ctlReply reply;
    ASSERT_FALSE(ctl_debug_slot(&reply));
    put_request(DEBUG_SLOT, 1);
    ASSERT_TRUE(ctl_debug_slot(&reply));
    EXPECT_EQ(g_ctl_debug_cmd_resp.hdr.status, 0u);
    EXPECT_EQ(std::string(g_ctl_debug_cmd_resp.buffer, reply.size - 24), root.read(kDocument));
}

}  // namespace
