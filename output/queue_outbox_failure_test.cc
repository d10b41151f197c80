// QueueOutbox: what a busy or failing lock, a failed open, write or
// truncation cost: the lines are kept and written later, in order, with
// one log line each way.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "output/queue_outbox.h"
#include "output/queue_outbox_test_fixture.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::kLine64;
using testing::kTryLock;
using testing::Line;
using testing::LinesWithMessage;
using testing::MakeQueue;
using testing::OpenDescriptorCount;
using testing::QueueFileTest;
using testing::ReadFileText;
using testing::ReadLines;
using testing::ScriptedFileOps;
using testing::TakeLogLines;
using testing::WriteFileText;

TEST_F(QueueFileTest, BusyLockKeepsTheLinesAndLogsOnceEachWay) {
  // Another open file description holds the lock, as a consumer would.
  WriteFileText(file_, "old\n");
  const int holder = open(file_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  const int fds_before = OpenDescriptorCount();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(Send("/vol1/M/a"));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(OpenDescriptorCount(), fds_before) << "every try closed";
  EXPECT_EQ(ReadFileText(file_), "old\n");
  EXPECT_EQ(ops_.TakeFlockCalls(),
            (std::vector<int>{kTryLock, kTryLock, kTryLock}));
  EXPECT_LT(elapsed, std::chrono::milliseconds(500));
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kBusy);
  EXPECT_EQ(outbox_->LineCount(), 1u);
  auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "try lock too many times, path=" + file_ +
                                        ", reason=" + strerror(EAGAIN))
                .size(),
            1u)
      << lines[0];

  // Still busy at the next passes: the lines queue up, nothing is logged.
  EXPECT_FALSE(Send("/vol1/M/b"));
  EXPECT_FALSE(Send("/vol1/M/c"));
  EXPECT_TRUE(TakeLogLines().empty());
  EXPECT_EQ(outbox_->LineCount(), 3u);

  // Once the holder lets go, every line goes in, in order, and that is
  // logged once.
  flock(holder, LOCK_UN);
  close(holder);
  EXPECT_TRUE(Send("/vol1/M/d"));
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{"old", Line(64, "/vol1/M/a"),
                                      Line(64, "/vol1/M/b"),
                                      Line(64, "/vol1/M/c"),
                                      Line(64, "/vol1/M/d")}));
  lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "Queue writable again, path=" + file_ +
                                        ", kept=3")
                .size(),
            1u)
      << lines[0];
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kOk);
  EXPECT_TRUE(outbox_->empty());
}

TEST_F(QueueFileTest, InterruptedLockIsRetried) {
  ops_.FailNext(ScriptedFileOps::kFlock, {EINTR, EAGAIN});
  EXPECT_TRUE(Send("/vol1/M/a"));
  EXPECT_EQ(ops_.TakeFlockCalls(),
            (std::vector<int>{kTryLock, kTryLock, kTryLock, LOCK_UN}));
  EXPECT_EQ(ReadFileText(file_), std::string(kLine64) + "\n");
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(QueueFileTest, InterruptedThreeTimesKeepsTheLine) {
  ops_.FailNext(ScriptedFileOps::kFlock, {EINTR, EINTR, EINTR});
  const int fds_before = OpenDescriptorCount();
  EXPECT_FALSE(Send("/vol1/M/a"));
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  EXPECT_EQ(ops_.TakeFlockCalls(),
            (std::vector<int>{kTryLock, kTryLock, kTryLock}));
  EXPECT_EQ(ReadFileText(file_), "");
  EXPECT_EQ(LinesWithMessage(TakeLogLines(),
                             "try lock too many times, path=" + file_ +
                                 ", reason=" + strerror(EINTR))
                .size(),
            1u);
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadFileText(file_), std::string(kLine64) + "\n");
}

