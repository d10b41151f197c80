#include "yulotifyd/queue_consumer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/testing/temp_dir.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

namespace fs = std::filesystem;

class QueueConsumerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = scratch_.path();
    path_ = dir_ + "/events.queue";
  }

  static void Write(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    ASSERT_TRUE(out.good());
  }

  static void Append(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << text;
    ASSERT_TRUE(out.good());
  }

  static std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  // Opens the file and takes the exclusive lock, as a writer or another
  // consumer would; the caller closes the descriptor. -1 on failure.
  static int HoldLock(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0 && flock(fd, LOCK_EX) != 0) {
      close(fd);
      return -1;
    }
    return fd;
  }

  // A writer holding the lock on `fd`: a moment later it writes `text` at
  // `offset`, unlocks and closes, while the test waits for the lock.
  static std::thread FinishWriteLater(int fd, std::string text,
                                      off_t offset) {
    return std::thread([fd, text, offset] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      EXPECT_EQ(pwrite(fd, text.data(), text.size(), offset),
                static_cast<ssize_t>(text.size()));
      flock(fd, LOCK_UN);
      close(fd);
    });
  }

  // Runs `check` in a child process as user and group 65534 (the caller is
  // root); returns its exit status, or -1 when it could not run or died.
  static int AsNobody(const std::function<int()>& check) {
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
      if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
      _exit(check());
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

  // Whether another open file description could take the lock right now.
  static bool Lockable(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return ok;
  }

  testing::TempDir scratch_{"queue-consumer"};
  std::string dir_;
  std::string path_;
};

using Lines = std::vector<std::string>;

TEST_F(QueueConsumerTest, MissingFileHoldsNoLines) {
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  EXPECT_TRUE(r.ok) << r.message;
  EXPECT_TRUE(r.lines.empty());
  EXPECT_FALSE(fs::exists(path_)) << "the consumer must not create the file";
}

TEST_F(QueueConsumerTest, EmptyFileHoldsNoLines) {
  Write(path_, "");
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  EXPECT_TRUE(r.ok) << r.message;
  EXPECT_TRUE(r.lines.empty());
  EXPECT_TRUE(fs::exists(path_));
}

TEST_F(QueueConsumerTest, TakesEveryLineInOrderAndEmptiesTheFile) {
  Write(path_,
        "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/a\"}\n"
        "{\"event\":128,\"is_dir\":false,\"path\":\"/vol1/b\"}\n"
        "\n"
        "not json\n");
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.lines,
            (Lines{"{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/a\"}",
                   "{\"event\":128,\"is_dir\":false,\"path\":\"/vol1/b\"}",
                   "not json"}));
  EXPECT_FALSE(r.kept_partial_line);
  EXPECT_EQ(Read(path_), "");
  EXPECT_TRUE(Lockable(path_)) << "the lock must be released";

  const QueueConsumer::Result again = QueueConsumer(path_).Consume();
  EXPECT_TRUE(again.ok);
  EXPECT_TRUE(again.lines.empty());
}

TEST_F(QueueConsumerTest, KeepRunsUnderTheLockBeforeTheFileIsCut) {
  Write(path_, "a\nb\npart");
  Lines seen;
  const QueueConsumer::Result r = QueueConsumer(path_).Consume(
      [&](const Lines& lines, std::string*) {
        seen = lines;
        EXPECT_FALSE(Lockable(path_)) << "keep must run under the lock";
        EXPECT_EQ(Read(path_), "a\nb\npart") << "nothing cut yet";
        return true;
      });
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(seen, (Lines{"a", "b"}));
  EXPECT_EQ(r.lines, (Lines{"a", "b"}));
  EXPECT_EQ(Read(path_), "part");
}

TEST_F(QueueConsumerTest, KeepRefusingLeavesEveryLineInTheFile) {
  Write(path_, "a\nb\n");
  const QueueConsumer::Result r = QueueConsumer(path_).Consume(
      [](const Lines&, std::string* why) {
        *why = "disk full";
        return false;
      });
  EXPECT_FALSE(r.ok);
  EXPECT_NE(r.message.find("disk full"), std::string::npos) << r.message;
  EXPECT_TRUE(r.lines.empty());
  EXPECT_EQ(Read(path_), "a\nb\n");
  EXPECT_TRUE(Lockable(path_));
}

