#include "forward/sink_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"
#include "forward/sink_line.h"
#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

std::string Create(const std::string& path) {
  return "{\"event\":64,\"is_dir\":false,\"path\":\"" + path + "\"}";
}

std::vector<SinkMessage> Batch(uint64_t first, const std::string& host,
                               const std::vector<std::string>& paths) {
  std::vector<SinkMessage> out;
  for (const std::string& p : paths) out.push_back({first++, host, Create(p)});
  return out;
}

class SinkWriterTest : public ::testing::Test {
 protected:
  SinkWriter::Config Config(bool host_member = true) {
    SinkWriter::Config c;
    c.queue_path = dir_.File("central.queue");
    c.state_path = dir_.File("central.queue.sink-state");
    c.host_member = host_member;
    c.lock_timeout_ms = 50;
    return c;
  }
  std::string Queue() { return dir_.Read("central.queue"); }
  // A sink that writes message 1 ("/vol1/a" of nas-a) and goes away.
  void FirstRun(bool host_member) {
    SinkWriter w(Config(host_member));
    std::string error;
    ASSERT_TRUE(w.Open(&error)) << error;
    Must(&w, Batch(1, "nas-a", {"/vol1/a"}));
  }
  void Must(SinkWriter* w, const std::vector<SinkMessage>& m) {
    std::string error;
    ASSERT_EQ(w->Write(m, &error), SinkWriter::Result::kDone) << error;
  }
  // Saves a state whose pending record says the next write would append
  // `length` bytes to the queue file as it is now: a crash at that point.
  void PendingAtEnd(uint64_t last_seq, uint64_t length, uint64_t committed) {
    struct stat st;
    ASSERT_EQ(stat(dir_.File("central.queue").c_str(), &st), 0);
    SinkState s;
    std::string error;
    ASSERT_TRUE(LoadSinkState(Config().state_path, &s, &error)) << error;
    s.committed = committed;
    s.pending.active = true;
    s.pending.last_seq = last_seq;
    s.pending.dev = st.st_dev;
    s.pending.ino = st.st_ino;
    s.pending.offset = st.st_size;
    s.pending.length = length;
    s.pending.mtime_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 +
                         st.st_mtim.tv_nsec;
    s.pending.ctime_ns = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 +
                         st.st_ctim.tv_nsec;
    AddRoot(&s.pending.roots, "nas-a", "/vol1");
    ASSERT_TRUE(SaveSinkState(Config().state_path, s, &error)) << error;
  }
  void Append(const std::string& text) {
    const int fd = open(dir_.File("central.queue").c_str(),
                        O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
    close(fd);
  }

  testing::TempDir dir_{"sink"};
};

TEST_F(SinkWriterTest, LinesGoInInOrderWithTheirHostAndOnlyOnce) {
  auto w_owner = std::make_unique<SinkWriter>(Config());
  SinkWriter& w = *w_owner;
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  ASSERT_EQ(w.BindStream("S", "t1", &error), SinkWriter::Result::kDone);
  Must(&w, Batch(1, "nas-a", {"/vol1/a", "/vol1/b"}));
  // Delivered again (an acknowledgement lost) with one new message.
  Must(&w, Batch(2, "nas-a", {"/vol1/b", "/vol1/c"}));
  EXPECT_EQ(Queue(),
            WithHostMember(Create("/vol1/a"), "nas-a") + "\n" +
                WithHostMember(Create("/vol1/b"), "nas-a") + "\n" +
                WithHostMember(Create("/vol1/c"), "nas-a") + "\n");
  EXPECT_EQ(w.committed(), 3u);
  EXPECT_EQ(w.counts().lines, 3u);

  // A restart knows where it was.
  w_owner.reset();
  SinkWriter again(Config());
  ASSERT_TRUE(again.Open(&error)) << error;
  EXPECT_EQ(again.committed(), 3u);
  EXPECT_EQ(again.state().roots.at("nas-a"), std::set<std::string>{"/vol1"});
}

TEST_F(SinkWriterTest, WithoutTheHostMemberLinesAreCopiedAsTheyCame) {
  SinkWriter w(Config(false));
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(5, "nas-a", {"/vol1/a"}));
  EXPECT_EQ(Queue(), Create("/vol1/a") + "\n");
}

