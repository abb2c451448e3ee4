/*
 * chmgrctl metrics: one collection of the chassis' state as gauges, for
 * Prometheus through node_exporter's textfile collector (see ctl_metrics.h).
 *
 * Every family is a gauge with HELP and TYPE, its samples kept together, no
 * sample carries a timestamp, and times are given as timestamps (seconds
 * since the epoch), never as durations: a duration would change at every
 * collection, a timestamp changes only when the slot does.
 */
#include "ctl_metrics.h"

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string_view>

#include "chassis_mgr.h"
#include "ctl_client.h"
#include "ctl_output.h"

namespace chmgrctl {

namespace {

constexpr std::string_view kUnsupported = "Unsupported line card inserted(vpd_value = ";

/* A family is written only when it has at least one sample. */
class Family {
  public:
    Family(const char *name, const char *help) : name_(name), help_(help) {}

    void sample(const std::string &labels, const std::string &value) {
        samples_ += name_;
        if (!labels.empty()) samples_ += "{" + labels + "}";
        samples_ += " " + value + "\n";
    }

    void append_to(std::string *out) const {
        if (samples_.empty()) return;
        *out += std::string("# HELP ") + name_ + " " + help_ + "\n";
        *out += std::string("# TYPE ") + name_ + " gauge\n";
        *out += samples_;
    }

