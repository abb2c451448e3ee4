/*
 * Control socket round trips: SHOW_SUMMARY and DEBUG_SLOT for all slots,
 * 10,000 requests each, from a client in this process to ctl_thread running
 * in this process on a sandbox root (console lines go to /dev/null; the log
 * rings are written as in the daemon); the same two on the read-only socket
 * (no log line, the status document built in memory instead of rewritten
 * and flushed).  Beside them, in the same run, a bare
 * Unix-socket accept loop that receives 24 bytes and answers 1,024 with no
 * work at all: the ceiling of one-connection-per-request serving.
 *
 * Each request is a full connection: connect, send 24 bytes, read until the
 * server closes.  Reported per benchmark: median and p99 round trip (us),
 * requests per second (items_per_second), and server_cpu_us, the CPU time
 * the serving threads spent per request (the control thread and, for
 * administration, its helper; the bare loop's thread): on a shared machine
 * the wall-clock figures move with the load, this one much less.
 *
 * Last, SHOW_SUMMARY and the bare loop taken in alternation, with the ratio
 * of their rates: the figure to compare, as the load of a shared machine
 * moves the separate runs.
 *
 * Where the threads run weighs more than any of it: on a two-CPU virtual
 * machine the bare loop takes about 24 us a request when it shares the
 * client's CPU and 50 us when it is woken on the other, and the scheduler
 * may place the two servers differently within one run.  --placement=same
 * puts the client and both servers on the first CPU, --placement=apart the
 * client on the first and the servers on the second; the default leaves
 * them to the scheduler.
 *
 * Run: ctl_roundtrip_bench [--placement=same|apart] [--benchmark_format=console]
 */
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

#include "chassis_mgr.h"
#include "ks_sim.h"

namespace {

constexpr int kRequests = 10000;

std::string g_root;
pthread_t g_ctl_thread;
pthread_t g_bare_thread;

/* CPU time of every thread of the process but the calling one: the serving
 * threads (the benchmark's own client runs on the calling thread). */
double others_cpu_us(void) {
    struct timespec process, self;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &process);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &self);
    return ((double)process.tv_sec - (double)self.tv_sec) * 1e6 + ((double)process.tv_nsec - (double)self.tv_nsec) / 1e3;
}
int g_bare_fd = -1;

void make_dirs(const std::string &path) {
    for (size_t i = 1; i <= path.size(); ++i)
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

/* Eight active cards with full log rings: a status document of realistic size. */
void fill_slots(void) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) {
        slotInfo *info = &g_slots_info[slot - 1];
        info->slot_id = slot;
        pthread_mutex_init(&info->mutex, nullptr);
        char serial[SERIAL_NO_SIZE];
        snprintf(serial, sizeof serial, "SN%08d", slot);
        slot_serial_set(slot, serial);
        info->card_type = CARD_TYPE_16X100G;
        info->ini_info.hw_revision = 2;
        info->ini_info.minor = 5;
        info->current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY | SLOT_ACTIVE;
        slot_uptime_set(slot, &now);
        for (int line = 0; line < LOG_RING_LINES; ++line)
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot, "Transitioned from %d to SLOT_ACTIVE (bring-up step %d)\n", 31, line);
    }
}

bool start_daemon_side(void) {
    char tmpl[] = "/tmp/chmgr-bench-XXXXXX";
    if (!mkdtemp(tmpl)) return false;
    g_root = tmpl;
    make_dirs(g_root + "/run/chassismgr");
    make_dirs(g_root + "/etc/tarnel");
    make_dirs(g_root + "/var/run/ks-sim");
    char err[256];
    if (!env_configure(g_root.c_str(), "1", err, sizeof err)) return false;
    ks_sim_set_root(g_root.c_str());
    g_log_fd = fopen("/dev/null", "w");
    fill_slots();
    if (pthread_create(&g_ctl_thread, nullptr, ctl_thread, nullptr) != 0) return false;
    for (int i = 0; i < 5000 && g_ctl_sock_fd == -1; ++i) usleep(1000);
    return g_ctl_sock_fd != -1;
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    return addr;
}

