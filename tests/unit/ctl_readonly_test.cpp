/*
 * The read-only socket's request handling, driven through its handler with
 * the request in its own buffer: the reads give the control socket's
 * replies, the administration commands are refused over the request, other
 * codes close, and nothing reaches a log ring, a slot or the status file.
 */
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "ctl_serving.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

constexpr unsigned char kMarker = 0xAB;

void put_request(unsigned char *buffer, uint32_t cmd, uint32_t slot_no, uint32_t seq = 7, uint32_t card_type = 3) {
    ctlCmdHeader header = {cmd, 24, seq, slot_no, 0x12345678, card_type};
    memcpy(buffer, &header, sizeof header);
}

ctlCmdHeader header_at(const void *bytes) {
    ctlCmdHeader header;
    memcpy(&header, bytes, sizeof header);
    return header;
}

std::string bytes_of(const void *data, size_t size) { return std::string((const char *)data, size); }

std::string padded(const std::string &text, size_t size) {
    std::string out = text;
    out.resize(size, '\0');
    return out;
}

bool rings_empty() {
    for (int ring = 0; ring < LOG_RING_COUNT; ++ring)
        if (!ring_lines(ring).empty()) return false;
    return true;
}

class CtlReadonlyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        memset(g_ctl_ro_resp_buf, kMarker, sizeof g_ctl_ro_resp_buf);
        memset(g_ctl_resp_buf, kMarker, sizeof g_ctl_resp_buf);
        slotInfo *slot = &g_slots_info[2];
        slot->card_type = CARD_TYPE_16X100G;
        slot_serial_set(3, "MT2231X00042");
        slot->ini_info.hw_revision = 2;
        slot->ini_info.minor = 5;
        slot->current_state = SLOT_PRESENT | SLOT_VERIFIED;
    }

    SandboxRoot root;
};

TEST_F(CtlReadonlyTest, SummaryAndDetailAreTheControlSocketRepliesWithoutALogLine) {
    for (uint32_t cmd : {(uint32_t)SHOW_SUMMARY, (uint32_t)SHOW_DETAIL}) {
        for (uint32_t slot_no : {3u, 255u, 0u}) {
            put_request(g_ctl_ro_resp_buf, cmd, slot_no);
            put_request(g_ctl_resp_buf, cmd, slot_no);
            ctlReply ro_reply, reply;
            ASSERT_TRUE(ctl_handle_readonly_request(g_ctl_ro_resp_buf, &ro_reply));
            EXPECT_TRUE(rings_empty()) << cmd << " " << slot_no;
            ASSERT_TRUE(ctl_handle_request(&reply));
            EXPECT_EQ(ro_reply.data, (const void *)g_ctl_ro_resp_buf);
            EXPECT_EQ(ro_reply.size, (size_t)CTL_BUF_SIZE);
            EXPECT_EQ(bytes_of(g_ctl_ro_resp_buf, CTL_BUF_SIZE), bytes_of(g_ctl_resp_buf, CTL_BUF_SIZE));
            clear_log_rings();
        }
    }
}

TEST_F(CtlReadonlyTest, AdministrationCommandsAreRefusedOverTheRequestAndChangeNothing) {
    for (uint32_t cmd : {(uint32_t)LINECARD_ENABLE, (uint32_t)LINECARD_DISABLE, (uint32_t)PRE_PROVISION_ENABLE,
                         (uint32_t)PRE_PROVISION_DISABLE}) {
        put_request(g_ctl_ro_resp_buf, cmd, 3, 11, 3);
        ctlReply reply;
        ASSERT_TRUE(ctl_handle_readonly_request(g_ctl_ro_resp_buf, &reply)) << cmd;
        EXPECT_EQ(reply.data, (const void *)g_ctl_ro_resp_buf);
        EXPECT_EQ(reply.size, (size_t)CTL_BUF_SIZE);
        ctlCmdHeader header = header_at(g_ctl_ro_resp_buf);
        EXPECT_EQ(header.cmd, cmd);
        EXPECT_EQ(header.len, 24u);
        EXPECT_EQ(header.seq, 11u);
        EXPECT_EQ(header.slot_no, 3u);
        EXPECT_EQ(header.status, (uint32_t)CTL_UNKNOWN_FAILURE);
        EXPECT_EQ(header.card_type, 3u);
        EXPECT_EQ(bytes_of(g_ctl_ro_resp_buf + 24, 128), padded(CTL_READONLY_REFUSED_TEXT, 128));
        EXPECT_EQ(bytes_of(g_ctl_ro_resp_buf + 152, 8), std::string(8, (char)kMarker));
    }
    const slotInfo *slot = &g_slots_info[2];
    EXPECT_EQ(slot->disabled, 0);
    EXPECT_EQ(slot->provisioned, 0);
    EXPECT_EQ(slot->current_state, SLOT_PRESENT | SLOT_VERIFIED);
    EXPECT_TRUE(rings_empty());
}

