// YULotify: reading records from the kernel and decoding them into events,
// read errors, and polling.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "notify/yulotify.h"
#include "notify/yulotify_test_fixture.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::RawRecordBytes;
using testing::TakeLogLines;
using testing::YULotifyTest;

// --- reading and decoding ---------------------------------------------

TEST_F(YULotifyTest, ThreeRecordsFromOneRead) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  notify->AddWatch("/vol2/share");
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a.jpg") +
        RawRecordBytes(YULO_MOVE_FROM | YULO_ISDIR, 42, "/vol2/share/d") +
        RawRecordBytes(YULO_MOVE_TO | YULO_ISDIR, 42, "/vol2/share/e"));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ(YULO_CREATE, event.mask);
  EXPECT_EQ(0u, event.cookie);
  EXPECT_EQ(0, event.root);
  EXPECT_EQ("/vol1/media", event.watch);
  EXPECT_EQ("/a.jpg", event.path);
  EXPECT_EQ("/vol1/media/a.jpg", GetFullPath(event));

  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ(YULO_MOVE_FROM | YULO_ISDIR, event.mask);
  EXPECT_EQ(42u, event.cookie);
  EXPECT_EQ(1, event.root);
  EXPECT_EQ("/vol2/share", event.watch);
  EXPECT_EQ("/d", event.path);

  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ(YULO_MOVE_TO | YULO_ISDIR, event.mask);
  EXPECT_EQ("/e", event.path);
  EXPECT_EQ(1, kernel_->read_calls);
  EXPECT_EQ(0u, notify->buffer_pending());

  // The buffer is empty: the next call waits, times out and says so.
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ(1, kernel_->read_calls);
}

TEST_F(YULotifyTest, ReadEventReadsAFullBufferWithTheStoredTimeout) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  notify->SetReadTimeout(0, 250000);
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a"));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ(1, kernel_->Count("wait 7 0.250000"));
  EXPECT_EQ(1, kernel_->Count("read 7 262976"));
  EXPECT_EQ(0, notify->read_timeout().tv_sec);
  EXPECT_EQ(250000, notify->read_timeout().tv_usec);
}

TEST_F(YULotifyTest, DefaultTimeoutIsOneSecond) {
  auto notify = Make();
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ(1, kernel_->Count("wait 7 1.000000"));
  EXPECT_EQ(0, kernel_->read_calls);
}

TEST_F(YULotifyTest, RecordNamingTheWatchedPath) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_ATTRIB | YULO_ISDIR, 0, "/vol1/media") +
        RawRecordBytes(YULO_ATTRIB | YULO_ISDIR, 0, "/vol1/media/"));
  NotifyEvent event;
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(notify->ReadEvent(event));
    EXPECT_EQ("/", event.path);
    EXPECT_EQ("/vol1/media", event.watch);
    EXPECT_EQ("/vol1/media", GetFullPath(event));
  }
}

TEST_F(YULotifyTest, NestedWatchesGiveTheEventToTheOuter) {
  auto notify = Make();
  notify->AddWatch("/v/a");
  notify->AddWatch("/v/a/b");
  Queue(RawRecordBytes(YULO_CREATE, 0, "/v/a/b/c"));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/v/a", event.watch);
  EXPECT_EQ("/b/c", event.path);
  EXPECT_EQ(0, event.root);
}

TEST_F(YULotifyTest, OverflowDecodesWithoutLookup) {
  auto notify = Make();  // no watch at all
  Queue(RawRecordBytes(YULO_Q_OVERFLOW, 0, "/vol1/media/whatever"));
  NotifyEvent event;
  event.watch = "stale";
  event.path = "/stale";
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ(YULO_Q_OVERFLOW, event.mask);
  EXPECT_EQ(-1, event.root);
  EXPECT_EQ("", event.watch);
  EXPECT_EQ("", event.path);
  EXPECT_EQ("", GetFullPath(event));
}

TEST_F(YULotifyTest, OverflowWithEmptyName) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_Q_OVERFLOW, 0, ""));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ(-1, event.root);
}

TEST_F(YULotifyTest, RemovedWatchRecordIsConsumedAndSkipped) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media2/x") +
        RawRecordBytes(YULO_DELETE, 0, "/vol1/media/y"));
  LOG_LEVEL = 7;
  NotifyEvent event;
  event.path = "/before";
  event.mask = 77;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ("/before", event.path);  // left as it was
  EXPECT_EQ(77u, event.mask);
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:500 yulotify(500): watch is removed, skip event "
                "(/vol1/media2/x)\n"}),
            TakeLogLines());
  // The following record comes on the next call, from the same read.
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ(YULO_DELETE, event.mask);
  EXPECT_EQ("/y", event.path);
  EXPECT_EQ(1, kernel_->read_calls);
}

TEST_F(YULotifyTest, NameIsReadUpToItsFirstNul) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  // len covers padding after the NUL, as a kernel may write it.
  std::string record = RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a");
  const uint32_t len = 14 + 4;
  std::memcpy(&record[8], &len, 4);
  record.append("\0pad", 4);
  Queue(record + RawRecordBytes(YULO_DELETE, 0, "/vol1/media/b"));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/a", event.path);
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/b", event.path);
}

