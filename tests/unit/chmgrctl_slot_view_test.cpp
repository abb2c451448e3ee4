// chmgrctl's view of a slot: stage reached, stuck verdict, reason in plain
// words, remaining fixed waits, and the reading of log ring lines.
#include <gtest/gtest.h>

#include <string>

#include "ctl_slot_view.h"
#include "json_test_support.h"

using chmgr_test::Tree;
using namespace chmgrctl;

namespace {

constexpr const char *kAllStages = "SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED |SLOT_POWERED |SLOT_READY |SLOT_ACTIVE | ";

std::string ring(const char *level, const char *clock, const char *message) {
    return std::string("[SLOT2:") + level + "]1795373698.183763 2026-11-22 " + clock + " file.cpp:12 " + message + "\n";
}

std::string slot_json(const std::string &state, const char *awaited, const char *card, bool provisioned,
                      bool disabled, const std::string &log_lines) {
    return std::string("{\"SLOT\": 2, \"STATE\": \"") + state + "\", \"Exp Event\": \"" + awaited +
           "\", \"Card Type\": \"" + card + "\", \"Provisioned\": " + (provisioned ? "true" : "false") +
           ", \"Disabled\": " + (disabled ? "true" : "false") + ", \"Serial No\": \"SN2\", \"Log\": [" + log_lines +
           "]}";
}

std::string quoted(const std::string &line) {
    std::string text = "\"";
    for (char c : line) text += c == '\n' ? std::string("\\n") : std::string(1, c);
    return text + "\"";
}

SlotView view_of(const std::string &json, int provisioned_speed = -1) {
    Tree tree(json_decode(json.c_str()));
    EXPECT_NE(tree.node, nullptr) << json;
    SlotView view;
    build_slot_view(nullptr, tree.node, provisioned_speed, &view);
    return view;
}

}  // namespace

TEST(ChmgrctlSlotView, StageIsTheHighestReachedAndOperationalHasNoReason) {
    SlotView view = view_of(slot_json(kAllStages, "empty", "KTR9600-C16", false, false, ""));
    EXPECT_EQ(view.stage, STAGE_ACTIVE);
    EXPECT_EQ(view.oper_state, "Operational");
    EXPECT_EQ(view.reason, "");
    EXPECT_EQ(view.ports, 16);
}

TEST(ChmgrctlSlotView, SyncedKeptFromAnEarlierCardIsNotAStage) {
    SlotView view = view_of(slot_json("SLOT_PRESENT |SLOT_SYNCED | ", "verified", "KTR9600-C16", false, false, ""));
    EXPECT_EQ(view.stage, STAGE_PRESENT);
    SlotView empty = view_of(slot_json("SLOT_SYNCED | ", "present", "none", false, false, ""));
    EXPECT_EQ(empty.stage, STAGE_NONE);
    EXPECT_EQ(empty.oper_state, "Empty");
    EXPECT_EQ(empty.reason, "no card in the slot");
}

TEST(ChmgrctlSlotView, StuckReasonNamesTheStageAndTheTries) {
    SlotView view = view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED |ERR ", "powered", "KTR9600-C4", false, false, ""));
    EXPECT_TRUE(view.stuck);
    EXPECT_EQ(view.reason, "stuck at VERIFIED after 240 tries");
}

TEST(ChmgrctlSlotView, WaitingReasonGivesTheTimeOfTheLastStageChange) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("INFO", "18:54:59", "Transitioned from 1 to SLOT_VERIFIED")) + "," +
                      quoted(ring("INFO", "18:55:00", "Writing to /x"));
    SlotView view = view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED | ", "powered", "KTR9600-C16", false, false, log));
    EXPECT_EQ(view.reason, "waiting for powered since 2026-11-22 18:54:59");
    EXPECT_EQ(view.stage_since_clock, "2026-11-22 18:54:59");
}

TEST(ChmgrctlSlotView, DisabledComesBeforeEveryOtherReason) {
    SlotView view = view_of(slot_json("SLOT_PRESENT |ERR ", "verified", "none", false, true, ""));
    EXPECT_EQ(view.reason, "disabled by the administrator");
}

