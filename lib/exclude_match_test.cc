#include "lib/exclude_match.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

using Patterns = std::vector<std::string>;

TEST(ExcludeMatchTest, NamePatternsMatchAnyComponent) {
  const Patterns p = {"@eaDir", ".DS_Store", "Thumbs.db"};
  EXPECT_TRUE(IsExcluded(p, "@eaDir"));
  EXPECT_TRUE(IsExcluded(p, "@eaDir/photo.jpg/SYNOFILE_THUMB_M.jpg"));
  EXPECT_TRUE(IsExcluded(p, "2023/june/@eaDir/x"));
  EXPECT_TRUE(IsExcluded(p, "a/.DS_Store"));
  EXPECT_TRUE(IsExcluded(p, "Thumbs.db"));
  EXPECT_FALSE(IsExcluded(p, "eaDir"));
  EXPECT_FALSE(IsExcluded(p, "x@eaDir"));
  EXPECT_FALSE(IsExcluded(p, "a/.DS_Store2"));
  EXPECT_FALSE(IsExcluded(p, "photo.jpg"));
}

TEST(ExcludeMatchTest, SuffixPrefixAndOtherGlobs) {
  const Patterns p = {"*.part", "~$*", ".~lock.*#", "*.sw?", "[Cc]ache"};
  EXPECT_TRUE(IsExcluded(p, "big.iso.part"));
  EXPECT_TRUE(IsExcluded(p, ".part"));
  EXPECT_FALSE(IsExcluded(p, "big.iso.partial"));
  EXPECT_TRUE(IsExcluded(p, "docs/~$report.docx"));
  EXPECT_FALSE(IsExcluded(p, "docs/report~$.docx"));
  EXPECT_TRUE(IsExcluded(p, ".~lock.report.odt#"));
  EXPECT_FALSE(IsExcluded(p, ".~lock.report.odt"));
  EXPECT_TRUE(IsExcluded(p, "src/.main.c.swp"));
  EXPECT_TRUE(IsExcluded(p, "src/.main.c.swx"));
  EXPECT_FALSE(IsExcluded(p, "src/.main.c.swpp"));
  EXPECT_TRUE(IsExcluded(p, "cache/x"));
  EXPECT_TRUE(IsExcluded(p, "a/Cache"));
  EXPECT_FALSE(IsExcluded(p, "a/caches"));
}

TEST(ExcludeMatchTest, PatternsWithSlashMatchTheRelativePath) {
  const Patterns p = {"build/*", "logs/*.log"};
  EXPECT_TRUE(IsExcluded(p, "build/x.o"));
  EXPECT_TRUE(IsExcluded(p, "build/sub/deep/x.o")) << "below an excluded one";
  EXPECT_FALSE(IsExcluded(p, "build")) << "the directory itself is not";
  EXPECT_FALSE(IsExcluded(p, "src/build/x.o")) << "anchored at the monitor";
  EXPECT_TRUE(IsExcluded(p, "logs/app.log"));
  EXPECT_FALSE(IsExcluded(p, "logs/old/app.log")) << "* stops at a /";
  EXPECT_FALSE(IsExcluded(p, "logs/app.txt"));
}

TEST(ExcludeMatchTest, TheMonitorsOwnDirectoryIsNeverExcluded) {
  EXPECT_FALSE(IsExcluded({"*"}, ""));
  EXPECT_TRUE(IsExcluded({"*"}, "anything"));
  EXPECT_FALSE(IsExcluded({}, "anything"));
}

TEST(ExcludeMatchTest, ValidPatterns) {
  std::string problem;
  for (const char* ok : {"@eaDir", "*.part", "a/b/*", "[!.]*", "x\\[y",
                         "[]]", "~$*"}) {
    EXPECT_TRUE(ValidExcludePattern(ok, &problem)) << ok << ": " << problem;
  }
  for (const char* bad : {"", "/abs", "a//b", "a/./b", "../x", "a/..",
                          "x/", "[abc", "[!"}) {
    problem.clear();
    EXPECT_FALSE(ValidExcludePattern(bad, &problem)) << bad;
    EXPECT_FALSE(problem.empty()) << bad;
  }
  EXPECT_FALSE(ValidExcludePattern(std::string("a\0b", 3), &problem));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
