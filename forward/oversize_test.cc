#include "forward/oversize.h"

#include <gtest/gtest.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

TEST(OversizeTest, RescansTheDirectoryThatHeldTheChange) {
  std::string out;
  const std::string line =
      R"({"event":64,"is_dir":false,"path":"/vol1/Public/a/)" +
      std::string(300, 'x') + R"("})";
  ASSERT_TRUE(RescanLineFor(line, 1000, &out));
  EXPECT_EQ(out, R"({"event":512,"is_dir":true,"path":"/vol1/Public/a"})");
}

TEST(OversizeTest, AMoveRescansTheDirectoryHoldingBothNames) {
  EXPECT_EQ(RescanDirFor(R"({"event":256,"is_dir":false,"path":"/v/s/a/n",)"
                         R"("path_old":"/v/s/b/c/o"})"),
            "/v/s");
  EXPECT_EQ(RescanDirFor(R"({"event":256,"is_dir":false,"path":"/v/s/a/n",)"
                         R"("path_old":"/v/s/a/o"})"),
            "/v/s/a");
  EXPECT_EQ(RescanDirFor(R"({"event":256,"is_dir":false,"path":"/v/s/n",)"
                         R"("path_old":"/w/o"})"),
            "/");
}

TEST(OversizeTest, WithoutAUsablePathTheRescanIsOfTheRoot) {
  EXPECT_EQ(RescanDirFor("not json"), "/");
  EXPECT_EQ(RescanDirFor(R"({"event":64})"), "/");
  EXPECT_EQ(RescanDirFor(R"({"event":64,"path":"relative/x"})"), "/");
  EXPECT_EQ(RescanDirFor(R"({"event":1024,"is_dir":false,"path":""})"), "/");
  EXPECT_EQ(RescanDirFor(R"({"event":64,"path":"/top"})"), "/");
}

TEST(OversizeTest, AShortLimitRescansAParentAndNothingFitsBelowTheRoot) {
  const std::string line =
      R"({"event":64,"is_dir":false,"path":"/vol1/Public/deep/er/x"})";
  std::string out;
  const std::string root = R"({"event":512,"is_dir":true,"path":"/"})";
  const std::string vol = R"({"event":512,"is_dir":true,"path":"/vol1"})";
  ASSERT_TRUE(RescanLineFor(line, vol.size(), &out));
  EXPECT_EQ(out, vol);
  ASSERT_TRUE(RescanLineFor(line, vol.size() - 1, &out));
  EXPECT_EQ(out, root);
  EXPECT_FALSE(RescanLineFor(line, root.size() - 1, &out));
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
