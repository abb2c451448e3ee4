/*
 * Line-card administration commands, driven through their handlers with
 * the request in g_ctl_resp_buf.  Everything they touch is real and lives in
 * a sandbox root: cards.conf, the event and power files, the simulated SDK,
 * and a stand-in `systemctl` put first on PATH that records its arguments
 * and exits with a chosen code.
 */
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <string>
#include <vector>

#include "test_support.h"

using namespace chmgr_test;
using namespace std::string_literals;

namespace {

const char *const kConf = "/etc/tarnel/cards.conf";
const std::string kBadSlotText = "Bad slot received from CTL cmd";
const std::string kActiveCardText = "Remove active card or disable the slot before pre-provisioning";

std::string conf_line(int slot, int detected, int provisioned, int configured, int dirty, bool online,
                      bool disabled) {
    char line[160];
    snprintf(line, sizeof line, "%d       %dG        %dG               %3dG        %d  %s   %s\n", slot, detected,
             provisioned, configured, dirty, online ? "Online" : "Offline", disabled ? "disable" : "enable");
    return line;
}

/* Every slot empty, offline and enabled, with `changed` in place of its slot's line. */
std::string conf_with(int slot, const std::string &changed) {
    std::string text;
    for (int s = 1; s <= 8; ++s) text += s == slot ? changed : conf_line(s, 0, 0, 0, 0, false, false);
    return text;
}

void put_request(uint32_t cmd, uint32_t slot_no, uint32_t card_type = 0, uint32_t seq = 11, uint32_t len = 24) {
    ctlCmdHeader header = {cmd, len, seq, slot_no, 0x7777, card_type};
    memcpy(g_ctl_resp_buf, &header, sizeof header);
}

ctlCmdHeader reply_header() {
    ctlCmdHeader header;
    memcpy(&header, g_ctl_resp_buf, sizeof header);
    return header;
}

std::string status_str() { return std::string((const char *)g_ctl_resp_buf + 24, 128); }

std::string padded(const std::string &text) {
    std::string out = text;
    out.resize(128, '\0');
    return out;
}

std::string slot_line(int slot, const char *level, const std::string &message) {
    return "[SLOT" + std::to_string(slot) + ":" + level + "]<T> ctl_admin.cpp:<N> " + message;
}

std::string global_line(const char *level, const std::string &file, const std::string &message) {
    return "["s + level + "]<T> " + file + ":<N> " + message;
}

bool contains(const std::vector<std::string> &lines, const std::string &line) {
    for (const auto &l : lines)
        if (l == line) return true;
    return false;
}

class CtlAdminTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        root.all_events("0");
        root.write(kConf, conf_with(0, ""));
        root.write("/etc/brl/chmgr_ports_list.txt", "");
        for (int s = 1; s <= 8; ++s) root.write("/var/run/hw-management/system/lc" + std::to_string(s) + "_pwr", "1");
        saved_path_ = getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin";
        root.write("/bin/systemctl", "#!/bin/sh\n"
                                     "echo \"$*\" >> \"$(dirname \"$0\")/systemctl.calls\"\n"
                                     "rc=0\n"
                                     "[ -r \"$(dirname \"$0\")/systemctl.rc\" ] && read -r rc < \"$(dirname \"$0\")/systemctl.rc\"\n"
                                     "exit \"$rc\"\n");
        chmod(root.at("/bin/systemctl").c_str(), 0755);
        setenv("PATH", (root.at("/bin") + ":" + saved_path_).c_str(), 1);
        memset(g_ctl_resp_buf, 0, sizeof g_ctl_resp_buf);
    }
    void TearDown() override { setenv("PATH", saved_path_.c_str(), 1); }

    std::vector<std::string> systemctl_calls() const {
        std::vector<std::string> calls;
        std::string text = root.read("/bin/systemctl.calls");
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            calls.push_back(text.substr(start, end - start));
            start = end + 1;
        }
        return calls;
    }
    void systemctl_exits_with(int code) const { root.write("/bin/systemctl.rc", std::to_string(code) + "\n"); }

    void sim(const std::string &file, const std::string &content) const { root.write("/var/run/ks-sim/" + file, content); }

    /* An INI for the 16-port card shipped with the SDK for the running kernel. */
    void ship_ini_for_sixteen_port_card() const {
        struct utsname names;
        uname(&names);
        std::string image = "\x05\x00\x00\x02\x02"s + std::string(1200, '\x5a');
        root.write("/usr/share/borlin/firmware/"s + names.release + "/INI/Buff_KTR9600-C16_INI_EPROM_v1.bin", image);
    }

    /* A powered, enabled 16-port card that went all the way to active. */
    void active_card(int slot_id) const {
        slotInfo *slot = &g_slots_info[slot_id - 1];
        slot->current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_SYNCED | SLOT_POWERED | SLOT_READY | SLOT_ACTIVE;
        slot->card_type = CARD_TYPE_16X100G;
        sim("slot" + std::to_string(slot_id) + "/ini_identity", "3 2 5\n");
    }

    ctlReply run(bool (*handler)(ctlReply *)) {
        ctlReply reply = {nullptr, 0};
        EXPECT_TRUE(handler(&reply));
        EXPECT_EQ(reply.data, (const void *)g_ctl_resp_buf);
        EXPECT_EQ(reply.size, 1024u);
        return reply;
    }

    SandboxRoot root;
    std::string saved_path_;
};

