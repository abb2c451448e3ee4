/*
 * The notification protocol of the service manager (see notify.h): plain
 * "NAME=value" lines in one datagram on an AF_UNIX socket whose name comes
 * from NOTIFY_SOCKET ("@name" is an abstract socket).
 */
#include "notify.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "chassis_mgr.h"
#include "slot_summary.h"
#include "watchdog.h"

namespace {

/* "READY=1\n", "STATUS=" and the line. */
constexpr size_t kReportSize = 512;

int g_notify_fd = -1;
struct sockaddr_un g_notify_addr;
socklen_t g_notify_addr_len = 0;

/* Guards the last STATUS= text sent (a leaf lock: nothing is taken under it). */
pthread_mutex_t g_status_mutex = PTHREAD_MUTEX_INITIALIZER;
char g_last_status[kReportSize];
relaxed<bool> g_ready_sent = false;
std::atomic<int> g_halves_done{0};

bool address_from(const char *name) {
    size_t length = strlen(name);
    if (length == 0 || length >= sizeof g_notify_addr.sun_path) return false;
    memset(&g_notify_addr, 0, sizeof g_notify_addr);
    g_notify_addr.sun_family = AF_UNIX;
    memcpy(g_notify_addr.sun_path, name, length);
    if (name[0] == '@') g_notify_addr.sun_path[0] = '\0';  // abstract: no terminator counted
    g_notify_addr_len = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + length + (name[0] == '@' ? 0 : 1));
    return true;
}

/* "STATUS=<summary>" into `report`; its length. */
size_t status_report(char *report, size_t size) {
    static constexpr char kStatus[] = "STATUS=";
    memcpy(report, kStatus, sizeof kStatus - 1);
    return sizeof kStatus - 1 + slot_summary_of_chassis(report + sizeof kStatus - 1, size - (sizeof kStatus - 1));
}

void send_ready(void) {
    char report[kReportSize];
    static constexpr char kReady[] = "READY=1\n";
    memcpy(report, kReady, sizeof kReady - 1);
    size_t length = sizeof kReady - 1 + status_report(report + sizeof kReady - 1, sizeof report - (sizeof kReady - 1));
    MutexLock lock(&g_status_mutex);
    if (notify_send(report, length)) {
        memcpy(g_last_status, report + sizeof kReady - 1, length - (sizeof kReady - 1));
        g_last_status[length - (sizeof kReady - 1)] = '\0';
    }
    g_ready_sent = true;
}

void startup_half_done(void) {
    if (g_halves_done.fetch_add(1) + 1 != 2) return;
    if (notify_enabled()) send_ready();
    watchdog_start();
}

}  // namespace

bool notify_init(void) {
    const char *name = env_notify_socket();
    if (!name[0] || !address_from(name)) return false;
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to open the notification socket %s: %s\n", name, strerror(errno));
        return false;
    }
    g_notify_fd = fd;
    return true;
}

bool notify_enabled(void) { return g_notify_fd != -1; }

bool notify_send(const char *text, size_t length) {
    if (g_notify_fd == -1) return false;
    ssize_t sent = sendto(g_notify_fd, text, length, MSG_DONTWAIT | MSG_NOSIGNAL,
                          (const struct sockaddr *)&g_notify_addr, g_notify_addr_len);
    return sent == (ssize_t)length;
}

void notify_startup_done(void) { startup_half_done(); }

void notify_control_socket_ready(void) { startup_half_done(); }

void notify_status_refresh(void) {
    /* Before READY=1 the first status goes with it. */
    if (g_notify_fd == -1 || !g_ready_sent) return;
    char report[kReportSize];
    size_t length = status_report(report, sizeof report);
    MutexLock lock(&g_status_mutex);
    if (strcmp(report, g_last_status) == 0) return;
    /* Not recorded when dropped: the next refresh tries again. */
    if (notify_send(report, length)) memcpy(g_last_status, report, length + 1);
}

void notify_reset_for_test(void) {
    MutexLock lock(&g_status_mutex);
    g_last_status[0] = '\0';
    g_ready_sent = false;
    g_halves_done = 0;
    if (g_notify_fd != -1) close(g_notify_fd);
    g_notify_fd = -1;
}
