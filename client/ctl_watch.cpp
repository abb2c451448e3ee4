/*
 * chmgrctl watch: follows the slots by asking the daemon for its status
 * document at a steady pace.  Each slot's state is reported when it
 * changes, and so is what is new in its log (ctl_watch_news.cpp).
 * On a terminal the view is redrawn in place; otherwise every report is
 * one JSON object on a line of its own.
 */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <deque>

#include "ctl_client.h"
#include "ctl_json.h"
#include "ctl_output.h"
#include "ctl_request.h"
#include "ctl_slot_view.h"
#include "ctl_watch_news.h"
#include "json.h"

namespace chmgrctl {

namespace {

constexpr double kDefaultIntervalS = 0.5;
constexpr int64_t kRequestLimitMs = 10000;  // each look, whatever the watch's own limit
constexpr size_t kBarCells = 12;            // two per stage
constexpr size_t kMaxShownTransitions = 200;

constexpr const char kShowCursor[] = "\033[?25h";
constexpr const char kHideCursor[] = "\033[?25l";
constexpr const char kHomeAndClear[] = "\033[H\033[2J";

/* The signal that asked the watch to end, 0 while none did. */
volatile sig_atomic_t g_stop_signal = 0;

/* Ctrl-C (or a termination request) ends the watch after the look in
 * progress: the end object is still written and the cursor given back. */
void stop_on_signal(int signal_number) { g_stop_signal = signal_number; }

void install_signal_handlers() {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = stop_on_signal;  // no SA_RESTART: a pause ends at once
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

double wall_clock() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return (double)now.tv_sec + (double)now.tv_usec / 1e6;
}

struct WatchState {
    SlotTrack tracks[MAX_SLOTS_FOR_9600];
    std::vector<SlotView> views;
    std::deque<Transition> transitions;  // for the terminal view
    bool first_look = true;
};

std::string state_key(const SlotView &view) {
    return view.oper_state + "|" + (view.disabled ? "d" : "e") + "|" + stage_name(view.stage) + "|" +
           (view.stuck ? "s" : "") + "|" + view.awaited_event + "|" + view.reason;
}

double stage_seconds(const SlotView &view, double now) {
    return view.stage_since > 0 && view.stage != STAGE_NONE ? now - view.stage_since : -1;
}

JsonNode *seconds_or_null(double seconds) { return seconds < 0 ? json_mknull() : json_mknumber((double)(long long)(seconds * 1000) / 1000); }

void emit_slot_json(const SlotView &view, double now, double scale) {
    JsonNode *root = schema_object("watch");
    json_append_member(root, "event", json_mkstring("slot"));
    json_append_member(root, "time", json_mknumber(now));
    JsonNode *slot = slot_view_json(view);
    for (JsonNode *member = json_first_child(slot); member;) {
        JsonNode *next = member->next;
        std::string key = member->key;
        json_remove_from_parent(member);
        json_append_member(root, key.c_str(), member);
        member = next;
    }
    json_delete(slot);
    double in_stage = stage_seconds(view, now);
    json_append_member(root, "stage_seconds", seconds_or_null(in_stage));
    json_append_member(root, "remaining_seconds",
                       seconds_or_null(remaining_fixed_wait(view.stage, view.held, in_stage < 0 ? 0 : in_stage, scale)));
    print_json(stdout, root, true);
    json_delete(root);
}

void emit_line_json(const Transition &transition) {
    JsonNode *root = schema_object("watch");
    bool is_stage = !transition.stage.empty();
    json_append_member(root, "event", json_mkstring(is_stage ? "transition" : "log"));
    json_append_member(root, "time", json_mknumber(transition.line.epoch));
    json_append_member(root, "slot", json_mknumber(transition.slot));
    /* A stage seen only in the state has no log line: no clock, no message. */
    bool from_log = !transition.line.clock.empty();
    json_append_member(root, "clock", from_log ? json_text(transition.line.clock) : json_mknull());
    if (is_stage) json_append_member(root, "stage", json_mkstring(transition.stage.c_str()));
    json_append_member(root, "level", json_text(transition.line.level));
    json_append_member(root, "message", from_log ? json_text(transition.line.message) : json_mknull());
    print_json(stdout, root, true);
    json_delete(root);
}

std::string progress_bar(const SlotView &view) {
    std::string bar = "[";
    for (int stage = 0; stage < kStageCount; ++stage) {
        bool reached = view.stage != STAGE_NONE && stage <= view.stage;
        bar += reached ? (view.stuck && stage == view.stage ? "!!" : "##") : "--";
    }
    static_assert(kBarCells == 2 * kStageCount, "two cells per stage");
    return bar + "]";
}

int terminal_rows() {
    struct winsize size;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0) return size.ws_row;
    return 24;
}

void draw_terminal(const WatchState &state, double now, double scale) {
    std::string screen = kHomeAndClear;
    char line[512];
    time_t seconds = (time_t)now;
    struct tm local;
    localtime_r(&seconds, &local);
    char clock[32];
    strftime(clock, sizeof clock, "%F %T", &local);
    snprintf(line, sizeof line, "chmgrctl watch   %s   (Ctrl-C to leave)\n\n", clock);
    screen += line;
    for (const SlotView &view : state.views) {
        double in_stage = stage_seconds(view, now);
        double left = remaining_fixed_wait(view.stage, view.held, in_stage < 0 ? 0 : in_stage, scale);
        std::string stage = view.stuck ? std::string("stuck ") + stage_name(view.stage) : stage_name(view.stage);
        snprintf(line, sizeof line, "slot %u  %-11s %s %-14s %7s  %s  %s\n", view.slot, view.oper_state.c_str(),
                 progress_bar(view).c_str(), stage.c_str(), duration_text(in_stage < 0 ? -1 : (long long)in_stage).c_str(),
                 left < 0 ? "          " : ("~" + duration_text((long long)(left + 0.999)) + " left").c_str(),
                 printable(view.reason.empty() ? "in service" : view.reason).c_str());
        screen += line;
    }
    screen += "\nStage changes, errors and warnings:\n";
    int room = terminal_rows() - (int)state.views.size() - 6;
    size_t shown = room > 0 ? (size_t)room : 0;
    size_t first = state.transitions.size() > shown ? state.transitions.size() - shown : 0;
    for (size_t i = first; i < state.transitions.size(); ++i) {
        const Transition &t = state.transitions[i];
        snprintf(line, sizeof line, "  %-19s  slot %u  %s\n", t.line.clock.empty() ? "(not logged)" : t.line.clock.c_str(), t.slot,
                 printable(t.stage.empty() ? t.line.level + " " + t.line.message : "-> " + t.stage).c_str());
        screen += line;
    }
    fputs(screen.c_str(), stdout);
    fflush(stdout);
}

/* One look at the daemon; false when it gave no proper answer.  The slots
 * are seen as show sees them (the same requests, the same facts). */
bool look(const Options &options, const Request &request, WatchState *state, double scale, bool terminal) {
    std::vector<SlotView> views;
    if (!collect_slot_views(options, request, SHOW_SUMMARY, &views)) return false;
    double now = wall_clock();
    state->views.clear();
    for (const SlotView &view : views) {
        SlotTrack *track = &state->tracks[view.slot - 1];
        std::vector<Transition> lines = slot_news(view, track, now);
        if (state->first_look) lines.clear();  // history before the watch began is not news
        for (const Transition &line : lines) {
            if (terminal)
                state->transitions.push_back(line);
            else
                emit_line_json(line);
        }
        std::string changed = state_key(view);
        if (!terminal && (!track->seen || changed != track->key)) emit_slot_json(view, now, scale);
        track->seen = true;
        track->key = changed;
        state->views.push_back(view);
    }
    while (state->transitions.size() > kMaxShownTransitions) state->transitions.pop_front();
    state->first_look = false;
    if (terminal) draw_terminal(*state, now, scale);
    return true;
}

enum Outcome { OUTCOME_NONE, OUTCOME_OPERATIONAL, OUTCOME_STUCK };

/* The end of an --until-online watch: operational, or not coming up
 * without someone's help (stuck, unsupported card, wrong card type). */
Outcome watched_outcome(const WatchState &state, uint32_t slot, std::string *reason) {
    for (const SlotView &view : state.views) {
        if (view.slot != slot) continue;
        *reason = view.reason;
        if (view.oper_state == "Operational") return OUTCOME_OPERATIONAL;
        if (view.held && !view.disabled) return OUTCOME_STUCK;  // an administrator may enable a slot
    }
    return OUTCOME_NONE;
}

void emit_end(bool json, uint32_t slot, const char *outcome, const std::string &reason) {
    if (!json) return;
    JsonNode *root = schema_object("watch");
    json_append_member(root, "event", json_mkstring("end"));
    json_append_member(root, "time", json_mknumber(wall_clock()));
    json_append_member(root, "slot", slot ? json_mknumber(slot) : json_mknull());
    json_append_member(root, "outcome", json_mkstring(outcome));
    json_append_member(root, "reason", reason.empty() ? json_mknull() : json_text(reason));
    print_json(stdout, root, true);
    json_delete(root);
}

void sleep_seconds(double seconds) {
    struct timespec pause;
    pause.tv_sec = (time_t)seconds;
    pause.tv_nsec = (long)((seconds - (double)pause.tv_sec) * 1e9);
    nanosleep(&pause, nullptr);
}

}  // namespace

