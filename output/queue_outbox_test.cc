#include "output/queue_outbox.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "output/queue_line.h"
#include "output/queue_outbox_test_fixture.h"
#include "yulotifyd/queue_path.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::kLine64;
using testing::kTryLock;
using testing::Line;
using testing::LinesWithMessage;
using testing::MakeQueue;
using testing::ParseLine;
using testing::QueueFileTest;
using testing::ReadFileText;
using testing::ReadLines;
using testing::ScriptedFileOps;
using testing::TakeLogLines;
using testing::WriteFileText;

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

TEST_F(QueueFileTest, OldestLineTimeIsTheFirstAppendSinceTheFileWasEmpty) {
  EXPECT_EQ(outbox_->oldest_line_time(), 0);
  const time_t before = time(nullptr);
  ASSERT_TRUE(Send("/vol1/M/a"));
  const time_t first = outbox_->oldest_line_time();
  EXPECT_GE(first, before);
  EXPECT_LE(first, time(nullptr));
  // The consumer has not taken it: a later append keeps the first time.
  sleep(1);
  ASSERT_TRUE(Send("/vol1/M/b"));
  EXPECT_EQ(outbox_->oldest_line_time(), first);
  // Taken: the next append is the oldest line again.
  WriteFileText(file_, "");
  ASSERT_TRUE(Send("/vol1/M/c"));
  EXPECT_GT(outbox_->oldest_line_time(), first);
}

TEST_F(QueueFileTest, OldestLineTimeOfAFileFoundFullIsItsFirstAppend) {
  WriteFileText(file_, "a line from before\n");
  const time_t before = time(nullptr);
  ASSERT_TRUE(Send("/vol1/M/a"));
  EXPECT_GE(outbox_->oldest_line_time(), before);
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

TEST_F(QueueFileTest, FullOutboxRescansTheSharesOfItsLinesAfterAReload) {
  const std::string sub = dir_.File("sub");
  const std::string path = sub + "/queue";
  queues_ = {MakeQueue(path, "/vol1/M")};
  outbox_ = std::make_unique<QueueOutbox>(path);
  Add("/vol1/M/a");
  EXPECT_FALSE(Flush()) << "no directory yet: kept";
  // A reload leaves the file named by a queue without any share of its
  // own (its monitors were removed): the lines kept are still about M.
  queues_ = {MonitorQueue(path, {})};
  for (size_t i = 0; i < kOutboxMaxLines; ++i) Add("/vol1/M/f");
  EXPECT_FALSE(Flush());
  ASSERT_EQ(outbox_->LineCount(), 1u) << "summed up, not emptied";
  ASSERT_EQ(mkdir(sub.c_str(), 0700), 0);
  EXPECT_TRUE(Flush());
  EXPECT_EQ(ReadLines(path),
            (std::vector<std::string>{Line(512, "/vol1/M", true)}));
}

TEST_F(QueueFileTest, FullOutboxOfAFileNobodySubscribesToIsDroppedOnce) {
  const std::string path = dir_.File("sub/queue");
  queues_ = {MakeQueue(path, "/vol1/M")};
  outbox_ = std::make_unique<QueueOutbox>(path);
  Add("/vol1/M/a");
  EXPECT_FALSE(Flush());
  TakeLogLines();
  // The reload removed every queue naming the file: no consumer is left.
  queues_ = {MakeQueue(dir_.File("other"), "/vol1/M")};
  for (size_t i = 0; i < kOutboxMaxLines; ++i) Add("/vol1/M/f");
  EXPECT_TRUE(Flush());
  EXPECT_TRUE(outbox_->empty());
  const auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "Queue file no longer subscribed, path=" +
                                        path + ", dropped 10001 kept lines")
                .size(),
            1u)
      << lines[0];
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
