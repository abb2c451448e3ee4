/*
 * The administration thread: runs the commands that change a slot
 * (enable, disable, pre-provision and its undoing), one at a time, in the
 * order the control thread hands them over.  Such a command takes the
 * slot's mutex, which a card in its ready step holds for a minute, and then
 * polls for up to 30 seconds; on a thread of its own it never holds up the
 * reads, which the control thread answers meanwhile.
 *
 * While a command runs this thread owns g_ctl_resp_buf: the control thread
 * laid the request over it before handing the connection over, and takes
 * the buffer back only once ctl_admin_collect() says the command has ended.
 * The hand-over in both directions goes through g_admin_lock.
 *
 * The command ends, and the eventfd says so, before its reply is sent: the
 * reply goes out from a copy.  A client that reads the reply and sends its
 * next request at once then finds the control thread told first, so that
 * request is laid over g_ctl_resp_buf as the command left it, exactly as if
 * the control thread had run the command itself.
 */
#include <pthread.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "chassis_mgr.h"
#include "ctl_serving.h"

namespace {

pthread_mutex_t g_admin_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_admin_wake = PTHREAD_COND_INITIALIZER;
int g_admin_client = -1;       // connection whose command is to run; -1: none
bool g_admin_ended = false;    // a command has ended since the last collect
bool g_admin_quit = false;
int g_admin_done_fd = -1;      // eventfd, written once per ended command
pthread_t g_admin_thread;
bool g_admin_started = false;  // control thread only
/* The ended command's reply, sent once g_ctl_resp_buf is given back. */
alignas(8) unsigned char g_admin_reply[CTL_BUF_SIZE];

/* The next connection to serve, or -1 when the thread is to end. */
int wait_for_command(void) {
    MutexLock lock(&g_admin_lock);
    while (g_admin_client == -1 && !g_admin_quit) pthread_cond_wait(&g_admin_wake, &g_admin_lock);
    return g_admin_client;
}

void command_ended(void) {
    {
        MutexLock lock(&g_admin_lock);
        g_admin_client = -1;
        g_admin_ended = true;
    }
    uint64_t one = 1;
    ssize_t written = write(g_admin_done_fd, &one, sizeof one);
    (void)written;  // an eventfd counter cannot overflow at one write per command
}

void *admin_thread(void *) {
    pthread_setname_np(pthread_self(), "chmgr-admin");
    for (;;) {
        int client = wait_for_command();
        if (client == -1) return nullptr;
        ctlReply reply;
        bool replied = ctl_handle_request(&reply);
        /* Every administration reply is the request buffer itself. */
        CM_ASSERT(!replied || reply.size <= sizeof g_admin_reply);
        if (replied) memcpy(g_admin_reply, reply.data, reply.size);
        command_ended();
        if (replied) ctl_send_reply(client, ctlReply{g_admin_reply, reply.size}, true);
        close(client);
    }
}

}  // namespace

bool ctl_admin_start(int *done_fd) {
    g_admin_done_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_admin_done_fd == -1) return false;
    g_admin_quit = false;
    if (pthread_create(&g_admin_thread, nullptr, admin_thread, nullptr) != 0) {
        close(g_admin_done_fd);
        g_admin_done_fd = -1;
        return false;
    }
    g_admin_started = true;
    *done_fd = g_admin_done_fd;
    return true;
}

void ctl_admin_submit(int client) {
    MutexLock lock(&g_admin_lock);
    g_admin_client = client;
    pthread_cond_signal(&g_admin_wake);
}

bool ctl_admin_collect(void) {
    uint64_t count;
    ssize_t got = read(g_admin_done_fd, &count, sizeof count);
    (void)got;  // non-blocking: nothing to read means nothing ended
    MutexLock lock(&g_admin_lock);
    bool ended = g_admin_ended;
    g_admin_ended = false;
    return ended;
}

void ctl_admin_stop(void) {
    if (!g_admin_started) return;
    {
        MutexLock lock(&g_admin_lock);
        g_admin_quit = true;
        pthread_cond_signal(&g_admin_wake);
    }
    pthread_join(g_admin_thread, nullptr);
    close(g_admin_done_fd);
    g_admin_done_fd = -1;
    g_admin_started = false;
}
