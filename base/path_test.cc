#include "base/path.h"

#include <gtest/gtest.h>

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(NormalisePathTest, OneSpellingPerPath) {
  EXPECT_EQ("/vol1", NormalisePath("/vol1"));
  EXPECT_EQ("/vol1", NormalisePath("/vol1/"));
  EXPECT_EQ("/vol1", NormalisePath("/vol1///"));
  EXPECT_EQ("/vol1", NormalisePath("//vol1//"));
  EXPECT_EQ("/a/b/c", NormalisePath("/a//b/c"));
  EXPECT_EQ("/vol1", NormalisePath("/./vol1/."));
  EXPECT_EQ("/srv/vol1", NormalisePath("/srv/./vol1/./"));
  EXPECT_EQ("/", NormalisePath("/"));
  EXPECT_EQ("/", NormalisePath("///"));
  EXPECT_EQ("/", NormalisePath("/./"));
  EXPECT_EQ("", NormalisePath(""));
  // ".." depends on symbolic links: left as written.
  EXPECT_EQ("/a/../b", NormalisePath("/a/../b/"));
  // A "." inside a name is no component of its own.
  EXPECT_EQ("/a./.b/c.d", NormalisePath("/a./.b/c.d"));
  EXPECT_EQ("a/b", NormalisePath("a//./b/"));
  EXPECT_EQ(".", NormalisePath("./"));
}

TEST(PathRelativeToTest, GivesWhatFollowsTheDirectory) {
  std::string_view rest = "untouched";
  ASSERT_TRUE(PathRelativeTo("/vol1", "/vol1/a/b", &rest));
  EXPECT_EQ("a/b", rest);
  ASSERT_TRUE(PathRelativeTo("/vol1", "/vol1", &rest));
  EXPECT_EQ("", rest);
  ASSERT_TRUE(PathRelativeTo("/vol1/", "/vol1/a/", &rest));
  EXPECT_EQ("a", rest);
  ASSERT_TRUE(PathRelativeTo("/", "/vol1/a", &rest));
  EXPECT_EQ("vol1/a", rest);
  ASSERT_TRUE(PathRelativeTo("/", "/", &rest));
  EXPECT_EQ("", rest);
  rest = "untouched";
  EXPECT_FALSE(PathRelativeTo("/vol1", "/vol10/a", &rest));
  EXPECT_EQ("untouched", rest);
}

TEST(PathAtOrBelowTest, StopsAtSlashBoundaries) {
  EXPECT_TRUE(PathAtOrBelow("/vol1", "/vol1"));
  EXPECT_TRUE(PathAtOrBelow("/vol1", "/vol1/"));
  EXPECT_TRUE(PathAtOrBelow("/vol1", "/vol1/a/b"));
  EXPECT_TRUE(PathAtOrBelow("/vol1/media", "/vol1/media/x"));
  EXPECT_FALSE(PathAtOrBelow("/vol1/media", "/vol1/media2"));
  EXPECT_FALSE(PathAtOrBelow("/vol1", "/vol10/x"));
  EXPECT_FALSE(PathAtOrBelow("/vol1", "/vol"));
  EXPECT_FALSE(PathAtOrBelow("/vol1", "/other"));
}

TEST(PathAtOrBelowTest, RootHoldsEveryAbsolutePath) {
  EXPECT_TRUE(PathAtOrBelow("/", "/"));
  EXPECT_TRUE(PathAtOrBelow("/", "/vol1/x"));
  EXPECT_FALSE(PathAtOrBelow("/", "relative"));
}

TEST(PathAtOrBelowTest, EmptyHoldsNothing) {
  EXPECT_FALSE(PathAtOrBelow("/", ""));
  EXPECT_FALSE(PathAtOrBelow("", "/x"));
  EXPECT_FALSE(PathAtOrBelow("", ""));
}

TEST(PathBelowTest, ExcludesTheDirectoryItself) {
  EXPECT_FALSE(PathBelow("/vol1", "/vol1"));
  EXPECT_FALSE(PathBelow("/vol1", "/vol1/"));
  EXPECT_TRUE(PathBelow("/vol1", "/vol1/a"));
  EXPECT_TRUE(PathBelow("/vol1/", "/vol1/a"));
  EXPECT_FALSE(PathBelow("/vol1", "/vol1a"));
  EXPECT_TRUE(PathBelow("/", "/a"));
  EXPECT_FALSE(PathBelow("/", "/"));
}

TEST(HasDotDotComponentTest, OnlyAWholeComponentCounts) {
  for (const char* yes : {"..", "/..", "../a", "/a/../b", "a/..", "/a/b/..",
                          "/a//../"}) {
    EXPECT_TRUE(HasDotDotComponent(yes)) << yes;
  }
  for (const char* no : {"", "/", ".", "/a..b", "/...", "/a/.../b", "..a",
                         "a..", "/vol1/Public/x"}) {
    EXPECT_FALSE(HasDotDotComponent(no)) << no;
  }
}

TEST(ParentDirTest, Cases) {
  EXPECT_EQ("/vol1", ParentDir("/vol1/share"));
  EXPECT_EQ("/", ParentDir("/vol1"));
  EXPECT_EQ("/", ParentDir("/"));
  EXPECT_EQ("/", ParentDir(""));
  EXPECT_EQ("/", ParentDir("abc"));
  EXPECT_EQ("a", ParentDir("a/b"));
  // Trailing slashes are not removed first.
  EXPECT_EQ("/vol1/share", ParentDir("/vol1/share/"));
  EXPECT_EQ("/vol1/share/", ParentDir("/vol1/share//"));
}

TEST(DirPrefixTest, ExactlyOneTrailingSlash) {
  EXPECT_EQ("/vol1/", DirPrefix("/vol1"));
  EXPECT_EQ("/vol1/", DirPrefix("/vol1/"));
  EXPECT_EQ("/", DirPrefix("/"));
  EXPECT_EQ("/", DirPrefix(""));
}

TEST(JoinPathTest, OneSlashBetween) {
  EXPECT_EQ("/vol1/Public", JoinPath("/vol1", "Public"));
  EXPECT_EQ("/vol1/Public", JoinPath("/vol1/", "Public"));
  EXPECT_EQ("/Public", JoinPath("/", "Public"));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