TEST_F(QueueConsumerTest, KeepsAnUnfinishedLastLineInTheFile) {
  Write(path_, "one\ntwo\nthr");
  QueueConsumer consumer(path_);
  QueueConsumer::Result r = consumer.Consume();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.lines, (Lines{"one", "two"}));
  EXPECT_TRUE(r.kept_partial_line);
  EXPECT_EQ(Read(path_), "thr");

  // Nothing complete yet: nothing taken, the file left alone.
  r = consumer.Consume();
  ASSERT_TRUE(r.ok);
  EXPECT_TRUE(r.lines.empty());
  EXPECT_TRUE(r.kept_partial_line);
  EXPECT_EQ(Read(path_), "thr");

  Append(path_, "ee\nfour\n");
  r = consumer.Consume();
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.lines, (Lines{"three", "four"}));
  EXPECT_FALSE(r.kept_partial_line);
  EXPECT_EQ(Read(path_), "");
}

TEST_F(QueueConsumerTest, ResetMarkerAndRescanLinesComeOutAsWritten) {
  Write(path_,
        "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}\n"
        "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/Public\"}\n");
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  ASSERT_TRUE(r.ok);
  ASSERT_EQ(r.lines.size(), 2u);
  Json::Value first;
  ASSERT_TRUE(fromString(r.lines[0], first));
  EXPECT_EQ(first["event"].asUInt(), 1024u);
  EXPECT_EQ(Read(path_), "") << "emptying the file ends the reset state";
}

TEST_F(QueueConsumerTest, LockHeldElsewhereFailsAfterTheTimeOutTakingNothing) {
  Write(path_, "a\nb\n");
  const int holder = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  const QueueConsumer::Result r = QueueConsumer(path_, 200).Consume();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  close(holder);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, EWOULDBLOCK);
  EXPECT_NE(r.message.find("locked"), std::string::npos) << r.message;
  EXPECT_TRUE(r.lines.empty());
  EXPECT_GE(elapsed, std::chrono::milliseconds(180));
  EXPECT_LT(elapsed, std::chrono::milliseconds(2000));
  EXPECT_EQ(Read(path_), "a\nb\n");
}

TEST_F(QueueConsumerTest, WaitsForABriefLockHolder) {
  Write(path_, "a\n");
  const int holder = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  std::thread releaser = FinishWriteLater(holder, "b\n", 2);
  const QueueConsumer::Result r = QueueConsumer(path_, 5000).Consume();
  releaser.join();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.lines, (Lines{"a", "b"}));
}

TEST_F(QueueConsumerTest, NotARegularFileIsAnError) {
  const QueueConsumer::Result dir = QueueConsumer(dir_).Consume();
  EXPECT_FALSE(dir.ok);
  EXPECT_FALSE(dir.message.empty());

  const std::string fifo = dir_ + "/fifo.queue";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const QueueConsumer::Result f = QueueConsumer(fifo).Consume();
  EXPECT_FALSE(f.ok);
  EXPECT_NE(f.message.find("not a regular file"), std::string::npos)
      << f.message;
}

TEST_F(QueueConsumerTest, FileOfAnotherUserIsAnError) {
  Write(path_, "a\n");
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  if (geteuid() != 0) {
    ASSERT_EQ(chmod(path_.c_str(), 0), 0);
    const QueueConsumer::Result r = QueueConsumer(path_).Consume();
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.error, EACCES);
    return;
  }
  // As root: try it as nobody, in a child.
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  EXPECT_EQ(AsNobody([this] {
              const QueueConsumer::Result r = QueueConsumer(path_).Consume();
              return !r.ok && r.error == EACCES && !r.message.empty() ? 0 : 1;
            }),
            0);
  EXPECT_EQ(Read(path_), "a\n");
}

TEST_F(QueueConsumerTest, SymbolicLinkIsRefusedAndItsTargetUntouched) {
  // Whoever owns the queue's directory may put a link in the file's place;
  // a consumer with more rights than they have must not empty its target.
  const std::string victim = dir_ + "/victim";
  Write(victim, "precious\n");
  ASSERT_EQ(symlink(victim.c_str(), path_.c_str()), 0);
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, ELOOP);
  EXPECT_NE(r.message.find("symbolic link"), std::string::npos) << r.message;
  EXPECT_TRUE(r.lines.empty());
  const QueueConsumer::Result peek = QueueConsumer(path_).Peek();
  EXPECT_FALSE(peek.ok);
  EXPECT_EQ(peek.error, ELOOP);
  EXPECT_TRUE(peek.lines.empty());
  EXPECT_EQ(Read(victim), "precious\n");
}

