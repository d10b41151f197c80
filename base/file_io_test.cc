#include "base/file_io.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/testing/temp_dir.h"
#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::TempDir;

TEST(ReadWholeFileTest, ReadsEverything) {
  TempDir dir;
  // Larger than one read chunk, so the loop runs more than once.
  std::string big(200 * 1024 + 7, 'a');
  for (size_t i = 0; i < big.size(); i += 97) big[i] = '\n';
  const std::string path = dir.Write("f", big);
  std::string out = "left over";
  ASSERT_EQ(0, ReadWholeFile(path, kNoReadLimit, &out));
  EXPECT_EQ(big, out);
}

TEST(ReadWholeFileTest, EmptyFile) {
  TempDir dir;
  std::string out = "x";
  EXPECT_EQ(0, ReadWholeFile(dir.Write("empty", ""), 100, &out));
  EXPECT_EQ("", out);
}

TEST(ReadWholeFileTest, MissingFileGivesErrno) {
  TempDir dir;
  std::string out = "x";
  EXPECT_EQ(ENOENT, ReadWholeFile(dir.File("missing"), 100, &out));
  EXPECT_EQ("", out);
}

TEST(ReadWholeFileTest, RefusesFilesOverTheLimit) {
  TempDir dir;
  std::string out;
  EXPECT_EQ(EFBIG, ReadWholeFile(dir.Write("f", std::string(101, 'x')), 100, &out));
  EXPECT_EQ("", out);
  EXPECT_EQ(0, ReadWholeFile(dir.Write("g", std::string(100, 'x')), 100, &out));
  EXPECT_EQ(std::string(100, 'x'), out);
}

TEST(ReadWholeFileTest, ADirectoryIsAnError) {
  TempDir dir;
  std::string out;
  EXPECT_EQ(EISDIR, ReadWholeFile(dir.path(), 100, &out));
}

TEST(ReadWholeFileTest, ReadsProcFilesThatReportNoSize) {
  std::string out;
  ASSERT_EQ(0, ReadWholeFile("/proc/self/mounts", kNoReadLimit, &out));
  EXPECT_NE(std::string::npos, out.find(" / "));
}

TEST(ReadToEndTest, ReadsFromThePositionAndLeavesItOpen) {
  TempDir dir;
  UniqueFd fd(::open(dir.Write("f", "0123456789").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(fd.Valid());
  ASSERT_EQ(4, ::lseek(fd.Get(), 4, SEEK_SET));
  std::string out;
  ASSERT_EQ(0, ReadToEnd(fd.Get(), kNoReadLimit, &out));
  EXPECT_EQ("456789", out);
  ASSERT_EQ(0, ::lseek(fd.Get(), 0, SEEK_SET));
  EXPECT_EQ(EFBIG, ReadToEnd(fd.Get(), 9, &out));
  EXPECT_EQ("", out);
}

TEST(ReadAtTest, ReadsAtTheOffsetUpToTheCountOrTheEnd) {
  TempDir dir;
  UniqueFd fd(::open(dir.Write("f", "0123456789").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(fd.Valid());
  std::string out = "stale";
  ASSERT_EQ(0, ReadAt(fd.Get(), 2, 3, &out));
  EXPECT_EQ("234", out);
  ASSERT_EQ(0, ReadAt(fd.Get(), 7, 100, &out));
  EXPECT_EQ("789", out);
  ASSERT_EQ(0, ReadAt(fd.Get(), 20, 5, &out));
  EXPECT_EQ("", out);
  EXPECT_EQ(0, ::lseek(fd.Get(), 0, SEEK_CUR)) << "position left alone";
  UniqueFd dirfd(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  out = "stale";
  EXPECT_EQ(EISDIR, ReadAt(dirfd.Get(), 0, 4, &out));
  EXPECT_EQ("", out);
}

TEST(WriteAllTest, WritesEverythingAndAppends) {
  TempDir dir;
  const std::string path = dir.Write("f", "");
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  ASSERT_TRUE(fd.Valid());
  const std::string big(300 * 1024, 'b');
  ASSERT_TRUE(WriteAll(fd.Get(), "head", 4));
  ASSERT_TRUE(WriteAll(fd.Get(), big.data(), big.size()));
  std::string out;
  ASSERT_EQ(0, ReadWholeFile(path, kNoReadLimit, &out));
  EXPECT_EQ("head" + big, out);
}

TEST(WriteWholeFileTest, CreatesAndReplaces) {
  TempDir dir;
  const std::string path = dir.File("f");
  ASSERT_TRUE(WriteWholeFile(path, "a longer first text", 0600));
  ASSERT_TRUE(WriteWholeFile(path, "short", 0644));
  std::string out;
  ASSERT_EQ(0, ReadWholeFile(path, kNoReadLimit, &out));
  EXPECT_EQ("short", out);
  struct stat st;
  ASSERT_EQ(0, ::stat(path.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);  // the mode of a new file only
  errno = 0;
  EXPECT_FALSE(WriteWholeFile(dir.File("missing/f"), "x", 0600));
  EXPECT_EQ(ENOENT, errno);
}

TEST(WriteAllTest, FailureSetsErrno) {
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);
  errno = 0;
  EXPECT_FALSE(WriteAll(read_end.Get(), "x", 1));
  EXPECT_EQ(EBADF, errno);
}

TEST(WriteAllAtTest, WritesAtTheOffsetAndLeavesThePosition) {
  TempDir dir;
  const std::string path = dir.Write("f", "0123456789");
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_TRUE(fd.Valid());
  ASSERT_TRUE(WriteAllAt(fd.Get(), "ab", 2, 3));
  ASSERT_TRUE(WriteAllAt(fd.Get(), "XY", 2, 12));  // past the end: a hole
  EXPECT_EQ(0, ::lseek(fd.Get(), 0, SEEK_CUR));
  std::string out;
  ASSERT_EQ(0, ReadWholeFile(path, kNoReadLimit, &out));
  EXPECT_EQ(std::string("012ab56789\0\0XY", 14), out);
}

TEST(FsyncRetryingTest, SucceedsOnAFileFailsOnNothing) {
  TempDir dir;
  UniqueFd fd(::open(dir.Write("f", "x").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(FsyncRetrying(fd.Get()));
  errno = 0;
  EXPECT_FALSE(FsyncRetrying(-1));
  EXPECT_EQ(EBADF, errno);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
