#include "output/queue_outbox.h"

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

#include "base/testing/temp_dir.h"
#include "output/queue_line.h"
#include "output/testing/fake_event_source.h"
#include "lib/testing/log_capture.h"
#include "output/testing/scripted_file_ops.h"
#include "yulotifyd/log.h"
#include "yulotifyd/queue_path.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::LinesWithMessage;
using testing::MakeQueue;
using testing::OpenDescriptorCount;
using testing::ParseLine;
using testing::ReadFileText;
using testing::ReadLines;
using testing::TempDir;
using testing::ScriptedFileOps;
using testing::TakeLogLines;
using testing::WriteFileText;

constexpr int kTryLock = LOCK_EX | LOCK_NB;

const char kLine64[] = "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/M/a\"}";

std::string Line(uint32_t code, const std::string& path, bool is_dir = false) {
  std::string text;
  AppendQueueLine(text, code, path, is_dir);
  return text;
}

class QueueFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    file_ = dir_.File("queue");
    LOG_LEVEL = 3;
    TakeLogLines();
    queues_ = {MakeQueue(file_, "/vol1/M")};
    outbox_ = std::make_unique<QueueOutbox>(file_);
  }
  void TearDown() override { LOG_LEVEL = 3; }

  // Adds one line to the outbox and appends what it holds.
  bool Send(const std::string& path, uint32_t code = 64, bool is_dir = false) {
    Add(path, code, is_dir);
    return Flush();
  }
  void Add(const std::string& path, uint32_t code = 64, bool is_dir = false) {
    outbox_->AddLine(Line(code, path, is_dir));
  }
  void AddMove(const std::string& old_path, const std::string& new_path) {
    const std::string quoted = QuoteQueueString(old_path);
    std::string text;
    AppendQueueLine(text, QUEUE_EVENT_MOVE, new_path, false, quoted);
    outbox_->AddLine(text, quoted);
  }
  bool Flush() { return outbox_->AppendToQueue(queues_, ops_); }

  // A file of `size` bytes that starts with `head` (zeros after it).
  void MakeFile(const std::string& head, off_t size) {
    WriteFileText(file_, head);
    ASSERT_EQ(truncate(file_.c_str(), size), 0);
  }

  TempDir dir_;
  std::string file_;
  std::vector<MonitorQueue> queues_;
  ScriptedFileOps ops_;
  std::unique_ptr<QueueOutbox> outbox_;
};

TEST_F(QueueFileTest, CreatesMissingFileWithMode0600) {
  const mode_t old_umask = umask(0);  // as the daemon runs
  Send("/vol1/M/a");
  umask(old_umask);
  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(ReadFileText(file_), std::string(kLine64) + "\n");
}

TEST_F(QueueFileTest, LinesAreAppendedInOrder) {
  Add("/vol1/M/a");
  Add("/vol1/M/dir", 128, true);
  AddMove("/vol1/M/old", "/vol1/M/new");
  Add("/vol1/M/x", 2 | 8);
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ops_.TakeFlockCalls(), (std::vector<int>{kTryLock, LOCK_UN}))
      << "one lock for the whole batch";
  EXPECT_EQ(ops_.Calls(ScriptedFileOps::kWrite), 1) << "one write";
  EXPECT_EQ(outbox_->lines_written(), 4u);
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                kLine64,
                "{\"event\":128,\"is_dir\":true,\"path\":\"/vol1/M/dir\"}",
                "{\"event\":256,\"is_dir\":false,\"path\":\"/vol1/M/new\","
                "\"path_old\":\"/vol1/M/old\"}",
                "{\"event\":10,\"is_dir\":false,\"path\":\"/vol1/M/x\"}"}));
}

TEST_F(QueueFileTest, SuccessLogsNothingBelowDebug) {
  Send("/vol1/M/a");
  EXPECT_TRUE(TakeLogLines().empty());
  LOG_LEVEL = 7;
  Send("/vol1/M/a");
  const auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "write event to: " + file_).size(), 1u);
}

TEST_F(QueueFileTest, EmptyFileTakesTheLine) {
  WriteFileText(file_, "");
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), std::string(kLine64) + "\n");
}