TEST_F(QueueConsumerTest, FileWithAnotherHardLinkIsRefused) {
  Write(path_, "a\n");
  const std::string other = dir_ + "/other-name";
  ASSERT_EQ(link(path_.c_str(), other.c_str()), 0);
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, EINVAL);
  EXPECT_NE(r.message.find("2 hard links"), std::string::npos) << r.message;
  EXPECT_EQ(Read(path_), "a\n");
  ASSERT_EQ(unlink(other.c_str()), 0);
  EXPECT_EQ(QueueConsumer(path_).Consume().lines,
            std::vector<std::string>{"a"});
}

TEST_F(QueueConsumerTest, ExpectedOwnerIsChecked) {
  Write(path_, "a\n");
  QueueConsumer stranger(path_);
  stranger.set_expected_owner(geteuid() + 1);
  const QueueConsumer::Result r = stranger.Consume();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, EPERM);
  EXPECT_NE(r.message.find("owned by uid " + std::to_string(geteuid())),
            std::string::npos)
      << r.message;
  EXPECT_FALSE(stranger.Peek().ok);
  EXPECT_EQ(Read(path_), "a\n");
  QueueConsumer mine(path_);
  mine.set_expected_owner(geteuid());
  EXPECT_EQ(mine.Consume().lines, std::vector<std::string>{"a"});
}

TEST_F(QueueConsumerTest, FileOwnedByNeitherTheDirectoryOwnerNorTheCaller) {
  // Root consumes; the directory is root's; the file is nobody's.
  Write(path_, "a\n");
  ASSERT_EQ(chown(path_.c_str(), 65534, 65534), 0);
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, EPERM);
  EXPECT_EQ(Read(path_), "a\n");
  // The directory's owner vouches for the files in it.
  ASSERT_EQ(chown(dir_.c_str(), 65534, 65534), 0);
  EXPECT_EQ(QueueConsumer(path_).Consume().lines,
            std::vector<std::string>{"a"});
}

TEST_F(QueueConsumerTest, FileLargerThanAQueueFileGetsIsRefusedUnread) {
  Write(path_, "a\n");
  ASSERT_EQ(truncate(path_.c_str(), QueueConsumer::kMaxQueueFileBytes + 1), 0);
  const QueueConsumer::Result r = QueueConsumer(path_).Consume();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, EFBIG);
  EXPECT_FALSE(QueueConsumer(path_).Peek().ok);
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, QueueConsumer::kMaxQueueFileBytes + 1);
}

TEST_F(QueueConsumerTest, ReadsAreBoundedAndTheRestComesInLaterRounds) {
  // About 3.5 reads' worth of numbered lines of 100 bytes.
  const size_t chunk = QueueConsumer::kMinMaxReadBytes;
  std::vector<std::string> all;
  std::string text;
  for (size_t i = 0; text.size() < chunk * 7 / 2; ++i) {
    std::string line = std::to_string(i);
    line.resize(99, '.');
    all.push_back(line);
    text += line + "\n";
  }
  Write(path_, text + "unfinished");
  QueueConsumer consumer(path_);
  consumer.set_max_read_bytes(1);  // raised to the minimum
  EXPECT_EQ(consumer.max_read_bytes(), chunk);

  const QueueConsumer::Result peek = consumer.Peek();
  ASSERT_TRUE(peek.ok) << peek.message;
  EXPECT_TRUE(peek.more);
  EXPECT_EQ(peek.lines.size(), chunk / 100);

  std::vector<std::string> taken;
  int rounds = 0;
  for (bool more = true; more; ++rounds) {
    ASSERT_LT(rounds, 10);
    const QueueConsumer::Result r = consumer.Consume();
    ASSERT_TRUE(r.ok) << r.message;
    size_t bytes = 0;
    for (const std::string& line : r.lines) bytes += line.size() + 1;
    EXPECT_LE(bytes, chunk);
    taken.insert(taken.end(), r.lines.begin(), r.lines.end());
    more = r.more;
    if (more) {
      EXPECT_FALSE(r.kept_partial_line);
    }
  }
  EXPECT_EQ(rounds, 4);
  EXPECT_EQ(taken, all);
  EXPECT_EQ(Read(path_), "unfinished");
}

