/*
 * Shared helpers for the tests of the slot transitions, the reload
 * rendezvous of portd and the status LED: expected ring lines, cards.conf
 * text, queries on the slots' transition timers, and a base fixture that
 * starts every test from the same slots and puts stand-in commands first
 * on PATH.
 */
#ifndef CHMGR_TRANSITION_TEST_SUPPORT_H
#define CHMGR_TRANSITION_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

#include <optional>
#include <string>
#include <vector>

#include "test_support.h"

namespace chmgr_test {

inline constexpr long long kSecond = 1000000000LL;
/* Directory under the root that goes first on PATH, for stand-in commands. */
inline constexpr const char *kStandinBin = "/standin-bin";
/* The gearbox update tool the ready step runs. */
inline constexpr const char *kGearbox = "/usr/lib/tarnel/brlgbfwupgrade.ks";

/* ------------------------------------------------------------ ring lines */

/* A slot ring line as normalize() leaves it. */
inline std::string slot_line(int slot, const std::string &level, const std::string &file, const std::string &msg) {
    return "[SLOT" + std::to_string(slot) + ":" + level + "]<T> " + file + ":<N> " + msg;
}

/* A global ring line as normalize() leaves it. */
inline std::string global_line(const std::string &level, const std::string &file, const std::string &msg) {
    return "[" + level + "]<T> " + file + ":<N> " + msg;
}

/* Lines that one source file wrote into a ring. */
inline std::vector<std::string> lines_from(int ring, const std::string &file) {
    std::vector<std::string> out;
    for (const auto &line : normalized_ring(ring))
        if (line.find("> " + file + ":<N> ") != std::string::npos) out.push_back(line);
    return out;
}

/* ------------------------------------------------------------ cards.conf */

/* One cards.conf line, laid out as the daemon writes it. */
inline std::string conf_line(int slot, int detected, int provisioned, int configured, int dirty, const char *state,
                             const char *admin) {
    char line[256];
    snprintf(line, sizeof line, "%d       %dG        %dG               %3dG        %d  %s   %s\n", slot, detected,
             provisioned, configured, dirty, state, admin);
    return line;
}

/* cards.conf with every slot empty except `slot`, which gets `line`. */
inline std::string conf_with(int slot, const std::string &line) {
    std::string text;
    for (int s = 1; s <= 8; ++s) text += s == slot ? line : conf_line(s, 0, 0, 0, 0, "Offline", "enable");
    return text;
}

/* cards.conf with every slot empty. */
inline std::string default_conf() { return conf_with(0, ""); }

/* ------------------------------------------------------------ slots */

inline std::string serial_of(int slot) {
    char serial[SERIAL_NO_SIZE + 1] = {};
    slot_serial_get(slot, serial);
    return serial;
}

inline std::string led_file(int slot, const std::string &name) {
    return "/var/run/hw-management/lc" + std::to_string(slot) + "/led/" + name;
}

/* A new card on its way, as the earlier steps leave it: powered, flagged for
 * the reload of portd, awaiting synced. */
inline void arriving_card(int slot, int card_type = CARD_TYPE_16X100G) {
    slotInfo &s = g_slots_info[slot - 1];
    s.current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED;
    s.card_type = card_type;
    s.in_transition_reload_portd = 1;
    s.trans_timer.state_monitored = slot_synced_event;
}

/* Remaining time of the slot's timer in (unscaled, scale 1) nanoseconds. */
inline long long timer_remaining_ns(int slot) {
    struct itimerspec current = {};
    timerfd_gettime(g_slots_info[slot - 1].trans_timer.timer_fd, &current);
    return (long long)current.it_value.tv_sec * kSecond + current.it_value.tv_nsec;
}

/* Armed, or already expired and not yet read. */
inline bool timer_armed(int slot) {
    struct pollfd ready = {g_slots_info[slot - 1].trans_timer.timer_fd, POLLIN, 0};
    return timer_remaining_ns(slot) > 0 || poll(&ready, 1, 0) > 0;
}

inline void disarm_timers() {
    for (auto &slot : g_slots_info) {
        struct itimerspec zero = {};
        timerfd_settime(slot.trans_timer.timer_fd, 0, &zero, nullptr);
    }
}

/* A timer that cannot be armed: the slot's timer descriptor is swapped for
 * an invalid one for the life of the object. */
class BrokenTimer {
  public:
    explicit BrokenTimer(int slot) : slot_(slot), saved_(g_slots_info[slot - 1].trans_timer.timer_fd) {
        g_slots_info[slot - 1].trans_timer.timer_fd = -1;
    }
    ~BrokenTimer() { g_slots_info[slot_ - 1].trans_timer.timer_fd = saved_; }
    BrokenTimer(const BrokenTimer &) = delete;
    BrokenTimer &operator=(const BrokenTimer &) = delete;

