/*
 * Process entry: the options, the single-instance pid file, the console
 * switch, the optional detach, then the slots, the worker pool and the
 * service threads (init_slots), the event watches and the poll loop, which
 * the process never leaves except to exit.  There are no signal handlers and
 * no orderly stop: the daemon runs until it is killed.
 */
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "cards_conf_recovery.h"
#include "chassis_mgr.h"
#include "event_watches.h"
#include "chmgr_sdk.h"
#include "notify.h"

int g_emul_flag = 0;
char version[] = CHMGR_VERSION_TEXT;
pthread_t g_debug_thread_id;
pthread_t g_ctl_thread_id;
/* Used by the workers and the control thread, which start before init_slots
 * reaches its last step: valid from process start. */
pthread_mutex_t g_cards_conf_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_gearbox_update = PTHREAD_MUTEX_INITIALIZER;

namespace {

#define PID_FILE "/var/run/chassis-mgr.pid"
#define EXIT_BAD_ARGUMENT 10
#define EXIT_HALT 1

void print_usage(const char *program) {
    fprintf(stderr, "usage: %s [OPTIONS]\n", program);
    fprintf(stderr, "OPTIONS:\n");
    fprintf(stderr, "    -d: detach and become a daemon\n");
    fprintf(stderr, "    -l: log level(DEBUG, INFO, WARNING, ERROR, CRITICAL)\n");
    fprintf(stderr, "    -emul: run in emul environment\n");
    fprintf(stderr, "\n");
}

int reject_argument(const char *program, const char *arg) {
    fprintf(stderr, "Unexpected argument '%s'\n", arg);
    print_usage(program);
    return EXIT_BAD_ARGUMENT;
}

/* Opens and locks the pid file; -1 (with the message printed) when it
 * cannot be opened or another instance holds it.  The descriptor stays
 * open, and locked, for the life of the process.  It is not inherited by
 * the commands the daemon runs, so a command outliving the daemon cannot
 * keep the next instance out. */
int lock_pid_file(const char *path) {
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        fprintf(stderr, "Halting: could not open the existing pid file\n");
        return -1;
    }
    int rv = flock(fd, LOCK_EX | LOCK_NB);
    if (rv < 0) {
        fprintf(stderr, "Halting: could not lock the pid file: %d\n", rv);
        close(fd);
        return -1;
    }
    return fd;
}

/* Writes "<pid>\n" at offset 0 without truncating: a longer pid left by an
 * earlier run keeps its tail.  Only a write of 0 bytes counts as failure. */
bool write_pid(int fd, const char *path) {
    char pid_text[16];
    snprintf(pid_text, sizeof pid_text, "%d\n", (int)getpid());
    if (write(fd, pid_text, strlen(pid_text)) == 0) {
        CM_LOG(LOG_LEVEL_ERR, "couldn't write pid file %s", path);
        return false;
    }
    return true;
}

/* Thread-library calls report errors as positive codes, yet start-up has
 * always treated only a negative result as a failure; the checks are kept so. */
bool init_slot_records(void) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        slotInfo *slot = &g_slots_info[slot_id - 1];
        slot->slot_id = slot_id;
        slot->current_state = 0;
        slot->slot_in_debug = 0;
        slot->in_err_state = 0;
        slot->provisioned = 0;
        slot->card_type = 0;
        slot_serial_set(slot_id, "none");
        slot->ini_info.card_type = 0;
        slot->ini_info.hw_revision = 0;
        slot->ini_info.minor = 0;
        sdk_get_fw_ini_info(slot_id, &slot->ini_info);
        /* Non-blocking, so that an expiry cancelled by a re-arm between the
         * poll and the read cannot stall the main loop. */
        slot->trans_timer.timer_fd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
        if (pthread_mutex_init(&slot->mutex, nullptr) < 0) {
            CM_LOG(LOG_LEVEL_ERR, "Unable to create mutex for slots\n");
            return false;
        }
    }
    return true;
}

bool start_worker_pool(void) {
    eventWorkQue *que = &g_event_work_que;
    que->head = nullptr;
    que->tail = nullptr;
    if (pthread_mutex_init(&que->mutex, nullptr) < 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to create mutex for thread pool\n");
        return false;
    }
    if (pthread_cond_init(&que->cond, nullptr) < 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to init cond variable for thread pool\n");
        return false;
    }
    for (int i = 0; i < WORKER_THREAD_COUNT; ++i) {
        if (pthread_create(&que->thread_id[i], nullptr, work_handler, nullptr) < 0) {
            CM_LOG(LOG_LEVEL_ERR, "Unable to create pool threads\n");
            return false;
        }
    }
    return true;
}

/* Slots whose event files could not be read at start-up: they get their
 * start-up state once the files are back (give_late_start_state). */
relaxed<int> g_start_state_pending[MAX_SLOTS_FOR_9600];
/* Whether the control thread runs: start-up waits for its socket only then. */
bool g_ctl_thread_started = false;

