#include "env.h"

#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <charconv>
#include <string_view>

namespace {

char g_root[ENV_ROOT_MAX + 1];
double g_time_scale = 1.0;
bool g_journal_stream_set = false;
dev_t g_journal_dev = 0;
ino_t g_journal_ino = 0;
/* sun_path holds 108 bytes, the terminator included. */
constexpr size_t kNotifySocketMax = 107;
char g_notify_socket[kNotifySocketMax + 1];
uint64_t g_watchdog_usec = 0;

/* A root ends up inside shell commands ("echo 255 >> PATH"), so only
 * characters that need no quoting are accepted. */
bool root_char_is_safe(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '/' || c == '.' || c == '_' || c == '-' || c == '+';
}

bool check_root(std::string_view root, char *err, size_t err_size) {
    if (root.size() > ENV_ROOT_MAX) {
        snprintf(err, err_size, "CHMGR_ROOT is longer than %d characters", ENV_ROOT_MAX);
        return false;
    }
    if (root[0] != '/') {
        snprintf(err, err_size, "CHMGR_ROOT must be an absolute path: '%.*s'", (int)root.size(), root.data());
        return false;
    }
    for (char c : root) {
        if (!root_char_is_safe(c)) {
            snprintf(err, err_size,
                     "CHMGR_ROOT may hold only letters, digits and '/._-+' (it is used in shell commands): '%.*s'",
                     (int)root.size(), root.data());
            return false;
        }
    }
    return true;
}

bool parse_time_scale(const char *text, double *scale, char *err, size_t err_size) {
    errno = 0;
    char *end = nullptr;
    double value = strtod(text, &end);
    if (end == text || *end != '\0' || errno == ERANGE || !isfinite(value) || value <= 0.0) {
        snprintf(err, err_size, "CHMGR_TIME_SCALE must be a positive decimal number: '%s'", text);
        return false;
    }
    *scale = value;
    return true;
}

/* One unsigned decimal number filling `text` exactly. */
template <typename T>
bool parse_decimal(std::string_view text, T *value) {
    if (text.empty()) return false;
    auto result = std::from_chars(text.data(), text.data() + text.size(), *value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

}  // namespace

void env_configure_journal_stream(const char *text) {
    g_journal_stream_set = false;
    std::string_view value = text ? text : "";
    size_t colon = value.find(':');
    if (colon == std::string_view::npos) return;
    uint64_t dev = 0;
    uint64_t ino = 0;
    if (!parse_decimal(value.substr(0, colon), &dev) || !parse_decimal(value.substr(colon + 1), &ino)) return;
    g_journal_dev = (dev_t)dev;
    g_journal_ino = (ino_t)ino;
    g_journal_stream_set = true;
}

bool env_journal_stream(dev_t *dev, ino_t *ino) {
    if (!g_journal_stream_set) return false;
    *dev = g_journal_dev;
    *ino = g_journal_ino;
    return true;
}

void env_configure_supervision(const char *notify_socket, const char *watchdog_usec, const char *watchdog_pid,
                               pid_t self) {
    g_notify_socket[0] = '\0';
    g_watchdog_usec = 0;
    std::string_view socket_name = notify_socket ? notify_socket : "";
    if (socket_name.size() < 2 || socket_name.size() > kNotifySocketMax) return;
    if (socket_name[0] != '/' && socket_name[0] != '@') return;
    memcpy(g_notify_socket, socket_name.data(), socket_name.size());
    g_notify_socket[socket_name.size()] = '\0';

    uint64_t usec = 0;
    if (!parse_decimal(std::string_view(watchdog_usec ? watchdog_usec : ""), &usec) || usec == 0) return;
    std::string_view pid_text = watchdog_pid ? watchdog_pid : "";
    uint64_t pid = 0;
    /* A watchdog meant for another process (the one that started this one). */
    if (!pid_text.empty() && (!parse_decimal(pid_text, &pid) || pid != (uint64_t)self)) return;
    g_watchdog_usec = usec;
}

const char *env_notify_socket(void) { return g_notify_socket; }

uint64_t env_watchdog_usec(void) { return g_watchdog_usec; }

bool env_configure(const char *root, const char *time_scale, char *err, size_t err_size) {
    std::string_view root_text = root ? root : "";
    /* A trailing '/' would double the separator in every path. */
    while (root_text.size() > 1 && root_text.back() == '/') root_text.remove_suffix(1);
    if (root_text == "/") root_text = "";
    if (!root_text.empty() && !check_root(root_text, err, err_size)) return false;

    double scale = 1.0;
    if (time_scale && *time_scale && !parse_time_scale(time_scale, &scale, err, err_size)) return false;

    memcpy(g_root, root_text.data(), root_text.size());
    g_root[root_text.size()] = '\0';
    g_time_scale = scale;
    return true;
}

bool env_init(void) {
    char err[512];
    if (!env_configure(getenv("CHMGR_ROOT"), getenv("CHMGR_TIME_SCALE"), err, sizeof err)) {
        fprintf(stderr, "chassis-mgr: %s\n", err);
        return false;
    }
    env_configure_journal_stream(getenv("JOURNAL_STREAM"));
    env_configure_supervision(getenv("NOTIFY_SOCKET"), getenv("WATCHDOG_USEC"), getenv("WATCHDOG_PID"), getpid());
    /* Reports come from the daemon alone, never from a command it runs. */
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
    return true;
}

const char *env_root(void) { return g_root; }

double env_time_scale(void) { return g_time_scale; }

int env_path(char *buf, size_t size, const char *fmt, ...) {
    int root_len = snprintf(buf, size, "%s", g_root);
    size_t used = (size_t)root_len < size ? (size_t)root_len : size;
    va_list ap;
    va_start(ap, fmt);
    int path_len = vsnprintf(buf + used, size - used, fmt, ap);
    va_end(ap);
    return root_len + path_len;
}

struct timespec env_scaled_period(uint32_t sec, uint32_t nsec) {
    double total_ns = ((double)sec * 1e9 + (double)nsec) * g_time_scale;
    if (total_ns < 1.0) total_ns = 1.0;
    struct timespec ts;
    ts.tv_sec = (time_t)(total_ns / 1e9);
    ts.tv_nsec = (long)(total_ns - (double)ts.tv_sec * 1e9);
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

void env_sleep(unsigned int seconds) {
    if (seconds == 0) return;
    struct timespec remaining = env_scaled_period(seconds, 0);
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}
