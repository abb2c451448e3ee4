/*
 * chassis-mgr: shared declarations of the chassis manager daemon.
 *
 * The daemon follows each line card of the eight-slot KTR9600 chassis from
 * insertion to service and back.  This header holds what the subsystems
 * share: logging, the slot record with its states and events, the event
 * table, the work queue, the cards.conf and INI calls, the transitions and
 * the control protocol.  Each subsystem lives in its own source file,
 * named after it.
 */
#ifndef CHASSIS_MGR_H
#define CHASSIS_MGR_H

#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>

#include <atomic>

#include "env.h"

/* ------------------------------------------------------------------ */
/* Assertions that stay on in every build type                         */
/* ------------------------------------------------------------------ */

[[noreturn]] void cm_assert_fail(const char *expr, const char *file, int line, const char *func);
#define CM_ASSERT(expr) ((expr) ? (void)0 : cm_assert_fail(#expr, __FILE__, __LINE__, __func__))

#define MAX_SLOTS_FOR_9600 8

/* Holds a mutex for the life of the object. */
class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~MutexLock() { pthread_mutex_unlock(mutex_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

  private:
    pthread_mutex_t *mutex_;
};

/*
 * A field that one thread writes under a lock while others read it without
 * one (the main loop, the status report).  Loads and stores are relaxed
 * atomics: the same values as a plain int, without a data race.
 */
template <typename T>
class relaxed {
  public:
    constexpr relaxed(T value = T()) : value_(value) {}
    relaxed(const relaxed &other) : value_(other.load()) {}
    relaxed &operator=(const relaxed &other) { return *this = other.load(); }
    relaxed &operator=(T value) { value_.store(value, std::memory_order_relaxed); return *this; }
    operator T() const { return load(); }
    T load() const { return value_.load(std::memory_order_relaxed); }
    T operator|=(T bits) { return value_.fetch_or(bits, std::memory_order_relaxed) | bits; }
    T operator&=(T bits) { return value_.fetch_and(bits, std::memory_order_relaxed) & bits; }
    T operator++(int) { return value_.fetch_add(1, std::memory_order_relaxed); }
  private:
    std::atomic<T> value_;
};

/* ------------------------------------------------------------------ */
/* Logging and the per-slot log rings                                  */
/* ------------------------------------------------------------------ */

typedef enum {
    LOG_LEVEL_ALWAYS = -1,
    LOG_LEVEL_CRIT = 0,
    LOG_LEVEL_ERR = 1,
    LOG_LEVEL_WARN = 2,
    LOG_LEVEL_INFO = 3,
    LOG_LEVEL_DEBUG = 4,
    LOG_LEVEL_LAST = 5,
} log_level_e;

#define LOG_RING_COUNT 9       /* ring 0: daemon-wide lines; ring s: slot s */
#define LOG_RING_LINES 25
#define LOG_LINE_SIZE 512

typedef struct _slotLog {
    int32_t head[LOG_RING_COUNT];
    int32_t tail[LOG_RING_COUNT];
    char log[LOG_RING_COUNT][LOG_RING_LINES][LOG_LINE_SIZE];
} slotLog;

extern log_level_e g_log_level;
extern FILE *g_log_fd;
extern slotLog g_slot_log;

void _log_log(log_level_e level, const char *fmt, int fmt_len, ...) __attribute__((format(printf, 2, 4)));
void _log_log_slot(log_level_e level, const char *fmt, int fmt_len, ...) __attribute__((format(printf, 2, 4)));
const char *_log_datestamp(void);
/* Writes one ring line: "[<name>]<stamp> <file>:<line> <msg>" for slot 0,
 * "[SLOT<slot>:<name>]<stamp> <file>:<line> <msg>" for a slot line.  Slots 1
 * to 8 have their own ring; any other slot number goes into ring 0. */
void _log_ring(int slot, const char *level_name, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

/* Compares the console stream with the journal stream the service manager
 * named (JOURNAL_STREAM): when they are the same, every console line starts
 * with its syslog priority "<N>" from then on; otherwise the console is
 * written exactly as it is formatted.  Called whenever the console stream
 * changes; returns whether the console is the journal. */
bool log_console_follow_journal(void);

/* Blocks SIGPIPE in the calling thread while it lives, and takes back a
 * SIGPIPE that a console write raised meanwhile: a console on a pipe whose
 * reader has gone must not end the daemon.  Every console write holds one.
 * Scopes nest and an inner one costs nothing, so a thread that logs several
 * lines in a row may hold one around them all (four system calls instead of
 * four a line).  Never hold one while starting a program: it would inherit
 * the blocked SIGPIPE. */
class SigpipeBlocked {
  public:
    SigpipeBlocked();
    ~SigpipeBlocked();
    SigpipeBlocked(const SigpipeBlocked &) = delete;
    SigpipeBlocked &operator=(const SigpipeBlocked &) = delete;

  private:
    sigset_t pipe_;
    sigset_t saved_;
    bool already_pending_ = false;
    bool outermost_ = false;
};
/* Maps a "-l" value ("DEBUG", "INFO", "WARNING", "ERROR", "CRITICAL"). */
bool log_level_from_name(const char *name, log_level_e *level);
/* Copies ring `ring` oldest first into `lines`; returns the line count (at most 24). */
int log_ring_copy(int ring, char (*lines)[LOG_LINE_SIZE], int max_lines);

#define CM_LOG_WORD_LOG_LEVEL_CRIT "CRIT "
#define CM_LOG_WORD_LOG_LEVEL_ERR "ERR "
#define CM_LOG_WORD_LOG_LEVEL_WARN "WARN "
#define CM_LOG_WORD_LOG_LEVEL_INFO ""
#define CM_LOG_WORD_LOG_LEVEL_DEBUG "DEBUG "
#define CM_LOG_NAME_LOG_LEVEL_CRIT "CRIT"
#define CM_LOG_NAME_LOG_LEVEL_ERR "ERR"
#define CM_LOG_NAME_LOG_LEVEL_WARN "WARN"
#define CM_LOG_NAME_LOG_LEVEL_INFO "INFO"
#define CM_LOG_NAME_LOG_LEVEL_DEBUG "DEBUG"
#define CM_LOG_FILE __FILE_NAME__

/* A daemon-wide line. `level` is one of the LOG_LEVEL_* names, written out. */
#define CM_LOG(level, fmt, ...)                                                               \
    do {                                                                                      \
        if (g_log_level >= (level))                                                           \
            _log_log((level), "%s:%d " CM_LOG_WORD_##level fmt,                               \
                     (int)sizeof("%s:%d " CM_LOG_WORD_##level fmt), CM_LOG_FILE,              \
                     __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                    \
        _log_ring(0, CM_LOG_NAME_##level, CM_LOG_FILE, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

/* A line of slot `slot_id`; slot 0 gives a daemon-wide line.  A slot number
 * above 8 keeps its "[SLOT%d]" tag but has no ring of its own: ring 0 takes it. */
#define CM_LOG_SLOT(level, slot_id, fmt, ...)                                                 \
    do {                                                                                      \
        int cm_log_slot_ = (slot_id);                                                         \
        if (cm_log_slot_ < 1) {                                                               \
            CM_LOG(level, fmt __VA_OPT__(, ) __VA_ARGS__);                                    \
            break;                                                                            \
        }                                                                                     \
        if (g_log_level >= (level))                                                           \
            _log_log_slot((level), "[SLOT%d] %s:%d " CM_LOG_WORD_##level fmt,                 \
                          (int)sizeof("[SLOT%d] %s:%d " CM_LOG_WORD_##level fmt),             \
                          cm_log_slot_, CM_LOG_FILE, __LINE__ __VA_OPT__(, ) __VA_ARGS__);    \
        _log_ring(cm_log_slot_, CM_LOG_NAME_##level, CM_LOG_FILE, __LINE__,                   \
                  fmt __VA_OPT__(, ) __VA_ARGS__);                                            \
    } while (0)

/* ------------------------------------------------------------------ */
/* Slot record, states, events and the event table                     */
/* ------------------------------------------------------------------ */

#define SLOT_EMPTY 0
#define SLOT_PRESENT 0x01
#define SLOT_VERIFIED 0x02
#define SLOT_SYNCED 0x04
#define SLOT_POWERED 0x08
#define SLOT_READY 0x10
#define SLOT_ACTIVE 0x20

/* Card types, as the switch SDK numbers them. */
#define CARD_TYPE_NONE 0
#define CARD_TYPE_4X400G 1
#define CARD_TYPE_8X200G 2
#define CARD_TYPE_16X100G 3

#define SERIAL_NO_SIZE 32
#define INI_FILE_NAME_SIZE 384

typedef enum {
    slot_empty_event = 0,
    slot_present_event = 1,
    slot_verified_event = 2,
    slot_synced_event = 3,
    slot_wait_reload_portd = 4,
    slot_powered_event = 5,
    slot_ready_event = 6,
    slot_active_event = 7,
    slot_timeout_event = 8,
    slot_no_event = 9,
    SLOT_EVENT_COUNT = 10,
} slotEvent;

typedef struct _iniInfo {
    relaxed<int32_t> card_type;
    relaxed<int32_t> hw_revision;
    relaxed<int32_t> minor;
    char ini_file_name[INI_FILE_NAME_SIZE];
} iniInfo;

typedef struct _transitionTimer {
    relaxed<int> state_monitored;
    int timer_fd;
    relaxed<int> transition_timer_hits;
} transitionTimer;

typedef struct _slotInfo {
    int slot_id;
    char serial_no[SERIAL_NO_SIZE];  /* read and written through slot_serial_get/slot_serial_set */
    iniInfo ini_info;
    relaxed<int> current_state;
    relaxed<int> in_err_state;
    relaxed<int> provisioned;
    relaxed<int> provisioned_type;
    relaxed<int> slot_in_debug;
    relaxed<int> disabled;
    relaxed<int> card_type;
    relaxed<int> hw_revision;
    transitionTimer trans_timer;
    pthread_mutex_t mutex;
    relaxed<int> in_transition_reload_portd;
    struct timeval uptime;           /* read and written through slot_uptime_get/slot_uptime_set */
} slotInfo;

typedef bool (*fnTransition)(int slot_id);

typedef struct _eventMapFnTable {
    slotEvent event;
    fnTransition fn_transition;
    const char *sysfs_event_path;
} eventMapFnTable;

extern slotInfo g_slots_info[MAX_SLOTS_FOR_9600];
extern const eventMapFnTable g_event_map_fn_table[SLOT_EVENT_COUNT];

slotEvent get_event_transition(int slot_id);
/* True for the six events read from an event file (present .. active). */
bool is_file_event(int event);
bool init_sm_for_slot(int slot_id, char *event);   /* slot_id is the 0-based index */
bool power_within_budget(int slot_id);
bool recalculate_power_budget(int slot_id);

/* Value of an event file: its first character as a decimal digit, else 0.
 * False when the file cannot be opened. */
bool read_event_file(const char *path, int *value);
/* Formats the slot's event file of `event` (rooted) into `path`. */
void event_file_path(char *path, size_t size, slotEvent event, int slot_id);
/* "empty", "present", ... as the status report names an awaited event. */
const char *slot_event_name(int event);
/* Card type 1 -> 400, 2 -> 200, 3 -> 100, otherwise 0 (Gb/s per port). */
int card_type_port_speed(int card_type);
/* "KTR9600-C4" for type 1, "KTR9600-C16" for type 3, "none" otherwise. */
const char *card_type_name(int card_type);

/* serial_no and uptime are read by the status report while a worker may
 * write them; these copy them under a short leaf lock.  serial_no holds up
 * to 32 bytes with no terminator when full: `serial` is read up to its NUL
 * or 32 bytes, and readers of `out` must stop at 32 bytes too. */
void slot_serial_set(int slot_id, const char *serial);
void slot_serial_get(int slot_id, char out[SERIAL_NO_SIZE]);
void slot_uptime_set(int slot_id, const struct timeval *tv);
struct timeval slot_uptime_get(int slot_id);

/* ------------------------------------------------------------------ */
/* Transitions (one worker runs them, under the slot mutex)            */
/* ------------------------------------------------------------------ */

bool present_transition(int slot_id);
bool empty_transition(int slot_id);
bool verified_transition(int slot_id);
bool powered_transition(int slot_id);
bool synced_transition(int slot_id);
bool wait_reload_portd(int slot_id);
bool ready_transition(int slot_id);
bool active_transition(int slot_id);
bool handle_slot_timer_expired(int slot_id);
bool no_valid_transition(int slot_id);

/* Records the event the slot waits for next and arms its timer for
 * `seconds`; false when the timer cannot be armed. */
bool await_slot_event(int slot_id, slotEvent next, uint32_t seconds);
/* `next`, unless the slot is parked in the portd reload rendezvous with its
 * reload flag still set: a late repeat of an earlier event must not take it
 * out of the rendezvous, or it would keep its flag and hold every other new
 * card.  A parked slot whose flag is gone (the supervision gave up on it)
 * is waiting for nothing and moves on. */
slotEvent unless_parked(const slotInfo *slot, slotEvent next);
/* True while the slot holds a card.  Events are decided from a snapshot of
 * the slot, so a bring-up transition may run after the card was pulled: it
 * then changes nothing and is logged as no valid transition. */
bool slot_has_card(const slotInfo *slot);

int get_vpd_value(const char *file_name, const char *field, char *value, int buf_len);
int get_card_type(int slot_id);
int set_led_color(int slot_id, int led_value);

bool invoke_reload_portd(void);
bool invoke_reload_envd(void);

extern pthread_mutex_t g_gearbox_update;

/* ------------------------------------------------------------------ */
/* Shell commands                                                      */
/* ------------------------------------------------------------------ */

/* Time limits of the outside commands, in seconds before the clock factor:
 * far above what each takes on the switch, so that only a command that
 * hangs ever reaches its limit. */
#define GEARBOX_TOOL_LIMIT_SEC 120  /* the gearbox firmware tool */
#define SYSTEMCTL_LIMIT_SEC 120     /* systemctl reload portd / envd */
#define LED_COMMAND_LIMIT_SEC 30    /* "echo 255 >> ..." and led_status_state */
#define POWER_OFF_LIMIT_SEC 30      /* "echo 0 >> .../lcN_pwr" */
#define QUERY_COMMAND_LIMIT_SEC 30  /* "uname -r" and "ls" of the shipped INI images */
/* Added to every limit after the clock factor: starting a shell and a tool
 * takes the same time at any clock factor. */
#define COMMAND_START_ALLOWANCE_MS 2000

/* The time limit of a command, in nanoseconds: `limit_sec` times the clock
 * factor, plus the start allowance. */
int64_t cm_command_limit_ns(uint32_t limit_sec);

/* cm_system()'s result for a command killed at its time limit. */
#define CM_COMMAND_TIMED_OUT (-2)

/* Runs `command` through the shell with a time limit; returns its wait
 * status as system() does (-1 when it cannot be started), or
 * CM_COMMAND_TIMED_OUT when it was killed at its limit (with its process
 * group, and logged). */
int cm_system(const char *command, uint32_t limit_sec);
/* Runs `command` through the shell with a time limit and reads the first
 * line of its output into `line` (as fgets reads it: the line feed kept,
 * at most size - 1 bytes; empty when it prints nothing).  False when it
 * cannot be started or was killed at its limit. */
bool cm_command_first_line(const char *command, uint32_t limit_sec, char *line, int size);
/* Judges a status of cm_system(): logs "Unable to launch %s" for -1 and
 * "process %s exited with %d error code" for a non-zero exit; true when
 * the command ran and exited with 0 (or was ended by a signal).  A command
 * killed at its limit is a failure (its line is logged already). */
bool cm_command_succeeded(const char *command, int status);

/* ------------------------------------------------------------------ */
/* Event sources, main loop, work queue, start-up                      */
/* ------------------------------------------------------------------ */

extern int g_ifd[MAX_SLOTS_FOR_9600];
extern int g_wd_present[MAX_SLOTS_FOR_9600];
extern int g_wd_verified[MAX_SLOTS_FOR_9600];
extern int g_wd_synced[MAX_SLOTS_FOR_9600];
extern int g_wd_powered[MAX_SLOTS_FOR_9600];
extern int g_wd_active[MAX_SLOTS_FOR_9600];
extern int g_wd_ready[MAX_SLOTS_FOR_9600];

bool init_inotify_events(void);
bool set_slot_timer(int slot_id, uint32_t time_in_sec, uint32_t time_in_nsec);
[[noreturn]] void run_main_loop(void);

/* Supervision: expiries without progress before a slot is declared stuck,
 * and the timer periods (seconds, before the clock factor). */
#define TRANSITION_MAX_TRIES 240
#define PRESENT_POLL_PERIOD_SEC 10
#define SUPERVISION_PERIOD_SEC 1

/* The poll set: entry 2(n-1) is slot n's inotify descriptor, entry
 * 2(n-1)+1 its timer, and the last one the events directory's inotify
 * descriptor.  One wake-up is handled by handle_poll_results. */
#define POLL_EVENTS_DIR_ENTRY (2 * MAX_SLOTS_FOR_9600)
#define POLL_SET_SIZE (2 * MAX_SLOTS_FOR_9600 + 1)
struct pollfd;
void build_poll_set(struct pollfd *fds);
void handle_poll_results(const struct pollfd *fds);

/* The table the workers and the timer supervision dispatch through:
 * g_event_map_fn_table, unless a test points it at a table of its own. */
extern const eventMapFnTable *g_transition_table;

#define WORKER_THREAD_COUNT 4
/* Items a free worker may start before a queued ready item of an idle slot
 * (short work goes first): room for every slot of a full chassis to run its
 * active item and a supervision expiry. */
#define MAX_PASSES_OVER_READY 16

typedef struct _eventWork {
    struct _eventWork *next;
    int slot_id;
    slotEvent event;
} eventWork;

typedef struct _eventWorkQue {
    eventWork *head;
    eventWork *tail;
    int work_in_que;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    pthread_t thread_id[WORKER_THREAD_COUNT];
} eventWorkQue;

extern eventWorkQue g_event_work_que;

bool add_work_to_que(eventWork *work);
eventWork *get_work_from_que(void);
void *work_handler(void *arg);
/* Items of a slot waiting for its running transition to return, and whether
 * a worker is inside a transition of the slot; for tests and diagnostics. */
void work_queue_slot_work(int slot_id, int *waiting, bool *running);

extern int g_emul_flag;
extern char version[];
extern pthread_t g_debug_thread_id;
extern pthread_t g_ctl_thread_id;

int chassis_mgr_main(int argc, char **argv);
bool init_slots(void);

/* Reads the command line into the settings; returns STARTUP_CONTINUE, or
 * the exit status when the process must stop (0 for -V, 10 for a bad
 * argument, the message and usage text already printed). */
#define STARTUP_CONTINUE (-1)
int parse_options(int argc, char **argv, int *daemonize);

/* ------------------------------------------------------------------ */
/* cards.conf (callers hold g_cards_conf_mutex)                        */
/* ------------------------------------------------------------------ */

extern pthread_mutex_t g_cards_conf_mutex;

bool update_info_from_cards_conf(void);
bool check_cards_conf_for_valid_card(int slot_id);
bool update_cards_conf(int slot_id, int detected_speed, int provisioned_speed, int configured_speed,
                       int dirty_flag, int online, int admin_state);
bool cards_conf_disable_slot(int slot_id, int disable);
bool cards_conf_set_slot_online(int slot_id, int online_state);
bool cards_conf_clear_dirty_bits(void);

/* ------------------------------------------------------------------ */
/* INI selection                                                       */
/* ------------------------------------------------------------------ */

bool check_and_update_ini_for_lc_insert(int slot_id);
bool compatible_ini(int slot_id, iniInfo *ini_info);
bool get_sdk_packaged_ini_info(int card_type, iniInfo *ini_info);
bool get_lc_eeprom_ini_info(int slot_id, iniInfo *ini_info);
/* Reads the 5-byte header of an INI image (minor version as stored, hardware
 * revision byte-swapped, card-type byte as stored) into card_type, hw_revision
 * and minor; bytes missing from a short file read as 0. */
void ini_header_read(FILE *file, iniInfo *ini_info);

/* ------------------------------------------------------------------ */
/* Control protocol (shared with the chmgrctl client)                  */
/* ------------------------------------------------------------------ */

enum {
    MAINTENANCE_ENABLE = 1,
    MAINTENANCE_DISABLE = 2,
    LINECARD_ENABLE = 3,
    LINECARD_DISABLE = 4,
    SHOW_SUMMARY = 5,
    SHOW_DETAIL = 6,
    PRE_PROVISION_ENABLE = 7,
    PRE_PROVISION_DISABLE = 8,
    DEBUG_SLOT = 9,
};

enum {
    CTL_SUCCESS = 0,
    CTL_INVALID_SLOT = -1,
    CTL_INVALID_CMD = -2,
    CTL_UNKNOWN_FAILURE = -16,
};

#define CTL_ALL_SLOTS 255
#define CTL_BUF_SIZE 1024
#define CTL_STATUS_STR_SIZE 128
#define CTL_DEBUG_BUF_SIZE 2097152

typedef struct _ctlCmdHeader {
    uint32_t cmd;
    uint32_t len;
    uint32_t seq;
    uint32_t slot_no;
    uint32_t status;
    uint32_t card_type;
} ctlCmdHeader;

typedef struct _ctlCmdHeaderErr {
    ctlCmdHeader hdr;
    char status_str[CTL_STATUS_STR_SIZE];
} ctlCmdHeaderErr;

typedef struct _ctlPreProvisionCmd {
    ctlCmdHeader hdr;
} ctlPreProvisionCmd;

typedef struct _ctlShowSummaryRespData {
    uint32_t slot_id;
    char serial_no[32];
    char card_type[32];
    uint32_t ini_major;
    uint32_t ini_minor;
    char state[32];
    uint32_t provisioned;
    uint32_t uptime[2];  /* never written by the daemon */
} ctlShowSummaryRespData;

typedef struct _ctlShowSummaryResp {
    ctlCmdHeader hdr;
    ctlShowSummaryRespData show_summary_data[MAX_SLOTS_FOR_9600];
} ctlShowSummaryResp;

typedef struct _debugCmdRespSlotState {
    ctlCmdHeader hdr;
    char buffer[CTL_DEBUG_BUF_SIZE];
} debugCmdRespSlotState;

static_assert(sizeof(ctlCmdHeader) == 24, "request/reply header is 24 bytes");
static_assert(offsetof(ctlCmdHeader, len) == 4 && offsetof(ctlCmdHeader, seq) == 8, "header layout");
static_assert(offsetof(ctlCmdHeader, slot_no) == 12 && offsetof(ctlCmdHeader, status) == 16, "header layout");
static_assert(offsetof(ctlCmdHeader, card_type) == 20, "header layout");
static_assert(sizeof(ctlCmdHeaderErr) == 152 && offsetof(ctlCmdHeaderErr, status_str) == 24, "error header");
static_assert(sizeof(ctlPreProvisionCmd) == 24, "pre-provision request");
static_assert(sizeof(ctlShowSummaryRespData) == 120, "summary record is 120 bytes");
static_assert(offsetof(ctlShowSummaryRespData, serial_no) == 4, "summary record layout");
static_assert(offsetof(ctlShowSummaryRespData, card_type) == 36, "summary record layout");
static_assert(offsetof(ctlShowSummaryRespData, ini_major) == 68, "summary record layout");
static_assert(offsetof(ctlShowSummaryRespData, ini_minor) == 72, "summary record layout");
static_assert(offsetof(ctlShowSummaryRespData, state) == 76, "summary record layout");
static_assert(offsetof(ctlShowSummaryRespData, provisioned) == 108, "summary record layout");
static_assert(offsetof(ctlShowSummaryRespData, uptime) == 112, "summary record layout");
static_assert(offsetof(ctlShowSummaryResp, show_summary_data) == 24, "records follow the header");
static_assert(sizeof(ctlShowSummaryResp) == 984, "eight records end at byte 984");
static_assert(sizeof(debugCmdRespSlotState) == 24 + CTL_DEBUG_BUF_SIZE, "debug reply layout");

extern unsigned char g_ctl_resp_buf[CTL_BUF_SIZE];
extern debugCmdRespSlotState g_ctl_debug_cmd_resp;

void *ctl_thread(void *arg);
bool pre_provision_cmd(ctlPreProvisionCmd *pprovision_cmd);
bool set_linecard_disable(int slot_id, bool disable);
int get_json_obj_for_slots(int slot_id);
/* The status document's text for `slot_id` (as get_json_obj_for_slots
 * writes it), allocated; the caller frees it. */
char *status_document_text(int slot_id);
void *debug_thread(void *arg);

/* The listening control socket, -1 until set up (never closed). */
extern relaxed<int> g_ctl_sock_fd;
/* The debug thread's inotify descriptor and the trigger file's watch. */
extern int g_ifd_debugcli;
extern int g_wd_debugcli;

/* The reply to one request: `size` bytes at `data`. */
typedef struct _ctlReply {
    const void *data;
    size_t size;
} ctlReply;

/* Handles the request lying in g_ctl_resp_buf, as the control thread does
 * once it has received it, and tells where the reply lies.  False when the
 * connection is closed without a reply (codes outside 3 to 9, a bad slot for
 * DEBUG_SLOT).  Needs no socket: tests and the fuzzer call it directly. */
bool ctl_handle_request(ctlReply *reply);
/* The command handlers behind it (same contract). */
bool ctl_show_summary(ctlReply *reply);
bool ctl_show_detail(ctlReply *reply);
bool ctl_debug_slot(ctlReply *reply);
bool ctl_linecard_enable(ctlReply *reply);
bool ctl_linecard_disable(ctlReply *reply);
bool ctl_pre_provision_enable(ctlReply *reply);
bool ctl_pre_provision_disable(ctlReply *reply);

/* Accessors of a message lying in a byte buffer (no alignment assumed).
 * `msg` heads a reply buffer of at least sizeof(ctlCmdHeaderErr) bytes. */
ctlCmdHeader ctl_header_of(const unsigned char *msg);
void ctl_set_status(unsigned char *msg, int32_t status);
void ctl_set_len(unsigned char *msg, uint32_t len);
/* status -16 and `text` NUL-padded over the whole of status_str. */
void ctl_set_failure(unsigned char *msg, const char *text);

/* The debug thread in two steps, so that one wake-up can be driven alone:
 * set up the watch, then wait up to `timeout_ms` (-1: forever) for one
 * trigger and handle it.  False only when poll fails. */
void debug_trigger_init(void);
bool debug_trigger_serve_one(int timeout_ms);

#endif /* CHASSIS_MGR_H */
