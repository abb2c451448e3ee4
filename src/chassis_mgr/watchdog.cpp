/*
 * The watchdog (see watchdog.h).  The threads it watches only stamp the
 * moment they entered a piece of work and clear it when they leave; the
 * ping thread compares the stamps with their limits.  Stamps are relaxed
 * atomics: the ping thread takes no lock that a hung thread could hold.
 *
 * Limits.  A work item may take its own fixed waits and poll counts (times
 * the clock factor), the time limits of the commands it runs (each one its
 * limit times the clock factor plus the start allowance, shell_command.cpp),
 * and kLockWait for locks held by other threads; then kMarginNs (not
 * scaled) for everything that is neither a wait nor a command: SDK calls,
 * file rewrites, a loaded machine.
 */
#include "watchdog.h"

#include <errno.h>
#include <string.h>
#include <time.h>

#include "notify.h"

namespace {

/* Fixed waits (seconds before the clock factor) and commands of one piece
 * of work. */
struct Budget {
    uint32_t wait_sec;
    uint32_t gearbox;    // gearbox tool runs
    uint32_t systemctl;  // reloads of portd or envd
    uint32_t led;        // LED commands
    uint32_t power_off;  // "echo 0 >> lcN_pwr"
    uint32_t query;      // "uname -r", "ls"

