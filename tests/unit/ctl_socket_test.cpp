/*
 * The control thread over a real socket in a sandbox root: set-up, the
 * framing of one request per connection, the split-packet rule, silent
 * closes, serving one client after the other, and the thread's end.  The
 * thread runs in this process; a test ends it by shutting its listening
 * socket down, which makes accept() fail.  Waits are bounded polls on a
 * condition (a log line, a socket that becomes readable).
 */
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "test_support.h"

using namespace chmgr_test;
using namespace std::string_literals;

namespace {

const char *const kSocket = "/run/chassismgr/chassismgr";
const std::string kPacketLine = "[INFO]<T> ctl_socket.cpp:<N> Received CTL packet\n";
const std::string kSplitLine = "[INFO]<T> ctl_socket.cpp:<N> We have TCP packets that are split\n";

bool wait_for(const std::function<bool()> &condition, int timeout_ms = 5000) {
    timeout_ms = (int)chmgr_test::wait_limit(std::chrono::milliseconds(timeout_ms)).count();
    for (int waited = 0; waited < timeout_ms; ++waited) {
        if (condition()) return true;
        struct timespec ms = {0, 1000000};
        nanosleep(&ms, nullptr);
    }
    return condition();
}

int count_lines(int ring, const std::string &line) {
    int count = 0;
    for (const auto &l : normalized_ring(ring)) count += l == line;
    return count;
}

std::string header_bytes(uint32_t cmd, uint32_t len, uint32_t seq, uint32_t slot_no, uint32_t card_type = 0) {
    ctlCmdHeader header = {cmd, len, seq, slot_no, 0, card_type};
    return std::string((const char *)&header, sizeof header);
}

ctlCmdHeader header_of(const std::string &reply) {
    ctlCmdHeader header = {};
    memcpy(&header, reply.data(), std::min(reply.size(), sizeof header));
    return header;
}

class Client {
  public:
    explicit Client(const std::string &path) {
        fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        connected_ = connect(fd_, (struct sockaddr *)&addr, sizeof addr) == 0;
    }
    ~Client() { close(fd_); }
    bool connected() const { return connected_; }
    void send_bytes(const std::string &bytes) const { (void)send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    void end_sending() const { shutdown(fd_, SHUT_WR); }
    /* True when a reply byte (or the end) is waiting. */
    bool readable() const {
        struct pollfd p = {fd_, POLLIN, 0};
        return poll(&p, 1, 0) == 1;
    }
    /* Everything until the daemon closes (bounded by the daemon's own close). */
    std::string read_all() const {
        std::string out;
        char chunk[65536];
        for (;;) {
            struct pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 10000) != 1) break;
            ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) break;
            out.append(chunk, (size_t)n);
        }
        return out;
    }

  private:
    int fd_ = -1;
    bool connected_ = false;
};

class CtlSocketTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        memset(g_ctl_resp_buf, 0, sizeof g_ctl_resp_buf);
        g_ctl_sock_fd = -1;
        root.all_events("0");
        root.write("/etc/tarnel/cards.conf", "");
    }
    void TearDown() override { stop(); }

    void start() {
        ASSERT_EQ(pthread_create(&thread_, nullptr, ctl_thread, nullptr), 0);
        running_ = true;
        ASSERT_TRUE(wait_for([] { return g_ctl_sock_fd != -1; })) << "the control socket was never set up";
    }
    /* Ends the thread the only way it ends while serving: accept() fails. */
    void stop() {
        if (!running_) return;
        int fd = g_ctl_sock_fd;
        if (fd != -1) shutdown(fd, SHUT_RDWR);
        pthread_join(thread_, nullptr);
        running_ = false;
        if (fd != -1) close(fd);
        g_ctl_sock_fd = -1;
    }
    /* Runs the thread until it ends by itself (a set-up failure). */
    void run_to_end() {
        ASSERT_EQ(pthread_create(&thread_, nullptr, ctl_thread, nullptr), 0);
        pthread_join(thread_, nullptr);
    }
    std::string socket_path() const { return root.at(kSocket); }
    std::string exchange(const std::string &request) const {
        Client client(socket_path());
        EXPECT_TRUE(client.connected());
        client.send_bytes(request);
        return client.read_all();
    }

    SandboxRoot root;
    pthread_t thread_{};
    bool running_ = false;
};

