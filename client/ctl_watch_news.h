/*
 * chmgrctl watch: what is new about a slot since the previous look at the
 * daemon.  A look gives the slot's state and the last lines of its log;
 * the news are the log's new lines that record a stage change, an error or
 * a warning, and the stages the card reached whose line has already left
 * the log.
 */
#ifndef CHMGRCTL_CTL_WATCH_NEWS_H
#define CHMGRCTL_CTL_WATCH_NEWS_H

#include <stdint.h>

#include <set>
#include <string>
#include <vector>

#include "ctl_slot_view.h"

namespace chmgrctl {

struct Transition {
    uint32_t slot = 0;
    RingLine line;      // no clock and no message for a stage reported from the state
    std::string stage;  // "PRESENT" .. "ACTIVE", "EMPTY", or empty for a log line
};

/* What the watch remembers of a slot from one look to the next. */
struct SlotTrack {
    bool seen = false;
    unsigned stage_bits = 0;      // the stages known to be reached (state or logged line)
    std::string key;              // what a change of the slot's state compares
    std::set<std::string> lines;  // the log lines of the previous look
};

/* The reports one look at `view` gives, in time order, and `track`
 * brought up to the look.  `now` is the time of the look. */
std::vector<Transition> slot_news(const SlotView &view, SlotTrack *track, double now);

}  // namespace chmgrctl

#endif