    constexpr Budget operator+(const Budget &o) const {
        return {wait_sec + o.wait_sec, gearbox + o.gearbox,     systemctl + o.systemctl,
                led + o.led,           power_off + o.power_off, query + o.query};
    }
};

/* The colour command, then led_status_state. */
constexpr Budget kLed = {0, 0, 0, 2, 0, 0};
/* An INI programming: "uname -r" and "ls" of the shipped images, 2 s for the
 * APPLY to settle, 5 one-second polls for the INI in use. */
constexpr Budget kIniProgramming = {2 + 5, 0, 0, 0, 0, 2};
constexpr Budget kPortdReload = {0, 0, 1, 0, 0, 0};
/* The ready step: 30 s after the first enable, 15 s after the second, 5 s
 * after the reset, 25 and 5 one-second polls; the gearbox tool of this card
 * and of the three other workers' cards ahead of it (one at a time); the
 * reload of envd. */
constexpr Budget kReady = {30 + 15 + 5 + 25 + 5, WORKER_THREAD_COUNT, 1, 0, 0, 0};
/* Waiting for locks other threads hold: the longest control command on one
 * slot (a pre-provisioning: an INI programming and a portd reload) and an
 * INI programming of another slot, which holds cards.conf throughout. */
constexpr Budget kLockWait = kIniProgramming + kPortdReload + kIniProgramming;
/* Unscaled, for the work between the waits. */
constexpr int64_t kMarginNs = 5LL * 1000000000LL;

/* Own budget of one work item, by event. */
constexpr Budget kItem[SLOT_EVENT_COUNT] = {
    {},                                  // slot_empty_event: cards.conf only
    Budget{5, 0, 0, 0, 0, 0} + kLed,     // slot_present_event: 5 s card-type retry, LED when powered
    Budget{1, 0, 0, 0, 0, 0} + kIniProgramming,  // slot_verified_event: 1 s power settle, INI check
    kPortdReload,                        // slot_synced_event: may reload portd for the batch
    kPortdReload,                        // slot_wait_reload_portd
    kLed,                                // slot_powered_event: LED orange
    kReady,                              // slot_ready_event
    kLed,                                // slot_active_event: LED green
    kReady,                              // slot_timeout_event: runs the awaited step, the ready step at most
    {},                                  // slot_no_event: a log line
};

/* Own budget of one control request on one slot. */
Budget request_own(uint32_t cmd) {
    switch (cmd) {
    case LINECARD_ENABLE:
        return kItem[slot_present_event];
    case LINECARD_DISABLE:  // power off, 20 one-second polls, reload of envd
        return Budget{20, 0, 1, 0, 1, 0};
    case PRE_PROVISION_ENABLE:
        return kIniProgramming + kPortdReload;
    case PRE_PROVISION_DISABLE:  // reload of portd, 30 one-second polls
        return Budget{30, 0, 1, 0, 0, 0};
    default:  // show and status: no slot mutex, no wait
        return {};
    }
}

bool request_takes_slots(uint32_t cmd) {
    return cmd == LINECARD_ENABLE || cmd == LINECARD_DISABLE || cmd == PRE_PROVISION_ENABLE ||
           cmd == PRE_PROVISION_DISABLE;
}

int64_t budget_ns(const Budget &b) {
    struct timespec waits = env_scaled_period(b.wait_sec, 0);
    return (int64_t)waits.tv_sec * 1000000000LL + waits.tv_nsec +
           b.gearbox * cm_command_limit_ns(GEARBOX_TOOL_LIMIT_SEC) +
           b.systemctl * cm_command_limit_ns(SYSTEMCTL_LIMIT_SEC) + b.led * cm_command_limit_ns(LED_COMMAND_LIMIT_SEC) +
           b.power_off * cm_command_limit_ns(POWER_OFF_LIMIT_SEC) + b.query * cm_command_limit_ns(QUERY_COMMAND_LIMIT_SEC);
}

/* Something a thread is inside of: since when (0: nothing) and for how long
 * it may be. */
struct Stamp {
    relaxed<int64_t> since_ns;
    relaxed<int64_t> limit_ns;
    relaxed<int> slot;
    relaxed<int> what;  // event of a work item, command of a request
    relaxed<bool> reported;
};

/* Workers claim a stamp on their first item; more threads than stamps (only
 * in tests) go unwatched. */
constexpr int kWorkerStamps = 16;
Stamp g_worker_stamps[kWorkerStamps];
std::atomic<int> g_worker_stamps_claimed{0};
thread_local int t_worker_stamp = -1;
Stamp g_request_stamp;  // the control thread serving a read
Stamp g_admin_stamp;    // the administration thread running a command
Stamp g_main_loop_stamp;
relaxed<bool> g_unhealthy_reported = false;

void stamp_enter(Stamp *stamp, int64_t limit_ns, int slot, int what) {
    stamp->limit_ns = limit_ns;
    stamp->slot = slot;
    stamp->what = what;
    stamp->reported = false;
    stamp->since_ns = watchdog_now_ns();
}

void stamp_leave(Stamp *stamp) { stamp->since_ns = 0; }

const char *event_name(int event) {
    static constexpr const char *kNames[SLOT_EVENT_COUNT] = {
        "slot_empty_event",   "slot_present_event", "slot_verified_event", "slot_synced_event",
        "slot_wait_reload_portd", "slot_powered_event", "slot_ready_event", "slot_active_event",
        "slot_timeout_event", "slot_no_event",
    };
    return event >= 0 && event < SLOT_EVENT_COUNT ? kNames[event] : "unknown event";
}

/* Milliseconds for the log line. */
long long ms(int64_t ns) { return (long long)(ns / 1000000); }

/* True when the stamp is past its limit; logs it the first time. */
bool overdue(Stamp *stamp, int64_t now_ns, const char *who) {
    int64_t since = stamp->since_ns;
    if (since == 0 || now_ns - since <= stamp->limit_ns) return false;
    if (!stamp->reported) {
        stamp->reported = true;
        if (stamp == &g_main_loop_stamp)
            CM_LOG(LOG_LEVEL_ERR, "%s busy for %lld ms (limit %lld ms): watchdog pings stop\n", who,
                   ms(now_ns - since), ms(stamp->limit_ns));
        else if (stamp == &g_request_stamp || stamp == &g_admin_stamp)
            CM_LOG(LOG_LEVEL_ERR, "%s in command %d for slot %d for %lld ms (limit %lld ms): watchdog pings stop\n",
                   who, (int)stamp->what, (int)stamp->slot, ms(now_ns - since), ms(stamp->limit_ns));
        else
            CM_LOG(LOG_LEVEL_ERR, "%s in %s of slot %d for %lld ms (limit %lld ms): watchdog pings stop\n", who,
                   event_name(stamp->what), (int)stamp->slot, ms(now_ns - since), ms(stamp->limit_ns));
    }
    return true;
}

constexpr uint64_t kMinPeriodUsec = 2000;
constexpr uint64_t kMaxPeriodUsec = 86400ULL * 1000000ULL;
pthread_t g_watchdog_thread;
std::atomic<bool> g_watchdog_started{false};

void add_ns(struct timespec *at, int64_t ns) {
    int64_t total = (int64_t)at->tv_nsec + ns % 1000000000LL;
    at->tv_sec += (time_t)(ns / 1000000000LL + total / 1000000000LL);
    at->tv_nsec = (long)(total % 1000000000LL);
}

/* Pings every half period, on a fixed schedule that never runs early. */
void *watchdog_thread(void *) {
    pthread_setname_np(pthread_self(), "chmgr-watchdog");
    /* A period below 2 ms would only spin this thread; above a day it is a day. */
    uint64_t usec = env_watchdog_usec();
    if (usec < kMinPeriodUsec) usec = kMinPeriodUsec;
    if (usec > kMaxPeriodUsec) usec = kMaxPeriodUsec;
    int64_t half_period_ns = (int64_t)(usec * 1000 / 2);
    static constexpr char kPing[] = "WATCHDOG=1";
    struct timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (;;) {
        if (watchdog_healthy(watchdog_now_ns())) notify_send(kPing, sizeof kPing - 1);
        notify_status_refresh();
        add_ns(&next, half_period_ns);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr) == EINTR) {
        }
    }
    return nullptr;
}

}  // namespace

