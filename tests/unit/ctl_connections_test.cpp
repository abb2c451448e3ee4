/*
 * The control thread's table of connections, driven over socket pairs with
 * a hand-held clock: completion order, split requests, the receive limit,
 * the end of the stream and the bound on held connections.
 */
#include "ctl_connections.h"

#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

std::string header_bytes(uint32_t cmd, uint32_t len, uint32_t seq) {
    ctlCmdHeader header = {cmd, len, seq, 1, 0, 0};
    return std::string((const char *)&header, sizeof header);
}

class CtlConnectionsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(g_ctl_resp_buf, 0, sizeof g_ctl_resp_buf);
        ctl_conns_init(&table_);
    }
    void TearDown() override {
        ctl_conns_close_all(&table_);
        for (int fd : peers_) close(fd);
    }
    /* Adds a connection at `now`; returns the client side. */
    int connect_at(int64_t now) {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        ctl_conns_add(&table_, pair[0], now);
        peers_.push_back(pair[1]);
        return pair[1];
    }
    int held_count() const {
        struct pollfd fds[kCtlMaxConnections];
        int index_of[kCtlMaxConnections];
        return ctl_conns_poll_set(&table_, fds, index_of);
    }
    /* One receive on every held connection, as after a poll. */
    void receive_all(int64_t now) {
        struct pollfd fds[kCtlMaxConnections];
        int index_of[kCtlMaxConnections];
        int held = ctl_conns_poll_set(&table_, fds, index_of);
        for (int i = 0; i < held; ++i) ctl_conns_receive(&table_, index_of[i], now);
    }
    uint32_t seq_of(int index) const {
        ctlCmdHeader header;
        memcpy(&header, table_.conns[index].bytes, sizeof header);
        return header.seq;
    }
    void send_to(int peer, const std::string &bytes) { ASSERT_EQ(send(peer, bytes.data(), bytes.size(), 0), (ssize_t)bytes.size()); }

    CtlConnectionTable table_;
    std::vector<int> peers_;
};

TEST_F(CtlConnectionsTest, RequestsAreServedInTheOrderTheyBecameComplete) {
    int first = connect_at(0);
    int second = connect_at(0);
    send_to(first, header_bytes(SHOW_SUMMARY, 24, 1).substr(0, 8));  // split: waits for the rest
    send_to(second, header_bytes(SHOW_SUMMARY, 24, 2));
    receive_all(10);
    int ready = ctl_conns_next_ready(&table_);
    ASSERT_NE(ready, -1);
    EXPECT_EQ(seq_of(ready), 2u);
    ctl_conns_close(&table_, ready);

    send_to(first, header_bytes(SHOW_SUMMARY, 24, 1).substr(8));
    receive_all(20);
    ready = ctl_conns_next_ready(&table_);
    ASSERT_NE(ready, -1);
    EXPECT_EQ(seq_of(ready), 1u);
}

TEST_F(CtlConnectionsTest, SplitRequestGetsOneExtraReceiveThenIsComplete) {
    int peer = connect_at(0);
    send_to(peer, header_bytes(SHOW_SUMMARY, 24, 5).substr(0, 8));
    receive_all(0);
    EXPECT_EQ(ctl_conns_next_ready(&table_), -1);
    send_to(peer, header_bytes(SHOW_SUMMARY, 24, 5).substr(8, 8));  // still short: served as it is
    receive_all(1);
    int ready = ctl_conns_next_ready(&table_);
    ASSERT_NE(ready, -1);
    EXPECT_EQ(table_.conns[ready].received, 16u);
}

TEST_F(CtlConnectionsTest, PartialHeaderTakesItsLenFromTheBufferUnderIt) {
    ctlCmdHeader old = {SHOW_SUMMARY, 2000, 9, 1, 0, 0};  // len above 1023: never asks for more
    memcpy(g_ctl_resp_buf, &old, sizeof old);
    int peer = connect_at(0);
    send_to(peer, std::string("\x05\x00", 2));
    receive_all(0);
    EXPECT_NE(ctl_conns_next_ready(&table_), -1);
}

TEST_F(CtlConnectionsTest, ConnectionWhoseLimitPassesIsClosedWithoutAReply) {
    int silent = connect_at(0);
    int half = connect_at(0);
    send_to(half, header_bytes(SHOW_SUMMARY, 24, 3).substr(0, 8));
    receive_all(100);
    EXPECT_EQ(ctl_conns_poll_timeout(&table_, 100), (int)kCtlReceiveLimitMs - 100);  // the silent one comes first
    ctl_conns_expire(&table_, kCtlReceiveLimitMs - 1);
    EXPECT_EQ(held_count(), 2);
    ctl_conns_expire(&table_, kCtlReceiveLimitMs);
    EXPECT_EQ(held_count(), 1);  // the silent one; the split one has its own limit from its first bytes
    ctl_conns_expire(&table_, 100 + kCtlReceiveLimitMs);
    EXPECT_EQ(held_count(), 0);
    EXPECT_EQ(ctl_conns_next_ready(&table_), -1);
    char byte;
    EXPECT_EQ(recv(silent, &byte, 1, MSG_DONTWAIT), 0);  // closed, nothing sent
    EXPECT_EQ(recv(half, &byte, 1, MSG_DONTWAIT), 0);
}

