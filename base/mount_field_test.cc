#include "base/mount_field.h"

#include <gtest/gtest.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(MountTableFieldTest, SplitsAtBlanksAndTabs) {
  const std::string line = "/dev/sdb1 /vol1\text4  rw 0 0";
  EXPECT_EQ("/dev/sdb1", MountTableField(line, 0));
  EXPECT_EQ("/vol1", MountTableField(line, 1));
  EXPECT_EQ("ext4", MountTableField(line, 2));
  EXPECT_EQ("rw", MountTableField(line, 3));
  EXPECT_EQ("", MountTableField(line, 6));
  EXPECT_EQ("", MountTableField("", 0));
  EXPECT_EQ("a", MountTableField("  a", 0));
}

// Escapes decode the same way under both rules.
TEST(DecodeMountFieldTest, OctalEscapesBecomeBytes) {
  for (const BadEscape rule : {BadEscape::kCut, BadEscape::kKeep}) {
    EXPECT_EQ("/vol1/share", DecodeMountField("/vol1/share", rule));
    EXPECT_EQ("", DecodeMountField("", rule));
    EXPECT_EQ("/media/my disk", DecodeMountField("/media/my\\040disk", rule));
    EXPECT_EQ("/a\tb\nc\\d", DecodeMountField("/a\\011b\\012c\\134d", rule));
    EXPECT_EQ("/x 1", DecodeMountField("/x\\0401", rule));  // three digits only
    EXPECT_EQ("\xC3\xA9", DecodeMountField("\\303\\251", rule));
    EXPECT_EQ(std::string("/\0x", 3), DecodeMountField("/\\000x", rule));
  }
}

TEST(DecodeMountFieldTest, CutRuleEndsTheFieldAtABadEscape) {
  EXPECT_EQ("/mnt/a", DecodeMountField("/mnt/a\\x", BadEscape::kCut));
  EXPECT_EQ("/mnt/a", DecodeMountField("/mnt/a\\04", BadEscape::kCut));
  EXPECT_EQ("/mnt/a", DecodeMountField("/mnt/a\\048rest", BadEscape::kCut));
  EXPECT_EQ("/mnt/a b", DecodeMountField("/mnt/a\\040b\\", BadEscape::kCut));
  EXPECT_EQ("", DecodeMountField("\\", BadEscape::kCut));
  // Above \377: the low eight bits.
  EXPECT_EQ(std::string("/\xff", 2), DecodeMountField("/\\777", BadEscape::kCut));
}

TEST(DecodeMountFieldTest, KeepRuleCopiesOtherBackslashes) {
  EXPECT_EQ("/a\\04", DecodeMountField("/a\\04", BadEscape::kKeep));
  EXPECT_EQ("/a\\x41", DecodeMountField("/a\\x41", BadEscape::kKeep));
  EXPECT_EQ("/a\\400", DecodeMountField("/a\\400", BadEscape::kKeep));
  EXPECT_EQ("/a\\", DecodeMountField("/a\\", BadEscape::kKeep));
  EXPECT_EQ("/a\\08", DecodeMountField("/a\\08", BadEscape::kKeep));
  EXPECT_EQ("/a\\ b", DecodeMountField("/a\\\\040b", BadEscape::kKeep));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
