// Event latency: from the close of an event file by another process to the
// start of the transition that the event selects.
//
// The measured path is the daemon's own: the slot's inotify watch, the poll
// loop (build_poll_set / poll / handle_poll_results on a thread of its own),
// the decision from the files (get_event_transition), the work queue, one of
// the four workers (work_handler) and the slot mutex.  Only the transition is
// a probe: it takes the time when it is entered.  A child process writes
// "1" into slot 1's present file with one open-write-close and reports the
// CLOCK_MONOTONIC time at which it calls close(); the difference is one
// sample (it includes the close call itself).
// Samples are taken one at a time (the next write waits for the probe).
//
// The console goes to /dev/null, as for a detached daemon.
//
// Usage: event_latency_bench [EVENTS]   (default 2000, after 100 warm-up events)
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "chassis_mgr.h"

namespace {

constexpr int kWarmUp = 100;
constexpr int kProbeTimeoutMs = 5000;

int64_t now_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

// ---- the probe transition

int g_probe_fd = -1;          // eventfd: one count per probe entry
std::atomic<int64_t> g_probe_entered{0};  // stored by the worker before the eventfd post

bool probe_transition(int) {
    g_probe_entered = now_ns();
    uint64_t one = 1;
    if (write(g_probe_fd, &one, sizeof one) != sizeof one) abort();
    return true;
}

bool ignore_transition(int) { return true; }

eventMapFnTable g_probe_table[SLOT_EVENT_COUNT];

// ---- the writer process

/* Waits for a byte on `cmd`, writes the event file, answers the time of the close. */
[[noreturn]] void writer_main(const char *path, int cmd, int answer) {
    char op;
    while (read(cmd, &op, 1) == 1 && op == 'w') {
        int fd = open(path, O_WRONLY | O_TRUNC);
        if (fd < 0 || write(fd, "1", 1) != 1) _exit(2);
        /* Taken before the close: the close itself queues the inotify record,
         * and the daemon may run before this process is scheduled again. */
        int64_t closed = now_ns();
        close(fd);
        if (write(answer, &closed, sizeof closed) != sizeof closed) _exit(3);
    }
    _exit(0);
}

// ---- set-up

bool make_tree(std::string *root) {
    char tmpl[] = "/tmp/chmgr-bench-XXXXXX";
    if (!mkdtemp(tmpl)) return false;
    *root = tmpl;
    std::string dir = *root;
    for (const char *part : {"/var", "/var/run", "/var/run/hw-management", "/var/run/hw-management/events"}) {
        dir = *root + part;
        mkdir(dir.c_str(), 0755);
    }
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) {
        for (const char *name : {"present", "verified", "synced", "powered", "active", "ready"}) {
            std::string path = dir + "/lc" + std::to_string(slot) + "_" + name;
            FILE *f = fopen(path.c_str(), "w");
            if (!f) return false;
            fputs("0", f);
            fclose(f);
        }
    }
    return true;
}

void init_slot_records() {
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        slotInfo *slot = &g_slots_info[i];
        slot->slot_id = i + 1;
        slot->trans_timer.timer_fd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK);
        slot->trans_timer.state_monitored = slot_present_event;  // an empty slot awaiting a card
        pthread_mutex_init(&slot->mutex, nullptr);
    }
}

void *loop_thread(void *) {
    struct pollfd fds[POLL_SET_SIZE];
    build_poll_set(fds);
    for (;;) {
        if (poll(fds, POLL_SET_SIZE, -1) < 0) continue;
        handle_poll_results(fds);
    }
    return nullptr;
}

bool wait_probe() {
    struct pollfd p = {g_probe_fd, POLLIN, 0};
    if (poll(&p, 1, kProbeTimeoutMs) != 1) return false;
    uint64_t count;
    return read(g_probe_fd, &count, sizeof count) == sizeof count;
}

double percentile(const std::vector<double> &sorted, double p) {
    size_t index = (size_t)(p / 100.0 * (double)(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}

}  // namespace

int main(int argc, char **argv) {
    int events = argc > 1 ? atoi(argv[1]) : 2000;
    if (events < 1) events = 2000;

    std::string root;
    if (!make_tree(&root)) {
        fprintf(stderr, "cannot create the event tree under /tmp\n");
        return 1;
    }
    char err[256];
    if (!env_configure(root.c_str(), "1", err, sizeof err)) {
        fprintf(stderr, "%s\n", err);
        return 1;
    }
    std::string present = root + "/var/run/hw-management/events/lc1_present";

    /* The writer is forked before any thread exists. */
    int cmd[2], answer[2];
    if (pipe(cmd) != 0 || pipe(answer) != 0) return 1;
    pid_t writer = fork();
    if (writer == 0) {
        close(cmd[1]);
        close(answer[0]);
        writer_main(present.c_str(), cmd[0], answer[1]);
    }
    close(cmd[0]);
    close(answer[1]);

    g_log_fd = fopen("/dev/null", "w");
    g_probe_fd = eventfd(0, 0);
    for (int i = 0; i < SLOT_EVENT_COUNT; ++i) {
        g_probe_table[i] = g_event_map_fn_table[i];
        g_probe_table[i].fn_transition = ignore_transition;
    }
    g_probe_table[slot_present_event].fn_transition = probe_transition;
    g_transition_table = g_probe_table;

    init_slot_records();
    init_inotify_events();
    pthread_t thread;
    for (int i = 0; i < WORKER_THREAD_COUNT; ++i) pthread_create(&thread, nullptr, work_handler, nullptr);
    pthread_create(&thread, nullptr, loop_thread, nullptr);

    std::vector<double> samples_us;
    samples_us.reserve(events);
    for (int i = 0; i < kWarmUp + events; ++i) {
        int64_t closed = 0;
        if (write(cmd[1], "w", 1) != 1 || read(answer[0], &closed, sizeof closed) != sizeof closed ||
            !wait_probe()) {
            fprintf(stderr, "event %d was not delivered\n", i);
            return 1;
        }
        if (i >= kWarmUp) samples_us.push_back((double)(g_probe_entered - closed) / 1000.0);
    }
    if (write(cmd[1], "q", 1) != 1) return 1;
    waitpid(writer, nullptr, 0);

    std::vector<double> sorted = samples_us;
    std::sort(sorted.begin(), sorted.end());
    double sum = 0;
    for (double v : sorted) sum += v;
    printf("event latency, close of lc1_present by another process -> start of the transition\n");
    printf("events:  %zu (after %d warm-up)\n", sorted.size(), kWarmUp);
    printf("median:  %.1f us\n", percentile(sorted, 50));
    printf("p90:     %.1f us\n", percentile(sorted, 90));
    printf("p99:     %.1f us\n", percentile(sorted, 99));
    printf("min:     %.1f us\n", sorted.front());
    printf("max:     %.1f us\n", sorted.back());
    printf("mean:    %.1f us\n", sum / (double)sorted.size());

    std::string cleanup = "rm -rf " + root;  // the root holds only safe characters
    if (system(cleanup.c_str()) != 0) fprintf(stderr, "could not remove %s\n", root.c_str());
    fflush(stdout);
    _exit(0);  // the loop and the workers never end
}
