#include "output/queue_file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "output/queue_line.h"
#include "output/testing/fake_event_source.h"
#include "output/testing/flock_hook.h"
#include "output/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FailNextLocks;
using testing::LinesWithMessage;
using testing::MakeQueue;
using testing::OpenDescriptorCount;
using testing::ParseLine;
using testing::ReadFileText;
using testing::ReadLines;
using testing::ScratchDir;
using testing::TakeFlockCalls;
using testing::TakeLogLines;
using testing::WriteFileText;

constexpr int kTryLock = LOCK_EX | LOCK_NB;

const char kLine64[] = "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/M/a\"}";

class QueueFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    file_ = dir_.File("queue");
    LOG_LEVEL = 3;
    TakeLogLines();
    TakeFlockCalls();
    queues_ = {MakeQueue(file_, "/vol1/M")};
  }
  void TearDown() override { LOG_LEVEL = 3; }

  void Send(const std::string& path, uint32_t code = 64, bool is_dir = false) {
    SendEvent(code, path, is_dir, queues_[0], queues_);
  }

  // A file of `size` bytes that starts with `head` (zeros after it).
  void MakeFile(const std::string& head, off_t size) {
    WriteFileText(file_, head);
    ASSERT_EQ(truncate(file_.c_str(), size), 0);
  }

  ScratchDir dir_;
  std::string file_;
  std::vector<MonitorQueue> queues_;
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
  Send("/vol1/M/a");
  Send("/vol1/M/dir", 128, true);
  SendMoveEvent("/vol1/M/old", "/vol1/M/new", false, queues_[0], queues_);
  Send("/vol1/M/x", 2 | 8);
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
  SendMoveEvent("/vol1/M/o", "/vol1/M/n", false, queues_[0], queues_);
  EXPECT_EQ(ReadFileText(file_), content);
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
  SendEvent(64, "/vol1/M/sub/new", false, target, snapshot);
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
  SendEvent(64, "/vol1/M/sub/newer", false, target, snapshot);
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
  std::vector<MonitorQueue> snapshot = {MonitorQueue(file_, {})};
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  SendEvent(64, "/vol1/M/a", false, snapshot[0], snapshot);
  EXPECT_EQ(ReadFileText(file_),
            "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}\n");
}

TEST_F(QueueFileTest, ResetByAMoveKeepsItsOldPath) {
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  SendMoveEvent("/vol1/M/o", "/vol1/M/n", false, queues_[0], queues_);
  EXPECT_EQ(ReadLines(file_),
            (std::vector<std::string>{
                "{\"event\":1024,\"is_dir\":false,\"path\":\"\","
                "\"path_old\":\"/vol1/M/o\"}",
                "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1/M\","
                "\"path_old\":\"/vol1/M/o\"}"}));
}

TEST_F(QueueFileTest, AppendToQueueTurnsTheObjectIntoTheLastRescanLine) {
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  Json::Value event(Json::objectValue);
  event["event"] = Json::Value(64u);
  event["path"] = Json::Value("/vol1/M/a");
  event["is_dir"] = Json::Value(false);
  AppendToQueue(event, queues_[0], queues_);
  EXPECT_EQ(event["event"].asUInt(), 512u);
  EXPECT_EQ(event["path"].asString(), "/vol1/M");
  EXPECT_TRUE(event["is_dir"].asBool());
}

TEST_F(QueueFileTest, BusyLockGivesUpAfterThreeTries) {
  // Another open file description holds the lock, as a consumer would.
  const int holder = open(file_.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  TakeFlockCalls();
  const int fds_before = OpenDescriptorCount();
  const auto start = std::chrono::steady_clock::now();
  Send("/vol1/M/a");
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(OpenDescriptorCount(), fds_before) << "every try closed";
  EXPECT_EQ(ReadFileText(file_), "") << "the line is dropped";
  EXPECT_EQ(TakeFlockCalls(), (std::vector<int>{kTryLock, kTryLock, kTryLock}));
  // Three pauses of at most 9 ms each.
  EXPECT_LT(elapsed, std::chrono::milliseconds(500));
  const auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "try lock too many times, path=" + file_ +
                                        ", reason=" + strerror(EAGAIN))
                .size(),
            1u)
      << lines[0];

  // Once the holder lets go, lines go in again.
  flock(holder, LOCK_UN);
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), std::string(kLine64) + "\n");
  close(holder);
}

TEST_F(QueueFileTest, OneLockAndOneUnlockPerAppend) {
  Send("/vol1/M/a");
  EXPECT_EQ(TakeFlockCalls(), (std::vector<int>{kTryLock, LOCK_UN}));
}