/* ---------------------------------------------------------------- enable */

TEST_F(CtlAdminTest, EnableOfSlotZeroAnswersSuccessAndChangesNothing) {
    for (int s = 1; s <= 8; ++s) g_slots_info[s - 1].disabled = 1;
    put_request(LINECARD_ENABLE, 0, 0, 11, 24);
    run(ctl_linecard_enable);

    ctlCmdHeader header = reply_header();
    EXPECT_EQ(header.status, 0u);
    EXPECT_EQ(header.len, 24u);
    EXPECT_EQ(header.cmd, 3u);
    EXPECT_EQ(header.seq, 11u);
    for (int s = 1; s <= 8; ++s) EXPECT_EQ((int)g_slots_info[s - 1].disabled, 1) << s;
    EXPECT_EQ(root.read(kConf), conf_with(0, ""));
    EXPECT_EQ(all_rings_text(), global_line("INFO", "ctl_admin.cpp", "Received CTL cmd LINECARD_ENABLE\n"));
}

TEST_F(CtlAdminTest, EnableOfSlotNineAnswersFailureWithoutALogLine) {
    for (uint32_t slot_no : {9u, 254u, 256u, 0xFFFFFFFFu}) {
        clear_log_rings();
        put_request(LINECARD_ENABLE, slot_no, 0, 11, 0x400);
        run(ctl_linecard_enable);
        ctlCmdHeader header = reply_header();
        EXPECT_EQ(header.status, (uint32_t)CTL_UNKNOWN_FAILURE) << slot_no;
        EXPECT_EQ(header.len, 0x400u);  // the request's own len, unchanged
        EXPECT_EQ(status_str(), padded(kBadSlotText));
        EXPECT_EQ(all_rings_text(), global_line("INFO", "ctl_admin.cpp", "Received CTL cmd LINECARD_ENABLE\n"));
    }
}

TEST_F(CtlAdminTest, EnableClearsDisabledAndRecordsItInCardsConf) {
    g_slots_info[1].disabled = 1;
    root.write(kConf, conf_with(2, conf_line(2, 0, 0, 0, 0, false, true)));
    put_request(LINECARD_ENABLE, 2);
    run(ctl_linecard_enable);

    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ((int)g_slots_info[1].disabled, 0);
    EXPECT_EQ(root.read(kConf), conf_with(0, ""));
    EXPECT_EQ(g_slots_info[1].current_state, 0);  // no card: no presence transition
}

TEST_F(CtlAdminTest, EnableOfSlotWithACardRunsThePresenceTransitionAtOnce) {
    g_slots_info[1].disabled = 1;
    root.event(2, "present", "1");
    put_request(LINECARD_ENABLE, 2);
    run(ctl_linecard_enable);

    EXPECT_TRUE(g_slots_info[1].current_state & SLOT_PRESENT);
    ASSERT_FALSE(ring_lines(2).empty());
    EXPECT_EQ(normalized_ring(2)[0], "[SLOT2:INFO]<T> transitions_detect.cpp:<N> Transitioned from 0 to SLOT_PRESENT\n");
}