TEST_F(CtlSocketTest, ServesOneRequestPerConnection) {
    start();
    std::string reply = exchange(header_bytes(SHOW_SUMMARY, 24, 5, 1));
    ASSERT_EQ(reply.size(), 1024u);
    ctlCmdHeader header = header_of(reply);
    EXPECT_EQ(header.cmd, 5u);
    EXPECT_EQ(header.len, 1024u);
    EXPECT_EQ(header.seq, 5u);
    EXPECT_EQ(header.status, 0u);
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      kPacketLine,
                                      "[INFO]<T> ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY\n",
                                      "[INFO]<T> ctl_show.cpp:<N> sending response to client\n",
                                  }));
}

TEST_F(CtlSocketTest, StaleSocketFileIsReplaced) {
    root.write(kSocket, "left over by an earlier run");
    start();
    struct stat st;
    ASSERT_EQ(stat(socket_path().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(exchange(header_bytes(SHOW_SUMMARY, 24, 1, 0)).size(), 1024u);
}

TEST_F(CtlSocketTest, MissingSocketDirectoryEndsTheThreadWithTheBindError) {
    rmdir(root.at("/run/chassismgr").c_str());
    run_to_end();
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{"[ERR]<T> ctl_socket.cpp:<N> Unable to bind CTL socket\n"}));
}

TEST_F(CtlSocketTest, RootTooLongForTheSocketAddressEndsTheThreadWithTheBindError) {
    /* sun_path holds 107 characters and a NUL; the socket's own part is 26. */
    std::string base = root.path() + "/";
    std::string too_long = base + std::string(107 - 26 - base.size() + 1, 'r');
    ASSERT_EQ(too_long.size() + strlen(kSocket), 108u);
    mkdir(too_long.c_str(), 0755);
    mkdir((too_long + "/run").c_str(), 0755);
    mkdir((too_long + "/run/chassismgr").c_str(), 0755);
    char err[256];
    ASSERT_TRUE(env_configure(too_long.c_str(), "0.0001", err, sizeof err));
    run_to_end();
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{"[ERR]<T> ctl_socket.cpp:<N> Unable to bind CTL socket\n"}));
    EXPECT_NE(access((too_long + kSocket).c_str(), F_OK), 0);
}

TEST_F(CtlSocketTest, RootThatJustFitsTheSocketAddressIsServed) {
    std::string base = root.path() + "/";
    std::string longest = base + std::string(107 - 26 - base.size(), 'r');
    ASSERT_EQ(longest.size() + strlen(kSocket), 107u);
    mkdir(longest.c_str(), 0755);
    mkdir((longest + "/run").c_str(), 0755);
    mkdir((longest + "/run/chassismgr").c_str(), 0755);
    char err[256];
    ASSERT_TRUE(env_configure(longest.c_str(), "0.0001", err, sizeof err));
    start();
    Client client(longest + kSocket);
    ASSERT_TRUE(client.connected());
    client.send_bytes(header_bytes(SHOW_SUMMARY, 24, 1, 0));
    EXPECT_EQ(client.read_all().size(), 1024u);
}

TEST_F(CtlSocketTest, MaintenanceCodesAreClosedWithoutAReplyOrALogLine) {
    start();
    for (uint32_t cmd : {1u, 2u}) {
        clear_log_rings();
        EXPECT_EQ(exchange(header_bytes(cmd, 24, 1, 1)), "") << cmd;
        EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{kPacketLine}));
    }
}

TEST_F(CtlSocketTest, UnknownCodesAreClosedWithoutAReply) {
    start();
    for (uint32_t cmd : {0u, 10u, 11u, 255u, 0xFFFFFFFFu}) {
        clear_log_rings();
        EXPECT_EQ(exchange(header_bytes(cmd, 24, 1, 1)), "") << cmd;
        EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{kPacketLine}));
    }
}

TEST_F(CtlSocketTest, SplitRequestGetsExactlyOneExtraReceive) {
    start();
    /* Leaves card_type 0x11111111 in the buffer. */
    exchange(header_bytes(SHOW_SUMMARY, 24, 1, 1, 0x11111111));
    clear_log_rings();

    std::string request = header_bytes(SHOW_SUMMARY, 24, 2, 3, 0x22222222);
    Client client(socket_path());
    client.send_bytes(request.substr(0, 8));
    ASSERT_TRUE(wait_for([] { return count_lines(0, kSplitLine) == 1; }));
    client.send_bytes(request.substr(8, 8));  // the extra receive takes these 8 bytes, and nothing more
    std::string reply = client.read_all();
    client.send_bytes(request.substr(16));

    ASSERT_EQ(reply.size(), 1024u);
    ctlCmdHeader header = header_of(reply);
    EXPECT_EQ(header.seq, 2u);
    EXPECT_EQ(header.slot_no, 3u);
    EXPECT_EQ(header.card_type, 0x11111111u);  // the third segment was never received
    EXPECT_EQ(count_lines(0, kSplitLine), 1);
}

