#include "yulotifyd/json_util.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::TempDir;

TEST(JsonUtilTest, FromStringParsesObject) {
  Json::Value v;
  ASSERT_TRUE(fromString("{\"status\": \"stop\"}", v));
  EXPECT_EQ(v["status"].asString(), "stop");
}

TEST(JsonUtilTest, FromStringRejectsGarbageAndTrailingText) {
  Json::Value v(5);
  EXPECT_FALSE(fromString("not json", v));
  EXPECT_TRUE(v.isNull());
  EXPECT_FALSE(fromString("{} {}", v));
  EXPECT_FALSE(fromString("", v));
}

TEST(JsonUtilTest, FromStringRefusesVeryDeepNestingWithoutThrowing) {
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  Json::Value v;
  EXPECT_FALSE(fromString(deep, v));
  EXPECT_TRUE(v.isNull());
}

TEST(JsonUtilTest, ToStringIsSingleLine) {
  Json::Value v(Json::objectValue);
  v["path"] = "/vol1/a\nb";
  v["event"] = 64u;
  v["is_dir"] = false;
  const std::string s = toString(v);
  EXPECT_EQ(s, "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/a\\nb\"}");
  EXPECT_EQ(s.find('\n'), std::string::npos);
}

TEST(JsonUtilTest, ToFileReplacesAndFromFileReadsBack) {
  TempDir dir;
  const std::string path = dir.path() + "/run";
  { std::ofstream(path) << "old content that is longer than the new one"; }
  Json::Value v(Json::objectValue);
  v["status"] = "stop";
  ASSERT_TRUE(toFile(v, path, 0640));
  Json::Value back;
  ASSERT_TRUE(fromFile(path, back));
  EXPECT_EQ(back, v);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  // No temporary file is left beside it.
  EXPECT_EQ(std::system(("test $(ls -A '" + dir.path() + "' | wc -l) = 1")
                            .c_str()),
            0);
}

TEST(JsonUtilTest, FromFileFailsForMissingFile) {
  Json::Value v;
  EXPECT_FALSE(fromFile("/nonexistent/yulo/file.json", v));
}

TEST(JsonUtilTest, ToFileFailsInMissingDirectory) {
  Json::Value v(Json::objectValue);
  EXPECT_FALSE(toFile(v, "/nonexistent/yulo/dir/file.json"));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
