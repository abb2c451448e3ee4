/*
 * The administration thread's hand-over of g_ctl_resp_buf.  The thread runs
 * in this process and serves one end of a socket pair; the test plays the
 * control thread (it lays the request, submits, collects) and the client.
 */
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "ctl_serving.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

constexpr uint32_t kLinecardEnable = 3;
const std::string kBadSlotText = "Bad slot received from CTL cmd";

/* Fills the socket's send queue until one more byte would block, so that a
 * reply sent on it cannot reach the peer before the peer reads. */
size_t fill_send_queue(int fd) {
    char filler[512];
    memset(filler, 'f', sizeof filler);
    size_t queued = 0;
    for (;;) {
        ssize_t sent = send(fd, filler, sizeof filler, MSG_DONTWAIT);
        if (sent <= 0) return queued;
        queued += (size_t)sent;
    }
}

/* Everything the peer sends until it closes. */
std::string read_to_end(int fd) {
    std::string got;
    char chunk[4096];
    for (ssize_t n; (n = recv(fd, chunk, sizeof chunk, 0)) > 0;) got.append(chunk, (size_t)n);
    return got;
}

class CtlAdminThreadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        ASSERT_TRUE(ctl_admin_start(&done_fd_));
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair_), 0);
        memset(g_ctl_resp_buf, 0, sizeof g_ctl_resp_buf);
    }
    void TearDown() override {
        ctl_admin_stop();
        close(pair_[1]);
    }

    SandboxRoot root;
    int done_fd_ = -1;
    int pair_[2] = {-1, -1};  // [0] goes to the thread, which closes it; [1] is the client's
};

TEST_F(CtlAdminThreadTest, ACommandHandsTheBufferBackBeforeItsClientCanReadTheReply) {
    ctlCmdHeader request = {kLinecardEnable, 24, 5, 9, 0, 0};
    memcpy(g_ctl_resp_buf, &request, sizeof request);
    size_t filler = fill_send_queue(pair_[0]);
    ASSERT_GT(filler, 0u);

    ctl_admin_submit(pair_[0]);
    /* The reply cannot leave the thread until the client reads; the end of
     * the command must be told all the same. */
    struct pollfd done = {done_fd_, POLLIN, 0};
    int limit_ms = (int)wait_limit(std::chrono::milliseconds(5000)).count();
    ASSERT_EQ(poll(&done, 1, limit_ms), 1) << "the command's end was not told while its reply waited";
    EXPECT_TRUE(ctl_admin_collect());
    std::string buffer_after((const char *)g_ctl_resp_buf, CTL_BUF_SIZE);

    /* The control thread may now lay the next request over the buffer: the
     * reply already sent is not changed by it. */
    memset(g_ctl_resp_buf, 0xAB, sizeof g_ctl_resp_buf);
    std::string got = read_to_end(pair_[1]);
    ASSERT_EQ(got.size(), filler + CTL_BUF_SIZE);
    EXPECT_EQ(got.substr(filler), buffer_after);
    std::string text = buffer_after.substr(24, 128);
    EXPECT_EQ(text.substr(0, text.find('\0')), kBadSlotText);
}

TEST_F(CtlAdminThreadTest, NothingIsToldBeforeACommandIsSubmitted) {
    struct pollfd done = {done_fd_, POLLIN, 0};
    EXPECT_EQ(poll(&done, 1, 0), 0);
    EXPECT_FALSE(ctl_admin_collect());
    close(pair_[0]);
}

}  // namespace