TEST_F(CtlAdminTest, EnableOfSyncedSlotRecordsSyncedAgain) {
    root.event(4, "synced", "1");
    put_request(LINECARD_ENABLE, 4);
    run(ctl_linecard_enable);
    EXPECT_EQ(g_slots_info[3].current_state, SLOT_SYNCED);
    EXPECT_EQ(normalized_ring(4), (std::vector<std::string>{"[SLOT4:INFO]<T> slot_model.cpp:<N> Synced during bootup\n"}));
}

TEST_F(CtlAdminTest, EnableOfAllSlotsEnablesEverySlot) {
    std::string all_disabled;
    for (int s = 1; s <= 8; ++s) {
        g_slots_info[s - 1].disabled = 1;
        all_disabled += conf_line(s, 0, 0, 0, 0, false, true);
    }
    root.write(kConf, all_disabled);
    put_request(LINECARD_ENABLE, CTL_ALL_SLOTS);
    run(ctl_linecard_enable);
    for (int s = 1; s <= 8; ++s) EXPECT_EQ((int)g_slots_info[s - 1].disabled, 0) << s;
    EXPECT_EQ(root.read(kConf), conf_with(0, ""));
}

TEST_F(CtlAdminTest, SuccessAfterAFailureStillCarriesTheOldTextWithStatusZero) {
    put_request(LINECARD_ENABLE, 9);
    run(ctl_linecard_enable);
    ASSERT_EQ(status_str(), padded(kBadSlotText));
    put_request(LINECARD_ENABLE, 1);
    run(ctl_linecard_enable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ(status_str(), padded(kBadSlotText));
}

/* ---------------------------------------------------------------- disable */

TEST_F(CtlAdminTest, DisablePowersOffClearsBringUpBitsAndRecordsIt) {
    active_card(4);
    put_request(LINECARD_DISABLE, 4, 0, 11, 24);
    run(ctl_linecard_disable);

    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ(reply_header().len, 24u);
    EXPECT_EQ((int)g_slots_info[3].disabled, 1);
    EXPECT_EQ(g_slots_info[3].current_state, SLOT_PRESENT | SLOT_SYNCED);
    EXPECT_EQ(root.read("/var/run/hw-management/system/lc4_pwr"), "10\n");
    EXPECT_EQ(root.read(kConf), conf_with(4, conf_line(4, 0, 0, 0, 0, false, true)));
    EXPECT_EQ(systemctl_calls(), (std::vector<std::string>{"reload envd"}));
    EXPECT_EQ(normalized_ring(4), (std::vector<std::string>{
                                      slot_line(4, "INFO", "Disable\n"),
                                      slot_line(4, "INFO", "un-ready state after 0 iterations\n"),
                                  }));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      global_line("INFO", "ctl_admin.cpp", "Received CTL cmd LINECARD_DISABLE\n"),
                                  }));
}

TEST_F(CtlAdminTest, DisableWaitsUntilTheCardReportsUnready) {
    active_card(2);
    sim("slot2/ready_script", "1 1 0\n");
    put_request(LINECARD_DISABLE, 2);
    run(ctl_linecard_disable);
    EXPECT_TRUE(contains(normalized_ring(2), slot_line(2, "INFO", "un-ready state after 2 iterations\n")));
}

TEST_F(CtlAdminTest, DisableOfACardThatStaysReadyLogsBothErrorsAndGoesOn) {
    active_card(5);
    sim("slot5/ready", "1");
    put_request(LINECARD_DISABLE, 5);
    run(ctl_linecard_disable);

    EXPECT_EQ(normalized_ring(5), (std::vector<std::string>{
                                      slot_line(5, "INFO", "Disable\n"),
                                      slot_line(5, "ERR", "FW unable to move to un-ready state\n"),
                                      slot_line(5, "ERR", "state not changing to un-ready\n"),
                                  }));
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ(g_slots_info[4].current_state, SLOT_PRESENT | SLOT_SYNCED);
    EXPECT_EQ(root.read(kConf), conf_with(5, conf_line(5, 0, 0, 0, 0, false, true)));
    EXPECT_EQ(systemctl_calls(), (std::vector<std::string>{"reload envd"}));
}