/* Gives each slot its start-up state: an empty slot is polled for a card
 * every 10 s; a present card goes through detection at once, here on the
 * main thread (no work can be queued yet, so the slot mutex is not taken). */
bool init_slot_states(void) {
    for (int slot_id = 1; slot_id <= MAX_SLOTS_FOR_9600; ++slot_id) {
        char event = '\0';
        if (!init_sm_for_slot(slot_id - 1, &event)) {
            g_start_state_pending[slot_id - 1] = 1;
            continue;
        }
        if (event != '1') {
            CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Initial empty slot detected\n");
            g_slots_info[slot_id - 1].trans_timer.state_monitored = slot_present_event;
            if (!set_slot_timer(slot_id, PRESENT_POLL_PERIOD_SEC, 0)) {
                CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
                return false;
            }
        } else {
            g_transition_table[slot_present_event].fn_transition(slot_id);  // present_transition
        }
    }
    return true;
}

}  // namespace

void give_late_start_state(int slot_id) {
    if (!g_start_state_pending[slot_id - 1]) return;
    MutexLock lock(&g_slots_info[slot_id - 1].mutex);
    char event = '\0';
    if (!init_sm_for_slot(slot_id - 1, &event)) return;
    g_start_state_pending[slot_id - 1] = 0;
    if (event != '1') CM_LOG_SLOT(LOG_LEVEL_INFO, slot_id, "Initial empty slot detected\n");
    /* A card already present is found by the re-read that follows. */
    if (!await_slot_event(slot_id, slot_present_event, PRESENT_POLL_PERIOD_SEC))
        CM_LOG(LOG_LEVEL_ERR, "Unable to start timer\n");
}

int parse_options(int argc, char **argv, int *daemonize) {
    const char *program = argc > 0 ? argv[0] : "chassis-mgr";
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        if (arg[0] == '\0') continue;
        if (strcmp(arg, "-V") == 0) {
            fprintf(stderr, " Tarnel Linux chassis-mgr version %s\n", version);
            return 0;
        }
        if (strcmp(arg, "-d") == 0) {
            *daemonize = 1;
        } else if (strcmp(arg, "-emul") == 0) {
            g_emul_flag = 1;
        } else if (strcmp(arg, "-l") == 0 && i + 1 < argc) {
            log_level_from_name(argv[++i], &g_log_level);  // an unknown name changes nothing
        } else {
            return reject_argument(program, arg);
        }
    }
    return STARTUP_CONTINUE;
}

bool init_slots(void) {
    sdk_init_ks_api();
    if (!init_slot_records()) return false;
    if (!start_worker_pool()) return false;
    if (pthread_create(&g_debug_thread_id, nullptr, debug_thread, nullptr) < 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to create debug thread\n");
        return false;
    }
    /* A rewrite interrupted between its remove and its rename leaves its
     * complete new content only in its temporary file: put it back before
     * anything reads the files. */
    recover_cards_conf();
    recover_port_list();
    update_info_from_cards_conf();
    if (!init_slot_states()) return false;
    int created = pthread_create(&g_ctl_thread_id, nullptr, ctl_thread, nullptr);
    if (created < 0) {
        CM_LOG(LOG_LEVEL_ERR, "Unable to create debug thread\n");  // same text as the debug thread's
        return false;
    }
    g_ctl_thread_started = created == 0;
    /* g_cards_conf_mutex and g_gearbox_update are statically initialised and
     * valid from process start.  They are not initialised again here: the
     * control thread is already serving and may hold g_cards_conf_mutex, and
     * re-initialising a mutex in use is undefined. */
    return true;
}

int chassis_mgr_main(int argc, char **argv) {
    int daemonize = 0;
    int status = parse_options(argc, argv, &daemonize);
    if (status != STARTUP_CONTINUE) return status;
    if (!env_init()) return ENV_EXIT_REFUSED;

    char pid_path[CM_PATH_SIZE];
    env_path(pid_path, sizeof pid_path, PID_FILE);
    int pid_fd = lock_pid_file(pid_path);
    if (pid_fd < 0) return EXIT_HALT;

    g_log_fd = stdout;
    log_console_follow_journal();
    if (daemonize) {
        int rv = daemon(0, 0);
        if (rv != 0) {
            CM_LOG(LOG_LEVEL_ERR, "daemon call failed with rv %d\n", rv);
            return EXIT_HALT;
        }
        log_console_follow_journal();  // standard output is now the null device
    }
    if (!write_pid(pid_fd, pid_path)) return EXIT_HALT;

    notify_init();
    init_slots();  // whatever it managed to set up, the loop runs
    /* Without a control thread there is no socket to wait for. */
    if (!g_ctl_thread_started) notify_control_socket_ready();
    init_inotify_events();
    notify_startup_done();
    run_main_loop();
}