TEST(ChmgrctlSlotView, UnsupportedCardNamesItsPartNumber) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("ERR", "18:54:58", "Unsupported line card inserted(vpd_value = KTR9600-X9)"));
    EXPECT_EQ(view_of(slot_json("SLOT_PRESENT | ", "present", "none", false, false, log)).reason,
              "unsupported card KTR9600-X9");
    EXPECT_EQ(view_of(slot_json("SLOT_PRESENT | ", "present", "none", false, false, "")).reason, "unsupported card");
}

TEST(ChmgrctlSlotView, ProvisionedMismatchNamesBothTypes) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("ERR", "18:54:58", "Different card inserted than what is pre-provisioned"));
    std::string json = slot_json("SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED | ", "verified", "KTR9600-C16", true,
                                 false, log);
    EXPECT_EQ(view_of(json, 400).reason, "pre-provisioned for C4 but a C16 is inserted");
    EXPECT_EQ(view_of(json, 400).provisioned_type, "C4");
    EXPECT_EQ(view_of(json).reason, "pre-provisioned for C4 but a C16 is inserted");  // the only other type
}

TEST(ChmgrctlSlotView, MismatchOfAnEarlierCardDoesNotStickToTheNextOne) {
    std::string log = quoted(ring("ERR", "18:54:58", "Different card inserted than what is pre-provisioned")) + "," +
                      quoted(ring("INFO", "18:55:10", "Transitioned from 0 to SLOT_PRESENT"));
    EXPECT_EQ(view_of(slot_json("SLOT_PRESENT | ", "verified", "KTR9600-C16", true, false, log), 100).reason,
              "waiting for verified since 2026-11-22 18:55:10");
}

TEST(ChmgrctlSlotView, RemainingFixedWaitFollowsTheClockFactor) {
    EXPECT_DOUBLE_EQ(remaining_fixed_wait(STAGE_PRESENT, false, 0, 1), 51);
    EXPECT_DOUBLE_EQ(remaining_fixed_wait(STAGE_POWERED, false, 3, 1), 50);
    EXPECT_DOUBLE_EQ(remaining_fixed_wait(STAGE_READY, false, 20, 1), 30);
    EXPECT_DOUBLE_EQ(remaining_fixed_wait(STAGE_READY, false, 0.2, 0.01), 0.3);
    EXPECT_DOUBLE_EQ(remaining_fixed_wait(STAGE_READY, false, 80, 1), 0);
    EXPECT_DOUBLE_EQ(remaining_fixed_wait(STAGE_ACTIVE, false, 0, 1), 0);
    EXPECT_LT(remaining_fixed_wait(STAGE_READY, true, 0, 1), 0);
    EXPECT_LT(remaining_fixed_wait(STAGE_NONE, false, 0, 1), 0);
}

TEST(ChmgrctlSlotView, RingLinesAreReadIntoTheirParts) {
    RingLine line;
    ASSERT_TRUE(parse_ring_line("[SLOT3:ERR]1700000000.012345 2023-11-14 22:13:20 x.cpp:1922 Unable to open file /p\n",
                                &line));
    EXPECT_EQ(line.level, "ERR");
    EXPECT_DOUBLE_EQ(line.epoch, 1700000000.012345);
    EXPECT_EQ(line.clock, "2023-11-14 22:13:20");
    EXPECT_EQ(line.message, "Unable to open file /p");
    ASSERT_TRUE(parse_ring_line("[INFO]-1 x.cpp:3 no clock", &line) == false);
    EXPECT_FALSE(parse_ring_line("", &line));
    EXPECT_FALSE(parse_ring_line("[SLOT3:INFO", &line));
    EXPECT_FALSE(parse_ring_line("[SLOT3:INFO]abc 2023-11-14 22:13:20 x.cpp:1 m", &line));
}

TEST(ChmgrctlSlotView, TransitionMessagesNameTheirStage) {
    bool empty = false;
    EXPECT_EQ(transition_stage("Transitioned from 15 to SLOT_READY", &empty), STAGE_READY);
    EXPECT_EQ(transition_stage("Transitioned from 3 to SLOT_SYNCED", &empty), STAGE_SYNCED);
    EXPECT_EQ(transition_stage("Transitioned from 63 to SLOT_EMPTY", &empty), STAGE_NONE);
    EXPECT_TRUE(empty);
    EXPECT_EQ(transition_stage("Transitioned to WAIT_RELOAD_PORTD", &empty), STAGE_NONE);
    EXPECT_FALSE(empty);
}