TEST_F(CtlAdminTest, DisableJudgesTheFailedPowerCommandAfterTheEnvdReload) {
    active_card(6);
    std::string power = root.at("/var/run/hw-management/system/lc6_pwr");
    unlink(power.c_str());
    mkdir(power.c_str(), 0755);  // "echo 0 >> DIR" fails in the shell
    put_request(LINECARD_DISABLE, 6);
    run(ctl_linecard_disable);

    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ(normalized_ring(0),
              (std::vector<std::string>{
                  global_line("INFO", "ctl_admin.cpp", "Received CTL cmd LINECARD_DISABLE\n"),
                  global_line("ERR", "shell_command.cpp", "process echo 0 >> " + power + " exited with 2 error code\n"),
              }));
    EXPECT_EQ(systemctl_calls(), (std::vector<std::string>{"reload envd"}));
}

TEST_F(CtlAdminTest, DisableOfSlotNineAnswersFailureWithoutALogLine) {
    put_request(LINECARD_DISABLE, 9);
    run(ctl_linecard_disable);
    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded(kBadSlotText));
    EXPECT_EQ(all_rings_text(), global_line("INFO", "ctl_admin.cpp", "Received CTL cmd LINECARD_DISABLE\n"));
}

TEST_F(CtlAdminTest, DisableOfSlotZeroChangesNothing) {
    active_card(1);
    put_request(LINECARD_DISABLE, 0);
    run(ctl_linecard_disable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ((int)g_slots_info[0].disabled, 0);
    EXPECT_EQ(root.read(kConf), conf_with(0, ""));
    EXPECT_TRUE(systemctl_calls().empty());
}

TEST_F(CtlAdminTest, DisableOfAllSlotsTakesThemInSlotOrder) {
    for (int s = 1; s <= 8; ++s) active_card(s);
    put_request(LINECARD_DISABLE, CTL_ALL_SLOTS);
    run(ctl_linecard_disable);
    std::string expected;
    for (int s = 1; s <= 8; ++s) {
        EXPECT_EQ(g_slots_info[s - 1].current_state, SLOT_PRESENT | SLOT_SYNCED) << s;
        expected += conf_line(s, 0, 0, 0, 0, false, true);
    }
    EXPECT_EQ(root.read(kConf), expected);
    EXPECT_EQ(systemctl_calls().size(), 8u);
}

TEST_F(CtlAdminTest, SetLinecardDisableHasNoEnablingForm) {
    EXPECT_FALSE(set_linecard_disable(3, false));
    EXPECT_EQ(all_rings_text(), "");
    EXPECT_EQ(root.read("/var/run/hw-management/system/lc3_pwr"), "1");
}

/* ---------------------------------------------------------------- pre-provision */

TEST_F(CtlAdminTest, PreProvisionOfCardTypeTwoIsRefused) {
    put_request(PRE_PROVISION_ENABLE, 3, 2);
    run(ctl_pre_provision_enable);

    ctlCmdHeader header = reply_header();
    EXPECT_EQ(header.status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(header.card_type, 2u);
    EXPECT_EQ(status_str(), padded("Attempting to pre-provision unsupported card type"));
    EXPECT_EQ((int)g_slots_info[2].provisioned, 0);
    EXPECT_EQ(normalized_ring(3),
              (std::vector<std::string>{
                  slot_line(3, "INFO", "Received CTL cmd PRE_PROVISION_ENABLE\n"),
                  slot_line(3, "ERR", "Attempting to pre-provision unsupported card type, requested type = 2"),
              }));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      global_line("INFO", "ctl_admin.cpp", "Received CTL cmd PRE_PROVISION_ENABLE\n"),
                                      global_line("INFO", "ctl_admin.cpp", "sending response to client\n"),
                                  }));
}

TEST_F(CtlAdminTest, PreProvisionOfOtherUnknownTypesIsRefused) {
    for (uint32_t type : {0u, 4u, 0xFFFFFFFFu}) {
        put_request(PRE_PROVISION_ENABLE, 3, type);
        run(ctl_pre_provision_enable);
        EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE) << type;
        EXPECT_EQ(status_str(), padded("Attempting to pre-provision unsupported card type"));
    }
}