TEST_F(QueueFileTest, OtherLockFailureIsNotRetriedAndKeepsTheLine) {
  const int fds_before = OpenDescriptorCount();
  ops_.FailNext(ScriptedFileOps::kFlock, {ENOLCK});
  EXPECT_FALSE(Send("/vol1/M/a"));
  EXPECT_EQ(ops_.TakeFlockCalls(), (std::vector<int>{kTryLock, LOCK_UN}));
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  EXPECT_EQ(ReadFileText(file_), "") << "created, the line kept";
  EXPECT_TRUE(TakeLogLines().empty()) << "logged only at level 7";
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kFailing);

  LOG_LEVEL = 7;
  ops_.FailNext(ScriptedFileOps::kFlock, {ENOLCK});
  EXPECT_FALSE(Flush());
  EXPECT_EQ(LinesWithMessage(TakeLogLines(), "flock fail, path=" + file_ +
                                                 ", reason=" + strerror(ENOLCK))
                .size(),
            1u);
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadFileText(file_), std::string(kLine64) + "\n");
}

TEST_F(QueueFileTest, LockIsReleasedAfterEveryAppend) {
  const int fds_before = OpenDescriptorCount();
  Send("/vol1/M/a");  // normal append
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  Send("/vol1/M/a");  // reset
  Send("/vol1/M/a");  // reset file, dropped
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  const int fd = open(file_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0) << "nobody holds the lock";
  close(fd);
}

TEST_F(QueueFileTest, FailedOpenKeepsTheLinesUntilTheDirectoryIsBack) {
  const std::string sub = dir_.File("sub");
  const std::string path = sub + "/queue";
  queues_ = {MakeQueue(path, "/vol1/M")};
  outbox_ = std::make_unique<QueueOutbox>(path);
  const int fds_before = OpenDescriptorCount();
  EXPECT_FALSE(Send("/vol1/M/a"));
  EXPECT_FALSE(Send("/vol1/M/b"));
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "Failed to open queue path=" + path +
                                        ", reason=" + strerror(ENOENT))
                .size(),
            1u)
      << lines[0];
  EXPECT_EQ(outbox_->last_error(), strerror(ENOENT));
  ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
  EXPECT_TRUE(Send("/vol1/M/c"));
  EXPECT_EQ(ReadLines(path),
            (std::vector<std::string>{Line(64, "/vol1/M/a"),
                                      Line(64, "/vol1/M/b"),
                                      Line(64, "/vol1/M/c")}));
  EXPECT_EQ(LinesWithMessage(TakeLogLines(),
                             "Queue writable again, path=" + path + ", kept=2")
                .size(),
            1u);
}

TEST_F(QueueFileTest, FifoInThePlaceOfTheFileIsRefusedWithoutBlocking) {
  // Nobody else has the FIFO open: a blocking open or read would hang here
  // for good, so returning at all is half of what this test proves.
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  const int fds_before = OpenDescriptorCount();
  EXPECT_FALSE(Send("/vol1/M/a"));
  EXPECT_FALSE(Send("/vol1/M/b"));
  EXPECT_EQ(OpenDescriptorCount(), fds_before) << "the FIFO was closed";
  EXPECT_EQ(ops_.Calls(ScriptedFileOps::kRead), 0) << "nothing read from it";
  EXPECT_EQ(ops_.Calls(ScriptedFileOps::kWrite), 0) << "nothing written";
  EXPECT_TRUE(ops_.TakeFlockCalls().empty()) << "never locked";
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kFailing);
  EXPECT_EQ(outbox_->last_error(), "not a regular file");
  EXPECT_EQ(outbox_->LineCount(), 2u) << "kept, as for any failing file";
  auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "Queue path is not a regular file, path=" +
                                        file_)
                .size(),
            1u)
      << lines[0];

  // Once a regular file is back, the kept lines go in, in order.
  ASSERT_EQ(unlink(file_.c_str()), 0);
  EXPECT_TRUE(Send("/vol1/M/c"));
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{Line(64, "/vol1/M/a"),
                                      Line(64, "/vol1/M/b"),
                                      Line(64, "/vol1/M/c")}));
}

