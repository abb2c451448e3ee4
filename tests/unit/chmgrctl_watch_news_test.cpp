// chmgrctl watch: what one look at a slot reports, and in which order.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl_watch_news.h"

using namespace chmgrctl;

namespace {

std::string ring_line(const char *epoch, const char *message) {
    return std::string("[SLOT3:INFO]") + epoch + " 2026-11-25 01:51:50 file.cpp:7 " + message;
}

/* A look at slot 3 whose state shows `stages` (bits, PRESENT first) and whose log holds `log`. */
SlotView look_at(unsigned stages, std::vector<std::string> log) {
    SlotView view;
    view.slot = 3;
    view.stage_bits = stages;
    view.log = std::move(log);
    return view;
}

struct Report {
    std::string stage;
    double epoch;
    std::string message;
    bool operator==(const Report &other) const = default;
};

std::vector<Report> reports(const std::vector<Transition> &news) {
    std::vector<Report> out;
    for (const Transition &t : news) out.push_back({t.stage, t.line.epoch, t.line.message});
    return out;
}

void PrintTo(const Report &report, std::ostream *out) {
    *out << "{" << report.stage << ", " << std::to_string(report.epoch) << ", \"" << report.message << "\"}";
}

constexpr unsigned kPresent = 1u << STAGE_PRESENT;
constexpr unsigned kVerified = 1u << STAGE_VERIFIED;
constexpr unsigned kPowered = 1u << STAGE_POWERED;

const std::string kPresentLine = ring_line("1795570740.257211", "Transitioned from 0 to SLOT_PRESENT");
const std::string kVerifiedLine = ring_line("1795570740.260000", "Transitioned from 1 to SLOT_VERIFIED");
const std::string kIniLine = ring_line("1795570740.300000", "Successfully programmed INI");
const std::string kPoweredLine = ring_line("1795570740.319350", "Transitioned from 3 to SLOT_POWERED");

TEST(WatchNews, StageLinesAreReportedOnceWithTheDaemonsTime) {
    SlotTrack track;
    EXPECT_EQ(reports(slot_news(look_at(kPresent, {kPresentLine}), &track, 1795570740.3)),
              (std::vector<Report>{{"PRESENT", 1795570740.257211, "Transitioned from 0 to SLOT_PRESENT"}}));
    EXPECT_TRUE(slot_news(look_at(kPresent, {kPresentLine}), &track, 1795570740.4).empty());
}

TEST(WatchNews, AStageWhoseLineLeftTheLogIsDatedBeforeEveryLineStillInIt) {
    // The INI transfer pushed the VERIFIED line out of the log before the
    // look; the POWERED line is logged after the look read the log but
    // before the look ended.  The reports stay in time order.
    SlotTrack track;
    slot_news(look_at(kPresent, {kPresentLine}), &track, 1795570740.258);
    std::vector<Transition> first = slot_news(look_at(kPresent | kVerified, {kIniLine}), &track, 1795570740.320366);
    std::vector<Transition> second =
        slot_news(look_at(kPresent | kVerified | kPowered, {kIniLine, kPoweredLine}), &track, 1795570740.33);
    EXPECT_EQ(reports(first), (std::vector<Report>{{"VERIFIED", 1795570740.3, ""}}));
    EXPECT_EQ(reports(second),
              (std::vector<Report>{{"POWERED", 1795570740.31935, "Transitioned from 3 to SLOT_POWERED"}}));
}

TEST(WatchNews, AStageWithNoLineLeftAtAllIsDatedAtTheLook) {
    SlotTrack track;
    slot_news(look_at(0, {}), &track, 1795570740.0);
    EXPECT_EQ(reports(slot_news(look_at(kPresent | kVerified, {}), &track, 1795570741.5)),
              (std::vector<Report>{{"PRESENT", 1795570741.5, ""}, {"VERIFIED", 1795570741.5, ""}}));
}

TEST(WatchNews, AStageLoggedBeforeTheStateShowsItIsNotReportedAgain) {
    // The daemon logs a stage's line, then records the stage: one look
    // sees the line alone, the next the stage alone.
    SlotTrack track;
    slot_news(look_at(kPresent, {kPresentLine}), &track, 1795570740.258);
    EXPECT_EQ(reports(slot_news(look_at(kPresent, {kPresentLine, kVerifiedLine}), &track, 1795570740.27)),
              (std::vector<Report>{{"VERIFIED", 1795570740.26, "Transitioned from 1 to SLOT_VERIFIED"}}));
    EXPECT_TRUE(slot_news(look_at(kPresent | kVerified, {kPresentLine, kVerifiedLine}), &track, 1795570740.28).empty());
}

TEST(WatchNews, AStageTakenBackAndReachedAgainIsReportedAgain) {
    // A disable takes the bring-up stages back; the enable that follows
    // reaches them again, and their lines may have left the log by then.
    SlotTrack track;
    slot_news(look_at(kPresent | kVerified, {kPresentLine, kVerifiedLine}), &track, 1795570740.27);
    slot_news(look_at(kPresent, {kIniLine}), &track, 1795570740.31);
    EXPECT_EQ(reports(slot_news(look_at(kPresent | kVerified, {kIniLine}), &track, 1795570740.4)),
              (std::vector<Report>{{"VERIFIED", 1795570740.3, ""}}));
}

}  // namespace