TEST_F(CtlAdminTest, PreProvisionOfBadSlotIsLoggedAndRefused) {
    for (uint32_t slot_no : {0u, 9u, 255u}) {
        clear_log_rings();
        put_request(PRE_PROVISION_ENABLE, slot_no, 3);
        run(ctl_pre_provision_enable);
        EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
        EXPECT_EQ(status_str(), padded(kBadSlotText));
        EXPECT_EQ(normalized_ring(0),
                  (std::vector<std::string>{
                      global_line("INFO", "ctl_admin.cpp", "Received CTL cmd PRE_PROVISION_ENABLE\n"),
                      global_line("ERR", "ctl_admin.cpp", "Bad slot(" + std::to_string(slot_no) + ") received from CTL cmd\n"),
                      global_line("INFO", "ctl_admin.cpp", "sending response to client\n"),
                  }));
    }
}

TEST_F(CtlAdminTest, PreProvisionOfPoweredEnabledSlotIsRefusedUntilDisabled) {
    active_card(2);
    root.write(kConf, conf_with(2, conf_line(2, 100, 0, 100, 0, true, false)));
    root.event(2, "synced", "1");
    put_request(PRE_PROVISION_ENABLE, 2, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded(kActiveCardText));
    EXPECT_TRUE(contains(normalized_ring(2), slot_line(2, "ERR", "Cannot pre-provision with active card in slot\n")));
    EXPECT_EQ((int)g_slots_info[1].provisioned, 0);

    put_request(LINECARD_DISABLE, 2);
    run(ctl_linecard_disable);
    clear_log_rings();
    put_request(PRE_PROVISION_ENABLE, 2, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ((int)g_slots_info[1].provisioned, 1);
    EXPECT_EQ((int)g_slots_info[1].provisioned_type, 3);
    EXPECT_TRUE(g_slots_info[1].current_state & SLOT_SYNCED);
}

TEST_F(CtlAdminTest, PreProvisionOfPoweredButDisabledSlotIsAccepted) {
    active_card(7);
    g_slots_info[6].disabled = 1;
    root.write(kConf, conf_with(7, conf_line(7, 100, 0, 100, 0, false, true)));
    root.event(7, "synced", "1");
    put_request(PRE_PROVISION_ENABLE, 7, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ((int)g_slots_info[6].provisioned, 1);
}

TEST_F(CtlAdminTest, PreProvisionWithoutACompatibleIniFails) {
    put_request(PRE_PROVISION_ENABLE, 1, 1);  // no INI anywhere for the four-port card
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded("Failed to locate and program INI"));
    EXPECT_EQ(normalized_ring(1).back(), slot_line(1, "ERR", "Failed to locate and program INI\n"));
    EXPECT_EQ((int)g_slots_info[0].provisioned, 1);
    EXPECT_EQ((int)g_slots_info[0].provisioned_type, 1);
    EXPECT_FALSE(g_slots_info[0].current_state & SLOT_SYNCED);
}

TEST_F(CtlAdminTest, SyncedFileReadingZeroTimesOutAfterThreeImmediateAttempts) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    g_slots_info[2].current_state = SLOT_SYNCED;
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);

    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded("TIMEOUT: INI programing SYNC event\n"));
    std::vector<std::string> ring = normalized_ring(3);
    ASSERT_GE(ring.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(ring.end() - 3, ring.end()),
              (std::vector<std::string>{
                  slot_line(3, "INFO", "Waiting for SYNCED event\n"),
                  slot_line(3, "INFO", "Waiting for SYNCED event\n"),
                  slot_line(3, "ERR", "TIMEOUT: INI programing SYNC event\n"),
              }));
}

TEST_F(CtlAdminTest, EmptySyncedFileAlsoTimesOut) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    root.event(3, "synced", "");
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(status_str(), padded("TIMEOUT: INI programing SYNC event\n"));
}