TEST_F(QueueConsumerTest, AHeadWithoutACompleteLineIsRefused) {
  const std::string garbage(QueueConsumer::kMinMaxReadBytes * 2, 'x');
  Write(path_, garbage + "\n");
  QueueConsumer consumer(path_);
  consumer.set_max_read_bytes(QueueConsumer::kMinMaxReadBytes);
  const QueueConsumer::Result r = consumer.Consume();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, EFBIG);
  EXPECT_NE(r.message.find("no complete line"), std::string::npos)
      << r.message;
  EXPECT_EQ(Read(path_), garbage + "\n");
}

TEST_F(QueueConsumerTest, FileReplacedWhileWaitingIsConsumedFresh) {
  Write(path_, "old\n");
  const int holder = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX), 0);
  QueueConsumer::Result r;
  std::thread consumer([&] { r = QueueConsumer(path_, 5000).Consume(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  // Someone renames a fresh file over the queue while the consumer waits
  // for the lock on the old one.
  const std::string fresh = dir_ + "/fresh";
  Write(fresh, "new\n");
  ASSERT_EQ(rename(fresh.c_str(), path_.c_str()), 0);
  flock(holder, LOCK_UN);
  consumer.join();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.lines, (Lines{"new"}));
  // The replaced file was not touched.
  char buf[8] = {0};
  EXPECT_EQ(pread(holder, buf, sizeof(buf), 0), 4);
  EXPECT_STREQ(buf, "old\n");
  close(holder);
}

// ---------------------------------------------------------------------------
// Peek: the lines, left in the file.

// Sets the file's atime and mtime to fixed past values and returns its
// stat afterwards.
struct stat SetOldTimes(const std::string& path) {
  const struct timespec times[2] = {{1000000000, 111}, {1100000000, 222}};
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  struct stat st;
  EXPECT_EQ(stat(path.c_str(), &st), 0);
  return st;
}

TEST_F(QueueConsumerTest, PeekShowsCompleteLinesAndChangesNothing) {
  const std::string text = "a\n\nb\n{\"event\":6";
  Write(path_, text);
  const struct stat before = SetOldTimes(path_);
  const QueueConsumer::Result r = QueueConsumer(path_).Peek();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.lines, (Lines{"a", "b"}));
  EXPECT_TRUE(r.kept_partial_line);
  EXPECT_EQ(r.error, 0);
  EXPECT_TRUE(Lockable(path_)) << "the lock must be released";
  struct stat after;
  ASSERT_EQ(stat(path_.c_str(), &after), 0);
  EXPECT_EQ(Read(path_), text);
  EXPECT_EQ(after.st_size, before.st_size);
  EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(after.st_ctim.tv_sec, before.st_ctim.tv_sec);
  EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
  // The owner reads with O_NOATIME; without it an atime older than the
  // mtime would be moved forward.
  EXPECT_EQ(after.st_atim.tv_sec, before.st_atim.tv_sec);
  EXPECT_EQ(after.st_atim.tv_nsec, before.st_atim.tv_nsec);

  // A consumer still gets every line after a peek.
  const QueueConsumer::Result taken = QueueConsumer(path_).Consume();
  ASSERT_TRUE(taken.ok) << taken.message;
  EXPECT_EQ(taken.lines, (Lines{"a", "b"}));
  EXPECT_EQ(Read(path_), "{\"event\":6");
}

TEST_F(QueueConsumerTest, PeekAtAnEmptyFileOrOnlyAFragment) {
  Write(path_, "");
  QueueConsumer::Result r = QueueConsumer(path_).Peek();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_TRUE(r.lines.empty());
  EXPECT_FALSE(r.kept_partial_line);

  Write(path_, "no line feed yet");
  r = QueueConsumer(path_).Peek();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_TRUE(r.lines.empty());
  EXPECT_TRUE(r.kept_partial_line);
  EXPECT_EQ(Read(path_), "no line feed yet");
}

TEST_F(QueueConsumerTest, PeekAtAMissingFileIsAnError) {
  const QueueConsumer::Result r = QueueConsumer(path_).Peek();
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, ENOENT);
  EXPECT_EQ(r.message,
            "cannot open " + path_ + ": No such file or directory");
  EXPECT_FALSE(fs::exists(path_)) << "a peek must not create the file";
}

TEST_F(QueueConsumerTest, PeekAtSomethingElseIsAnError) {
  const QueueConsumer::Result dir = QueueConsumer(dir_).Peek();
  EXPECT_FALSE(dir.ok);
  EXPECT_EQ(dir.message, dir_ + " is not a regular file");

  const std::string fifo = dir_ + "/fifo.queue";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const QueueConsumer::Result f = QueueConsumer(fifo).Peek();
  EXPECT_FALSE(f.ok);
  EXPECT_EQ(f.message, fifo + " is not a regular file");
}

