/*
 * Preloaded into chassis-mgr by the system tests (LD_PRELOAD) to see and to
 * interrupt its file rewrites:
 *
 *   CHMGR_SHIM_TRACE=FILE      appends one line per call to FILE:
 *                                "fsync PATH", "fdatasync PATH",
 *                                "remove PATH", "unlink PATH",
 *                                "rename FROM TO"
 *                              (PATH of a descriptor read from /proc/self/fd)
 *   CHMGR_SHIM_KILL=CALL:N:PATH
 *                              after the N-th call of CALL ("remove" or
 *                              "rename") on PATH (the first path of a rename)
 *                              has been made, the process sends itself
 *                              SIGKILL: it dies exactly between two steps of
 *                              a rewrite, as a power cut or a kill -9 can.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static pthread_mutex_t shim_lock = PTHREAD_MUTEX_INITIALIZER;
static int kill_count;

static void trace(const char *call, const char *first, const char *second) {
    const char *path = getenv("CHMGR_SHIM_TRACE");
    if (!path) return;
    char line[2 * PATH_MAX + 32];
    int length = second ? snprintf(line, sizeof line, "%s %s %s\n", call, first, second)
                        : snprintf(line, sizeof line, "%s %s\n", call, first);
    if (length <= 0 || (size_t)length >= sizeof line) return;
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t written = write(fd, line, (size_t)length);
    (void)written;
    close(fd);
}

static void fd_path(int fd, char *out, size_t size) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t length = readlink(link, out, size - 1);
    if (length < 0) length = 0;
    out[length] = '\0';
}

/* Kills the process when this call is the one CHMGR_SHIM_KILL names. */
static void maybe_kill(const char *call, const char *path) {
    const char *order = getenv("CHMGR_SHIM_KILL");
    if (!order) return;
    size_t call_length = strlen(call);
    if (strncmp(order, call, call_length) != 0 || order[call_length] != ':') return;
    char *rest = NULL;
    long wanted = strtol(order + call_length + 1, &rest, 10);
    if (!rest || *rest != ':' || strcmp(rest + 1, path) != 0) return;
    pthread_mutex_lock(&shim_lock);
    int count = ++kill_count;
    pthread_mutex_unlock(&shim_lock);
    if (count == wanted) kill(getpid(), SIGKILL);
}

int fsync(int fd) {
    static int (*real)(int);
    if (!real) real = (int (*)(int))dlsym(RTLD_NEXT, "fsync");
    char path[PATH_MAX];
    fd_path(fd, path, sizeof path);
    trace("fsync", path, NULL);
    return real(fd);
}

int fdatasync(int fd) {
    static int (*real)(int);
    if (!real) real = (int (*)(int))dlsym(RTLD_NEXT, "fdatasync");
    char path[PATH_MAX];
    fd_path(fd, path, sizeof path);
    trace("fdatasync", path, NULL);
    return real(fd);
}

int remove(const char *path) {
    static int (*real)(const char *);
    if (!real) real = (int (*)(const char *))dlsym(RTLD_NEXT, "remove");
    trace("remove", path, NULL);
    int result = real(path);
    maybe_kill("remove", path);
    return result;
}

int unlink(const char *path) {
    static int (*real)(const char *);
    if (!real) real = (int (*)(const char *))dlsym(RTLD_NEXT, "unlink");
    trace("unlink", path, NULL);
    int result = real(path);
    maybe_kill("remove", path);
    return result;
}

int rename(const char *from, const char *to) {
    static int (*real)(const char *, const char *);
    if (!real) real = (int (*)(const char *, const char *))dlsym(RTLD_NEXT, "rename");
    trace("rename", from, to);
    int result = real(from, to);
    maybe_kill("rename", from);
    return result;
}