TEST_F(CtlAdminTest, SyncedFileStartingWithNulCountsAsSynced) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    root.event(3, "synced", "\0"s);
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_TRUE(g_slots_info[2].current_state & SLOT_SYNCED);
}

TEST_F(CtlAdminTest, SyncedDigitLaterInTheSnapshotCountsOnTheSecondAttempt) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    root.event(3, "synced", "01");
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, 0u);
    std::vector<std::string> ring = normalized_ring(3);
    int waits = 0;
    for (const auto &line : ring) waits += line == slot_line(3, "INFO", "Waiting for SYNCED event\n");
    EXPECT_EQ(waits, 1);
}

TEST_F(CtlAdminTest, UnreadableSyncedFileFailsButLeavesStatusZero) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    root.remove("/var/run/hw-management/events/lc3_synced");
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ(normalized_ring(3).back(),
              slot_line(3, "ERR", "Unable to open file " + root.at("/var/run/hw-management/events/lc3_synced") + "\n"));
}

TEST_F(CtlAdminTest, FittingFirmwareIniNeedsNoReload) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    root.event(3, "synced", "1");
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_TRUE(systemctl_calls().empty());
    EXPECT_EQ((int)g_slots_info[2].in_transition_reload_portd, 0);
}

TEST_F(CtlAdminTest, ProgrammedIniIsFollowedByOneReloadOfPortd) {
    ship_ini_for_sixteen_port_card();
    root.event(3, "synced", "1");
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);

    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ((int)g_slots_info[2].in_transition_reload_portd, 0);
    EXPECT_TRUE(g_slots_info[2].current_state & SLOT_SYNCED);
    EXPECT_EQ(root.read(kConf), conf_with(3, conf_line(3, 100, 100, 100, 0, false, false)));
    EXPECT_EQ(systemctl_calls(), (std::vector<std::string>{"reload portd"}));
    std::vector<std::string> ring = normalized_ring(3);
    ASSERT_GE(ring.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(ring.end() - 2, ring.end()),
              (std::vector<std::string>{slot_line(3, "INFO", "Reloading portd..\n"),
                                        slot_line(3, "INFO", "portd reloaded\n")}));
}

TEST_F(CtlAdminTest, FailedReloadAfterProgrammingKeepsTheDirtyBit) {
    ship_ini_for_sixteen_port_card();
    root.event(3, "synced", "1");
    systemctl_exits_with(1);
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);

    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded("reload portd failed"));
    EXPECT_EQ(root.read(kConf), conf_with(3, conf_line(3, 100, 100, 100, 1, false, false)));
    EXPECT_EQ(normalized_ring(3).back(), slot_line(3, "ERR", "reload portd failed\n"));
}

TEST_F(CtlAdminTest, PreProvisionCalledDirectlyWithABadSlotTouchesNoRecord) {
    put_request(PRE_PROVISION_ENABLE, 9, 3);
    EXPECT_FALSE(pre_provision_cmd((ctlPreProvisionCmd *)g_ctl_resp_buf));
    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded(kBadSlotText));
}

/* ---------------------------------------------------------------- un-provision */

TEST_F(CtlAdminTest, UnprovisionClearsProvisioningAndResetsTheIni) {
    g_slots_info[5].provisioned = 1;
    g_slots_info[5].provisioned_type = 3;
    sim("slot6/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(6, conf_line(6, 0, 100, 100, 0, false, false)));
    put_request(PRE_PROVISION_DISABLE, 6);
    run(ctl_pre_provision_disable);

    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ((int)g_slots_info[5].provisioned, 0);
    EXPECT_EQ((int)g_slots_info[5].provisioned_type, 0);
    EXPECT_EQ(root.read(kConf), conf_with(0, ""));
    EXPECT_EQ(systemctl_calls(), (std::vector<std::string>{"reload portd"}));
    EXPECT_FALSE(root.exists("/var/run/ks-sim/slot6/ini_identity"));
    EXPECT_TRUE(contains(normalized_ring(6), slot_line(6, "INFO", "INI not in-use after 0 poll loop\n")));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      global_line("INFO", "ctl_admin.cpp", "Received CTL cmd PRE_PROVISION_DISABLE\n"),
                                      global_line("INFO", "ctl_admin.cpp", "sending response to client\n"),
                                  }));
}