TEST_F(CtlSocketTest, LenOf1024OrMoreNeverAsksForMore) {
    start();
    for (uint32_t len : {1024u, 1025u, 0xFFFFFFFFu}) {
        clear_log_rings();
        Client client(socket_path());
        client.send_bytes(header_bytes(SHOW_SUMMARY, len, 3, 0).substr(0, 12));
        std::string reply = client.read_all();  // no end_sending(): the daemon must not wait for more
        ASSERT_EQ(reply.size(), 1024u) << len;
        EXPECT_EQ(count_lines(0, kSplitLine), 0) << len;
    }
}

TEST_F(CtlSocketTest, LenOf1023WaitsOnceAndAHalfClosedClientStillGetsItsReply) {
    start();
    Client client(socket_path());
    client.send_bytes(header_bytes(SHOW_SUMMARY, 1023, 4, 0));
    ASSERT_TRUE(wait_for([] { return count_lines(0, kSplitLine) == 1; }));
    client.end_sending();
    std::string reply = client.read_all();
    ASSERT_EQ(reply.size(), 1024u);
    EXPECT_EQ(header_of(reply).seq, 4u);
}

TEST_F(CtlSocketTest, LenZeroIsProcessedAsReceived) {
    start();
    std::string reply = exchange(header_bytes(SHOW_SUMMARY, 0, 6, 0));
    ASSERT_EQ(reply.size(), 1024u);
    EXPECT_EQ(count_lines(0, kSplitLine), 0);
}

TEST_F(CtlSocketTest, LongerRequestIsReadUpTo1024Bytes) {
    start();
    std::string request = header_bytes(SHOW_SUMMARY, 2000, 8, 0) + std::string(2000 - 24, '\x7f');
    std::string reply = exchange(request);
    ASSERT_EQ(reply.size(), 1024u);
    EXPECT_EQ(reply.substr(24), std::string(1000, '\x7f'));  // slot 0: no record written over the request
}

TEST_F(CtlSocketTest, AClientInTheMiddleOfARequestDoesNotDelayAnother) {
    start();
    std::string first = header_bytes(SHOW_SUMMARY, 24, 100, 1);
    Client a(socket_path());
    a.send_bytes(first.substr(0, 8));
    ASSERT_TRUE(wait_for([] { return count_lines(0, kSplitLine) == 1; }));

    Client b(socket_path());
    ASSERT_TRUE(b.connected());
    b.send_bytes(header_bytes(SHOW_DETAIL, 24, 200, 2));
    std::string reply_b = b.read_all();  // served while `a` still owes bytes
    EXPECT_FALSE(a.readable());

    a.send_bytes(first.substr(8));
    std::string reply_a = a.read_all();
    EXPECT_EQ(header_of(reply_a).seq, 100u);
    EXPECT_EQ(header_of(reply_a).cmd, 5u);
    EXPECT_EQ(header_of(reply_b).seq, 200u);
    EXPECT_EQ(header_of(reply_b).cmd, 6u);
    EXPECT_EQ(count_lines(0, kPacketLine), 2);
}

TEST_F(CtlSocketTest, SuccessAfterAFailureStillCarriesTheOldText) {
    start();
    std::string failed = exchange(header_bytes(LINECARD_ENABLE, 24, 1, 9));
    ASSERT_EQ(failed.size(), 1024u);
    EXPECT_EQ(header_of(failed).status, (uint32_t)CTL_UNKNOWN_FAILURE);
    std::string text = "Bad slot received from CTL cmd";
    EXPECT_EQ(failed.substr(24, 128), text + std::string(128 - text.size(), '\0'));

    std::string ok = exchange(header_bytes(LINECARD_ENABLE, 24, 2, 0));
    ASSERT_EQ(ok.size(), 1024u);
    EXPECT_EQ(header_of(ok).status, 0u);
    EXPECT_EQ(ok.substr(24, 128), failed.substr(24, 128));
}

TEST_F(CtlSocketTest, ClientThatSendsNothingReplaysThePreviousRequestAndServingGoesOn) {
    start();
    exchange(header_bytes(SHOW_SUMMARY, 24, 31, 0));
    clear_log_rings();
    {
        Client silent(socket_path());
        silent.end_sending();
        std::string reply = silent.read_all();
        ASSERT_EQ(reply.size(), 1024u);
        EXPECT_EQ(header_of(reply).seq, 31u);  // the previous request, served again
    }
    EXPECT_EQ(count_lines(0, "[INFO]<T> ctl_show.cpp:<N> Received CTL cmd SHOW_SUMMARY\n"), 1);
    EXPECT_EQ(header_of(exchange(header_bytes(SHOW_SUMMARY, 24, 32, 0))).seq, 32u);
}