  private:
    int slot_;
    int saved_;
};

/* ------------------------------------------------------------ fixture */

/* Every test starts from the slots as start-up leaves them, no timer armed,
 * empty rings and every event file reading "0". */
class TransitionTest : public ::testing::Test {
  protected:
    explicit TransitionTest(const char *time_scale = "0.0001") : root_(time_scale) {}

    void SetUp() override {
        reset_slots();
        disarm_timers();
        clear_log_rings();
        root_.all_events("0");
    }

    void TearDown() override {
        if (saved_path_) setenv("PATH", saved_path_->c_str(), 1);
    }

    /* An executable shell script at the daemon path `abs`. */
    void script(const std::string &abs, const std::string &body) {
        root_.write(abs, "#!/bin/sh\n" + body);
        chmod(root_.at(abs).c_str(), 0755);
    }

    /* The LED state file records each run, so a test can tell it ran. */
    void record_led_state_runs(int slot) { script(led_file(slot, "led_status_state"), "echo ran >> \"$0.runs\"\n"); }

    /* A systemctl stand-in that records its arguments and keeps a copy of
     * cards.conf as portd would read it at the reload. */
    void install_systemctl_copying_conf() {
        install_systemctl("echo \"$*\" >> \"$0.calls\"\n"
                          "cat " + root_.at("/etc/tarnel/cards.conf") + " >> \"$0.conf\"\n");
    }

    /* The default cards.conf, the copying systemctl and the LED state run
     * recorder of `slot`: what a synced or active step touches. */
    void prepare_conf_and_stand_ins(int slot) {
        root_.write("/etc/tarnel/cards.conf", default_conf());
        install_systemctl_copying_conf();
        record_led_state_runs(slot);
    }

    /* A systemctl stand-in that records its arguments and exits with the
     * code in "systemctl.exit" (0 when there is none). */
    void install_systemctl_with_exit_code() {
        install_systemctl("echo \"$*\" >> \"$0.calls\"\n"
                          "rc=0; [ -r \"$0.exit\" ] && read -r rc < \"$0.exit\"\n"
                          "exit $rc\n");
    }

    std::string systemctl_calls() const { return root_.read(std::string(kStandinBin) + "/systemctl.calls"); }
    /* cards.conf as the copying stand-in found it at each reload. */
    std::string conf_at_reload() const { return root_.read(std::string(kStandinBin) + "/systemctl.conf"); }

    SandboxRoot root_;
    ConsoleCapture console_;

  private:
    /* Puts the stand-in directory first on PATH until TearDown. */
    void install_systemctl(const std::string &body) {
        std::string bin = root_.at(kStandinBin);
        mkdir(bin.c_str(), 0755);
        script(std::string(kStandinBin) + "/systemctl", body);
        saved_path_ = getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin";
        setenv("PATH", (bin + ":" + *saved_path_).c_str(), 1);
    }

    std::optional<std::string> saved_path_;
};

}  // namespace chmgr_test

#endif /* CHMGR_TRANSITION_TEST_SUPPORT_H */
