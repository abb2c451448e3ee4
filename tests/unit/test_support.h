/*
 * Shared helpers for the unit tests: a sandbox root that the environment
 * module points every daemon path into, console capture, log-ring access,
 * the layout of the port list file, and a reset of the slot records to
 * their start-up values.
 */
#ifndef CHMGR_TEST_SUPPORT_H
#define CHMGR_TEST_SUPPORT_H

#include <ftw.h>
#include <regex>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "chassis_mgr.h"
#include "ks_sim.h"

namespace chmgr_test {

/* A fresh directory used as CHMGR_ROOT (and as the simulated SDK's root). */
class SandboxRoot {
  public:
    explicit SandboxRoot(const char *time_scale = "0.0001") {
        char tmpl[] = "/tmp/chmgr-ut-XXXXXX";
        path_ = mkdtemp(tmpl);
        char err[256];
        if (!env_configure(path_.c_str(), time_scale, err, sizeof err)) abort();
        ks_sim_set_root(path_.c_str());
        for (const char *dir : {"/etc/tarnel", "/etc/brl", "/var/run/hw-management/events",
                                "/var/run/hw-management/system", "/var/run/ks-sim", "/run/chassismgr",
                                "/var/log", "/usr/lib/tarnel"}) {
            mkdirs(path_ + dir);
        }
        for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot) {
            mkdirs(path_ + "/var/run/hw-management/lc" + std::to_string(slot) + "/led");
            mkdirs(path_ + "/var/run/hw-management/lc" + std::to_string(slot) + "/eeprom");
        }
    }
    ~SandboxRoot() {
        char err[256];
        env_configure(nullptr, nullptr, err, sizeof err);
        nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
    SandboxRoot(const SandboxRoot &) = delete;
    SandboxRoot &operator=(const SandboxRoot &) = delete;

    const std::string &path() const { return path_; }
    /* `abs` is the daemon's absolute path, e.g. "/etc/tarnel/cards.conf". */
    std::string at(const std::string &abs) const { return path_ + abs; }

    void write(const std::string &abs, const std::string &content) const {
        mkdirs(parent(at(abs)));
        std::ofstream out(at(abs), std::ios::binary | std::ios::trunc);
        out << content;
    }
    std::string read(const std::string &abs) const {
        std::ifstream in(at(abs), std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    bool exists(const std::string &abs) const { return access(at(abs).c_str(), F_OK) == 0; }
    void remove(const std::string &abs) const { unlink(at(abs).c_str()); }

    /* Writes "/var/run/hw-management/events/lc<slot>_<name>". */
    void event(int slot, const std::string &name, const std::string &value) const {
        write("/var/run/hw-management/events/lc" + std::to_string(slot) + "_" + name, value);
    }
    /* Every event file of every slot, reading "0". */
    void all_events(const std::string &value = "0") const {
        for (int slot = 1; slot <= MAX_SLOTS_FOR_9600; ++slot)
            for (const char *name : {"present", "verified", "synced", "powered", "active", "ready"})
                event(slot, name, value);
    }

  private:
    static int remove_entry(const char *p, const struct stat *, int, struct FTW *) { return ::remove(p); }
    static std::string parent(const std::string &p) { return p.substr(0, p.rfind('/')); }
    static void mkdirs(const std::string &p) {
        for (size_t i = 1; i <= p.size(); ++i)
            if (i == p.size() || p[i] == '/') mkdir(p.substr(0, i).c_str(), 0755);
    }
    std::string path_;
};

/* Captures console lines (g_log_fd) for the life of the object. */
class ConsoleCapture {
  public:
    ConsoleCapture() : file_(tmpfile()), saved_(g_log_fd) { g_log_fd = file_; }
    ~ConsoleCapture() {
        g_log_fd = saved_;
        fclose(file_);
    }
    std::string text() const {
        fflush(file_);
        std::string out;
        long end = ftell(file_);
        out.resize(end);
        rewind(file_);
        size_t got = fread(out.data(), 1, end, file_);
        out.resize(got);
        fseek(file_, 0, SEEK_END);
        return out;
    }
    FILE *stream() const { return file_; }

  private:
    FILE *file_;
    FILE *saved_;
};

/* Empties every ring. */
inline void clear_log_rings() { memset(&g_slot_log, 0, sizeof g_slot_log); }

/* Ring `ring`, oldest first, as the status report reads it. */
inline std::vector<std::string> ring_lines(int ring) {
    static char lines[LOG_RING_LINES][LOG_LINE_SIZE];
    int n = log_ring_copy(ring, lines, LOG_RING_LINES);
    return std::vector<std::string>(lines, lines + n);
}

/* Replaces the time stamp of a ring line with "<T>" and every ":<line> "
 * after a source file name with ":<N> ", so lines compare byte for byte. */
inline std::string normalize(const std::string &line) {
    static const std::regex stamp(R"((\]|^)(-1|\d+\.\d{6} \d{4}-\d\d-\d\d \d\d:\d\d:\d\d) )");
    static const std::regex lineno(R"((\.(cpp|c|h)):\d+ )");
    std::string out = std::regex_replace(line, stamp, "$1<T> ", std::regex_constants::format_first_only);
    return std::regex_replace(out, lineno, "$1:<N> ");
}

inline std::vector<std::string> normalized_ring(int ring) {
    std::vector<std::string> out;
    for (const auto &line : ring_lines(ring)) out.push_back(normalize(line));
    return out;
}

/* Every ring line of every ring, normalized (handy for "contains" checks). */
inline std::string all_rings_text() {
    std::string out;
    for (int ring = 0; ring < LOG_RING_COUNT; ++ring)
        for (const auto &line : normalized_ring(ring)) out += line;
    return out;
}

/* The port list file portd reads: its path, its header and one entry line,
 * laid out as the daemon writes them. */
inline const std::string kPortList = "/etc/brl/chmgr_ports_list.txt";
inline const std::string kPortListHeader =
    "#Automatically generated by portd\n"
    "#Do not edit.\n"
    "#entry      slot        module_port        local_port\n";

/* A cards.conf data line in the one format the daemon writes. */
inline std::string conf_data_line(int slot, int detected, int provisioned, int configured, int dirty,
                                  const std::string &state, const std::string &admin) {
    char configured_text[16];
    snprintf(configured_text, sizeof configured_text, "%3d", configured);
    return std::to_string(slot) + "       " + std::to_string(detected) + "G        " + std::to_string(provisioned) +
           "G               " + configured_text + "G        " + std::to_string(dirty) + "  " + state + "   " +
           admin + "\n";
}

inline std::string port_list_entry(int line_no, int slot, int module, int local) {
    char text[96];  // four ints of up to 11 characters, the blanks and the line feed
    snprintf(text, sizeof text, "%2d        %2d        %2d        %2d\n", line_no, slot, module, local);
    return text;
}

/* Puts the slot records back to their start-up values (as init_slots leaves
 * them, before cards.conf is read) and the log threshold to INFO. */
inline void reset_slots() {
    for (int i = 0; i < MAX_SLOTS_FOR_9600; ++i) {
        slotInfo *slot = &g_slots_info[i];
        slot->slot_id = i + 1;
        if (slot->trans_timer.timer_fd <= 0) slot->trans_timer.timer_fd = timerfd_create(CLOCK_REALTIME, 0);
        slot_serial_set(i + 1, "none");
        slot->ini_info.card_type = 0;
        slot->ini_info.hw_revision = 0;
        slot->ini_info.minor = 0;
        memset(slot->ini_info.ini_file_name, 0, sizeof slot->ini_info.ini_file_name);
        slot->current_state = 0;
        slot->in_err_state = 0;
        slot->provisioned = 0;
        slot->provisioned_type = 0;
        slot->slot_in_debug = 0;
        slot->disabled = 0;
        slot->card_type = 0;
        slot->hw_revision = 0;
        slot->trans_timer.state_monitored = 0;
        slot->trans_timer.transition_timer_hits = 0;
        slot->in_transition_reload_portd = 0;
        struct timeval zero = {0, 0};
        slot_uptime_set(i + 1, &zero);
    }
    g_log_level = LOG_LEVEL_INFO;
}

/* Bounds on the tests' waits are multiplied by CHMGR_TEST_TIMEOUT_FACTOR when
 * it is set (slow builds such as the sanitizers'), and by the machine's
 * current 1-minute load average per CPU when that is above 1. */
inline double timeout_factor() {
    const char *text = getenv("CHMGR_TEST_TIMEOUT_FACTOR");
    double factor = text ? strtod(text, nullptr) : 1.0;
    if (!(factor > 0)) factor = 1.0;
    double load = 0;
    long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    if (getloadavg(&load, 1) == 1 && cpus > 0 && load / cpus > 1) factor *= load / cpus;
    return factor;
}

inline std::chrono::milliseconds wait_limit(std::chrono::milliseconds base) {
    return std::chrono::milliseconds((long long)(base.count() * timeout_factor()));
}

}  // namespace chmgr_test

#endif /* CHMGR_TEST_SUPPORT_H */