TEST(ChmgrctlSlotView, DurationsAreShort) {
    EXPECT_EQ(duration_text(-1), "-");
    EXPECT_EQ(duration_text(5), "5s");
    EXPECT_EQ(duration_text(125), "2m05s");
    EXPECT_EQ(duration_text(3725), "1h02m05s");
}

TEST(ChmgrctlSlotView, ReadyStepIsNamedWhileItsFixedWaitsRun) {
    std::string log = quoted(ring("INFO", "19:20:16", "Transitioned from 15 to SLOT_READY"));
    SlotView view = view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED |SLOT_POWERED |SLOT_READY | ",
                                      "ready", "KTR9600-C16", false, false, log));
    EXPECT_EQ(view.reason, "in the ready step (enable, gearbox update, reset) since 2026-11-22 19:20:16");
    EXPECT_FALSE(view.held);
}

TEST(ChmgrctlSlotView, SlotsThatWillNotGoOnByThemselvesAreHeld) {
    EXPECT_TRUE(view_of(slot_json("SLOT_PRESENT | ", "present", "none", false, false, "")).held);
    EXPECT_TRUE(view_of(slot_json("SLOT_PRESENT |ERR ", "verified", "KTR9600-C4", false, false, "")).held);
    EXPECT_TRUE(view_of(slot_json("SLOT_PRESENT | ", "verified", "KTR9600-C4", false, true, "")).held);
    EXPECT_FALSE(view_of(slot_json("SLOT_PRESENT | ", "verified", "KTR9600-C4", false, false, "")).held);
}

namespace {

std::string daemon_line(const char *level, const char *clock, const char *message, const char *epoch = "1795373698") {
    return std::string("[") + level + "]" + epoch + ".183763 2026-11-22 " + clock + " file.cpp:12 " + message;
}

SlotView view_in(const std::string &json, const SlotContext &context) {
    Tree tree(json_decode(json.c_str()));
    EXPECT_NE(tree.node, nullptr) << json;
    SlotView view;
    build_slot_view(nullptr, tree.node, context, &view);
    return view;
}

constexpr const char *kSyncedPowered = "SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED |SLOT_POWERED | ";

}  // namespace

TEST(ChmgrctlSlotView, ParkedSlotNamesTheSlotHoldingTheReload) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("INFO", "18:54:59", "Transitioned to WAIT_RELOAD_PORTD"));
    SlotContext context;
    context.daemon_log = {daemon_line("INFO", "18:54:59", "Holding reload because of this slot 1")};
    EXPECT_EQ(view_in(slot_json(kSyncedPowered, "none", "KTR9600-C16", false, false, log), context).reason,
              "waiting for the portd reload, held by slot 1");
    /* An older hold, from before the slot parked, names nobody. */
    context.daemon_log = {daemon_line("INFO", "18:50:00", "Holding reload because of this slot 6", "1795373000")};
    EXPECT_EQ(view_in(slot_json(kSyncedPowered, "none", "KTR9600-C16", false, false, log), context).reason,
              "waiting for the portd reload since 2026-11-22 18:54:59");
}

TEST(ChmgrctlSlotView, CardWithoutCompatibleIniSaysSoBeforeAndAfterTheStuckVerdict) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("ERR", "18:54:59", "Not able to find compatible INI"));
    SlotView waiting = view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED |SLOT_POWERED | ", "synced", "KTR9600-C4",
                                         false, false, log));
    EXPECT_EQ(waiting.reason, "no compatible INI for this card");
    EXPECT_TRUE(waiting.held);
    SlotView stuck = view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED |SLOT_POWERED |ERR ", "synced", "KTR9600-C4",
                                       false, false, log));
    EXPECT_EQ(stuck.reason, "no compatible INI for this card");
}

TEST(ChmgrctlSlotView, FailedIniProgrammingIsNamed) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("ERR", "18:54:59", "Unable to apply INI"));
    EXPECT_EQ(view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED | ", "powered", "KTR9600-C16", false, false, log)).reason,
              "INI programming failed for this card");
}

TEST(ChmgrctlSlotView, StuckWithoutALoggedCauseNamesTheStage) {
    SlotView view = view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED |SLOT_POWERED |ERR ", "synced", "KTR9600-C16",
                                      false, false, ""));
    EXPECT_EQ(view.reason, "stuck at POWERED after 240 tries");
}