TEST_F(CtlAdminTest, UnprovisionWithFailingIniResetAnswersSuccessWithTheText) {
    g_slots_info[2].provisioned = 1;
    g_slots_info[2].provisioned_type = 3;
    sim("faults", "ks_mgmt_slot_ini_operation_set 3\n");
    put_request(PRE_PROVISION_DISABLE, 3);
    run(ctl_pre_provision_disable);

    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ(status_str(), padded("INI programming for slot failed"));
    EXPECT_TRUE(contains(normalized_ring(3), slot_line(3, "ERR", "INI programming failed for slot\n")));
    EXPECT_EQ((int)g_slots_info[2].provisioned, 0);
    EXPECT_EQ(root.read(kConf), conf_with(0, ""));  // dirty bit cleared on this path too
}

TEST_F(CtlAdminTest, UnprovisionWithFailingReloadAnswersSuccessWithTheText) {
    systemctl_exits_with(3);
    put_request(PRE_PROVISION_DISABLE, 4);
    run(ctl_pre_provision_disable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_EQ(status_str(), padded("reload portd failed"));
    EXPECT_TRUE(contains(normalized_ring(4), slot_line(4, "ERR", "Reload portd failed\n")));
    /* portd has not taken the change: the slot's line stays dirty. */
    EXPECT_EQ(root.read(kConf), conf_with(4, conf_line(4, 0, 0, 0, 1, false, false)));
}

TEST_F(CtlAdminTest, UnprovisionWaitsForTheIniToGoOutOfUse) {
    sim("slot2/ini_identity", "3 2 5\n");
    sim("slot2/ini_status_script", "3 3 0\n");
    put_request(PRE_PROVISION_DISABLE, 2);
    run(ctl_pre_provision_disable);
    EXPECT_TRUE(contains(normalized_ring(2), slot_line(2, "INFO", "INI not in-use after 2 poll loop\n")));
}

TEST_F(CtlAdminTest, UnprovisionOfIniStillInUseLogsAndGoesOn) {
    sim("slot2/ini_identity", "3 2 5\n");
    sim("slot2/ini_status", "3");
    put_request(PRE_PROVISION_DISABLE, 2);
    run(ctl_pre_provision_disable);
    EXPECT_EQ(reply_header().status, 0u);
    EXPECT_TRUE(contains(normalized_ring(2), slot_line(2, "ERR", "INI is still in use, unable to remove INI\n")));
}

TEST_F(CtlAdminTest, UnprovisionOfPoweredEnabledSlotIsRefused) {
    active_card(5);
    g_slots_info[4].provisioned = 1;
    put_request(PRE_PROVISION_DISABLE, 5);
    run(ctl_pre_provision_disable);
    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded(kActiveCardText));
    EXPECT_EQ((int)g_slots_info[4].provisioned, 1);
    EXPECT_TRUE(systemctl_calls().empty());
    EXPECT_EQ(normalized_ring(0).back(), global_line("INFO", "ctl_admin.cpp", "sending response to client\n"));
}

TEST_F(CtlAdminTest, UnprovisionOfBadSlotIsLoggedAndSentWithoutTheSendingLine) {
    put_request(PRE_PROVISION_DISABLE, 0);
    run(ctl_pre_provision_disable);
    EXPECT_EQ(reply_header().status, (uint32_t)CTL_UNKNOWN_FAILURE);
    EXPECT_EQ(status_str(), padded(kBadSlotText));
    EXPECT_EQ(normalized_ring(0), (std::vector<std::string>{
                                      global_line("INFO", "ctl_admin.cpp", "Received CTL cmd PRE_PROVISION_DISABLE\n"),
                                      global_line("ERR", "ctl_admin.cpp", "Bad slot(0) received from CTL cmd\n"),
                                  }));
}

/* ---------------------------------------------------------------- the reload hold */

TEST_F(CtlAdminTest, FailedPreProvisionDoesNotHoldTheReload) {
    put_request(PRE_PROVISION_ENABLE, 3, 1);  // no INI anywhere for the four-port card
    run(ctl_pre_provision_enable);
    EXPECT_EQ(status_str(), padded("Failed to locate and program INI"));
    EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 0);
}

