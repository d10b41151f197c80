// QueueOutbox: the head check for a reset marker, and the reset of a queue
// file that grew past its size limit.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "output/queue_line.h"
#include "output/queue_outbox.h"
#include "output/queue_outbox_test_fixture.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::kLine64;
using testing::Line;
using testing::LinesWithMessage;
using testing::MakeQueue;
using testing::QueueFileTest;
using testing::ReadFileText;
using testing::ReadLines;
using testing::ScriptedFileOps;
using testing::TakeLogLines;
using testing::WriteFileText;

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

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