TEST_F(QueueFileTest, FileWithoutLineFeedTakesTheLineAtItsEnd) {
  // Even a head that reads like a reset marker does not count without its
  // line feed.
  WriteFileText(file_, "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}");
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_),
            "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}" +
                std::string(kLine64) + "\n");
}

TEST_F(QueueFileTest, FirstLineNotJsonStillTakesLines) {
  for (const std::string head :
       {"garbage\n", "[1024]\n", "\"event\"\n", "{\"event\":\"1024\"}\n",
        "{\"event\":-1024}\n", "{\"event\":1024} trailing\n",
        "{\"event\":512,\"path\":\"/vol1/M\",\"is_dir\":true}\n", "\n"}) {
    WriteFileText(file_, head);
    Send("/vol1/M/a");
    EXPECT_EQ(ReadFileText(file_), head + kLine64 + "\n") << head;
  }
}

TEST_F(QueueFileTest, LongFirstLineIsReadAcrossChunks) {
  // A 3000-byte first line spans three reads of the head check.
  std::string path(2950, 'x');
  Json::Value marker(Json::objectValue);
  marker["event"] = Json::Value(1024u);
  marker["path"] = Json::Value("/" + path);
  marker["is_dir"] = Json::Value(false);
  const std::string head = QueueLineText(marker) + "\n";
  ASSERT_GT(head.size(), 2 * kQueueHeadChunk);
  WriteFileText(file_, head);
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), head);  // a marker, however long

  // The same length without the marker code takes the line.
  marker["event"] = Json::Value(64u);
  const std::string plain = QueueLineText(marker) + "\n";
  WriteFileText(file_, plain);
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), plain + kLine64 + "\n");
}

TEST_F(QueueFileTest, NulBeforeTheLineFeedHidesTheLineFeed) {
  // The head check takes each chunk only up to its first NUL, so a NUL in
  // the first chunk hides that chunk's line feed; the search goes on in the
  // next chunks. Here the file ends first, so the check is skipped.
  std::string content = "{\"event\":1024}";
  content += '\0';
  content += "\n";
  WriteFileText(file_, content);
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), content + kLine64 + "\n");
}

TEST_F(QueueFileTest, ResetFileTakesNothingMore) {
  const std::string content =
      "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}\n"
      "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\"}\n";
  WriteFileText(file_, content);
  Send("/vol1/M/a");
  AddMove("/vol1/M/o", "/vol1/M/n");
  EXPECT_TRUE(Flush()) << "dropped, not kept";
  EXPECT_EQ(ReadFileText(file_), content);
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kReset);
  EXPECT_TRUE(TakeLogLines().empty()) << "logged only at level 7";

  LOG_LEVEL = 7;
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), content);
  EXPECT_EQ(
      LinesWithMessage(TakeLogLines(), "Queue oversized, path=" + file_).size(),
      1u);
}

TEST_F(QueueFileTest, MarkerWithFloatCodeCounts) {
  WriteFileText(file_, "{\"event\":1024.0}\n");
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), "{\"event\":1024.0}\n");
}

