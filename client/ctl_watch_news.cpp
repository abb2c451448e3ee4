/*
 * chmgrctl watch: the news of one look at a slot.  Each new line of the
 * slot's log that records a stage change (or an error or warning) is
 * reported once, with the daemon's time stamp.  A stage the state shows
 * whose line is no longer in the log (it keeps the last 24 lines, and the
 * INI transfer alone logs about twenty) is reported from the state.
 */
#include "ctl_watch_news.h"

namespace chmgrctl {

namespace {

/* The new lines of a slot's log that are worth a report. */
std::vector<Transition> new_lines(const SlotView &view, SlotTrack *track) {
    std::vector<Transition> found;
    std::set<std::string> now(view.log.begin(), view.log.end());
    for (const std::string &text : view.log) {
        if (track->lines.count(text)) continue;
        Transition transition;
        transition.slot = view.slot;
        if (!parse_ring_line(text, &transition.line)) continue;
        bool empty = false;
        Stage stage = transition_stage(transition.line.message, &empty);
        if (stage != STAGE_NONE) transition.stage = stage_name(stage);
        if (empty) transition.stage = "EMPTY";
        if (transition.stage.empty() && transition.line.level != "ERR" && transition.line.level != "WARN") continue;
        found.push_back(transition);
    }
    track->lines.swap(now);
    return found;
}

unsigned stage_bit(const std::string &name) {
    for (int stage = 0; stage < kStageCount; ++stage)
        if (name == stage_name((Stage)stage)) return 1u << stage;
    return 0;
}

/* The stages the reported `lines` record. */
unsigned logged_stages(const std::vector<Transition> &lines) {
    unsigned logged = 0;
    for (const Transition &line : lines) logged |= stage_bit(line.stage);
    return logged;
}

/* A stage whose line has left the log came before every line still in
 * it: the time of the earliest of those (the time of the look when there
 * is none) keeps the reports in time order, later lines included. */
double before_the_log(const SlotView &view, double now) {
    double earliest = earliest_log_time(view);
    return earliest > 0 && earliest < now ? earliest : now;
}

std::vector<Transition> missed_stages(const SlotView &view, unsigned known, double at) {
    std::vector<Transition> missed;
    if (!(view.stage_bits & 1u)) return missed;
    unsigned gained = view.stage_bits & ~known;
    for (int stage = 0; stage < kStageCount; ++stage) {
        if (!(gained & (1u << stage))) continue;
        Transition transition;
        transition.slot = view.slot;
        transition.stage = stage_name((Stage)stage);
        transition.line.epoch = at;
        transition.line.level = "INFO";
        missed.push_back(transition);
    }
    return missed;
}

}  // namespace

std::vector<Transition> slot_news(const SlotView &view, SlotTrack *track, double now) {
    std::vector<Transition> news = new_lines(view, track);
    unsigned logged = logged_stages(news);
    std::vector<Transition> missed = missed_stages(view, track->stage_bits | logged, before_the_log(view, now));
    news.insert(news.begin(), missed.begin(), missed.end());
    /* A stage's line is logged just before the daemon records the stage:
     * a look may see the line before the state shows it.  The stage stays
     * known until the next look, so it is not reported a second time. */
    track->stage_bits = view.stage_bits | logged;
    return news;
}

}  // namespace chmgrctl