TEST_F(QueueFileTest, InterruptedLockIsRetried) {
  FailNextLocks({EINTR, EAGAIN});
  Send("/vol1/M/a");
  EXPECT_EQ(TakeFlockCalls(),
            (std::vector<int>{kTryLock, kTryLock, kTryLock, LOCK_UN}));
  EXPECT_EQ(ReadFileText(file_), std::string(kLine64) + "\n");
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(QueueFileTest, InterruptedThreeTimesGivesUp) {
  FailNextLocks({EINTR, EINTR, EINTR});
  const int fds_before = OpenDescriptorCount();
  Send("/vol1/M/a");
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  EXPECT_EQ(TakeFlockCalls(), (std::vector<int>{kTryLock, kTryLock, kTryLock}));
  EXPECT_EQ(ReadFileText(file_), "");
  EXPECT_EQ(LinesWithMessage(TakeLogLines(),
                             "try lock too many times, path=" + file_ +
                                 ", reason=" + strerror(EINTR))
                .size(),
            1u);
}

TEST_F(QueueFileTest, OtherLockFailureIsNotRetried) {
  const int fds_before = OpenDescriptorCount();
  FailNextLocks({ENOLCK});
  Send("/vol1/M/a");
  EXPECT_EQ(TakeFlockCalls(), (std::vector<int>{kTryLock, LOCK_UN}));
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  EXPECT_EQ(ReadFileText(file_), "") << "created, but the line is dropped";
  EXPECT_TRUE(TakeLogLines().empty()) << "logged only at level 7";

  LOG_LEVEL = 7;
  FailNextLocks({ENOLCK});
  Send("/vol1/M/a");
  EXPECT_EQ(ReadFileText(file_), "");
  const auto lines = TakeLogLines();
  EXPECT_EQ(LinesWithMessage(lines, "flock fail, path=" + file_ +
                                        ", reason=" + strerror(ENOLCK))
                .size(),
            1u);
}

TEST_F(QueueFileTest, LockIsReleasedAfterEveryAppend) {
  const int fds_before = OpenDescriptorCount();
  Send("/vol1/M/a");  // normal append
  MakeFile(std::string(kLine64) + "\n", kQueueFileMaxSize + 1);
  Send("/vol1/M/a");  // reset
  Send("/vol1/M/a");  // reset file, dropped
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  const int fd = open(file_.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0) << "nobody holds the lock";
  close(fd);
}

TEST_F(QueueFileTest, OpenFailureIsLoggedAndNothingElse) {
  const std::string missing = dir_.File("no/such/dir/queue");
  std::vector<MonitorQueue> snapshot = {MakeQueue(missing, "/vol1/M")};
  const int fds_before = OpenDescriptorCount();
  SendEvent(64, "/vol1/M/a", false, snapshot[0], snapshot);
  EXPECT_EQ(OpenDescriptorCount(), fds_before);
  const auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "Failed to open queue path=" + missing +
                                        ", reason=" + strerror(ENOENT))
                .size(),
            1u)
      << lines[0];
}

TEST_F(QueueFileTest, ShortWriteIsLoggedAndKept) {
  // A file-size limit just past the current content makes write() stop
  // short; SIGXFSZ is ignored so the write returns instead of killing us.
  WriteFileText(file_, "0123456789\n");
  struct sigaction ignore = {}, old_action = {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &old_action), 0);
  struct rlimit old_limit;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
  struct rlimit limit = old_limit;
  limit.rlim_cur = 20;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  Send("/vol1/M/a");
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old_limit), 0);
  sigaction(SIGXFSZ, &old_action, nullptr);

  EXPECT_EQ(ReadFileText(file_), "0123456789\n" + std::string(kLine64, 9));
  const auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("event_processor:", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find(" Failed to write, reason="), std::string::npos)
      << lines[0];
}

TEST_F(QueueFileTest, FileNamesOfAnyBytesRoundTrip) {
  const std::vector<std::string> names = {
      "/vol1/M/with blank",      "/vol1/M/\"quoted\"",
      "/vol1/M/back\\slash",     "/vol1/M/\xc3\xa9t\xc3\xa9 \xe2\x82\xac",
      "/vol1/M/\xf0\x9f\x98\x80", "/vol1/M/latin1 \xe9t\xe9",
      "/vol1/M/\xff\xfe\x80",     "/vol1/M/line\nfeed\r\t"};
  for (const std::string& name : names) Send(name);
  SendMoveEvent("/vol1/M/old\xe9", "/vol1/M/new\xc3\xa9", false, queues_[0],
                queues_);
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