TEST_F(CtlConnectionsTest, EndOfStreamFirstReplaysThePreviousRequest) {
    int peer = connect_at(0);
    shutdown(peer, SHUT_WR);
    receive_all(0);
    int ready = ctl_conns_next_ready(&table_);
    ASSERT_NE(ready, -1);
    EXPECT_TRUE(table_.conns[ready].replay);
    EXPECT_EQ(table_.conns[ready].received, 0u);
}

TEST_F(CtlConnectionsTest, FailedFirstReceiveReplaysThePreviousRequest) {
    int peer = connect_at(0);
    /* A peer that closes with bytes it never read resets the connection. */
    ASSERT_EQ(send(table_.conns[0].fd, "x", 1, 0), 1);
    close(peer);
    peers_.clear();
    receive_all(0);  // the receive fails with ECONNRESET
    int ready = ctl_conns_next_ready(&table_);
    ASSERT_NE(ready, -1);
    EXPECT_TRUE(table_.conns[ready].replay);
    EXPECT_EQ(table_.conns[ready].received, 0u);
}

TEST_F(CtlConnectionsTest, OneConnectionTooManyClosesTheOldestWaitingOne) {
    int oldest = connect_at(0);
    for (int i = 1; i < kCtlMaxConnections; ++i) connect_at(i);
    EXPECT_EQ(held_count(), kCtlMaxConnections);
    int newest = connect_at(100);
    EXPECT_EQ(held_count(), kCtlMaxConnections);
    char byte;
    EXPECT_EQ(recv(oldest, &byte, 1, MSG_DONTWAIT), 0);
    send_to(newest, header_bytes(SHOW_SUMMARY, 24, 8));
    receive_all(101);
    int ready = ctl_conns_next_ready(&table_);
    ASSERT_NE(ready, -1);
    EXPECT_EQ(seq_of(ready), 8u);
}

}  // namespace

namespace {

TEST_F(CtlConnectionsTest, PartialHeaderOfAnotherTableTakesItsLenFromThatTablesBuffer) {
    static unsigned char other[CTL_BUF_SIZE];
    ctlCmdHeader asks_more = {SHOW_SUMMARY, 100, 9, 1, 0, 0};
    memcpy(other, &asks_more, sizeof asks_more);
    ctlCmdHeader never_more = {SHOW_SUMMARY, 2000, 9, 1, 0, 0};
    memcpy(g_ctl_resp_buf, &never_more, sizeof never_more);
    ctl_conns_init_over(&table_, other);
    int peer = connect_at(0);
    send_to(peer, std::string("\x05\x00", 2));
    receive_all(0);
    EXPECT_EQ(ctl_conns_next_ready(&table_), -1);  // len 100 from `other`: one extra receive awaited
    EXPECT_EQ(table_.conns[0].phase, CTL_CONN_WAIT_REST);
}

TEST_F(CtlConnectionsTest, ReceiveTimeoutCountsOnlyConnectionsStillReceiving) {
    int done = connect_at(0);
    send_to(done, header_bytes(LINECARD_DISABLE, 24, 1));
    receive_all(0);
    EXPECT_EQ(ctl_conns_poll_timeout(&table_, 100), 0);
    EXPECT_EQ(ctl_conns_receive_timeout(&table_, 100), -1);
    connect_at(1000);
    EXPECT_EQ(ctl_conns_receive_timeout(&table_, 1500), (int)(kCtlReceiveLimitMs - 500));
}

TEST_F(CtlConnectionsTest, ReleasedConnectionStaysOpenForItsNewOwner) {
    int peer = connect_at(0);
    send_to(peer, header_bytes(LINECARD_DISABLE, 24, 1));
    receive_all(0);
    int index = ctl_conns_next_ready(&table_);
    ASSERT_NE(index, -1);
    int fd = table_.conns[index].fd;
    ctl_conns_release(&table_, index);
    EXPECT_EQ(table_.conns[index].phase, CTL_CONN_FREE);
    EXPECT_EQ(table_.conns[index].fd, -1);
    EXPECT_EQ(send(fd, "x", 1, MSG_NOSIGNAL), 1);  // still open
    char byte;
    EXPECT_EQ(recv(peer, &byte, 1, 0), 1);
    close(fd);
}

}  // namespace
