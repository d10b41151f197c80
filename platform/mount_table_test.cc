// mount_table_test.cc: reading mount points and comparing paths.
#include <errno.h>
#include <gtest/gtest.h>

#include "platform_internal.h"
#include "platform_test_util.h"

namespace yulo_platform {
namespace {

using testing::TempDir;

TEST(DecodeMountFieldTest, OctalEscapesBecomeBytes) {
  EXPECT_EQ(DecodeMountField("/media/my\\040disk"), "/media/my disk");
  EXPECT_EQ(DecodeMountField("/a\\011b"), "/a\tb");
  EXPECT_EQ(DecodeMountField("/a\\012b"), "/a\nb");
  EXPECT_EQ(DecodeMountField("/a\\134b"), "/a\\b");
  EXPECT_EQ(DecodeMountField("/x\\0401"), "/x 1");  // only three digits
  EXPECT_EQ(DecodeMountField("\\303\\251"), "\xC3\xA9");
}

TEST(DecodeMountFieldTest, OtherBackslashesStayAsTheyAre) {
  EXPECT_EQ(DecodeMountField("/plain"), "/plain");
  EXPECT_EQ(DecodeMountField("/a\\04"), "/a\\04");    // too short
  EXPECT_EQ(DecodeMountField("/a\\x41"), "/a\\x41");  // not octal
  EXPECT_EQ(DecodeMountField("/a\\400"), "/a\\400");  // over one byte
  EXPECT_EQ(DecodeMountField("/a\\"), "/a\\");
  EXPECT_EQ(DecodeMountField("/a\\08"), "/a\\08");
}

TEST(NormalisePathTest, TrailingAndRepeatedSlashes) {
  EXPECT_EQ(NormalisePath("/vol1/"), "/vol1");
  EXPECT_EQ(NormalisePath("/vol1///"), "/vol1");
  EXPECT_EQ(NormalisePath("/a//b/c"), "/a/b/c");
  EXPECT_EQ(NormalisePath("/vol1"), "/vol1");
  EXPECT_EQ(NormalisePath("/"), "/");
  EXPECT_EQ(NormalisePath("///"), "/");
  EXPECT_EQ(NormalisePath(""), "");
}

TEST(PathIsUnderTest, StopsAtSlashBoundaries) {
  EXPECT_TRUE(PathIsUnder("/vol1", "/vol1"));
  EXPECT_TRUE(PathIsUnder("/vol1/a/b", "/vol1"));
  EXPECT_FALSE(PathIsUnder("/vol10", "/vol1"));
  EXPECT_FALSE(PathIsUnder("/vol10/x", "/vol1"));
  EXPECT_FALSE(PathIsUnder("/vol", "/vol1"));
  EXPECT_FALSE(PathIsUnder("/other", "/vol1"));
}

TEST(PathIsUnderTest, RootHoldsEveryAbsolutePath) {
  EXPECT_TRUE(PathIsUnder("/", "/"));
  EXPECT_TRUE(PathIsUnder("/vol1/x", "/"));
  EXPECT_FALSE(PathIsUnder("relative", "/"));
  EXPECT_FALSE(PathIsUnder("", "/"));
  EXPECT_FALSE(PathIsUnder("/x", ""));
}

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
