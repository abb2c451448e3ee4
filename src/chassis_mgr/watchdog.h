/*
 * The watchdog: while the service manager asks for it (WATCHDOG_USEC), a
 * thread sends WATCHDOG=1 every half period as long as the daemon is
 * healthy: the main loop is not stuck between two polls, the control thread
 * is not stuck in one request, and no worker is inside one work item for
 * longer than that item can legitimately take.  When one of them is, the
 * pings stop (with one ERR line saying which and for how long) and the
 * service manager restarts the daemon, whose start-up recovers every slot.
 *
 * The limits come from the fixed waits, poll counts and command time limits
 * of each item, times the clock factor, plus an allowance for the locks it
 * may wait for and a margin (watchdog.cpp explains each number).
 */
#pragma once

#include <stdint.h>

#include "chassis_mgr.h"

/* Starts the ping thread when a watchdog period is set (once). */
void watchdog_start(void);

/* Limits in nanoseconds, with the clock factor applied. */
int64_t watchdog_item_limit_ns(int event);
int64_t watchdog_request_limit_ns(uint32_t cmd, uint32_t slot_no);
int64_t watchdog_main_loop_limit_ns(void);

/* Marks this worker inside one work item for its lifetime. */
class WorkItemStamp {
  public:
    WorkItemStamp(int slot_id, int event);
    ~WorkItemStamp();
    WorkItemStamp(const WorkItemStamp &) = delete;
    WorkItemStamp &operator=(const WorkItemStamp &) = delete;

  private:
    int index_;
};

/* Marks a control request being served for its lifetime: a read in the
 * control thread, an administration command in the administration thread
 * (`admin`); each thread has its own stamp, since both may be inside a
 * request at once. */
class ControlRequestStamp {
  public:
    ControlRequestStamp(uint32_t cmd, uint32_t slot_no, bool admin);
    ~ControlRequestStamp();
    ControlRequestStamp(const ControlRequestStamp &) = delete;
    ControlRequestStamp &operator=(const ControlRequestStamp &) = delete;

  private:
    bool admin_;
};

/* Marks the main loop between two polls for its lifetime. */
class MainLoopStamp {
  public:
    MainLoopStamp();
    ~MainLoopStamp();
    MainLoopStamp(const MainLoopStamp &) = delete;
    MainLoopStamp &operator=(const MainLoopStamp &) = delete;
};

/* One look at the stamps at `now_ns` (CLOCK_MONOTONIC): true when nothing
 * is past its limit.  The first look that finds a stamp past its limit logs
 * it; the first healthy look after that logs the recovery.  The ping thread
 * calls it every half period; tests call it directly. */
bool watchdog_healthy(int64_t now_ns);
int64_t watchdog_now_ns(void);