TEST_F(CtlSocketTest, ClientGoneBeforeItsReplyIsLoggedAndDoesNotStopTheDaemon) {
    start();
    exchange(header_bytes(SHOW_SUMMARY, 24, 41, 0));
    clear_log_rings();
    {
        Client gone(socket_path());
        ASSERT_TRUE(gone.connected());
    }  // closed without a byte: the receive sees the end, the reply finds no reader
    ASSERT_TRUE(wait_for([] {
        return count_lines(0, "[INFO]<T> ctl_socket.cpp:<N> ERROR from perror - Broken pipe\n") +
                   count_lines(0, "[INFO]<T> ctl_socket.cpp:<N> ERROR from perror - Connection reset by peer\n") ==
               1;
    }));
    EXPECT_EQ(header_of(exchange(header_bytes(SHOW_SUMMARY, 24, 42, 0))).seq, 42u);
}

/* A show reply leaves len 1024 in the buffer: a short request after it is
 * served at once with the rest of the old bytes. */
TEST_F(CtlSocketTest, ShortRequestAfterAShowIsServedAtOnceWithThePreviousBytes) {
    start();
    exchange(header_bytes(SHOW_SUMMARY, 24, 51, 2));
    Client client(socket_path());
    client.send_bytes(header_bytes(SHOW_DETAIL, 24, 52, 3).substr(0, 4));  // only cmd
    std::string reply = client.read_all();
    ASSERT_EQ(reply.size(), 1024u);
    EXPECT_EQ(header_of(reply).cmd, 6u);
    EXPECT_EQ(header_of(reply).seq, 51u);
    EXPECT_EQ(header_of(reply).slot_no, 2u);
    EXPECT_EQ(count_lines(0, kSplitLine), 0);
}

/* An enable reply keeps the request's len (24): a 4-byte request after it
 * waits for the rest once. */
TEST_F(CtlSocketTest, ShortRequestAfterAnEnableWaitsOnceForTheRest) {
    start();
    exchange(header_bytes(LINECARD_ENABLE, 24, 53, 0));
    clear_log_rings();
    Client client(socket_path());
    client.send_bytes(header_bytes(SHOW_SUMMARY, 24, 54, 0).substr(0, 4));
    ASSERT_TRUE(wait_for([] { return count_lines(0, kSplitLine) == 1; }));
    client.end_sending();
    std::string reply = client.read_all();
    ASSERT_EQ(reply.size(), 1024u);
    EXPECT_EQ(header_of(reply).cmd, 5u);
    EXPECT_EQ(header_of(reply).seq, 53u);
}

TEST_F(CtlSocketTest, DebugSlotSendsHeaderAndDocumentThenCloses) {
    start();
    std::string reply = exchange(header_bytes(DEBUG_SLOT, 24, 61, 255));
    std::string document = root.read("/etc/tarnel/cm_status.json");
    ASSERT_FALSE(document.empty());
    ASSERT_EQ(reply.size(), 24 + document.size());
    EXPECT_EQ(reply.substr(24), document);
    ctlCmdHeader header = header_of(reply);
    EXPECT_EQ(header.cmd, 9u);
    EXPECT_EQ(header.seq, 61u);
    EXPECT_EQ(header.slot_no, 255u);
    EXPECT_EQ(header.len, 0u);
    EXPECT_EQ(header.status, 0u);
}

TEST_F(CtlSocketTest, DebugSlotForSlotNineClosesWithoutAReply) {
    start();
    EXPECT_EQ(exchange(header_bytes(DEBUG_SLOT, 24, 62, 9)), "");
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      kPacketLine,
                                      "[ERR]<T> ctl_show.cpp:<N> Bad slot(9) received from CTL cmd\n",
                                  }));
}

TEST_F(CtlSocketTest, AcceptFailureEndsTheThread) {
    start();
    int fd = g_ctl_sock_fd;
    shutdown(fd, SHUT_RDWR);
    pthread_join(thread_, nullptr);
    running_ = false;
    close(fd);
    g_ctl_sock_fd = -1;
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{"[ERR]<T> ctl_socket.cpp:<N> Socket accept() call failed\n"}));
}

}  // namespace
