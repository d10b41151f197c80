// share_path_test.cc: the platform's share table as a share resolver.
#include "platform/share_path.h"

#include <gtest/gtest.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(ResolvePlatformSharePathTest, EmptyOrNulNameIsUnknown) {
  std::string path = "unchanged";
  EXPECT_FALSE(ResolvePlatformSharePath("", &path));
  // Cut at the NUL, the name would be "Pub", which the table may know.
  EXPECT_FALSE(ResolvePlatformSharePath(std::string("Pub\0lic", 7), &path));
  EXPECT_EQ(path, "unchanged");
}

TEST(ResolvePlatformSharePathTest, UnknownShareLeavesThePathAlone) {
  std::string path = "unchanged";
  EXPECT_FALSE(ResolvePlatformSharePath("no share of this name", &path));
  EXPECT_EQ(path, "unchanged");
  EXPECT_FALSE(ResolvePlatformSharePath("no share of this name", nullptr));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
