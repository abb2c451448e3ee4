/*
 * The watchdog (see watchdog.h).  The threads it watches only stamp the
 * moment they entered a piece of work and clear it when they leave; the
 * ping thread compares the stamps with their limits.  Stamps are relaxed
 * atomics: the ping thread takes no lock that a hung thread could hold.
 *
 * Limits, in seconds before the clock factor.  Each work item may take its
 * own fixed waits and poll counts, the time limits of the commands it runs
 * (shell_command.cpp), and kLockWaitSec for locks held by other threads;
 * then kMarginNs (not scaled) for everything that is neither a wait nor a
 * command: SDK calls, file rewrites, a loaded machine.
 */
#include "watchdog.h"

#include <errno.h>
#include <string.h>
#include <time.h>

#include "notify.h"

namespace {

/* Waiting for locks that other threads hold: the longest control command on
 * one slot (a pre-provisioning: an INI programming and a portd reload, 187 s)
 * and an INI programming of another slot (67 s) that holds cards.conf. */
constexpr uint32_t kLockWaitSec = 300;
/* Unscaled, for the work between the waits. */
constexpr int64_t kMarginNs = 5LL * 1000000000LL;

/* Two LED commands (the colour, then led_status_state). */
constexpr uint32_t kLedSec = 2 * LED_COMMAND_LIMIT_SEC;
/* An INI programming: "uname -r" and "ls" of the shipped images, 2 s for the
 * APPLY to settle, 5 one-second polls for the INI in use. */
constexpr uint32_t kIniProgrammingSec = 2 * QUERY_COMMAND_LIMIT_SEC + 2 + 5;
/* The ready step: 30 s after the first enable, 15 s after the second, 5 s
 * after the reset, 25 and 5 one-second polls; the gearbox tool of this card
 * and of the three other workers' cards ahead of it (one at a time); the
 * reload of envd. */
constexpr uint32_t kReadySec =
    30 + 15 + 5 + 25 + 5 + WORKER_THREAD_COUNT * GEARBOX_TOOL_LIMIT_SEC + SYSTEMCTL_LIMIT_SEC;

/* Own time of one work item, by event. */
constexpr uint32_t kItemSec[SLOT_EVENT_COUNT] = {
    0,                       // slot_empty_event: cards.conf only
    5 + kLedSec,             // slot_present_event: 5 s retry of the card type, LED when powered
    1 + kIniProgrammingSec,  // slot_verified_event: 1 s power settle, INI check
    SYSTEMCTL_LIMIT_SEC,     // slot_synced_event: may reload portd for the batch
    SYSTEMCTL_LIMIT_SEC,     // slot_wait_reload_portd: may reload portd
    kLedSec,                 // slot_powered_event: LED orange
    kReadySec,               // slot_ready_event
    kLedSec,                 // slot_active_event: LED green
    kReadySec,               // slot_timeout_event: runs the awaited transition, the ready step at most
    0,                       // slot_no_event: a log line
};

/* Own time of one control request on one slot; the slot's mutex may first
 * be held by a work item (kReadySec at most). */
uint32_t request_own_sec(uint32_t cmd) {
    switch (cmd) {
    case LINECARD_ENABLE:
        return kItemSec[slot_present_event];
    case LINECARD_DISABLE:  // power off, 20 one-second polls, reload of envd
        return POWER_OFF_LIMIT_SEC + 20 + SYSTEMCTL_LIMIT_SEC;
    case PRE_PROVISION_ENABLE:  // INI programming, reload of portd
        return kIniProgrammingSec + SYSTEMCTL_LIMIT_SEC;
    case PRE_PROVISION_DISABLE:  // reload of portd, 30 one-second polls
        return SYSTEMCTL_LIMIT_SEC + 30;
    default:  // show and status: no slot mutex, no wait
        return 0;
    }
}

bool request_takes_slots(uint32_t cmd) {
    return cmd == LINECARD_ENABLE || cmd == LINECARD_DISABLE || cmd == PRE_PROVISION_ENABLE ||
           cmd == PRE_PROVISION_DISABLE;
}

int64_t scaled_ns(uint64_t seconds) {
    struct timespec period = env_scaled_period((uint32_t)(seconds > UINT32_MAX ? UINT32_MAX : seconds), 0);
    return (int64_t)period.tv_sec * 1000000000LL + period.tv_nsec;
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
Stamp g_request_stamp;
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
        else if (stamp == &g_request_stamp)
            CM_LOG(LOG_LEVEL_ERR, "%s in command %d for slot %d for %lld ms (limit %lld ms): watchdog pings stop\n",
                   who, (int)stamp->what, (int)stamp->slot, ms(now_ns - since), ms(stamp->limit_ns));
        else
            CM_LOG(LOG_LEVEL_ERR, "%s in %s of slot %d for %lld ms (limit %lld ms): watchdog pings stop\n", who,
                   event_name(stamp->what), (int)stamp->slot, ms(now_ns - since), ms(stamp->limit_ns));
    }
    return true;
}

pthread_t g_watchdog_thread;
std::atomic<bool> g_watchdog_started{false};

void add_ns(struct timespec *at, int64_t ns) {
    int64_t total = (int64_t)at->tv_nsec + ns % 1000000000LL;
    at->tv_sec += (time_t)(ns / 1000000000LL + total / 1000000000LL);
    at->tv_nsec = (long)(total % 1000000000LL);
}

/* Pings every half period, on a fixed schedule that never runs early. */
void *watchdog_thread(void *) {
    int64_t half_period_ns = (int64_t)(env_watchdog_usec() * 1000 / 2);
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
    uint32_t own = event >= 0 && event < SLOT_EVENT_COUNT ? kItemSec[event] : kReadySec;
    return scaled_ns((uint64_t)own + kLockWaitSec) + kMarginNs;
}

int64_t watchdog_request_limit_ns(uint32_t cmd, uint32_t slot_no) {
    if (!request_takes_slots(cmd)) return scaled_ns(kLockWaitSec) + kMarginNs;
    /* Slot 255 is served one slot after the other. */
    uint64_t slots = slot_no == CTL_ALL_SLOTS ? MAX_SLOTS_FOR_9600 : 1;
    uint64_t per_slot = (uint64_t)kReadySec + kLockWaitSec + request_own_sec(cmd) + kLockWaitSec;
    return scaled_ns(slots * per_slot) + kMarginNs;
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

ControlRequestStamp::ControlRequestStamp(uint32_t cmd, uint32_t slot_no) {
    stamp_enter(&g_request_stamp, watchdog_request_limit_ns(cmd, slot_no), (int)slot_no, (int)cmd);
}

ControlRequestStamp::~ControlRequestStamp() {
    stamp_leave(&g_request_stamp);
    notify_status_refresh();
}

MainLoopStamp::MainLoopStamp() { stamp_enter(&g_main_loop_stamp, watchdog_main_loop_limit_ns(), 0, 0); }

MainLoopStamp::~MainLoopStamp() { stamp_leave(&g_main_loop_stamp); }

bool watchdog_healthy(int64_t now_ns) {
    bool healthy = true;
    for (Stamp &stamp : g_worker_stamps)
        if (overdue(&stamp, now_ns, "Worker")) healthy = false;
    if (overdue(&g_request_stamp, now_ns, "Control thread")) healthy = false;
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