TEST_F(QueueFileTest, ResetMarkerWinsOverSize) {
  MakeFile("{\"event\":1024,\"is_dir\":false,\"path\":\"\"}\n",
           kQueueFileMaxSize + 1);
  Send("/vol1/M/a");
  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, kQueueFileMaxSize + 1) << "left as it was";
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(QueueFileTest, ExactlyTheLimitStillTakesALine) {
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize);
  Send("/vol1/M/b");
  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  const std::string line =
      "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/M/b\"}\n";
  EXPECT_EQ(st.st_size, kQueueFileMaxSize + static_cast<off_t>(line.size()));
  // The line sits at the end.
  const int fd = open(file_.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  std::string tail(line.size(), '\0');
  ASSERT_EQ(pread(fd, &tail[0], tail.size(), kQueueFileMaxSize),
            static_cast<ssize_t>(tail.size()));
  close(fd);
  EXPECT_EQ(tail, line);
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(QueueFileTest, OversizedFileIsResetWithSharesOfEveryQueueOfTheFile) {
  // Three queues name this file (one of them twice the same share), one
  // names another file: the rescan lines are the distinct shares of the
  // three, ascending, whatever the queues' order.
  const std::string other = dir_.File("other");
  MonitorQueue target(
      file_, {MonitorQueue::MakeConfig("Zeta", "/vol2/Zeta", "/", true, 64),
              MonitorQueue::MakeConfig("M", "/vol1/M", "/sub", true, 64)});
  std::vector<MonitorQueue> snapshot = {
      MakeQueue(other, "/vol1/Other"), target, MakeQueue(file_, "/vol1/B"),
      MakeQueue(file_, "/vol1/M"),
      // A monitor that matches nothing has no share.
      MakeQueue(file_, "relative/share")};
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  outbox_->AddLine(Line(64, "/vol1/M/sub/new"));
  outbox_->AppendToQueue(snapshot, ops_);
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/B\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol2/Zeta\"}"}));
  EXPECT_FALSE(access(other.c_str(), F_OK) == 0) << "other file untouched";
  const auto lines = TakeLogLines();
  EXPECT_EQ(LinesWithMessage(lines, "Queue oversized, path=" + file_).size(),
            1u)
      << "logged whatever the level";
  EXPECT_EQ(lines.size(), 1u);

  // Now in the reset state: nothing more goes in.
  const std::string reset = ReadFileText(file_);
  outbox_->AddLine(Line(64, "/vol1/M/sub/newer"));
  outbox_->AppendToQueue(snapshot, ops_);
  EXPECT_EQ(ReadFileText(file_), reset);
}

TEST_F(QueueFileTest, PureSparseOversizedFileIsReset) {
  // All zeros: the head check finds no line feed and reads to the end.
  MakeFile("", kQueueFileMaxSize + 1);
  Send("/vol1/M/a");
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\"}"}));
}

TEST_F(QueueFileTest, ResetWithoutSharesIsTheMarkerAlone) {
  queues_ = {MonitorQueue(file_, {})};
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_),
            "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}\n");
}

TEST_F(QueueFileTest, ResetByAMoveKeepsItsOldPath) {
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  AddMove("/vol1/M/o", "/vol1/M/n");
  Flush();
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                "{\"event\":1024,\"is_dir\":false,\"path\":\"\","
                "\"path_old\":\"/vol1/M/o\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\","
                "\"path_old\":\"/vol1/M/o\"}"}));
}

// Appending a batch gives the bytes that appending its lines one at a time
// gives, wherever the 100 MiB limit falls in the batch.
TEST_F(QueueFileTest, BatchEqualsOneAtATimeAroundTheLimit) {
  const std::string single = dir_.File("single");
  const std::vector<std::string> batch = {
      Line(64, "/vol1/M/a"), Line(128, "/vol1/M/bb", true),
      Line(64, "/vol1/M/ccc")};
  const off_t len0 = static_cast<off_t>(batch[0].size() + 1);
  for (const off_t start :
       {kQueueFileMaxSize - 2 * len0, kQueueFileMaxSize - len0,
        kQueueFileMaxSize - len0 + 1, kQueueFileMaxSize - 1,
        kQueueFileMaxSize, kQueueFileMaxSize + 1}) {
    MakeFile(std::string(kLine64) + "\n", start);
    WriteFileText(single, std::string(kLine64) + "\n");
    ASSERT_EQ(truncate(single.c_str(), start), 0);
    std::vector<MonitorQueue> snapshot = {MakeQueue(file_, "/vol1/M"),
                                          MakeQueue(single, "/vol1/M")};

    QueueOutbox together(file_);
    for (const std::string& line : batch) together.AddLine(line);
    together.AppendToQueue(snapshot, ops_);
    for (const std::string& line : batch) {
      QueueOutbox alone(single);
      alone.AddLine(line);
      alone.AppendToQueue(snapshot, ops_);
    }
    struct stat a, b;
    ASSERT_EQ(stat(file_.c_str(), &a), 0);
    ASSERT_EQ(stat(single.c_str(), &b), 0);
    ASSERT_EQ(a.st_size, b.st_size) << "start " << start;
    if (a.st_size < 1 << 20) {
      EXPECT_EQ(ReadFileText(file_), ReadFileText(single)) << "start " << start;
    } else {
      // Compare the tails, where the batch went.
      const off_t tail = a.st_size - start;
      std::string ta(static_cast<size_t>(tail), '\0'), tb = ta;
      const int fa = open(file_.c_str(), O_RDONLY | O_CLOEXEC);
      const int fb = open(single.c_str(), O_RDONLY | O_CLOEXEC);
      ASSERT_EQ(pread(fa, &ta[0], ta.size(), start), tail);
      ASSERT_EQ(pread(fb, &tb[0], tb.size(), start), tail);
      close(fa);
      close(fb);
      EXPECT_EQ(ta, tb) << "start " << start;
    }
  }
}