TEST_F(QueueFileTest, DirectoryInThePlaceOfTheFileIsRefused) {
  ASSERT_EQ(mkdir(file_.c_str(), 0700), 0);
  EXPECT_FALSE(Send("/vol1/M/a"));
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kFailing);
  EXPECT_EQ(outbox_->LineCount(), 1u);
}

TEST_F(QueueFileTest, FailedWriteLeavesNoFragment) {
  for (const int err : {ENOSPC, EIO}) {
    WriteFileText(file_, "0123456789\n");
    outbox_ = std::make_unique<QueueOutbox>(file_);
    // Part of the batch goes in, then the file system refuses the rest.
    Add("/vol1/M/a");
    Add("/vol1/M/b");
    ops_.ShortNextWrite(30);
    ops_.FailNext(ScriptedFileOps::kWrite, {0, err});
    EXPECT_FALSE(Flush());
    EXPECT_EQ(ReadFileText(file_), "0123456789\n") << "truncated back";
    EXPECT_EQ(outbox_->LineCount(), 2u);
    const auto lines = TakeLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(LinesWithMessage(lines, std::string("Failed to write, reason=") +
                                          strerror(err))
                  .size(),
              1u)
        << lines[0];

    EXPECT_TRUE(Send("/vol1/M/c"));
    EXPECT_EQ(ReadLines(file_),
              (std::vector<std::string>{"0123456789", Line(64, "/vol1/M/a"),
                                        Line(64, "/vol1/M/b"),
                                        Line(64, "/vol1/M/c")}));
    TakeLogLines();
  }
}

TEST_F(QueueFileTest, AFragmentThatCouldNotBeCutIsCutAtTheNextAttempt) {
  WriteFileText(file_, "0123456789\n");
  Add("/vol1/M/a");
  ops_.ShortNextWrite(20);
  ops_.FailNext(ScriptedFileOps::kWrite, {0, ENOSPC});
  ops_.FailNext(ScriptedFileOps::kFtruncate, {EIO});
  EXPECT_FALSE(Flush());
  EXPECT_EQ(ReadFileText(file_).size(), 11u + 20u) << "the fragment stays";
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{"0123456789", Line(64, "/vol1/M/a")}));

  // Emptied by its consumer in between: nothing of it is cut again.
  Add("/vol1/M/b");
  ops_.ShortNextWrite(5);
  ops_.FailNext(ScriptedFileOps::kWrite, {0, ENOSPC});
  ops_.FailNext(ScriptedFileOps::kFtruncate, {EIO});
  EXPECT_FALSE(Flush());
  WriteFileText(file_, "");
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(file_), (std::vector<std::string>{Line(64, "/vol1/M/b")}));
}

TEST_F(QueueFileTest, ShortAndInterruptedWritesAreCompleted) {
  Add("/vol1/M/a");
  Add("/vol1/M/b");
  ops_.ShortNextWrite(7);
  ops_.ShortNextWrite(1);
  ops_.FailNext(ScriptedFileOps::kWrite, {0, 0, EINTR});
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{Line(64, "/vol1/M/a"),
                                      Line(64, "/vol1/M/b")}));
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(QueueFileTest, FailedTruncateOfAResetKeepsTheFileAndTheLine) {
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  Add("/vol1/M/a");
  ops_.FailNext(ScriptedFileOps::kFtruncate, {EIO});
  EXPECT_FALSE(Flush());
  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, kQueueFileMaxSize + 1);
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\"}"}));
}

TEST_F(QueueFileTest, FailedWriteOfAResetIsWrittenLater) {
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  AddMove("/vol1/M/o", "/vol1/M/n");
  ops_.FailNext(ScriptedFileOps::kWrite, {ENOSPC});
  EXPECT_FALSE(Flush());
  EXPECT_EQ(ReadFileText(file_), "") << "emptied, no fragment";
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                "{\"event\":1024,\"is_dir\":false,\"path\":\"\","
                "\"path_old\":\"/vol1/M/o\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\","
                "\"path_old\":\"/vol1/M/o\"}"}));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
