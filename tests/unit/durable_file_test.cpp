/*
 * Rewrites of cards.conf, the port list and the status document keep the
 * mode and owner an administrator gave the file, and a file made from
 * nothing is never writable by others.
 */
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "chmgr_sdk.h"
#include "durable_file.h"
#include "test_support.h"

using namespace chmgr_test;

namespace {

const std::string kConf = "/etc/tarnel/cards.conf";
const std::string kStatus = "/etc/tarnel/cm_status.json";

std::string eight_lines() {
    std::string text;
    for (int n = 1; n <= MAX_SLOTS_FOR_9600; ++n) text += conf_data_line(n, 0, 0, 0, 1, "Offline", "enable");
    return text;
}

ks_port_attributes_t unsplit_port(int slot, int module_port, int local_port) {
    ks_port_attributes_t attr;
    memset(&attr, 0, sizeof attr);
    attr.port_mapping.slot = (uint8_t)slot;
    attr.port_mapping.module_port = (uint8_t)module_port;
    attr.port_mapping.local_port = (uint16_t)local_port;
    attr.port_mapping.width = 4;
    attr.log_port = (uint32_t)local_port;
    return attr;
}

/* A group other than root's, for the owner checks. */
gid_t other_group() {
    struct group *entry = getgrnam("adm");
    if (!entry) entry = getgrnam("daemon");
    return entry ? entry->gr_gid : 4;
}

class DurableFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_slots();
        clear_log_rings();
        saved_umask_ = umask(022);
    }
    void TearDown() override { umask(saved_umask_); }

    struct stat stat_of(const std::string &abs) const {
        struct stat st;
        memset(&st, 0, sizeof st);
        EXPECT_EQ(stat(root_.at(abs).c_str(), &st), 0) << abs;
        return st;
    }
    void set_mode(const std::string &abs, mode_t mode, uid_t uid, gid_t gid) const {
        ASSERT_EQ(chown(root_.at(abs).c_str(), uid, gid), 0);
        ASSERT_EQ(chmod(root_.at(abs).c_str(), mode), 0);
    }
    void expect_mode(const std::string &abs, mode_t mode, uid_t uid, gid_t gid) const {
        struct stat st = stat_of(abs);
        EXPECT_EQ(st.st_mode & 07777, mode) << abs;
        EXPECT_EQ(st.st_uid, uid) << abs;
        EXPECT_EQ(st.st_gid, gid) << abs;
    }
    void update_port_list() {
        ks_port_attributes_t ports[2] = {unsplit_port(3, 0, 33), unsplit_port(3, 1, 34)};
        ASSERT_TRUE(update_ports_list_conf(ports, 2));
    }

    SandboxRoot root_;
    ConsoleCapture console_;
    mode_t saved_umask_ = 022;
};

TEST_F(DurableFileTest, CardsConfRewritesKeepModeSixHundred) {
    root_.write(kConf, eight_lines());
    set_mode(kConf, 0600, 0, 0);
    ASSERT_TRUE(update_info_from_cards_conf());
    expect_mode(kConf, 0600, 0, 0);
    ASSERT_TRUE(update_cards_conf(3, 100, 0, 100, 1, 0, 0));
    expect_mode(kConf, 0600, 0, 0);
    ASSERT_TRUE(cards_conf_disable_slot(4, 1));
    expect_mode(kConf, 0600, 0, 0);
    EXPECT_TRUE(normalized_ring(0).empty());
}

TEST_F(DurableFileTest, CardsConfRewritesKeepModeSixFortyAndTheGroup) {
    gid_t group = other_group();
    root_.write(kConf, eight_lines());
    set_mode(kConf, 0640, 0, group);
    ASSERT_TRUE(cards_conf_set_slot_online(2, 1));
    expect_mode(kConf, 0640, 0, group);
    ASSERT_TRUE(cards_conf_clear_dirty_bits());
    expect_mode(kConf, 0640, 0, group);
}

TEST_F(DurableFileTest, CardsConfRewriteUnderUmaskZeroKeepsTheOldMode) {
    root_.write(kConf, eight_lines());
    set_mode(kConf, 0644, 0, 0);
    umask(0);
    ASSERT_TRUE(cards_conf_clear_dirty_bits());
    expect_mode(kConf, 0644, 0, 0);
}

TEST_F(DurableFileTest, PortListRewritesKeepModeSixHundred) {
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1));
    set_mode(kPortList, 0600, 0, 0);
    update_port_list();
    expect_mode(kPortList, 0600, 0, 0);
    ASSERT_TRUE(delete_ports_list_conf(3, nullptr, 0));
    expect_mode(kPortList, 0600, 0, 0);
}

TEST_F(DurableFileTest, PortListRewritesKeepModeSixFortyAndTheGroup) {
    gid_t group = other_group();
    root_.write(kPortList, kPortListHeader + port_list_entry(0, 1, 1, 1));
    set_mode(kPortList, 0640, 0, group);
    update_port_list();
    expect_mode(kPortList, 0640, 0, group);
    ASSERT_TRUE(delete_ports_list_conf(1, nullptr, 0));
    expect_mode(kPortList, 0640, 0, group);
}

TEST_F(DurableFileTest, NewPortListGetsTheUsualModeUnderTheUsualUmask) {
    update_port_list();
    expect_mode(kPortList, 0644, 0, 0);
}

TEST_F(DurableFileTest, NewPortListUnderUmaskZeroIsNotWritableByOthers) {
    umask(0);
    update_port_list();
    expect_mode(kPortList, 0664, 0, 0);
}

TEST_F(DurableFileTest, StatusDocumentKeepsItsModeAndUnderUmaskZeroIsNotWritableByOthers) {
    umask(0);
    ASSERT_GT(get_json_obj_for_slots(1), 0);
    expect_mode(kStatus, 0664, 0, 0);
    gid_t group = other_group();
    set_mode(kStatus, 0640, 0, group);
    ASSERT_GT(get_json_obj_for_slots(1), 0);
    expect_mode(kStatus, 0640, 0, group);
}

TEST_F(DurableFileTest, TemporaryFileOfAReplacedFileStartsReadableByItsOwnerOnly) {
    struct stat replaced;
    memset(&replaced, 0, sizeof replaced);
    replaced.st_mode = S_IFREG | 0600;
    std::string temp = root_.at("/etc/tarnel/cards.conf5");
    FILE *file = durable_open_temp(temp.c_str(), &replaced, "w");
    ASSERT_NE(file, nullptr);
    expect_mode("/etc/tarnel/cards.conf5", 0600, 0, 0);
    EXPECT_NE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(durable_flush(file));
    fclose(file);
}

TEST_F(DurableFileTest, FlushOfAPipeCountsAsDone) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    FILE *file = fdopen(fds[1], "w");
    fputs("x", file);
    EXPECT_TRUE(durable_flush(file));
    fclose(file);
    close(fds[0]);
}

}  // namespace