TEST_F(QueueConsumerTest, PeekWaitsForAWriterAndSeesItsWholeLine) {
  Write(path_, "a\n");
  const int holder = HoldLock(path_);
  ASSERT_GE(holder, 0);
  // Half a line is in the file while the writer holds the lock; a peek
  // must not show it.
  ASSERT_EQ(pwrite(holder, "{\"b\":", 5, 2), 5);
  std::thread releaser = FinishWriteLater(holder, "1}\n", 7);
  const QueueConsumer::Result r = QueueConsumer(path_, 5000).Peek();
  releaser.join();
  ASSERT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.lines, (Lines{"a", "{\"b\":1}"}));
  EXPECT_FALSE(r.kept_partial_line);
  EXPECT_EQ(Read(path_), "a\n{\"b\":1}\n");
}

TEST_F(QueueConsumerTest, PeekFailsWhileAConsumerKeepsTheLock) {
  Write(path_, "a\n");
  const int holder = HoldLock(path_);
  ASSERT_GE(holder, 0);
  const QueueConsumer::Result r = QueueConsumer(path_, 200).Peek();
  close(holder);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.error, EWOULDBLOCK);
  EXPECT_EQ(r.message,
            path_ + " stayed locked by another process for 200 ms");
  EXPECT_TRUE(r.lines.empty());
}

TEST_F(QueueConsumerTest, PeekSharesTheLockWithOtherReaders) {
  Write(path_, "a\n");
  const int reader = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  ASSERT_EQ(flock(reader, LOCK_SH), 0);
  const QueueConsumer::Result r = QueueConsumer(path_, 200).Peek();
  close(reader);
  EXPECT_TRUE(r.ok) << r.message;
  EXPECT_EQ(r.lines, (Lines{"a"}));
}

TEST_F(QueueConsumerTest, PeekNeedsOnlyReadPermission) {
  Write(path_, "a\n");
  if (geteuid() != 0) {
    ASSERT_EQ(chmod(path_.c_str(), 0444), 0);
    const QueueConsumer::Result r = QueueConsumer(path_).Peek();
    EXPECT_TRUE(r.ok) << r.message;
    EXPECT_EQ(r.lines, (Lines{"a"}));
    EXPECT_EQ(QueueConsumer(path_).Consume().error, EACCES);
    return;
  }
  // As root: as nobody, in a child, on root's file of mode 0644. nobody may
  // not use O_NOATIME on it either, so this also covers the open without it.
  ASSERT_EQ(chmod(path_.c_str(), 0644), 0);
  ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  EXPECT_EQ(AsNobody([this] {
              const QueueConsumer::Result peek = QueueConsumer(path_).Peek();
              if (!peek.ok || peek.lines != Lines{"a"}) return 3;
              const QueueConsumer::Result consume =
                  QueueConsumer(path_).Consume();
              return !consume.ok && consume.error == EACCES ? 0 : 4;
            }),
            0);
  EXPECT_EQ(Read(path_), "a\n");
}

// ---------------------------------------------------------------------------
// Consumers racing writers. Writers append the way the daemon does: open,
// exclusive flock, seek to the end, one write of one whole line, unlock,
// close. (They wait for the lock instead of giving up, so that every line
// they mean to write is written and the test can count them.)

std::string ExpectedLine(int writer, int seq) {
  // Lengths from a few bytes to several pages, so a torn or interleaved
  // write could not go unnoticed.
  const size_t pad = static_cast<size_t>((seq * 7919 + writer * 104729) % 9000);
  std::string line = "{\"w\":" + std::to_string(writer) +
                     ",\"seq\":" + std::to_string(seq) + ",\"pad\":\"";
  line.append(pad, static_cast<char>('a' + (seq + writer) % 26));
  line += "\"}";
  return line;
}

// Returns false on any failure. Uses only what is safe in a forked child.
bool WriteLines(const std::string& path, int writer, int count) {
  for (int seq = 0; seq < count; ++seq) {
    const std::string text = ExpectedLine(writer, seq) + "\n";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    while (flock(fd, LOCK_EX) != 0) {
      if (errno != EINTR) return false;
    }
    bool ok = lseek(fd, 0, SEEK_END) >= 0 &&
              write(fd, text.data(), text.size()) ==
                  static_cast<ssize_t>(text.size());
    flock(fd, LOCK_UN);
    close(fd);
    if (!ok) return false;
  }
  return true;
}

