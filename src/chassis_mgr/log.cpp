/*
 * Logging: every line goes to the console (filtered by the threshold) and to
 * an in-memory ring (never filtered).  Ring 0 keeps daemon-wide lines, ring s
 * the lines of slot s; the status report shows the 24 most recent of each.
 */
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#include <string_view>

#include "chassis_mgr.h"
#include "env.h"

log_level_e g_log_level = LOG_LEVEL_INFO;
FILE *g_log_fd = nullptr;
slotLog g_slot_log;

namespace {

/* Rings and the time-stamp buffer are shared by every thread; one lock keeps
 * lines whole (the formats and the ring size are unchanged by it). */
pthread_mutex_t g_ring_lock = PTHREAD_MUTEX_INITIALIZER;
char g_datestamp[128];

/* Write errors on the console are ignored, and a console on a pipe whose
 * reader has gone must not end the daemon: SIGPIPE is blocked in the
 * writing thread around the write (SigpipeBlocked) and a SIGPIPE the write
 * raised is taken back before the mask is restored.  The process-wide
 * disposition stays the default, so commands run through system() start
 * with it as usual.  Depth of the calling thread's nested scopes: */
thread_local int t_sigpipe_scopes = 0;

/* Set when the console stream is the journal's: each console line then
 * starts with "<N>", its syslog priority, which the journal turns into the
 * entry's priority and strips from the text. */
relaxed<int> g_console_to_journal;
/* The journal's last console line has no newline yet, so the text that
 * continues it gets no second prefix.  Written under the stream's lock,
 * which the thread checker does not see: hence a relaxed atomic. */
relaxed<bool> g_console_mid_line;

/* Messages without a level word are informational; a line printed whatever
 * the threshold is a notice. */
int syslog_priority(log_level_e level) {
    switch (level) {
    case LOG_LEVEL_CRIT: return 2;
    case LOG_LEVEL_ERR: return 3;
    case LOG_LEVEL_WARN: return 4;
    case LOG_LEVEL_INFO: return 6;
    case LOG_LEVEL_DEBUG: return 7;
    default: return 5;
    }
}

/* Writes `text` with the priority prefix at the start of every line. */
void write_journal_text(FILE *out, int priority, std::string_view text) {
    flockfile(out);
    while (!text.empty()) {
        if (!g_console_mid_line) fprintf(out, "<%d>", priority);
        size_t newline = text.find('\n');
        size_t length = newline == std::string_view::npos ? text.size() : newline + 1;
        fwrite(text.data(), 1, length, out);
        g_console_mid_line = newline == std::string_view::npos;
        text.remove_prefix(length);
    }
    fflush(out);
    funlockfile(out);
}

void log_vjournal(FILE *out, log_level_e level, const char *fmt, va_list ap) {
    char line[1024];
    va_list again;
    va_copy(again, ap);
    int length = vsnprintf(line, sizeof line, fmt, ap);
    if (length < 0) {
        va_end(again);
        return;
    }
    if ((size_t)length < sizeof line) {
        write_journal_text(out, syslog_priority(level), std::string_view(line, length));
    } else {
        /* The console line is never cut: a long one is formatted on the heap. */
        char *long_line = (char *)malloc((size_t)length + 1);
        if (long_line) {
            vsnprintf(long_line, (size_t)length + 1, fmt, again);
            write_journal_text(out, syslog_priority(level), std::string_view(long_line, length));
            free(long_line);
        }
    }
    va_end(again);
}

void log_vconsole(log_level_e level, const char *fmt, va_list ap) {
    FILE *out = g_log_fd ? g_log_fd : stderr;
    SigpipeBlocked no_sigpipe;
    if (g_console_to_journal) {
        log_vjournal(out, level, fmt, ap);
        return;
    }
    vfprintf(out, fmt, ap);
    fflush(out);
}

/* " %F %T" of the local time, as strftime writes it into `size` bytes.  The
 * text changes once a second and a busy daemon logs many lines within one:
 * the last second's text is kept.  Called under g_ring_lock (or by a single
 * thread), like the time-stamp buffer it writes into. */
void append_local_time(char *out, size_t size, time_t seconds) {
    static time_t cached_second = (time_t)-1;
    static char cached[64];
    static size_t cached_length = 0;
    if (seconds != cached_second) {
        struct tm local;
        localtime_r(&seconds, &local);
        cached_length = strftime(cached, sizeof cached, " %F %T", &local);
        cached_second = cached_length > 0 ? seconds : (time_t)-1;
    }
    if (cached_length > 0 && cached_length < size) {
        memcpy(out, cached, cached_length + 1);
        return;
    }
    struct tm local;  // does not fit: strftime decides, as it always did
    localtime_r(&seconds, &local);
    strftime(out, size, " %F %T", &local);
}

}  // namespace