TEST_F(CtlReadonlyTest, OtherCodesCloseWithoutAReply) {
    for (uint32_t cmd : {0u, 1u, 2u, 10u, 0xFFFFFFFFu}) {
        put_request(g_ctl_ro_resp_buf, cmd, 3);
        ctlReply reply;
        EXPECT_FALSE(ctl_handle_readonly_request(g_ctl_ro_resp_buf, &reply)) << cmd;
    }
    EXPECT_TRUE(rings_empty());
}

TEST_F(CtlReadonlyTest, StatusDocumentIsBuiltInMemoryAndTheFileLeftAlone) {
    put_request(g_ctl_ro_resp_buf, DEBUG_SLOT, 3, 99);
    ctlReply reply;
    ASSERT_TRUE(ctl_handle_readonly_request(g_ctl_ro_resp_buf, &reply));
    EXPECT_FALSE(root.exists("/etc/tarnel/cm_status.json"));
    EXPECT_TRUE(rings_empty());

    char *expected = status_document_text(3);
    ASSERT_NE(expected, nullptr);
    EXPECT_EQ(reply.data, (const void *)&g_ctl_debug_cmd_resp);
    EXPECT_EQ(reply.size, 24 + strlen(expected));
    EXPECT_EQ(std::string(g_ctl_debug_cmd_resp.buffer, strlen(expected)), std::string(expected));
    free(expected);
    ctlCmdHeader header = g_ctl_debug_cmd_resp.hdr;
    EXPECT_EQ(header.cmd, 9u);
    EXPECT_EQ(header.seq, 99u);
    EXPECT_EQ(header.slot_no, 3u);
    EXPECT_EQ(header.status, 0u);
}

TEST_F(CtlReadonlyTest, StatusDocumentForABadSlotClosesWithoutALogLine) {
    put_request(g_ctl_ro_resp_buf, DEBUG_SLOT, 9);
    ctlReply reply;
    EXPECT_FALSE(ctl_handle_readonly_request(g_ctl_ro_resp_buf, &reply));
    EXPECT_TRUE(rings_empty());
}

TEST_F(CtlReadonlyTest, ReadsOnTheControlSocketMayBeAnsweredOverAnotherBuffer) {
    static unsigned char copy[CTL_BUF_SIZE];
    memset(copy, kMarker, sizeof copy);
    put_request(copy, SHOW_SUMMARY, 3);
    put_request(g_ctl_resp_buf, LINECARD_DISABLE, 3);
    ctlReply reply;
    ASSERT_TRUE(ctl_handle_read_in(copy, &reply));
    EXPECT_EQ(reply.data, (const void *)copy);
    EXPECT_EQ(header_at(g_ctl_resp_buf).cmd, (uint32_t)LINECARD_DISABLE);  // untouched
    EXPECT_EQ(header_at(g_ctl_resp_buf).status, 0x12345678u);
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{"[INFO]<T> ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY\n",
                                                             "[INFO]<T> ctl_show.cpp:<N> sending response to client\n"}));
    put_request(copy, LINECARD_DISABLE, 3);
    EXPECT_FALSE(ctl_handle_read_in(copy, &reply));  // never an administration command
}

}  // namespace
