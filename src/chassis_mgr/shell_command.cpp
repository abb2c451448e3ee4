/*
 * Outside commands run through the shell.  Every caller judges the result the
 * same way: a command that could not be started, or that exited with a
 * non-zero code, is logged with its text.
 *
 * Every command has a time limit: its limit in seconds times the clock
 * factor, plus COMMAND_START_ALLOWANCE_MS that are not scaled (starting a
 * shell and a tool takes the same time at any clock factor).  A command
 * still running at its limit is killed with its whole process group, one
 * ERR line names it and the limit, and it counts as failed: a tool that never returns would otherwise hold its slot, and the
 * worker running it, for ever.  For that the shell starts in a process group
 * of its own; everything else is as system() and popen() do it: "sh -c
 * COMMAND", the daemon's environment and standard streams, no signal
 * blocked in the command.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "chassis_mgr.h"

extern char **environ;

namespace {

/* How often a child is looked at when the kernel gives no process
 * descriptor to wait on. */
constexpr long kReapPollNs = 10 * 1000 * 1000;

int64_t monotonic_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000LL + now.tv_nsec;
}

/* Milliseconds left until `deadline_ns`, rounded up (poll's unit). */
int remaining_ms(int64_t deadline_ns) {
    int64_t left = deadline_ns - monotonic_ns();
    if (left <= 0) return 0;
    int64_t ms = (left + 999999) / 1000000;
    return ms > 1000000 ? 1000000 : (int)ms;
}

/* Starts "sh -c command" as the leader of a new process group; with
 * `stdout_fd` >= 0 its standard output goes there.  False (errno set) when
 * it cannot be started. */
bool spawn_shell(const char *command, int stdout_fd, pid_t *pid) {
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attr);
    posix_spawn_file_actions_init(&actions);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    if (stdout_fd >= 0) posix_spawn_file_actions_adddup2(&actions, stdout_fd, STDOUT_FILENO);
    char sh[] = "sh";
    char dash_c[] = "-c";
    char *argv[] = {sh, dash_c, const_cast<char *>(command), nullptr};
    int rv = posix_spawn(pid, "/bin/sh", &actions, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    errno = rv;
    return rv == 0;
}

/* Waits for the child until `deadline_ns`; true with its wait status when
 * it ended in time. */
bool reap_before(pid_t pid, int64_t deadline_ns, int *status) {
    int pidfd = (int)syscall(SYS_pidfd_open, pid, 0);
    if (pidfd >= 0) {
        struct pollfd entry = {pidfd, POLLIN, 0};
        int ready;
        do {
            ready = poll(&entry, 1, remaining_ms(deadline_ns));
        } while ((ready == -1 && errno == EINTR) || (ready == 0 && monotonic_ns() < deadline_ns));
        close(pidfd);
        if (ready <= 0) return false;
        return waitpid(pid, status, 0) == pid;
    }
    for (;;) {
        pid_t got = waitpid(pid, status, WNOHANG);
        if (got == pid) return true;
        if (got == -1 && errno != EINTR) return false;
        if (monotonic_ns() >= deadline_ns) return false;
        struct timespec pause = {0, kReapPollNs};
        nanosleep(&pause, nullptr);
    }
}

/* Ends a command past its limit: its whole process group, then the shell is
 * reaped (until then its pid, and so its group, cannot be reused). */
void kill_command(const char *command, pid_t pid, uint32_t limit_sec) {
    kill(-pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    CM_LOG(LOG_LEVEL_ERR, "process %s still running after its time limit of %g s: killed with its process group\n",
           command, (double)cm_command_limit_ns(limit_sec) / 1e9);
}

/* Reads up to the first line feed (kept) or `size` - 1 bytes, as fgets
 * does, before `deadline_ns`.  False when the deadline passed first. */
bool read_first_line(int fd, char *line, int size, int64_t deadline_ns) {
    int used = 0;
    line[0] = '\0';
    while (used < size - 1) {
        struct pollfd entry = {fd, POLLIN, 0};
        int ready = poll(&entry, 1, remaining_ms(deadline_ns));
        if (ready == -1 && errno != EINTR) break;
        if (ready != 1) {
            if (monotonic_ns() >= deadline_ns) return false;
            continue;
        }
        ssize_t got = read(fd, line + used, (size_t)(size - 1 - used));
        if (got == -1 && errno == EINTR) continue;
        if (got <= 0) break;
        char *feed = (char *)memchr(line + used, '\n', (size_t)got);
        used += (int)got;
        if (feed) {
            used = (int)(feed - line) + 1;
            break;
        }
    }
    line[used] = '\0';
    return true;
}

}  // namespace

int64_t cm_command_limit_ns(uint32_t limit_sec) {
    struct timespec limit = env_scaled_period(limit_sec, 0);
    return (int64_t)limit.tv_sec * 1000000000LL + limit.tv_nsec + COMMAND_START_ALLOWANCE_MS * 1000000LL;
}

int cm_system(const char *command, uint32_t limit_sec) {
    int64_t deadline = monotonic_ns() + cm_command_limit_ns(limit_sec);
    pid_t pid = 0;
    if (!spawn_shell(command, -1, &pid)) return -1;
    int status = 0;
    if (reap_before(pid, deadline, &status)) return status;
    kill_command(command, pid, limit_sec);
    return CM_COMMAND_TIMED_OUT;
}

bool cm_command_first_line(const char *command, uint32_t limit_sec, char *line, int size) {
    int64_t deadline = monotonic_ns() + cm_command_limit_ns(limit_sec);
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) == -1) return false;
    pid_t pid = 0;
    bool started = spawn_shell(command, pipe_fds[1], &pid);
    close(pipe_fds[1]);
    if (!started) {
        close(pipe_fds[0]);
        return false;
    }
    bool in_time = read_first_line(pipe_fds[0], line, size, deadline);
    /* What follows the first line is not read, as with pclose. */
    close(pipe_fds[0]);
    int status = 0;
    if (in_time && reap_before(pid, deadline, &status)) return true;
    kill_command(command, pid, limit_sec);
    return false;
}

bool cm_command_succeeded(const char *command, int status) {
    if (status == CM_COMMAND_TIMED_OUT) return false;  // its line is logged already
    if (status == -1) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to launch %s\n", command);
        return false;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "process %s exited with %d error code\n", command, WEXITSTATUS(status));
        return false;
    }
    return true;
}
