#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "env.h"

namespace {

class EnvTest : public ::testing::Test {
  protected:
    void TearDown() override { env_configure(nullptr, nullptr, err_, sizeof err_); }
    bool configure(const char *root, const char *scale) { return env_configure(root, scale, err_, sizeof err_); }
    char err_[512] = "";
};

TEST_F(EnvTest, UnsetMeansNoRootAndFactorOne) {
    ASSERT_TRUE(configure(nullptr, nullptr));
    EXPECT_STREQ(env_root(), "");
    EXPECT_EQ(env_time_scale(), 1.0);
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, "/var/run/hw-management/events/lc%d_present", 3);
    EXPECT_STREQ(path, "/var/run/hw-management/events/lc3_present");
}

TEST_F(EnvTest, EmptyValuesMeanTheDefaults) {
    ASSERT_TRUE(configure("", ""));
    EXPECT_STREQ(env_root(), "");
    EXPECT_EQ(env_time_scale(), 1.0);
}

TEST_F(EnvTest, RootGoesInFrontOfEveryPath) {
    ASSERT_TRUE(configure("/tmp/r", nullptr));
    char path[CM_PATH_SIZE];
    env_path(path, sizeof path, "/var/run/hw-management/events/lc%d_present", 3);
    EXPECT_STREQ(path, "/tmp/r/var/run/hw-management/events/lc3_present");
}

TEST_F(EnvTest, TrailingSlashesOfTheRootAreDropped) {
    ASSERT_TRUE(configure("/tmp/r//", nullptr));
    EXPECT_STREQ(env_root(), "/tmp/r");
    ASSERT_TRUE(configure("/", nullptr));
    EXPECT_STREQ(env_root(), "");
}

TEST_F(EnvTest, RootWithCharactersUnsafeForTheShellIsRefused) {
    for (const char *root : {"/tmp/a b", "/tmp/a;rm", "/tmp/$(x)", "/tmp/a'b", "/tmp/a\"b", "/tmp/a*", "/tmp/a|b",
                             "/tmp/a&b", "/tmp/a>b", "/tmp/a\\b", "/tmp/a\nb"}) {
        EXPECT_FALSE(configure(root, nullptr)) << root;
        EXPECT_NE(std::string(err_).find("CHMGR_ROOT may hold only letters, digits and '/._-+'"), std::string::npos);
    }
    EXPECT_TRUE(configure("/tmp/A-z_0.9+x", nullptr));
}

TEST_F(EnvTest, RelativeOrOverlongRootIsRefused) {
    EXPECT_FALSE(configure("tmp/r", nullptr));
    EXPECT_STREQ(err_, "CHMGR_ROOT must be an absolute path: 'tmp/r'");
    std::string longroot = "/" + std::string(ENV_ROOT_MAX, 'a');
    EXPECT_FALSE(configure(longroot.c_str(), nullptr));
    EXPECT_STREQ(err_, "CHMGR_ROOT is longer than 200 characters");
}

TEST_F(EnvTest, TimeScaleMustBeAPositiveFiniteNumber) {
    for (const char *scale : {"0", "-1", "abc", "nan", "NaN", "inf", "-inf", "1e999", "0.5x", " ", "0x"}) {
        EXPECT_FALSE(configure(nullptr, scale)) << scale;
        EXPECT_EQ(std::string(err_), std::string("CHMGR_TIME_SCALE must be a positive decimal number: '") + scale + "'");
    }
    EXPECT_TRUE(configure(nullptr, "0.001"));
    EXPECT_EQ(env_time_scale(), 0.001);
    EXPECT_TRUE(configure(nullptr, "2"));
    EXPECT_EQ(env_time_scale(), 2.0);
}

TEST_F(EnvTest, RefusalChangesNothing) {
    ASSERT_TRUE(configure("/tmp/r", "0.5"));
    EXPECT_FALSE(configure("/tmp/x y", "0.25"));
    EXPECT_FALSE(configure("/tmp/x", "0"));
    EXPECT_STREQ(env_root(), "/tmp/r");
    EXPECT_EQ(env_time_scale(), 0.5);
}

TEST_F(EnvTest, PeriodsAreMultipliedByTheFactor) {
    ASSERT_TRUE(configure(nullptr, "0.001"));
    struct timespec thirty = env_scaled_period(30, 0);
    EXPECT_EQ(thirty.tv_sec, 0);
    EXPECT_NEAR(thirty.tv_nsec, 30000000L, 1);
    struct timespec ten = env_scaled_period(10, 0);
    EXPECT_NEAR(ten.tv_nsec, 10000000L, 1);
    ASSERT_TRUE(configure(nullptr, "2"));
    struct timespec three = env_scaled_period(3, 0);
    EXPECT_EQ(three.tv_sec, 6);
    EXPECT_EQ(three.tv_nsec, 0);
}

TEST_F(EnvTest, AScaledPeriodIsNeverZero) {
    ASSERT_TRUE(configure(nullptr, "1e-12"));
    struct timespec tiny = env_scaled_period(1, 0);
    EXPECT_EQ(tiny.tv_sec, 0);
    EXPECT_GE(tiny.tv_nsec, 1);
}

TEST_F(EnvTest, PathThatDoesNotFitIsReportedByItsLength) {
    ASSERT_TRUE(configure("/tmp/r", nullptr));
    char small[16];
    int n = env_path(small, sizeof small, "/etc/tarnel/cards.conf");
    EXPECT_EQ(n, (int)strlen("/tmp/r/etc/tarnel/cards.conf"));
    EXPECT_EQ(strlen(small), sizeof small - 1);
}

TEST(EnvJournalStream, DeviceAndInodeAreReadInDecimal) {
    env_configure_journal_stream("2049:1234567");
    dev_t dev = 0;
    ino_t ino = 0;
    ASSERT_TRUE(env_journal_stream(&dev, &ino));
    EXPECT_EQ(dev, (dev_t)2049);
    EXPECT_EQ(ino, (ino_t)1234567);
    env_configure_journal_stream(nullptr);
    EXPECT_FALSE(env_journal_stream(&dev, &ino));
}

TEST(EnvJournalStream, AnyOtherFormMeansNoJournal) {
    dev_t dev = 0;
    ino_t ino = 0;
    for (const char *text : {"", "12", ":5", "5:", "a:1", "1:b", "1:2:3", " 1:2", "1:2 ", "-1:2", "1:99999999999999999999999"}) {
        env_configure_journal_stream(text);
        EXPECT_FALSE(env_journal_stream(&dev, &ino)) << text;
    }
}

}  // namespace