int run_watch(const Options &options, const Request &request) {
    bool terminal = !options.json && isatty(STDOUT_FILENO);
    bool json = !terminal;
    double scale = environment_time_scale();
    double interval = options.interval_s > 0 ? options.interval_s : kDefaultIntervalS;
    int64_t end_ms = options.timeout_s > 0 ? monotonic_ms() + (int64_t)(options.timeout_s * 1000) : 0;
    auto limit_reached = [&] { return end_ms && monotonic_ms() >= end_ms; };

    install_signal_handlers();
    if (terminal) fputs(kHideCursor, stdout);

    WatchState state;
    int exit_status = EXIT_DONE;
    const char *outcome = "stopped";
    std::string reason;
    for (;;) {
        Options look_options = options;
        int64_t left_ms = end_ms ? end_ms - monotonic_ms() : kRequestLimitMs;
        look_options.timeout_s = (double)(left_ms < kRequestLimitMs ? (left_ms > 1 ? left_ms : 1) : kRequestLimitMs) / 1000.0;
        bool answered = look(look_options, request, &state, scale, terminal);
        if (g_stop_signal) break;
        if (!answered) {
            if (limit_reached()) {  // the look was cut short by the watch's own limit
                if (options.until_online) {
                    exit_status = EXIT_NOT_YET;
                    outcome = "time_limit";
                }
                break;
            }
            exit_status = EXIT_NO_ANSWER;
            outcome = "no_answer";
            break;
        }
        Outcome result = options.until_online ? watched_outcome(state, options.until_online, &reason) : OUTCOME_NONE;
        if (result == OUTCOME_OPERATIONAL) {
            outcome = "operational";
            break;
        }
        if (result == OUTCOME_STUCK) {
            exit_status = EXIT_REFUSED;
            outcome = "stuck";
            break;
        }
        if (end_ms && monotonic_ms() + (int64_t)(interval * 1000) > end_ms) {
            if (options.until_online) {
                exit_status = EXIT_NOT_YET;
                outcome = "time_limit";
            }
            break;
        }
        sleep_seconds(interval);
        if (g_stop_signal) break;
    }
    if (g_stop_signal) {
        exit_status = 128 + g_stop_signal;
        outcome = "interrupted";
    }
    uint32_t watched = options.until_online ? options.until_online
                       : request.slot_no != CTL_ALL_SLOTS ? request.slot_no
                                                          : 0;
    emit_end(json, watched, outcome, reason);
    if (terminal) {
        fputs(kShowCursor, stdout);
        fputc('\n', stdout);
        fflush(stdout);
    }
    if (options.until_online && exit_status == EXIT_REFUSED)
        fprintf(stderr, "chmgrctl: slot %u will not come up: %s\n", options.until_online, reason.c_str());
    if (exit_status == EXIT_NOT_YET)
        fprintf(stderr, "chmgrctl: slot %u not operational after %g s: %s\n", options.until_online, options.timeout_s,
                reason.c_str());
    return exit_status;
}

}  // namespace chmgrctl