/* The ceiling: accept, receive the request, send 1,024 bytes, close. */
void *bare_accept_loop(void *) {
    static unsigned char buffer[CTL_BUF_SIZE];
    for (;;) {
        int client = accept(g_bare_fd, nullptr, nullptr);
        if (client == -1) return nullptr;
        ssize_t got = recv(client, buffer, sizeof buffer, 0);
        (void)got;
        ssize_t sent = send(client, buffer, sizeof buffer, MSG_NOSIGNAL);
        (void)sent;
        close(client);
    }
}

bool start_bare_server(void) {
    g_bare_fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = address_of(g_root + "/run/bare.sock");
    if (bind(g_bare_fd, (sockaddr *)&addr, sizeof addr) != 0 || listen(g_bare_fd, 1) != 0) return false;
    return pthread_create(&g_bare_thread, nullptr, bare_accept_loop, nullptr) == 0;
}

void stop_servers(void) {
    shutdown(g_bare_fd, SHUT_RDWR);
    pthread_join(g_bare_thread, nullptr);
    shutdown(g_ctl_sock_fd, SHUT_RDWR);
    pthread_join(g_ctl_thread, nullptr);
    nftw(g_root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

/* Sorts `micros` in place. */
double median_of(std::vector<double> *micros) {
    std::sort(micros->begin(), micros->end());
    return (*micros)[micros->size() / 2];
}

/* One request on its own connection; the reply's size. */
size_t round_trip(const sockaddr_un &addr, uint32_t cmd, std::vector<unsigned char> *reply) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, (const sockaddr *)&addr, sizeof addr) != 0) abort();
    ctlCmdHeader request = {cmd, sizeof request, 1, CTL_ALL_SLOTS, 0, 0};
    if (send(fd, &request, sizeof request, 0) != (ssize_t)sizeof request) abort();
    size_t got = 0;
    for (;;) {
        ssize_t n = recv(fd, reply->data() + got, reply->size() - got, 0);
        if (n <= 0) break;
        got += (size_t)n;
    }
    close(fd);
    return got;
}

void run_round_trips(benchmark::State &state, const std::string &socket_path, uint32_t cmd, size_t min_reply) {
    sockaddr_un addr = address_of(socket_path);
    if (access(socket_path.c_str(), F_OK) != 0) {
        for (auto _ : state) state.SkipWithError("no such socket");
        return;
    }
    std::vector<unsigned char> reply(sizeof(debugCmdRespSlotState));
    double cpu_before = others_cpu_us();
    std::vector<double> micros;
    micros.reserve(kRequests);
    size_t bytes = 0;
    for (auto _ : state) {
        auto begin = std::chrono::steady_clock::now();
        size_t got = round_trip(addr, cmd, &reply);
        auto end = std::chrono::steady_clock::now();
        if (got < min_reply) state.SkipWithError("short reply");
        bytes += got;
        micros.push_back(std::chrono::duration<double, std::micro>(end - begin).count());
    }
    state.counters["server_cpu_us"] = (others_cpu_us() - cpu_before) / (double)micros.size();
    state.counters["median_us"] = median_of(&micros);
    state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
    state.counters["reply_bytes"] = (double)bytes / (double)micros.size();
    state.SetItemsProcessed((int64_t)micros.size());
}

void BM_BareAcceptLoop(benchmark::State &state) {
    run_round_trips(state, g_root + "/run/bare.sock", SHOW_SUMMARY, CTL_BUF_SIZE);
}

void BM_ShowSummaryAllSlots(benchmark::State &state) {
    run_round_trips(state, g_root + "/run/chassismgr/chassismgr", SHOW_SUMMARY, CTL_BUF_SIZE);
}

void BM_DebugSlotAllSlots(benchmark::State &state) {
    run_round_trips(state, g_root + "/run/chassismgr/chassismgr", DEBUG_SLOT, 1000);
}

void BM_ShowSummaryAllSlotsReadonly(benchmark::State &state) {
    run_round_trips(state, g_root + "/run/chassismgr/chassismgr-ro", SHOW_SUMMARY, CTL_BUF_SIZE);
}