SigpipeBlocked::SigpipeBlocked() {
    if (t_sigpipe_scopes++ > 0) return;  // an outer scope blocks it already
    outermost_ = true;
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    /* A SIGPIPE already pending for this thread is not ours to take. */
    already_pending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &saved_);
}

SigpipeBlocked::~SigpipeBlocked() {
    --t_sigpipe_scopes;
    if (!outermost_) return;
    sigset_t pending;
    if (!already_pending_ && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
        const struct timespec no_wait = {0, 0};
        sigtimedwait(&pipe_, nullptr, &no_wait);
    }
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

void _log_log(log_level_e level, const char *fmt, int fmt_len, ...) {
    va_list ap;
    va_start(ap, fmt_len);
    log_vconsole(level, fmt, ap);
    va_end(ap);
}

void _log_log_slot(log_level_e level, const char *fmt, int fmt_len, ...) {
    va_list ap;
    va_start(ap, fmt_len);
    log_vconsole(level, fmt, ap);
    va_end(ap);
}

bool log_console_follow_journal(void) {
    FILE *out = g_log_fd ? g_log_fd : stderr;
    dev_t dev = 0;
    ino_t ino = 0;
    struct stat st;
    bool journal = env_journal_stream(&dev, &ino) && fstat(fileno(out), &st) == 0 && st.st_dev == dev &&
                   st.st_ino == ino;
    g_console_mid_line = false;
    g_console_to_journal = journal ? 1 : 0;
    return journal;
}

const char *_log_datestamp(void) {
    struct timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) return "-1";
    time_t seconds = tv.tv_sec;
    int n = snprintf(g_datestamp, 127, "%lu.%06lu", (unsigned long)tv.tv_sec, (unsigned long)tv.tv_usec);
    if (n > 0 && n < 127) append_local_time(g_datestamp + n, 127 - n, seconds);
    g_datestamp[127] = '\0';
    return g_datestamp;
}

void _log_ring(int slot, const char *level_name, const char *file, int line, const char *fmt, ...) {
    /* A slot without a ring (the INI poll names the next slot, 9 after 8)
     * keeps its tag in the daemon-wide ring. */
    int ring = slot >= 1 && slot < LOG_RING_COUNT ? slot : 0;
    MutexLock lock(&g_ring_lock);
    char *out = g_slot_log.log[ring][g_slot_log.tail[ring]];
    int prefix = slot < 1
        ? snprintf(out, LOG_LINE_SIZE, "[%s]%s %s:%d ", level_name, _log_datestamp(), file, line)
        : snprintf(out, LOG_LINE_SIZE, "[SLOT%d:%s]%s %s:%d ", slot, level_name, _log_datestamp(), file, line);
    if (prefix >= 0 && prefix < LOG_LINE_SIZE - 1) {
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(out + prefix, LOG_LINE_SIZE - prefix, fmt, ap);
        va_end(ap);
    }
    g_slot_log.tail[ring] = (g_slot_log.tail[ring] + 1) % LOG_RING_LINES;
    if (g_slot_log.tail[ring] == g_slot_log.head[ring])
        g_slot_log.head[ring] = (g_slot_log.tail[ring] + 1) % LOG_RING_LINES;
}

int log_ring_copy(int ring, char (*lines)[LOG_LINE_SIZE], int max_lines) {
    if (ring < 0 || ring >= LOG_RING_COUNT) return 0;
    MutexLock lock(&g_ring_lock);
    int count = 0;
    for (int i = g_slot_log.head[ring]; i != g_slot_log.tail[ring] && count < max_lines;
         i = (i + 1) % LOG_RING_LINES) {
        memcpy(lines[count++], g_slot_log.log[ring][i], LOG_LINE_SIZE);
    }
    return count;
}

bool log_level_from_name(const char *name, log_level_e *level) {
    static constexpr struct {
        const char *name;
        log_level_e level;
    } kLevels[] = {
        {"DEBUG", LOG_LEVEL_DEBUG}, {"INFO", LOG_LEVEL_INFO},     {"WARNING", LOG_LEVEL_WARN},
        {"ERROR", LOG_LEVEL_ERR},   {"CRITICAL", LOG_LEVEL_CRIT},
    };
    for (const auto &entry : kLevels) {
        if (strcmp(name, entry.name) == 0) {
            *level = entry.level;
            return true;
        }
    }
    return false;
}

void cm_assert_fail(const char *expr, const char *file, int line, const char *func) {
    fprintf(stderr, "chassis-mgr: %s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    fflush(stderr);
    abort();
}
