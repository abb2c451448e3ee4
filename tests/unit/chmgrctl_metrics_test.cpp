// chmgrctl metrics: the exposition text of a collection, label escaping,
// the text of a collection the daemon did not answer, and the atomic
// textfile write.
#include <gtest/gtest.h>

#include <dirent.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ctl_metrics.h"
#include "ctl_output.h"
#include "json_test_support.h"

using chmgr_test::Tree;
using namespace chmgrctl;

namespace {

constexpr double kCollectedAt = 1795373700.25;

std::string ring(int slot, double epoch, const std::string &message) {
    char head[96];
    snprintf(head, sizeof head, "[SLOT%d:INFO]%.6f 2026-11-22 13:35:00 file.cpp:12 ", slot, epoch);
    return head + message;
}

SlotView operational_slot() {
    SlotView view;
    view.slot = 1;
    view.oper_state = "Operational";
    view.card_type = "KTR9600-C16";
    view.serial_no = "SN00000001";
    view.hw_revision = 2;
    view.ports = 16;
    view.stage = STAGE_ACTIVE;
    view.up_time_s = 100;
    view.stage_since = 1795373600.5;
    return view;
}

SlotView empty_slot() {
    SlotView view;
    view.slot = 2;
    view.oper_state = "Empty";
    view.card_type = "none";
    view.serial_no = "none";
    view.disabled = true;
    view.reason = "disabled by the administrator";
    return view;
}

SlotView stuck_slot() {
    SlotView view;
    view.slot = 4;
    view.oper_state = "Offline";
    view.card_type = "KTR9600-C4";
    view.serial_no = "SN00000004";
    view.hw_revision = 1;
    view.ports = 4;
    view.stage = STAGE_VERIFIED;
    view.stuck = true;
    view.stage_since = 1795373000.125;
    view.reason = "stuck at VERIFIED after 240 tries";
    return view;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct TempDir {
    std::string path;
    TempDir() {
        char name[] = "/tmp/chmgrctl_metrics_test.XXXXXX";
        path = mkdtemp(name);
    }
    ~TempDir() {
        std::string command = "rm -rf '" + path + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        DIR *dir = opendir(path.c_str());
        for (struct dirent *entry; dir && (entry = readdir(dir));)
            if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..") names.push_back(entry->d_name);
        if (dir) closedir(dir);
        return names;
    }
};

}  // namespace

TEST(ChmgrctlMetrics, ExpositionOfACollection) {
    std::string text = metrics_text(true, kCollectedAt, {operational_slot(), empty_slot(), stuck_slot()});
    EXPECT_EQ(text,
              "# HELP chassis_mgr_up 1 when chassis-mgr answered this collection, 0 when it did not.\n"
              "# TYPE chassis_mgr_up gauge\n"
              "chassis_mgr_up 1\n"
              "# HELP chassis_mgr_collection_timestamp_seconds When this collection was made, in seconds since the "
              "epoch.\n"
              "# TYPE chassis_mgr_collection_timestamp_seconds gauge\n"
              "chassis_mgr_collection_timestamp_seconds 1795373700.250\n"
              "# HELP chassis_mgr_slot_oper_state Operational state of the slot, one series per state: the current "
              "one is 1.\n"
              "# TYPE chassis_mgr_slot_oper_state gauge\n"
              "chassis_mgr_slot_oper_state{slot=\"1\",state=\"empty\"} 0\n"
              "chassis_mgr_slot_oper_state{slot=\"1\",state=\"offline\"} 0\n"
              "chassis_mgr_slot_oper_state{slot=\"1\",state=\"operational\"} 1\n"
              "chassis_mgr_slot_oper_state{slot=\"2\",state=\"empty\"} 1\n"
              "chassis_mgr_slot_oper_state{slot=\"2\",state=\"offline\"} 0\n"
              "chassis_mgr_slot_oper_state{slot=\"2\",state=\"operational\"} 0\n"
              "chassis_mgr_slot_oper_state{slot=\"4\",state=\"empty\"} 0\n"
              "chassis_mgr_slot_oper_state{slot=\"4\",state=\"offline\"} 1\n"
              "chassis_mgr_slot_oper_state{slot=\"4\",state=\"operational\"} 0\n"
              "# HELP chassis_mgr_slot_admin_enabled 1 when the slot is enabled, 0 when the administrator disabled "
              "it.\n"
              "# TYPE chassis_mgr_slot_admin_enabled gauge\n"
              "chassis_mgr_slot_admin_enabled{slot=\"1\"} 1\n"
              "chassis_mgr_slot_admin_enabled{slot=\"2\"} 0\n"
              "chassis_mgr_slot_admin_enabled{slot=\"4\"} 1\n"
              "# HELP chassis_mgr_slot_stage Bring-up stages the slot's card has reached: 0 none, 1 PRESENT, 2 "
              "VERIFIED, 3 POWERED, 4 SYNCED, 5 READY, 6 ACTIVE.\n"
              "# TYPE chassis_mgr_slot_stage gauge\n"
              "chassis_mgr_slot_stage{slot=\"1\"} 6\n"
              "chassis_mgr_slot_stage{slot=\"2\"} 0\n"
              "chassis_mgr_slot_stage{slot=\"4\"} 2\n"
              "# HELP chassis_mgr_slot_stuck 1 when chassis-mgr gave up waiting for the slot's next stage.\n"
              "# TYPE chassis_mgr_slot_stuck gauge\n"
              "chassis_mgr_slot_stuck{slot=\"1\"} 0\n"
              "chassis_mgr_slot_stuck{slot=\"2\"} 0\n"
              "chassis_mgr_slot_stuck{slot=\"4\"} 1\n"
              "# HELP chassis_mgr_slot_stage_entered_timestamp_seconds When the slot entered its current stage "
              "(best known), in seconds since the epoch.\n"
              "# TYPE chassis_mgr_slot_stage_entered_timestamp_seconds gauge\n"
              "chassis_mgr_slot_stage_entered_timestamp_seconds{slot=\"1\"} 1795373600.500\n"
              "chassis_mgr_slot_stage_entered_timestamp_seconds{slot=\"4\"} 1795373000.125\n"
              "# HELP chassis_mgr_slot_up_since_timestamp_seconds When the slot's card went into service, in "
              "seconds since the epoch; operational slots only.\n"
              "# TYPE chassis_mgr_slot_up_since_timestamp_seconds gauge\n"
              "chassis_mgr_slot_up_since_timestamp_seconds{slot=\"1\"} 1795373600\n"
              "# HELP chassis_mgr_slot_ports Ports of the slot's card, 0 when the slot has none.\n"
              "# TYPE chassis_mgr_slot_ports gauge\n"
              "chassis_mgr_slot_ports{slot=\"1\"} 16\n"
              "chassis_mgr_slot_ports{slot=\"2\"} 0\n"
              "chassis_mgr_slot_ports{slot=\"4\"} 4\n"
              "# HELP chassis_mgr_slot_info Identity of the card in the slot; always 1, slots with a card only.\n"
              "# TYPE chassis_mgr_slot_info gauge\n"
              "chassis_mgr_slot_info{slot=\"1\",card_type=\"KTR9600-C16\",part_number=\"KTR9600-C16\","
              "serial=\"SN00000001\",hw_revision=\"2\"} 1\n"
              "chassis_mgr_slot_info{slot=\"4\",card_type=\"KTR9600-C4\",part_number=\"KTR9600-C4\","
              "serial=\"SN00000004\",hw_revision=\"1\"} 1\n"
              "# HELP chassis_mgr_slot_reason_info Why the slot is not in service, in plain words; always 1, slots "
              "not operational only.\n"
              "# TYPE chassis_mgr_slot_reason_info gauge\n"
              "chassis_mgr_slot_reason_info{slot=\"2\",reason=\"disabled by the administrator\"} 1\n"
              "chassis_mgr_slot_reason_info{slot=\"4\",reason=\"stuck at VERIFIED after 240 tries\"} 1\n");
}

TEST(ChmgrctlMetrics, UnansweredCollectionGivesUpZeroAndTheTimeOnly) {
    EXPECT_EQ(metrics_text(false, kCollectedAt, {operational_slot()}),
              "# HELP chassis_mgr_up 1 when chassis-mgr answered this collection, 0 when it did not.\n"
              "# TYPE chassis_mgr_up gauge\n"
              "chassis_mgr_up 0\n"
              "# HELP chassis_mgr_collection_timestamp_seconds When this collection was made, in seconds since the "
              "epoch.\n"
              "# TYPE chassis_mgr_collection_timestamp_seconds gauge\n"
              "chassis_mgr_collection_timestamp_seconds 1795373700.250\n");
}

TEST(ChmgrctlMetrics, LabelValuesAreEscaped) {
    EXPECT_EQ(label_value("SN\"1"), "\"SN\\\"1\"");
    EXPECT_EQ(label_value("SN\\1"), "\"SN\\\\1\"");
    EXPECT_EQ(label_value("SN\n1"), "\"SN\\n1\"");
    EXPECT_EQ(label_value(std::string("S\tN\r\x01\x7f" "1", 7)), "\"S?N???1\"");
    EXPECT_EQ(label_value("S\xff\xfe"), "\"S??\"");        // not UTF-8
    EXPECT_EQ(label_value("S\xc3\xa9rie"), "\"S\xc3\xa9rie\"");  // UTF-8 kept
}

TEST(ChmgrctlMetrics, OddSerialInTheInfoSeries) {
    SlotView view = stuck_slot();
    view.serial_no = "A\"B\\C\nD\x02";
    std::string text = metrics_text(true, kCollectedAt, {view});
    EXPECT_NE(text.find("serial=\"A\\\"B\\\\C\\nD?\""), std::string::npos) << text;
}

TEST(ChmgrctlMetrics, SerialOfThirtyTwoCharactersFromAShowRecord) {
    // The show record's serial field is 32 bytes and not terminated when full.
    unsigned char field[32];
    memset(field, 'Z', sizeof field);
    field[5] = '"';
    SlotView view = stuck_slot();
    view.serial_no = field_text(field, sizeof field);
    ASSERT_EQ(view.serial_no.size(), 32u);
    std::string text = metrics_text(true, kCollectedAt, {view});
    EXPECT_NE(text.find("serial=\"ZZZZZ\\\"ZZZZZZZZZZZZZZZZZZZZZZZZZZ\""), std::string::npos) << text;
}

TEST(ChmgrctlMetrics, UnsupportedCardNamesThePartNumberFromTheLog) {
    SlotView view = stuck_slot();
    view.card_type = "none";
    view.ports = 0;
    view.log = {ring(4, 1795373000.0, "Transitioned from 0 to SLOT_PRESENT"),
                ring(4, 1795373000.1, "Unsupported line card inserted(vpd_value = KTR9600-X9)")};
    std::string text = metrics_text(true, kCollectedAt, {view});
    EXPECT_NE(text.find("{slot=\"4\",card_type=\"none\",part_number=\"KTR9600-X9\","), std::string::npos) << text;
}

TEST(ChmgrctlMetrics, StageTimeFallsBackToUpTimeThenToTheEarliestLogLine) {
    SlotView active = operational_slot();
    active.stage_since = 0;
    SlotView offline = stuck_slot();
    offline.stage_since = 0;
    offline.log = {ring(4, 1795372000.5, "slot state stuck and not changing state MAX tries = 240"),
                   ring(4, 1795372999.0, "Already in present state")};
    SlotView unknown = stuck_slot();
    unknown.slot = 5;
    unknown.stage_since = 0;
    std::string text = metrics_text(true, kCollectedAt, {active, offline, unknown});
    EXPECT_NE(text.find("chassis_mgr_slot_stage_entered_timestamp_seconds{slot=\"1\"} 1795373600.000\n"),
              std::string::npos);
    EXPECT_NE(text.find("chassis_mgr_slot_stage_entered_timestamp_seconds{slot=\"4\"} 1795372000.500\n"),
              std::string::npos);
    EXPECT_EQ(text.find("chassis_mgr_slot_stage_entered_timestamp_seconds{slot=\"5\"}"), std::string::npos);
}

TEST(ChmgrctlMetrics, ReasonIsTheOneTheShowCommandGives) {
    Tree tree(json_decode("{\"SLOT\": 3, \"STATE\": \"SLOT_PRESENT |SLOT_VERIFIED |ERR \", \"Exp Event\": "
                          "\"powered\", \"Card Type\": \"KTR9600-C16\", \"Provisioned\": false, \"Disabled\": false, "
                          "\"Serial No\": \"SN3\", \"Log\": []}"));
    ASSERT_NE(tree.node, nullptr);
    SlotView view;
    build_slot_view(nullptr, tree.node, -1, &view);
    ASSERT_FALSE(view.reason.empty());
    std::string text = metrics_text(true, kCollectedAt, {view});
    EXPECT_NE(text.find("chassis_mgr_slot_reason_info{slot=\"3\",reason=" + label_value(view.reason) + "} 1\n"),
              std::string::npos)
        << text;
}

TEST(ChmgrctlMetrics, TextfileIsReplacedWithMode0644AndNoTemporaryLeft) {
    TempDir dir;
    std::string path = dir.path + "/chassis_mgr.prom";
    mode_t old_mask = umask(077);
    std::string error;
    ASSERT_TRUE(write_textfile(path, "first\n", &error)) << error;
    ASSERT_TRUE(write_textfile(path, "second\n", &error)) << error;
    umask(old_mask);
    EXPECT_EQ(read_file(path), "second\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"chassis_mgr.prom"});
}

TEST(ChmgrctlMetrics, TextfileIsRenamedIntoPlaceNotRewritten) {
    // A reader holding the old file keeps reading the old text whole.
    TempDir dir;
    std::string path = dir.path + "/chassis_mgr.prom";
    std::string error;
    ASSERT_TRUE(write_textfile(path, "old\n", &error)) << error;
    std::ifstream reader(path);
    struct stat before, after;
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    ASSERT_TRUE(write_textfile(path, "new\n", &error)) << error;
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
    std::string line;
    std::getline(reader, line);
    EXPECT_EQ(line, "old");
}

TEST(ChmgrctlMetrics, TextfileFailureLeavesTheOldFileAndNoTemporary) {
    TempDir dir;
    std::string path = dir.path + "/chassis_mgr.prom";
    std::string error;
    ASSERT_TRUE(write_textfile(path, "old\n", &error)) << error;
    // A directory in the way of the rename.
    std::string blocked = dir.path + "/blocked.prom";
    ASSERT_EQ(mkdir(blocked.c_str(), 0755), 0);
    std::string blocker = blocked + "/x";
    ASSERT_EQ(mkdir(blocker.c_str(), 0755), 0);
    EXPECT_FALSE(write_textfile(blocked, "new\n", &error));
    EXPECT_NE(error.find("cannot rename"), std::string::npos) << error;
    std::vector<std::string> entries = dir.entries();
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(entries, (std::vector<std::string>{"blocked.prom", "chassis_mgr.prom"}));
    EXPECT_FALSE(write_textfile(dir.path + "/missing/chassis_mgr.prom", "x\n", &error));
    EXPECT_NE(error.find("cannot create a temporary file for"), std::string::npos) << error;
    EXPECT_EQ(read_file(path), "old\n");
}

TEST(ChmgrctlMetrics, TemporaryFileIsHiddenBesideTheFileAndNotAProm) {
    EXPECT_EQ(textfile_temporary_template("/var/lib/prometheus/node-exporter/chassis_mgr.prom"),
              "/var/lib/prometheus/node-exporter/.chassis_mgr.prom.XXXXXX");
    EXPECT_EQ(textfile_temporary_template("chassis_mgr.prom"), ".chassis_mgr.prom.XXXXXX");
}