TEST_F(QueueFileTest, ResetInTheMiddleOfABatchDropsTheLinesAfterIt) {
  const std::string first = Line(64, "/vol1/M/a");
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize);
  Add("/vol1/M/a");
  AddMove("/vol1/M/o", "/vol1/M/n");  // finds the file above the limit
  Add("/vol1/M/c");
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                "{\"event\":1024,\"is_dir\":false,\"path\":\"\","
                "\"path_old\":\"/vol1/M/o\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\","
                "\"path_old\":\"/vol1/M/o\"}"}));
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kReset);
}

TEST_F(QueueFileTest, HeadCheckReadsAtMost64KiB) {
  // A first line longer than the bound is no reset marker, even if it is
  // one: the append goes on, and the daemon read no more than the bound.
  std::string marker = "{\"event\":1024,\"is_dir\":false,\"path\":\"/" +
                       std::string(kQueueHeadMax, 'x') + "\"}\n";
  WriteFileText(file_, marker);
  EXPECT_TRUE(Send("/vol1/M/a"));
  EXPECT_EQ(ReadFileText(file_), marker + kLine64 + "\n");
  const int reads = ops_.Calls(ScriptedFileOps::kRead);
  EXPECT_LE(static_cast<size_t>(reads),
            (kQueueHeadMax + kQueueHeadChunk - 1) / kQueueHeadChunk);

  // A file of several MiB without any line feed costs the same.
  MakeFile(std::string(kLine64), 8 << 20);
  const int before = ops_.Calls(ScriptedFileOps::kRead);
  EXPECT_TRUE(Send("/vol1/M/b"));
  EXPECT_LE(static_cast<size_t>(ops_.Calls(ScriptedFileOps::kRead) - before),
            (kQueueHeadMax + kQueueHeadChunk - 1) / kQueueHeadChunk);
  struct stat st;
  ASSERT_EQ(stat(file_.c_str(), &st), 0);
  EXPECT_EQ(st.st_size,
            (8 << 20) + static_cast<off_t>(Line(64, "/vol1/M/b").size() + 1));
}

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

TEST_F(QueueFileTest, FullOutboxBecomesRescanLines) {
  const std::string sub = dir_.File("sub");
  const std::string path = sub + "/queue";
  queues_ = {MakeQueue(path, "/vol1/M"), MakeQueue(path, "/vol1/B"),
             MakeQueue(dir_.File("other"), "/vol1/Other")};
  outbox_ = std::make_unique<QueueOutbox>(path);
  for (size_t i = 0; i < kOutboxMaxLines; ++i) Add("/vol1/M/f");
  EXPECT_FALSE(Flush());
  EXPECT_EQ(outbox_->LineCount(), kOutboxMaxLines) << "at the bound, kept";
  EXPECT_EQ(outbox_->LineCount(), kOutboxMaxLines);
  TakeLogLines();
  EXPECT_FALSE(Send("/vol1/M/one-more"));
  EXPECT_EQ(outbox_->LineCount(), 2u) << "one rescan line per share";
  auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "Queue outbox full, path=" + path +
                                        ", rescan instead")
                .size(),
            1u)
      << lines[0];
  // Later lines follow the rescan lines; the bound holds again without a
  // second log line.
  Add("/vol1/M/later");
  EXPECT_FALSE(Flush());
  for (size_t i = 0; i < kOutboxMaxLines; ++i) Add("/vol1/M/g");
  EXPECT_FALSE(Flush());
  EXPECT_EQ(outbox_->LineCount(), 2u);
  EXPECT_TRUE(TakeLogLines().empty());
  Add("/vol1/M/last");
  ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(path),
            (std::vector<std::string>{Line(512, "/vol1/B", true),
                                      Line(512, "/vol1/M", true),
                                      Line(64, "/vol1/M/last")}));
}