int64_t watchdog_now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000LL + now.tv_nsec;
}

int64_t watchdog_item_limit_ns(int event) {
    const Budget &own = event >= 0 && event < SLOT_EVENT_COUNT ? kItem[event] : kReady;
    return budget_ns(own + kLockWait) + kMarginNs;
}

int64_t watchdog_request_limit_ns(uint32_t cmd, uint32_t slot_no) {
    if (!request_takes_slots(cmd)) return budget_ns(kLockWait) + kMarginNs;
    /* Each slot's mutex may first be held by a work item (the ready step at
     * most, with its own lock waits); slot 255 is served one slot after the
     * other. */
    int64_t per_slot = budget_ns(kReady + kLockWait + request_own(cmd) + kLockWait) + kMarginNs;
    return (slot_no == CTL_ALL_SLOTS ? MAX_SLOTS_FOR_9600 : 1) * per_slot;
}

int64_t watchdog_main_loop_limit_ns(void) { return kMarginNs; }

WorkItemStamp::WorkItemStamp(int slot_id, int event) : index_(t_worker_stamp) {
    if (index_ < 0) {
        int claimed = g_worker_stamps_claimed.fetch_add(1);
        index_ = t_worker_stamp = claimed < kWorkerStamps ? claimed : kWorkerStamps;
    }
    if (index_ < kWorkerStamps) stamp_enter(&g_worker_stamps[index_], watchdog_item_limit_ns(event), slot_id, event);
}

WorkItemStamp::~WorkItemStamp() {
    if (index_ < kWorkerStamps) stamp_leave(&g_worker_stamps[index_]);
    notify_status_refresh();
}

ControlRequestStamp::ControlRequestStamp(uint32_t cmd, uint32_t slot_no, bool admin) : admin_(admin) {
    stamp_enter(admin_ ? &g_admin_stamp : &g_request_stamp, watchdog_request_limit_ns(cmd, slot_no), (int)slot_no,
                (int)cmd);
}

ControlRequestStamp::~ControlRequestStamp() {
    stamp_leave(admin_ ? &g_admin_stamp : &g_request_stamp);
    notify_status_refresh();
}

MainLoopStamp::MainLoopStamp() { stamp_enter(&g_main_loop_stamp, watchdog_main_loop_limit_ns(), 0, 0); }

MainLoopStamp::~MainLoopStamp() { stamp_leave(&g_main_loop_stamp); }

bool watchdog_healthy(int64_t now_ns) {
    bool healthy = true;
    for (Stamp &stamp : g_worker_stamps)
        if (overdue(&stamp, now_ns, "Worker")) healthy = false;
    if (overdue(&g_request_stamp, now_ns, "Control thread")) healthy = false;
    if (overdue(&g_admin_stamp, now_ns, "Administration thread")) healthy = false;
    if (overdue(&g_main_loop_stamp, now_ns, "Main loop")) healthy = false;
    if (!healthy) {
        g_unhealthy_reported = true;
    } else if (g_unhealthy_reported) {
        g_unhealthy_reported = false;
        CM_LOG(LOG_LEVEL_INFO, "Every thread is making progress again: watchdog pings resume\n");
    }
    return healthy;
}

void watchdog_start(void) {
    if (env_watchdog_usec() == 0 || !notify_enabled()) return;
    if (g_watchdog_started.exchange(true)) return;
    if (pthread_create(&g_watchdog_thread, nullptr, watchdog_thread, nullptr) != 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to create watchdog thread\n");
        g_watchdog_started = false;
    }
}
