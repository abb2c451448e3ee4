/*
 * The daemon's one seam to its environment: the path root and the clock
 * factor.  On the switch both are neutral (no root, factor 1).  Off the
 * switch, CHMGR_ROOT puts every absolute path the daemon touches under a
 * sandbox directory, and CHMGR_TIME_SCALE multiplies every sleep and timer
 * period, so the same binary runs in tests and demonstrations.
 *
 * JOURNAL_STREAM, set by the service manager when standard output is
 * connected to the journal, names that stream; the console then marks each
 * line with its priority.
 *
 * NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, set by the service manager
 * for a service that reports its own readiness, name the datagram socket
 * that takes those reports and the watchdog period (notify.cpp,
 * watchdog.cpp).  They are taken out of the environment once read, so the
 * commands the daemon runs never report in its name.
 *
 * The variables are read once, by env_init() at start-up; nothing else in
 * the daemon reads the environment.
 */
#ifndef CHMGR_ENV_H
#define CHMGR_ENV_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

/* Exit status for a refused environment (as for a bad argument). */
#define ENV_EXIT_REFUSED 10
/* Longest root accepted; paths built on it still fit the path buffers. */
#define ENV_ROOT_MAX 200
/* Size of every buffer that holds a rooted path or a command built on one. */
#define CM_PATH_SIZE 512

/* Reads CHMGR_ROOT and CHMGR_TIME_SCALE.  On a refused value prints a clear
 * message on standard error and returns false (the caller exits with 10). */
bool env_init(void);

/* Sets root and clock factor from texts (null or empty: the defaults).
 * On refusal writes the reason into `err` and returns false, changing nothing.
 * env_init() uses it; unit tests call it directly. */
bool env_configure(const char *root, const char *time_scale, char *err, size_t err_size);

/* Takes a JOURNAL_STREAM value, "<dev>:<ino>" in decimal; null, empty or
 * any other form means no journal stream.  env_init() uses it; unit tests
 * call it directly. */
void env_configure_journal_stream(const char *text);

/* Device and inode of the journal stream; false when there is none. */
bool env_journal_stream(dev_t *dev, ino_t *ino);

/* Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID as texts (null or
 * empty: unset) for the process `self`.  A socket name longer than a Unix
 * socket address holds, a period that is not a positive decimal number of
 * microseconds, or a WATCHDOG_PID naming another process leave that part
 * off.  env_init() uses it; unit tests call it directly. */
void env_configure_supervision(const char *notify_socket, const char *watchdog_usec, const char *watchdog_pid,
                               pid_t self);

/* The service manager's notification socket ("" when none): a path, or
 * "@name" for an abstract socket. */
const char *env_notify_socket(void);
/* The watchdog period in microseconds; 0 when there is no watchdog. */
uint64_t env_watchdog_usec(void);

/* The root ("" when none). */
const char *env_root(void);
double env_time_scale(void);

/* Formats an absolute path and puts the root in front of it.  Returns the
 * length snprintf would give; a result >= size means the path was cut. */
int env_path(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/* Sleeps `seconds` times the clock factor. */
void env_sleep(unsigned int seconds);

/* A period of sec + nsec times the clock factor (never all zero, which
 * would disarm a timer). */
struct timespec env_scaled_period(uint32_t sec, uint32_t nsec);

#endif /* CHMGR_ENV_H */