  private:
    const char *name_;
    const char *help_;
    std::string samples_;
};

std::string number(long long value) { return std::to_string(value); }

std::string timestamp(double seconds) {
    char text[48];
    snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

std::string slot_label(const SlotView &view) { return "slot=\"" + std::to_string(view.slot) + "\""; }

std::string label(const char *name, const std::string &value) {
    return std::string(",") + name + "=" + label_value(value);
}

bool has_card(const SlotView &view) { return view.oper_state != "Empty"; }
bool operational(const SlotView &view) { return view.oper_state == "Operational"; }

/* The part number the card's VPD gave: the daemon names it in its log only
 * when it refuses the card; a card it accepts has a part number that starts
 * with its type name, which is all the daemon keeps of it. */
std::string part_number(const SlotView &view) {
    std::string part;
    for (const std::string &text : view.log) {
        RingLine line;
        if (!parse_ring_line(text, &line)) continue;
        bool empty = false;
        if (transition_stage(line.message, &empty) == STAGE_PRESENT || empty) part.clear();
        if (line.message.rfind(kUnsupported, 0) == 0) {
            part = line.message.substr(kUnsupported.size());
            if (!part.empty() && part.back() == ')') part.pop_back();
        }
    }
    if (part.empty() && short_card_type(view.card_type) != "none") part = view.card_type;
    return part;
}

/* When the slot entered its current stage, best known: the log line of the
 * stage change; for a card in service whose line has left the slot's log,
 * the time it went into service; else the earliest line still in the log
 * (the stage began before it).  0: nothing is known. */
double stage_entered(const SlotView &view, double collected_at) {
    if (view.stage_since > 0) return view.stage_since;
    if (operational(view) && view.up_time_s >= 0) return floor(collected_at) - (double)view.up_time_s;
    return earliest_log_time(view);
}

void add_slot_families(double collected_at, const std::vector<SlotView> &views, std::string *out) {
    static constexpr const char *kStates[] = {"Empty", "Offline", "Operational"};
    static constexpr const char *kStateLabels[] = {"empty", "offline", "operational"};
    Family oper("chassis_mgr_slot_oper_state",
                "Operational state of the slot, one series per state: the current one is 1.");
    Family admin("chassis_mgr_slot_admin_enabled", "1 when the slot is enabled, 0 when the administrator disabled it.");
    Family stage("chassis_mgr_slot_stage",
                 "Bring-up stages the slot's card has reached: 0 none, 1 PRESENT, 2 VERIFIED, 3 POWERED, "
                 "4 SYNCED, 5 READY, 6 ACTIVE.");
    Family stuck("chassis_mgr_slot_stuck", "1 when chassis-mgr gave up waiting for the slot's next stage.");
    Family entered("chassis_mgr_slot_stage_entered_timestamp_seconds",
                   "When the slot entered its current stage (best known), in seconds since the epoch.");
    Family up_since("chassis_mgr_slot_up_since_timestamp_seconds",
                    "When the slot's card went into service, in seconds since the epoch; operational slots only.");
    Family ports("chassis_mgr_slot_ports", "Ports of the slot's card, 0 when the slot has none.");
    Family info("chassis_mgr_slot_info", "Identity of the card in the slot; always 1, slots with a card only.");
    Family reason("chassis_mgr_slot_reason_info",
                  "Why the slot is not in service, in plain words; always 1, slots not operational only.");

    for (const SlotView &view : views) {
        std::string slot = slot_label(view);
        for (size_t i = 0; i < 3; ++i)
            oper.sample(slot + label("state", kStateLabels[i]), number(view.oper_state == kStates[i]));
        admin.sample(slot, number(!view.disabled));
        stage.sample(slot, number((int)view.stage + 1));
        stuck.sample(slot, number(view.stuck));
        double since = stage_entered(view, collected_at);
        if (since > 0) entered.sample(slot, timestamp(since));
        if (operational(view) && view.up_time_s >= 0)
            up_since.sample(slot, number((long long)floor(collected_at) - view.up_time_s));
        ports.sample(slot, number(view.ports));
        if (has_card(view))
            info.sample(slot + label("card_type", view.card_type) + label("part_number", part_number(view)) +
                            label("serial", view.serial_no) + label("hw_revision", std::to_string(view.hw_revision)),
                        "1");
        if (!operational(view)) reason.sample(slot + label("reason", view.reason), "1");
    }
    for (const Family *family : {&oper, &admin, &stage, &stuck, &entered, &up_since, &ports, &info, &reason})
        family->append_to(out);
}

std::string errno_text(const std::string &step, const std::string &path) { return step + " " + path + ": " + strerror(errno); }

std::string directory_of(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool write_all(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += (size_t)n;
    }
    return true;
}

/* The rename is made durable too, so that after a crash the collector
 * finds the new file or the old one. */
void sync_directory(const std::string &path) {
    int fd = open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

double wall_clock_now() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

}  // namespace

std::string textfile_temporary_template(const std::string &path) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return dir + "." + name + ".XXXXXX";
}

std::string label_value(const std::string &text) {
    std::string out = "\"";
    for (char c : valid_utf8(text)) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else if ((unsigned char)c < 0x20 || c == 0x7f)
            out += '?';
        else
            out += c;
    }
    return out + "\"";
}

std::string metrics_text(bool up, double collected_at, const std::vector<SlotView> &views) {
    std::string out;
    Family up_family("chassis_mgr_up", "1 when chassis-mgr answered this collection, 0 when it did not.");
    up_family.sample("", up ? "1" : "0");
    up_family.append_to(&out);
    Family collected("chassis_mgr_collection_timestamp_seconds",
                     "When this collection was made, in seconds since the epoch.");
    collected.sample("", timestamp(collected_at));
    collected.append_to(&out);
    if (up) add_slot_families(collected_at, views, &out);
    return out;
}

bool write_textfile(const std::string &path, const std::string &text, std::string *error) {
    std::string temporary = textfile_temporary_template(path);
    int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        *error = errno_text("cannot create a temporary file for", path);
        return false;
    }
    bool written = fchmod(fd, 0644) == 0 && write_all(fd, text) && fsync(fd) == 0;
    if (!written) *error = errno_text("cannot write", temporary);
    if (close(fd) != 0 && written) {
        written = false;
        *error = errno_text("cannot write", temporary);
    }
    if (written && rename(temporary.c_str(), path.c_str()) != 0) {
        written = false;
        *error = errno_text("cannot rename " + temporary + " to", path);
    }
    if (!written) {
        unlink(temporary.c_str());
        return false;
    }
    sync_directory(path);
    return true;
}

int run_metrics(const Options &options, const Request &request) {
    std::vector<SlotView> views;
    /* A daemon that does not answer is a measurement like any other: it is
     * reported as chassis_mgr_up 0 (the reason on standard error) and the
     * command succeeds, so that an alert fires rather than a timer failing. */
    bool up = collect_slot_views(options, request, SHOW_SUMMARY, &views);
    std::string text = metrics_text(up, wall_clock_now(), views);
    if (options.textfile.empty()) {
        fputs(text.c_str(), stdout);
        return fflush(stdout) == 0 ? EXIT_DONE : EXIT_REFUSED;
    }
    std::string error;
    if (write_textfile(options.textfile, text, &error)) return EXIT_DONE;
    fprintf(stderr, "chmgrctl: %s\n", error.c_str());
    return EXIT_REFUSED;
}

}  // namespace chmgrctl
