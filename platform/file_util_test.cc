// file_util_test.cc: YULOFileExist and LineReader.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform_internal.h"
#include "base/testing/temp_dir.h"

namespace yulo_platform {
namespace {

using ::YULO::YULOTIFYD::testing::TempDir;

TEST(FileExistTest, RegularFileAndDirectoryExist) {
  TempDir dir;
  std::string file = dir.Write("f", "x");
  EXPECT_EQ(YULOFileExist(file.c_str()), 1);
  EXPECT_EQ(YULOFileExist(dir.path().c_str()), 1);
}

TEST(FileExistTest, MissingPathDoesNotExist) {
  TempDir dir;
  EXPECT_EQ(YULOFileExist(dir.File("missing").c_str()), 0);
  EXPECT_EQ(YULOFileExist(dir.File("missing/below").c_str()), 0);
}

TEST(FileExistTest, NullAndEmptyDoNotExist) {
  EXPECT_EQ(YULOFileExist(nullptr), 0);
  EXPECT_EQ(YULOFileExist(""), 0);
}

TEST(FileExistTest, DanglingSymlinkExistsBecauseLstatIsUsed) {
  TempDir dir;
  std::string link = dir.File("dangling");
  ASSERT_EQ(symlink(dir.File("nowhere").c_str(), link.c_str()), 0);
  EXPECT_EQ(YULOFileExist(link.c_str()), 1);
}

std::vector<std::string> AllLines(LineReader* reader) {
  std::vector<std::string> lines;
  std::string line;
  bool overlong;
  while (reader->Next(&line, &overlong)) lines.push_back(line);
  return lines;
}

TEST(LineReaderTest, SplitsLinesAndKeepsEmptyOnes) {
  TempDir dir;
  LineReader reader;
  ASSERT_EQ(reader.Open(dir.Write("f", "one\n\nthree\nlast")), 0);
  EXPECT_EQ(AllLines(&reader),
            (std::vector<std::string>{"one", "", "three", "last"}));
  EXPECT_EQ(reader.error(), 0);
}

TEST(LineReaderTest, NoPhantomLineAfterFinalNewline) {
  TempDir dir;
  LineReader reader;
  ASSERT_EQ(reader.Open(dir.Write("f", "a\nb\n")), 0);
  EXPECT_EQ(AllLines(&reader), (std::vector<std::string>{"a", "b"}));
}

TEST(LineReaderTest, LinesAcrossReadChunks) {
  TempDir dir;
  std::string contents;
  std::vector<std::string> expected;
  for (int i = 0; i < 20000; ++i) {
    expected.push_back("line number " + std::to_string(i));
    contents += expected.back() + "\n";
  }
  LineReader reader;
  ASSERT_EQ(reader.Open(dir.Write("f", contents)), 0);
  EXPECT_EQ(AllLines(&reader), expected);
}

TEST(LineReaderTest, OverlongLineIsCutAndFlagged) {
  TempDir dir;
  LineReader reader(10);
  ASSERT_EQ(reader.Open(dir.Write("f", "0123456789abcdef\nshort\n")), 0);
  std::string line;
  bool overlong = false;
  ASSERT_TRUE(reader.Next(&line, &overlong));
  EXPECT_EQ(line, "0123456789");
  EXPECT_TRUE(overlong);
  ASSERT_TRUE(reader.Next(&line, &overlong));
  EXPECT_EQ(line, "short");
  EXPECT_FALSE(overlong);
  EXPECT_FALSE(reader.Next(&line, &overlong));
}

TEST(LineReaderTest, MissingFile) {
  TempDir dir;
  LineReader reader;
  EXPECT_EQ(reader.Open(dir.File("missing")), ENOENT);
  std::string line;
  bool overlong;
  EXPECT_FALSE(reader.Next(&line, &overlong));
  EXPECT_EQ(reader.error(), ENOENT);
}

TEST(LineReaderTest, ReadingADirectoryIsAnError) {
  TempDir dir;
  LineReader reader;
  ASSERT_EQ(reader.Open(dir.path()), 0);  // open(2) allows it, read(2) not
  std::string line;
  bool overlong;
  EXPECT_FALSE(reader.Next(&line, &overlong));
  EXPECT_EQ(reader.error(), EISDIR);
}

}  // namespace
}  // namespace yulo_platform