TEST_F(SinkWriterTest, OneSinkPerQueueFile) {
  SinkWriter first(Config());
  SinkWriter second(Config());
  std::string error;
  ASSERT_TRUE(first.Open(&error)) << error;
  EXPECT_FALSE(second.Open(&error));
  EXPECT_NE(error.find("another yulotify-sink"), std::string::npos) << error;
}

TEST_F(SinkWriterTest, CrashAfterTheWriteDoesNotWriteItTwice) {
  FirstRun(true);
  const std::string line = WithHostMember(Create("/vol1/b"), "nas-a") + "\n";
  PendingAtEnd(2, line.size(), 1);
  Append(line);  // the write got in; the state was not saved after it
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(2, "nas-a", {"/vol1/b", "/vol1/c"}));
  EXPECT_EQ(Queue(), WithHostMember(Create("/vol1/a"), "nas-a") + "\n" + line +
                         WithHostMember(Create("/vol1/c"), "nas-a") + "\n");
  EXPECT_FALSE(w.state().pending.active);
}

TEST_F(SinkWriterTest, CrashBeforeTheWriteWritesItOnce) {
  FirstRun(true);
  PendingAtEnd(2, 100, 1);
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(2, "nas-a", {"/vol1/b"}));
  EXPECT_EQ(Queue(), WithHostMember(Create("/vol1/a"), "nas-a") + "\n" +
                         WithHostMember(Create("/vol1/b"), "nas-a") + "\n");
  EXPECT_EQ(w.counts().unsure, 0u);
}

TEST_F(SinkWriterTest, CrashInTheMiddleOfTheWriteTakesThePartBack) {
  FirstRun(true);
  const std::string line = WithHostMember(Create("/vol1/b"), "nas-a") + "\n";
  PendingAtEnd(2, line.size(), 1);
  Append(line.substr(0, 10));
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(2, "nas-a", {"/vol1/b"}));
  EXPECT_EQ(Queue(), WithHostMember(Create("/vol1/a"), "nas-a") + "\n" + line);
}

TEST_F(SinkWriterTest, FileTakenMeanwhileGetsRescansNotCopies) {
  FirstRun(true);
  PendingAtEnd(3, 200, 1);
  // A consumer takes everything before the sink comes back.
  QueueConsumer consumer(Config().queue_path);
  ASSERT_TRUE(consumer.Consume().ok);
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(2, "nas-a", {"/vol1/b", "/vol1/c"}));
  Must(&w, Batch(4, "nas-a", {"/vol1/d"}));
  EXPECT_EQ(Queue(), RescanLine("/vol1", "nas-a") + "\n" +
                         WithHostMember(Create("/vol1/d"), "nas-a") + "\n");
  EXPECT_EQ(w.counts().unsure, 1u);
}

TEST_F(SinkWriterTest, UnfinishedLineLeftAtTheEndIsCut) {
  SinkWriter w(Config(false));
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(1, "h", {"/vol1/a"}));
  Append("{\"event\":64,\"pa");
  Must(&w, Batch(2, "h", {"/vol1/b"}));
  EXPECT_EQ(Queue(), Create("/vol1/a") + "\n" + Create("/vol1/b") + "\n");
}

TEST_F(SinkWriterTest, PastTheLimitTheFileIsResetWithRescansOfEveryHost) {
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(1, "nas-a", {"/vol1/a", "/vol3/x"}));
  Must(&w, Batch(3, "nas-b", {"/vol2/b"}));
  // The consumer is away and the file has grown to its limit.
  ASSERT_EQ(truncate(Config().queue_path.c_str(),
                     QueueConsumer::kQueueFileResetBytes),
            0);
  Append("\n");
  Must(&w, Batch(4, "nas-c", {"/data/c", "/data/d"}));
  const std::string reset =
      ResetMarkerLine() + "\n" + RescanLine("/vol1", "nas-a") + "\n" +
      RescanLine("/vol3", "nas-a") + "\n" + RescanLine("/vol2", "nas-b") +
      "\n" + RescanLine("/data", "nas-c") + "\n";
  EXPECT_EQ(Queue(), reset);
  EXPECT_EQ(w.committed(), 5u);
  EXPECT_EQ(w.counts().resets, 1u);
  EXPECT_EQ(w.counts().dropped, 2u);
  // Until a consumer empties it, lines are dropped; a root the rescan
  // lines do not cover gets one.
  Must(&w, Batch(6, "nas-a", {"/vol1/e", "/vol9/f"}));
  EXPECT_EQ(Queue(), reset + RescanLine("/vol9", "nas-a") + "\n");
  QueueConsumer consumer(Config().queue_path);
  ASSERT_TRUE(consumer.Consume().ok);
  Must(&w, Batch(8, "nas-a", {"/vol1/g"}));
  EXPECT_EQ(Queue(), WithHostMember(Create("/vol1/g"), "nas-a") + "\n");
}

