// mount_table_test.cc: reading mount points and comparing paths.
#include <errno.h>
#include <gtest/gtest.h>

#include "platform_internal.h"
#include "base/testing/temp_dir.h"

namespace yulo_platform {
namespace {

using ::YULO::YULOTIFYD::testing::TempDir;

TEST(ReadMountPointsTest, SecondFieldDecodedAndNormalised) {
  TempDir dir;
  std::string mounts = dir.Write("mounts",
                                 "/dev/root / ext4 rw,relatime 0 0\n"
                                 "proc /proc proc rw,nosuid 0 0\n"
                                 "/dev/md0 /vol1 ext4 rw 0 0\n"
                                 "/dev/sdc1 /media/usb\\040disk vfat rw 0 0\n"
                                 "\n"
                                 "garbage\n"
                                 "/dev/sdd1\t/tabbed\text4 rw 0 0\n"
                                 "/dev/sde1 /trailing/ ext4 rw 0 0");
  std::unordered_set<std::string> points;
  Complaints complaints;
  ASSERT_EQ(ReadMountPoints(mounts, &points, &complaints), 0);
  EXPECT_EQ(points, (std::unordered_set<std::string>{"/", "/proc", "/vol1",
                                                     "/media/usb disk",
                                                     "/tabbed", "/trailing"}));
  EXPECT_TRUE(complaints.empty());
}

TEST(ReadMountPointsTest, MissingFileIsAnErrorWithOneComplaint) {
  TempDir dir;
  std::unordered_set<std::string> points{"/stale"};
  Complaints complaints;
  EXPECT_EQ(ReadMountPoints(dir.File("missing"), &points, &complaints), ENOENT);
  EXPECT_TRUE(points.empty());
  ASSERT_EQ(complaints.size(), 1u);
  EXPECT_EQ(complaints[0].rfind("mount_table:", 0), 0u) << complaints[0];
  EXPECT_NE(complaints[0].find(dir.File("missing")), std::string::npos);
}

TEST(ReadMountPointsTest, TheRealMountTableListsRoot) {
  std::unordered_set<std::string> points;
  ASSERT_EQ(ReadMountPoints("/proc/mounts", &points, nullptr), 0);
  EXPECT_EQ(points.count("/"), 1u);
}

}  // namespace
}  // namespace yulo_platform