TEST(ChmgrctlSlotView, DirtyLineAfterTheRendezvousMeansTheReloadFailed) {
    SlotContext context;
    context.dirty = 1;
    context.daemon_log = {daemon_line("ERR", "18:55:01", "process systemctl reload portd exited with 1 error code")};
    SlotView active = view_in(slot_json(kAllStages, "empty", "KTR9600-C16", false, false, ""), context);
    EXPECT_EQ(active.oper_state, "Operational");
    EXPECT_EQ(active.reason, "ports not taken by portd (reload failed at 2026-11-22 18:55:01)");
    EXPECT_EQ(view_in(slot_json(kSyncedPowered, "ready", "KTR9600-C16", false, false, ""), context).reason,
              "ports not taken by portd (reload failed at 2026-11-22 18:55:01)");
    /* Recorded dirty and about to park, or parked: the reload has not run yet. */
    EXPECT_EQ(view_in(slot_json(kSyncedPowered, "synced", "KTR9600-C16", false, false, ""), context).reason,
              "waiting for synced");
    context.dirty = 0;
    EXPECT_EQ(view_in(slot_json(kAllStages, "empty", "KTR9600-C16", false, false, ""), context).reason, "");
}

TEST(ChmgrctlSlotView, FailedReloadWhoseLineLeftTheLogTakesTheSlotsOwnReloadTime) {
    std::string log = quoted(ring("INFO", "18:55:02", "portd reloaded"));
    SlotContext context;
    context.dirty = 1;
    EXPECT_EQ(view_in(slot_json(kAllStages, "empty", "KTR9600-C16", false, false, log), context).reason,
              "ports not taken by portd (reload failed at 2026-11-22 18:55:02)");
    EXPECT_EQ(view_in(slot_json(kAllStages, "empty", "KTR9600-C16", false, false, ""), context).reason,
              "ports not taken by portd (reload failed)");
}

TEST(ChmgrctlSlotView, FailedPreProvisioningKeepsTheTypeItAskedFor) {
    std::string log = quoted(ring("INFO", "18:54:58", "Received CTL cmd PRE_PROVISION_ENABLE")) + "," +
                      quoted(ring("INFO", "18:54:58",
                                  "INI in slot FW: card type = 0, HW revision fw = 0, Minor fw = 0,: From eeprom card "
                                  "type = 1"));
    SlotView view = view_of(slot_json("SLOT_SYNCED | ", "present", "none", true, false, log), 0);
    EXPECT_EQ(view.provisioned_type, "C4");
}

TEST(ChmgrctlSlotView, UnsupportedCardHasItsPartNumberField) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("ERR", "18:54:58", "Unsupported line card inserted(vpd_value = KTR9600-X9)"));
    EXPECT_EQ(view_of(slot_json("SLOT_PRESENT | ", "present", "none", false, false, log)).part_number, "KTR9600-X9");
    EXPECT_EQ(view_of(slot_json(kAllStages, "empty", "KTR9600-C16", false, false, "")).part_number, "");
}

TEST(ChmgrctlSlotView, IniFailureBeforeTheLastVerificationIsHistory) {
    std::string log = quoted(ring("INFO", "18:54:58", "Transitioned from 0 to SLOT_PRESENT")) + "," +
                      quoted(ring("INFO", "18:54:58", "Transitioned from 1 to SLOT_VERIFIED")) + "," +
                      quoted(ring("ERR", "18:54:59", "Not able to find compatible INI")) + "," +
                      quoted(ring("INFO", "18:56:00", "Transitioned from 5 to SLOT_VERIFIED"));
    EXPECT_EQ(view_of(slot_json("SLOT_PRESENT |SLOT_VERIFIED |SLOT_SYNCED | ", "powered", "KTR9600-C16", false,
                                false, log))
                  .reason,
              "waiting for powered since 2026-11-22 18:56:00");
}

TEST(ChmgrctlSlotView, EarliestLogTimeIsTheFirstLineThatReads) {
    SlotView view;
    EXPECT_EQ(earliest_log_time(view), 0);
    view.log = {"not a log line", "[SLOT2:INFO]1795373698.183763 2026-11-22 18:54:58 file.cpp:12 Event received",
                "[SLOT2:INFO]1795373699.000001 2026-11-22 18:54:59 file.cpp:12 Event received"};
    EXPECT_EQ(earliest_log_time(view), 1795373698.183763);
}