TEST_F(YULotifyTest, RecordLongerThanTheDataIsDropped) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  std::string record = RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a");
  const uint32_t len = 1000;
  std::memcpy(&record[8], &len, 4);
  Queue(record);
  Queue(std::string(5, 'x'));  // shorter than a header
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ(0u, notify->buffer_pending());
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ(0u, notify->buffer_pending());
}

TEST_F(YULotifyTest, DecodeEventDirectly) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  const std::string bytes =
      RawRecordBytes(YULO_CLOSE_WRITE, 3, "/vol1/media/f");
  const auto& raw = *reinterpret_cast<const RawNotifyRecord*>(bytes.data());
  NotifyEvent event;
  ASSERT_EQ(0, notify->DecodeEvent(raw, event));
  EXPECT_EQ(YULO_CLOSE_WRITE, event.mask);
  EXPECT_EQ(3u, event.cookie);
  EXPECT_EQ("/f", event.path);
  const std::string other = RawRecordBytes(YULO_CLOSE_WRITE, 3, "/x/f");
  EXPECT_EQ(
      -1, notify->DecodeEvent(
              *reinterpret_cast<const RawNotifyRecord*>(other.data()), event));
}

// --- read errors ------------------------------------------------------

TEST_F(YULotifyTest, SelectFailure) {
  auto notify = Make();
  kernel_->waits.push_back({-1, false, EINTR});
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:154 yulotify(154): select: Interrupted system call "
                "(4)"}),
            TakeLogLines());
}

TEST_F(YULotifyTest, DescriptorNotReported) {
  auto notify = Make();
  kernel_->waits.push_back({1, false, 0});
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:163 yulotify(163): FD_ISSET: Success (0)"}),
            TakeLogLines());
  EXPECT_EQ(0, kernel_->read_calls);
}

TEST_F(YULotifyTest, ReadFailureLeavesTheBufferEmptyAndRetries) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  kernel_->read_errnos.push_back(EIO);
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a"));
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:170 yulotify(170): read: Input/output error (5)"}),
            TakeLogLines());
  EXPECT_EQ(0u, notify->buffer_pending());
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/a", event.path);
}

TEST_F(YULotifyTest, EndOfDataIsLikeATimeout) {
  auto notify = Make();
  kernel_->waits.push_back({1, true, 0});  // readable, but the read gives 0
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ(1, kernel_->read_calls);
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(YULotifyTest, ReadWithTimeoutResults) {
  auto notify = Make();
  char buf[64];
  const struct timeval timeout = {2, 5};
  EXPECT_EQ(0, notify->ReadWithTimeout(7, timeout, buf, sizeof(buf)));
  EXPECT_EQ(1, kernel_->Count("wait 7 2.000005"));
  Queue("abc");
  EXPECT_EQ(3, notify->ReadWithTimeout(7, timeout, buf, sizeof(buf)));
  EXPECT_EQ(1, kernel_->Count("read 7 64"));
}

// --- polling ------------------------------------------------------------

TEST_F(YULotifyTest, HasEventWithPendingRecordsAsksNoOne) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a") +
        RawRecordBytes(YULO_CREATE, 0, "/vol1/media/b"));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  const int waits = kernel_->wait_calls;
  EXPECT_TRUE(notify->HasEvent());
  EXPECT_EQ(waits, kernel_->wait_calls);
}

TEST_F(YULotifyTest, HasEventPollsWithoutWaiting) {
  auto notify = Make();
  EXPECT_FALSE(notify->HasEvent());
  EXPECT_EQ(1, kernel_->Count("wait 7 0.000000"));
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a"));
  EXPECT_TRUE(notify->HasEvent());
  kernel_->waits.push_back({-1, false, EBADF});
  EXPECT_FALSE(notify->HasEvent());
  kernel_->waits.push_back({1, false, 0});
  EXPECT_FALSE(notify->HasEvent());
  EXPECT_EQ(0, kernel_->read_calls);
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(YULotifyTest, FillBuffer) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  EXPECT_EQ(0, notify->FillBuffer());  // nothing arrived
  EXPECT_EQ(0u, notify->buffer_pending());

  const std::string two = RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a") +
                          RawRecordBytes(YULO_CREATE, 0, "/vol1/media/b");
  Queue(two);
  EXPECT_EQ(0, notify->FillBuffer());
  EXPECT_EQ(two.size(), notify->buffer_pending());
  EXPECT_EQ(0u, notify->buffer_offset());
  // Holding data: no further read.
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/c"));
  EXPECT_EQ(0, notify->FillBuffer());
  EXPECT_EQ(1, kernel_->read_calls);

  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/a", event.path);
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/b", event.path);
  kernel_->read_errnos.push_back(EIO);
  EXPECT_EQ(-1, notify->FillBuffer());
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
