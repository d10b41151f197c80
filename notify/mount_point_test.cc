#include "notify/mount_point.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "notify/testing/fake_backend.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeMountEnv;
using testing::TakeLogLines;

class MountPointTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_level_ = LOG_LEVEL.load();
    LOG_LEVEL = 3;
    TakeLogLines();
    env_.AddDir("/", 1);
    env_.AddDir("/etc", 1);
    env_.AddDir("/etc/x", 1);
    env_.AddDir("/vol1", 2);
    env_.AddDir("/vol1/share", 2);
    env_.AddDir("/vol1/share/dir", 2);
    env_.SetMountTable(
        "/dev/root / ext4 rw,relatime 0 0\n"
        "proc /proc proc rw 0 0\n"
        "/dev/sdb1 /vol1 ext4 rw,relatime 0 0\n");
  }
  void TearDown() override { LOG_LEVEL = saved_level_; }

  FakeMountEnv env_;
  int32_t saved_level_ = 3;
};

TEST_F(MountPointTest, RootFileSystemClimbsToRoot) {
  EXPECT_EQ("/", GetMountPoint("/etc/x", env_));
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(MountPointTest, RootItself) { EXPECT_EQ("/", GetMountPoint("/", env_)); }

TEST_F(MountPointTest, RootMissingFromTheTableStillGivesRoot) {
  env_.SetMountTable("/dev/sdb1 /vol1 ext4 rw 0 0\n");
  LOG_LEVEL = 7;
  EXPECT_EQ("/", GetMountPoint("/etc/x", env_));
  const auto lines = TakeLogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("yulotify:569 yulotify(569): cannot find mount point /etc/x",
            lines[0]);
}

TEST_F(MountPointTest, StopsAtTheVolume) {
  EXPECT_EQ("/vol1", GetMountPoint("/vol1/share/dir", env_));
  // The climb stops at the first ancestor on another device.
  EXPECT_EQ((std::vector<std::string>{"/vol1/share/dir", "/vol1/share", "/vol1",
                                      "/"}),
            env_.stat_calls);
}

TEST_F(MountPointTest, MountPointItself) {
  EXPECT_EQ("/vol1", GetMountPoint("/vol1", env_));
}

TEST_F(MountPointTest, TrailingSlashClimbsToThePathWithoutIt) {
  EXPECT_EQ("/vol1", GetMountPoint("/vol1/share/", env_));
  ASSERT_GE(env_.stat_calls.size(), 2u);
  EXPECT_EQ("/vol1/share/", env_.stat_calls[0]);
  EXPECT_EQ("/vol1/share", env_.stat_calls[1]);
}

TEST_F(MountPointTest, BlankInTheMountPointIsDecoded) {
  env_.AddDir("/mnt", 1);
  env_.AddDir("/mnt/my vol", 3);
  env_.AddDir("/mnt/my vol/share", 3);
  env_.SetMountTable(
      "/dev/root / ext4 rw 0 0\n"
      "/dev/sdc1 /mnt/my\\040vol ext4 rw 0 0\n");
  EXPECT_EQ("/mnt/my vol", GetMountPoint("/mnt/my vol/share", env_));
}

TEST_F(MountPointTest, FieldCutAtABadEscapeMatches) {
  env_.AddDir("/mnt", 1);
  env_.AddDir("/mnt/a", 4);
  env_.AddDir("/mnt/a/d", 4);
  env_.SetMountTable(
      "/dev/root / ext4 rw 0 0\n"
      "/dev/sdd1 /mnt/a\\x ext4 rw 0 0\n");
  LOG_LEVEL = 7;
  EXPECT_EQ("/mnt/a", GetMountPoint("/mnt/a/d", env_));
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(MountPointTest, TabsSeparateFieldsToo) {
  env_.SetMountTable("/dev/root\t/\text4 rw 0 0\n/dev/sdb1\t/vol1\text4\n");
  EXPECT_EQ("/vol1", GetMountPoint("/vol1/share", env_));
}

TEST_F(MountPointTest, OnlyTheMountPointFieldIsCompared) {
  // Device names and later fields never match, whatever they hold.
  env_.SetMountTable(
      "/vol1 /elsewhere ext4 rw 0 0\n"
      "/dev/x /other /vol1 rw 0 0\n"
      "short\n");
  EXPECT_EQ("/", GetMountPoint("/vol1/share", env_));
}

TEST_F(MountPointTest, NotInTheTableReturnsTheFirstAncestorElsewhere) {
  env_.AddDir("/data", 5);
  env_.AddDir("/data/x", 5);
  LOG_LEVEL = 7;
  EXPECT_EQ("/", GetMountPoint("/data/x", env_));
  const auto lines = TakeLogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("yulotify:569 yulotify(569): cannot find mount point /data/x",
            lines[0]);
}

TEST_F(MountPointTest, NotInTableBelowAnotherMount) {
  // /vol1/inner is a separate device not listed: the answer is /vol1, the
  // first ancestor found on another device.
  env_.AddDir("/vol1/inner", 6);
  env_.AddDir("/vol1/inner/s", 6);
  EXPECT_EQ("/vol1", GetMountPoint("/vol1/inner/s", env_));
}

TEST_F(MountPointTest, MissingLineIsOnlyLoggedAtDebug) {
  env_.AddDir("/data", 5);
  LOG_LEVEL = 6;
  EXPECT_EQ("/", GetMountPoint("/data", env_));
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(MountPointTest, UnreadableTableMatchesNothing) {
  env_.SetTableUnreadable();
  EXPECT_EQ("/", GetMountPoint("/vol1/share", env_));
}

TEST_F(MountPointTest, MissingPathGivesEmptyAndLogsAlways) {
  EXPECT_EQ("", GetMountPoint("/nope", env_));
  const auto lines = TakeLogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(
      "yulotify:532 yulotify(532): stat('/nope'): No such file or directory "
      "(2)\n",
      lines[0]);
}

TEST_F(MountPointTest, UnstatableAncestorGivesEmpty) {
  env_.AddDir("/ghost/child", 2);  // its parent cannot be stat'ed
  EXPECT_EQ("", GetMountPoint("/ghost/child", env_));
  const auto lines = TakeLogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(
      "yulotify:542 yulotify(542): stat('/ghost'): No such file or directory "
      "(2)\n",
      lines[0]);
}

TEST_F(MountPointTest, RealFileSystem) {
  // The root directory is always a mount point of the real system.
  EXPECT_EQ("/", GetMountPoint("/"));
}

TEST(GetMountIdentityTest, SameMountSameIdentity) {
  MountIdentity a, b;
  ASSERT_TRUE(GetMountIdentity("/", &a));
  ASSERT_TRUE(GetMountIdentity("/.", &b));
  EXPECT_EQ(a, b);
  EXPECT_FALSE(a != b);
  errno = 0;
  MountIdentity untouched;
  untouched.mount_id = 77;
  EXPECT_FALSE(GetMountIdentity("/nonexistent/yulo/path", &untouched));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(77u, untouched.mount_id);
}

TEST(GetMountIdentityTest, DifferentMountsDiffer) {
  // /proc is a mount of its own wherever the tests run.
  MountIdentity root, proc;
  ASSERT_TRUE(GetMountIdentity("/", &root));
  ASSERT_TRUE(GetMountIdentity("/proc", &proc));
  EXPECT_NE(root, proc);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