TEST_F(QueueFileTest, OutboxIsBoundedInBytesToo) {
  queues_ = {MakeQueue(dir_.File("none/queue"), "/vol1/M")};
  outbox_ = std::make_unique<QueueOutbox>(dir_.File("none/queue"));
  const std::string long_name = "/vol1/M/" + std::string(4000, 'n');
  for (size_t i = 0; i * 4000 <= kOutboxMaxBytes; ++i) Add(long_name);
  EXPECT_LT(outbox_->LineCount(), kOutboxMaxLines);
  EXPECT_FALSE(Flush());
  EXPECT_EQ(outbox_->LineCount(), 1u);
  EXPECT_LE(outbox_->ByteCount(), 100u);
}

TEST_F(QueueFileTest, ResetStateDropsInsteadOfKeeping) {
  const std::string marker =
      "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}\n";
  WriteFileText(file_, marker);
  for (int i = 0; i < 3; ++i) Add("/vol1/M/a");
  EXPECT_TRUE(Flush());
  EXPECT_TRUE(outbox_->empty());
  EXPECT_EQ(ReadFileText(file_), marker);
  // The consumer empties the file: it takes lines again.
  WriteFileText(file_, "");
  EXPECT_TRUE(Send("/vol1/M/b"));
  EXPECT_EQ(ReadFileText(file_), Line(64, "/vol1/M/b") + "\n");
  EXPECT_EQ(outbox_->state(), QueueOutbox::State::kOk);
}

TEST_F(QueueFileTest, SymbolicLinkIsNeverFollowed) {
  const std::string target = dir_.File("target");
  WriteFileText(target, "theirs\n");
  ASSERT_EQ(symlink(target.c_str(), file_.c_str()), 0);
  EXPECT_FALSE(Send("/vol1/M/a"));
  EXPECT_EQ(ReadFileText(target), "theirs\n");
  EXPECT_EQ(LinesWithMessage(TakeLogLines(),
                             "Failed to open queue path=" + file_ +
                                 ", reason=" + strerror(ELOOP))
                .size(),
            1u);
}

TEST_F(QueueFileTest, FileNamesOfAnyBytesRoundTrip) {
  const std::vector<std::string> names = {
      "/vol1/M/with blank",      "/vol1/M/\"quoted\"",
      "/vol1/M/back\\slash",     "/vol1/M/\xc3\xa9t\xc3\xa9 \xe2\x82\xac",
      "/vol1/M/\xf0\x9f\x98\x80", "/vol1/M/latin1 \xe9t\xe9",
      "/vol1/M/\xff\xfe\x80",     "/vol1/M/line\nfeed\r\t"};
  for (const std::string& name : names) Add(name);
  AddMove("/vol1/M/old\xe9", "/vol1/M/new\xc3\xa9");
  EXPECT_TRUE(Flush());
  const auto lines = ReadLines(file_);
  ASSERT_EQ(lines.size(), names.size() + 1);
  for (size_t i = 0; i < names.size(); ++i) {
    const Json::Value parsed = ParseLine(lines[i]);
    ASSERT_TRUE(parsed.isObject()) << lines[i];
    EXPECT_EQ(DecodeQueuePath(parsed["path"].asString()), names[i]);
  }
  const Json::Value move = ParseLine(lines.back());
  EXPECT_EQ(DecodeQueuePath(move["path"].asString()), "/vol1/M/new\xc3\xa9");
  EXPECT_EQ(DecodeQueuePath(move["path_old"].asString()), "/vol1/M/old\xe9");
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