TEST_F(CtlAdminTest, PreProvisionTimingOutOnSyncedDoesNotHoldTheReload) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(status_str(), padded("TIMEOUT: INI programing SYNC event\n"));
    EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 0);
}

TEST_F(CtlAdminTest, PreProvisionWithUnreadableSyncedFileDoesNotHoldTheReload) {
    sim("slot3/ini_identity", "3 2 5\n");
    root.write(kConf, conf_with(3, conf_line(3, 0, 100, 100, 0, false, false)));
    root.remove("/var/run/hw-management/events/lc3_synced");
    put_request(PRE_PROVISION_ENABLE, 3, 3);
    run(ctl_pre_provision_enable);
    EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 0);
}

TEST_F(CtlAdminTest, UnprovisionOfEmptySlotReleasesTheReloadHold) {
    g_slots_info[2].provisioned = 1;
    g_slots_info[2].provisioned_type = 1;
    g_slots_info[2].in_transition_reload_portd = 1;  // left by an earlier daemon's failed pre-provisioning
    put_request(PRE_PROVISION_DISABLE, 3);
    run(ctl_pre_provision_disable);
    EXPECT_EQ(g_slots_info[2].in_transition_reload_portd, 0);
}

TEST_F(CtlAdminTest, DisableKeepsTheAwaitedEventAndReleasesTheReloadHold) {
    slotInfo *slot = &g_slots_info[3];
    slot->current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED;
    slot->in_transition_reload_portd = 1;
    slot->trans_timer.state_monitored = slot_synced_event;
    slot->trans_timer.transition_timer_hits = TRANSITION_MAX_TRIES;
    put_request(LINECARD_DISABLE, 4);
    run(ctl_linecard_disable);
    EXPECT_EQ(slot->trans_timer.state_monitored, slot_synced_event);
    EXPECT_EQ(slot->in_transition_reload_portd, 0);
    /* An expiry stops the supervision: no counting, no stuck verdict. */
    root.event(4, "present", "1");
    clear_log_rings();
    EXPECT_TRUE(handle_slot_timer_expired(4));
    EXPECT_EQ(slot->trans_timer.transition_timer_hits, TRANSITION_MAX_TRIES);
    EXPECT_EQ(slot->in_err_state, 0);
    EXPECT_TRUE(ring_lines(4).empty());
}

TEST_F(CtlAdminTest, EnableRestartsADisabledCardThroughItsPresence) {
    slotInfo *slot = &g_slots_info[3];
    slot->current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED | SLOT_SYNCED;
    slot->card_type = CARD_TYPE_16X100G;
    slot->trans_timer.state_monitored = slot_ready_event;
    put_request(LINECARD_DISABLE, 4);
    run(ctl_linecard_disable);
    EXPECT_EQ(slot->trans_timer.state_monitored, slot_ready_event);
    root.event(4, "present", "1");
    put_request(LINECARD_ENABLE, 4);
    run(ctl_linecard_enable);
    EXPECT_EQ(slot->trans_timer.state_monitored, slot_verified_event);
}

TEST_F(CtlAdminTest, DisabledEmptySlotStillAwaitsACard) {
    g_slots_info[3].trans_timer.state_monitored = slot_present_event;
    put_request(LINECARD_DISABLE, 4);
    run(ctl_linecard_disable);
    EXPECT_EQ(g_slots_info[3].trans_timer.state_monitored, slot_present_event);
}

TEST_F(CtlAdminTest, DisableLeavesAParkedSlotInItsBatch) {
    slotInfo *slot = &g_slots_info[3];
    slot->current_state = SLOT_PRESENT | SLOT_VERIFIED | SLOT_POWERED | SLOT_SYNCED;
    slot->in_transition_reload_portd = 1;
    slot->trans_timer.state_monitored = slot_wait_reload_portd;
    put_request(LINECARD_DISABLE, 4);
    run(ctl_linecard_disable);
    EXPECT_EQ(slot->trans_timer.state_monitored, slot_wait_reload_portd);
    EXPECT_EQ(slot->in_transition_reload_portd, 1);
}

}  // namespace