// Checks every line and records (writer, seq). `last_seq` holds, per writer,
// the last sequence number this consumer saw: lines of one writer must come
// out in the order they were written.
void CheckLines(const Lines& lines, std::map<int, int>* last_seq,
                std::vector<std::pair<int, int>>* seen) {
  for (const std::string& line : lines) {
    Json::Value v;
    ASSERT_TRUE(fromString(line, v)) << "torn line: " << line.substr(0, 200);
    const int w = v["w"].asInt();
    const int seq = v["seq"].asInt();
    ASSERT_EQ(line, ExpectedLine(w, seq)) << "damaged line";
    auto it = last_seq->find(w);
    if (it != last_seq->end()) {
      ASSERT_GT(seq, it->second) << "writer " << w << " out of order";
    }
    (*last_seq)[w] = seq;
    seen->emplace_back(w, seq);
  }
}

void ExpectEachLineOnce(std::vector<std::pair<int, int>> seen, int writers,
                        int count) {
  std::sort(seen.begin(), seen.end());
  std::vector<std::pair<int, int>> expected;
  for (int w = 0; w < writers; ++w) {
    for (int s = 0; s < count; ++s) expected.emplace_back(w, s);
  }
  ASSERT_EQ(seen.size(), expected.size())
      << "lines lost or delivered twice";
  EXPECT_EQ(seen, expected);
}

TEST_F(QueueConsumerTest, RacingWriterProcessesLoseNothingTearNothing) {
  constexpr int kWriters = 3;
  constexpr int kCount = 3000;
  // The writers start only once the consumer has run once, so that on a
  // busy machine they cannot all be done before it first looks.
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      char byte;
      close(go[1]);
      if (read(go[0], &byte, 1) != 1) _exit(1);
      _exit(WriteLines(path_, w, kCount) ? 0 : 1);
    }
    children.push_back(pid);
  }
  close(go[0]);
  QueueConsumer consumer(path_);
  std::map<int, int> last_seq;
  std::vector<std::pair<int, int>> seen;
  int running = kWriters;
  int rounds = 0;
  while (running > 0) {
    QueueConsumer::Result r = consumer.Consume();
    ASSERT_TRUE(r.ok) << r.message;
    CheckLines(r.lines, &last_seq, &seen);
    if (++rounds == 1) {
      ASSERT_EQ(write(go[1], "gogo", kWriters), kWriters);
      close(go[1]);
    }
    for (pid_t& pid : children) {
      if (pid <= 0) continue;
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        pid = -1;
        --running;
      }
    }
  }
  // What the writers left, in as many reads as it takes.
  for (bool more = true; more;) {
    const QueueConsumer::Result last = consumer.Consume();
    ASSERT_TRUE(last.ok) << last.message;
    EXPECT_FALSE(last.kept_partial_line);
    CheckLines(last.lines, &last_seq, &seen);
    more = last.more;
  }
  ExpectEachLineOnce(seen, kWriters, kCount);
  EXPECT_GT(rounds, 1) << "the consumer never ran alongside the writers";
  EXPECT_EQ(Read(path_), "");
}

TEST_F(QueueConsumerTest, ConsumersAndWritersInThreadsShareEveryLineOnce) {
  constexpr int kWriters = 2;
  constexpr int kConsumers = 3;
  constexpr int kCount = 1500;
  std::atomic<int> writers_left{kWriters};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([this, w, &writers_left] {
      EXPECT_TRUE(WriteLines(path_, w, kCount));
      --writers_left;
    });
  }
  std::mutex mutex;
  std::vector<std::pair<int, int>> seen;
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([this, &writers_left, &mutex, &seen] {
      QueueConsumer consumer(path_);
      std::map<int, int> last_seq;  // per consumer: order is kept
      std::vector<std::pair<int, int>> mine;
      bool done = false;
      while (!done) {
        done = writers_left.load() == 0;  // one more round after the end
        QueueConsumer::Result r = consumer.Consume();
        ASSERT_TRUE(r.ok) << r.message;
        CheckLines(r.lines, &last_seq, &mine);
        if (r.more) done = false;  // the rest is still to be read
      }
      std::lock_guard<std::mutex> lock(mutex);
      seen.insert(seen.end(), mine.begin(), mine.end());
    });
  }
  for (std::thread& t : threads) t.join();
  ExpectEachLineOnce(seen, kWriters, kCount);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