void BM_DebugSlotAllSlotsReadonly(benchmark::State &state) {
    run_round_trips(state, g_root + "/run/chassismgr/chassismgr-ro", DEBUG_SLOT, 1000);
}

/* SHOW_SUMMARY and the bare loop in alternation, a request of each per
 * iteration (which goes first alternates too): a change of the machine's
 * load falls on both alike, so their ratio holds still where two runs one
 * after the other would drift apart.  rate_ratio is SHOW_SUMMARY's requests
 * per second over the bare loop's. */
void BM_ShowSummaryBesideBare(benchmark::State &state) {
    sockaddr_un show = address_of(g_root + "/run/chassismgr/chassismgr");
    sockaddr_un bare = address_of(g_root + "/run/bare.sock");
    std::vector<unsigned char> reply(sizeof(debugCmdRespSlotState));
    std::vector<double> show_us, bare_us;
    show_us.reserve(kRequests);
    bare_us.reserve(kRequests);
    auto timed = [&](const sockaddr_un &addr, std::vector<double> *into) {
        auto begin = std::chrono::steady_clock::now();
        if (round_trip(addr, SHOW_SUMMARY, &reply) < CTL_BUF_SIZE) state.SkipWithError("short reply");
        into->push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
    };
    bool show_first = false;
    for (auto _ : state) {
        show_first = !show_first;
        timed(show_first ? show : bare, show_first ? &show_us : &bare_us);
        timed(show_first ? bare : show, show_first ? &bare_us : &show_us);
    }
    state.counters["rate_ratio"] = std::accumulate(bare_us.begin(), bare_us.end(), 0.0) /
                                   std::accumulate(show_us.begin(), show_us.end(), 0.0);
    state.counters["show_median_us"] = median_of(&show_us);
    state.counters["bare_median_us"] = median_of(&bare_us);
    state.SetItemsProcessed((int64_t)(show_us.size() + bare_us.size()));
}

BENCHMARK(BM_BareAcceptLoop)->Iterations(kRequests)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ShowSummaryAllSlots)->Iterations(kRequests)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DebugSlotAllSlots)->Iterations(kRequests)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ShowSummaryAllSlotsReadonly)->Iterations(kRequests)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DebugSlotAllSlotsReadonly)->Iterations(kRequests)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ShowSummaryBesideBare)->Iterations(kRequests)->UseRealTime()->Unit(benchmark::kMicrosecond);

bool pin_to_cpu(pthread_t thread, int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return pthread_setaffinity_np(thread, sizeof set, &set) == 0;
}

/* The client (this thread) on the first CPU; the servers on the same one
 * or on the second. */
bool place_threads(std::string_view placement) {
    if (placement.empty()) return true;
    if (placement != "same" && placement != "apart") return false;
    int servers = placement == "same" ? 0 : 1;
    return pin_to_cpu(pthread_self(), 0) && pin_to_cpu(g_ctl_thread, servers) && pin_to_cpu(g_bare_thread, servers);
}

/* --placement=... among the arguments the benchmark library left. */
bool take_placement(int argc, char **argv, std::string *placement) {
    constexpr std::string_view kFlag = "--placement=";
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg.substr(0, kFlag.size()) != kFlag) {
            fprintf(stderr, "ctl_roundtrip_bench: unknown argument %s\n", argv[i]);
            return false;
        }
        *placement = std::string(arg.substr(kFlag.size()));
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    std::string placement;
    if (!take_placement(argc, argv, &placement)) return 2;
    if (!start_daemon_side() || !start_bare_server()) {
        fprintf(stderr, "ctl_roundtrip_bench: cannot start the servers under %s\n", g_root.c_str());
        return 1;
    }
    if (!place_threads(placement)) {
        fprintf(stderr, "ctl_roundtrip_bench: cannot place the threads as '%s' (same or apart, two CPUs)\n",
                placement.c_str());
        stop_servers();
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    stop_servers();
    return 0;
}