TEST_F(SinkWriterTest, ResetInterruptedIsDoneOnRestart) {
  FirstRun(false);
  // The file was emptied for the reset; the marker never got in.
  PendingAtEnd(9, 80, 1);
  SinkState s;
  std::string error;
  ASSERT_TRUE(LoadSinkState(Config().state_path, &s, &error));
  s.pending.reset = true;
  s.pending.offset = 0;
  ASSERT_TRUE(SaveSinkState(Config().state_path, s, &error));
  ASSERT_EQ(truncate(Config().queue_path.c_str(), 0), 0);
  SinkWriter w(Config(false));
  ASSERT_TRUE(w.Open(&error)) << error;
  ASSERT_EQ(w.BindStream("S", "t", &error), SinkWriter::Result::kDone);
  EXPECT_EQ(Queue(), ResetMarkerLine() + "\n" + RescanLine("/vol1", "") + "\n");
}

TEST_F(SinkWriterTest, NoQueueLineBecomesARescanOfItsHost) {
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, {{1, "nas-a", "garbage"}});
  EXPECT_EQ(Queue(), RescanLine("/", "nas-a") + "\n");
  EXPECT_EQ(w.counts().invalid, 1u);
}

TEST_F(SinkWriterTest, LockHeldByOthersIsBusyAndChangesNothing) {
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  Must(&w, Batch(1, "nas-a", {"/vol1/a"}));
  const int fd = open(Config().queue_path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  EXPECT_EQ(w.Write(Batch(2, "nas-a", {"/vol1/b"}), &error),
            SinkWriter::Result::kBusy);
  EXPECT_EQ(w.committed(), 1u);
  close(fd);
  Must(&w, Batch(2, "nas-a", {"/vol1/b"}));
  EXPECT_EQ(w.committed(), 2u);
}

TEST_F(SinkWriterTest, SymbolicLinkAndLinkedFileAreRefused) {
  const std::string other = dir_.Write("other", "precious\n");
  ASSERT_EQ(symlink(other.c_str(), Config().queue_path.c_str()), 0);
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  EXPECT_EQ(w.Write(Batch(1, "h", {"/vol1/a"}), &error),
            SinkWriter::Result::kFailed);
  ASSERT_EQ(unlink(Config().queue_path.c_str()), 0);
  ASSERT_EQ(link(other.c_str(), Config().queue_path.c_str()), 0);
  EXPECT_EQ(w.Write(Batch(1, "h", {"/vol1/a"}), &error),
            SinkWriter::Result::kFailed);
  EXPECT_EQ(dir_.Read("other"), "precious\n");
}

TEST_F(SinkWriterTest, AnotherStreamStartsOver) {
  SinkWriter w(Config());
  std::string error;
  ASSERT_TRUE(w.Open(&error)) << error;
  ASSERT_EQ(w.BindStream("S", "t1", &error), SinkWriter::Result::kDone);
  Must(&w, Batch(1, "h", {"/vol1/a", "/vol1/b"}));
  ASSERT_EQ(w.BindStream("S", "t1", &error), SinkWriter::Result::kDone);
  EXPECT_EQ(w.committed(), 2u);
  ASSERT_EQ(w.BindStream("S", "t2", &error), SinkWriter::Result::kDone);
  EXPECT_EQ(w.committed(), 0u);
  Must(&w, Batch(1, "h", {"/vol1/new"}));
  EXPECT_NE(Queue().find("/vol1/new"), std::string::npos);
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
