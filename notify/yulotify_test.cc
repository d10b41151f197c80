#include "notify/yulotify.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <memory>

#include "notify/testing/fake_backend.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeBackend;
using testing::FakeKernel;
using testing::FakeMountEnv;
using testing::RawRecordBytes;
using testing::TakeCapturedLines;
using testing::TakeLogLines;

constexpr uint32_t kMask = 0x3ce;

class YULotifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_level_ = LOG_LEVEL.load();
    LOG_LEVEL = 3;
    kernel_ = std::make_shared<FakeKernel>();
    env_.AddDir("/", 1);
    env_.AddDir("/vol1", 2);
    env_.AddDir("/vol1/media", 2);
    env_.AddDir("/vol1/media2", 2);
    env_.AddDir("/vol1/photo", 2);
    env_.AddDir("/vol2", 3);
    env_.AddDir("/vol2/share", 3);
    env_.AddDir("/v", 4);
    env_.AddDir("/v/a", 4);
    env_.AddDir("/v/a/b", 4);
    env_.SetMountTable(
        "/dev/root / ext4 rw 0 0\n"
        "/dev/sdb1 /vol1 ext4 rw 0 0\n"
        "/dev/sdc1 /vol2 ext4 rw 0 0\n"
        "/dev/sdd1 /v ext4 rw 0 0\n");
    TakeLogLines();
  }
  void TearDown() override { LOG_LEVEL = saved_level_; }

  std::unique_ptr<YULotify> Make(uint32_t mask = kMask) {
    return std::make_unique<YULotify>(
        mask, std::make_unique<FakeBackend>(kernel_), &env_);
  }

  void Queue(const std::string& chunk) { kernel_->reads.push_back(chunk); }

  std::shared_ptr<FakeKernel> kernel_;
  FakeMountEnv env_;
  int32_t saved_level_ = 3;
};

// --- construction -----------------------------------------------------

TEST_F(YULotifyTest, ConstructionSetsEverythingUp) {
  auto notify = Make();
  EXPECT_EQ(7, notify->descriptor());
  EXPECT_EQ(kMask, notify->event_mask());
  EXPECT_EQ(0, notify->next_watch_id());
  EXPECT_EQ(1, notify->read_timeout().tv_sec);
  EXPECT_EQ(0, notify->read_timeout().tv_usec);
  EXPECT_EQ(262976u, notify->buffer_capacity());
  EXPECT_EQ(262976u, YULotify::kReadBufferSize);
  EXPECT_EQ(0u, notify->buffer_offset());
  EXPECT_EQ(0u, notify->buffer_pending());
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_EQ((std::vector<std::string>{"init"}), kernel_->calls);
  EXPECT_STREQ("fake", notify->backend()->Name());
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(YULotifyTest, DestructionClosesThroughTheBackend) {
  auto notify = Make();
  notify.reset();
  EXPECT_TRUE(kernel_->destroyed);
  // No watch is removed one by one.
  EXPECT_EQ(0, kernel_->Count("remove"));
}

TEST_F(YULotifyTest, DestructorIsVirtual) {
  struct Receiver : YULotify {
    Receiver(std::unique_ptr<NotifyBackend> backend, const MountEnv* env,
             bool* gone)
        : YULotify(kMask, std::move(backend), env), gone_(gone) {}
    ~Receiver() override { *gone_ = true; }
    bool* gone_;
  };
  bool gone = false;
  std::unique_ptr<YULotify> base(
      new Receiver(std::make_unique<FakeBackend>(kernel_), &env_, &gone));
  base.reset();
  EXPECT_TRUE(gone);
  EXPECT_TRUE(kernel_->destroyed);
}

TEST_F(YULotifyTest, FailedInitLeavesAnInertObject) {
  kernel_->init_fd = -1;
  kernel_->init_errno = ENOSYS;
  auto notify = Make();
  const auto lines = TakeCapturedLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(LOG_ERR, lines[0].priority);
  EXPECT_EQ(
      "yulotify:240 yulotify(240): yulo_notify_init: Function not "
      "implemented (38)",
      lines[0].text);
  EXPECT_EQ(-1, notify->descriptor());
  EXPECT_EQ(0u, notify->event_mask());
  EXPECT_EQ(0, notify->read_timeout().tv_sec);
  EXPECT_EQ(0u, notify->buffer_capacity());

  // Every new path fails, with the add-watch line.
  EXPECT_EQ(-1, notify->AddWatch("/vol1/media"));
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:589 yulotify(589): yulo_notify_add_watch: Bad file "
                "descriptor (9)"}),
            TakeLogLines());
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_EQ(0, notify->next_watch_id());

  // HasEvent answers without any call to the kernel.
  const int waits = kernel_->wait_calls;
  EXPECT_FALSE(notify->HasEvent());
  EXPECT_EQ(waits, kernel_->wait_calls);
}

TEST_F(YULotifyTest, InertReadEventFailsLikeSelectWould) {
  kernel_->init_fd = -1;
  auto notify = Make();
  TakeLogLines();
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:154 yulotify(154): select: Bad file descriptor (9)"}),
            TakeLogLines());
  EXPECT_EQ(-1, notify->FillBuffer());
}

TEST_F(YULotifyTest, NoBackendAtAllIsInert) {
  YULotify notify(kMask, nullptr, &env_);
  EXPECT_EQ(-1, notify.descriptor());
  EXPECT_EQ(-1, notify.AddWatch("/vol1/media"));
  EXPECT_FALSE(notify.HasEvent());
  NotifyEvent event;
  EXPECT_FALSE(notify.ReadEvent(event));
  notify.RemoveAllWatches();
}

// --- watches ----------------------------------------------------------

TEST_F(YULotifyTest, IdsCountUpInOrderOfSuccessfulAdds) {
  auto notify = Make();
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  EXPECT_EQ(1, notify->AddWatch("/vol1/photo"));
  EXPECT_EQ(2, notify->AddWatch("/vol2/share"));
  EXPECT_EQ(3, notify->next_watch_id());
  EXPECT_EQ((std::vector<std::string>{"init", "add 7 /vol1 0x3ce",
                                      "add 7 /vol2 0x3ce"}),
            kernel_->calls);
}

TEST_F(YULotifyTest, SamePathTwiceGivesSameIdAndNoReference) {
  auto notify = Make();
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
  EXPECT_EQ(1, notify->next_watch_id());
  EXPECT_EQ(1, kernel_->Count("add"));
  // One RemoveWatch then drops the kernel watch.
  notify->RemoveWatch(0);
  EXPECT_EQ(1, kernel_->Count("remove 7 /vol1 0x3ce"));
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_TRUE(notify->watched_paths().empty());
}

TEST_F(YULotifyTest, TwoPathsOnOneMountPointShareTheKernelWatch) {
  auto notify = Make();
  const int media = notify->AddWatch("/vol1/media");
  const int photo = notify->AddWatch("/vol1/photo");
  EXPECT_EQ(1, kernel_->Count("add"));
  EXPECT_EQ(2u, notify->mount_points().at("/vol1"));

  notify->RemoveWatch(media);
  EXPECT_EQ(0, kernel_->Count("remove"));
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
  EXPECT_EQ(1u, notify->watched_paths().size());

  notify->RemoveWatch(photo);
  EXPECT_EQ(1, kernel_->Count("remove 7 /vol1 0x3ce"));
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_TRUE(notify->watched_paths().empty());
}

TEST_F(YULotifyTest, FailedKernelAddChangesNothing) {
  auto notify = Make();
  ASSERT_EQ(0, notify->AddWatch("/vol2/share"));
  kernel_->add_errnos.push_back(EACCES);
  EXPECT_EQ(-1, notify->AddWatch("/vol1/media"));
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:589 yulotify(589): yulo_notify_add_watch: "
                "Permission denied (13)"}),
            TakeLogLines());
  EXPECT_EQ(1u, notify->watched_paths().size());
  EXPECT_EQ(1u, notify->mount_points().size());
  EXPECT_EQ(1, notify->next_watch_id());
  // The next successful add gets the id the failed one would have had.
  EXPECT_EQ(1, notify->AddWatch("/vol1/media"));
}

TEST_F(YULotifyTest, UnknownIdIsIgnored) {
  auto notify = Make();
  ASSERT_EQ(0, notify->AddWatch("/vol1/media"));
  const auto calls = kernel_->calls;
  notify->RemoveWatch(5);
  notify->RemoveWatch(-1);
  EXPECT_EQ(calls, kernel_->calls);
  EXPECT_EQ(1u, notify->watched_paths().size());
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
}

TEST_F(YULotifyTest, IdsAreNeverReused) {
  auto notify = Make();
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  notify->RemoveWatch(0);
  EXPECT_EQ(1, notify->AddWatch("/vol1/media"));
}

TEST_F(YULotifyTest, RemoveAllWatchesRemovesEachMountPointInOrder) {
  auto notify = Make();
  notify->AddWatch("/vol2/share");
  notify->AddWatch("/vol1/media");
  notify->AddWatch("/vol1/photo");
  notify->RemoveAllWatches();
  EXPECT_EQ((std::vector<std::string>{
                "init", "add 7 /vol2 0x3ce", "add 7 /vol1 0x3ce",
                "remove 7 /vol1 0x3ce", "remove 7 /vol2 0x3ce"}),
            kernel_->calls);
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_TRUE(notify->mount_points().empty());
  // The next id follows on; it does not restart at 0.
  EXPECT_EQ(3, notify->AddWatch("/vol1/media"));
}

TEST_F(YULotifyTest, RemoveAllWatchesDiscardsUndecodedRecords) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a") +
        RawRecordBytes(YULO_CREATE, 0, "/vol1/media/b"));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_NE(0u, notify->buffer_pending());
  notify->RemoveAllWatches();
  EXPECT_EQ(0u, notify->buffer_pending());
  EXPECT_EQ(0u, notify->buffer_offset());
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_DELETE, 0, "/vol1/media/c"));
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/c", event.path);
  EXPECT_EQ(2, kernel_->read_calls);
}

TEST_F(YULotifyTest, FailedKernelRemoveIsIgnoredSilently) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  kernel_->remove_errno = EINVAL;
  LOG_LEVEL = 7;
  TakeLogLines();
  notify->RemoveWatch(0);
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(YULotifyTest, RemoveWatchResolvesTheMountPointAgain) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  env_.RemoveDir("/vol1/media");  // the share vanished meanwhile
  notify->RemoveWatch(0);
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:532 yulotify(532): stat('/vol1/media'): No such "
                "file or directory (2)\n"}),
            TakeLogLines());
  // The path is forgotten, but the count found at add time stays.
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
  EXPECT_EQ(0, kernel_->Count("remove"));
}

TEST_F(YULotifyTest, MountPointIsNotTestedForEmptiness) {
  auto notify = Make();
  // stat fails: the mount point is "", and the kernel is asked anyway.
  EXPECT_EQ(0, notify->AddWatch("/nowhere"));
  EXPECT_EQ(1, kernel_->Count("add 7  0x3ce"));
  EXPECT_EQ(1u, notify->mount_points().at(""));
}

TEST_F(YULotifyTest, DebugLinesOfTheWatchCalls) {
  auto notify = Make();
  LOG_LEVEL = 7;
  notify->AddWatch("/vol1/media");
  notify->AddWatch("/vol1/photo");
  notify->RemoveWatch(0);
  notify->RemoveWatch(1);
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:332 find mount point, path=/vol1/media, "
                "mount_point=/vol1",
                "yulotify:585 yulotify(585): add mount point /vol1 to watch\n",
                "yulotify:332 find mount point, path=/vol1/photo, "
                "mount_point=/vol1",
                "yulotify:606 yulotify(606): remove mount point /vol1 from "
                "watch\n"}),
            TakeLogLines());
}

TEST_F(YULotifyTest, DebugLinesAreSilentBelowLevel7) {
  auto notify = Make();
  LOG_LEVEL = 6;
  notify->AddWatch("/vol1/media");
  notify->RemoveWatch(0);
  Queue(RawRecordBytes(YULO_CREATE, 0, "/elsewhere/x"));
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_TRUE(TakeLogLines().empty());
}

// --- lookup -----------------------------------------------------------

TEST_F(YULotifyTest, LookupWatchFindsTheCoveringPath) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  std::string watch, relative;
  int id = -5;
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media/a/b.jpg", watch, relative, id));
  EXPECT_EQ("/vol1/media", watch);
  EXPECT_EQ("/a/b.jpg", relative);
  EXPECT_EQ(0, id);
}

TEST_F(YULotifyTest, LookupWatchNeedsASlashAfterTheKey) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  std::string watch = "untouched", relative = "untouched";
  int id = -5;
  EXPECT_EQ(-1, notify->LookupWatch("/vol1/media2/x", watch, relative, id));
  EXPECT_EQ(-1, notify->LookupWatch("/vol1/medi", watch, relative, id));
  EXPECT_EQ(-1, notify->LookupWatch("/vol1", watch, relative, id));
  EXPECT_EQ("untouched", watch);
  EXPECT_EQ("untouched", relative);
  EXPECT_EQ(-5, id);
}

TEST_F(YULotifyTest, LookupWatchOfTheWatchedPathItself) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  for (const char* name : {"/vol1/media", "/vol1/media/", "/vol1/media///"}) {
    std::string watch, relative;
    int id = -1;
    ASSERT_EQ(0, notify->LookupWatch(name, watch, relative, id)) << name;
    EXPECT_EQ("/vol1/media", watch) << name;
    EXPECT_EQ("/", relative) << name;
  }
}

TEST_F(YULotifyTest, LookupWatchStripsTrailingSlashes) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  std::string watch, relative;
  int id = -1;
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media/dir//", watch, relative, id));
  EXPECT_EQ("/dir", relative);
}

TEST_F(YULotifyTest, LookupWatchKeepsSlashesOfAOneCharacterName) {
  env_.AddDir("x", 1);
  auto notify = Make();
  ASSERT_EQ(0, notify->AddWatch("x"));
  std::string watch, relative;
  int id = -1;
  // "x//": its last character other than "/" is its first: kept whole.
  ASSERT_EQ(0, notify->LookupWatch("x//", watch, relative, id));
  EXPECT_EQ("x", watch);
  EXPECT_EQ("//", relative);
  // Empty and all-slash names are kept whole too.
  EXPECT_EQ(-1, notify->LookupWatch("", watch, relative, id));
  EXPECT_EQ(-1, notify->LookupWatch("///", watch, relative, id));
}

TEST_F(YULotifyTest, LookupWatchPrefersTheOuterOfNestedWatches) {
  auto notify = Make();
  const int inner = notify->AddWatch("/v/a/b");
  const int outer = notify->AddWatch("/v/a");
  std::string watch, relative;
  int id = -1;
  ASSERT_EQ(0, notify->LookupWatch("/v/a/b/c", watch, relative, id));
  EXPECT_EQ("/v/a", watch);
  EXPECT_EQ("/b/c", relative);
  EXPECT_EQ(outer, id);
  notify->RemoveWatch(outer);
  ASSERT_EQ(0, notify->LookupWatch("/v/a/b/c", watch, relative, id));
  EXPECT_EQ("/v/a/b", watch);
  EXPECT_EQ("/c", relative);
  EXPECT_EQ(inner, id);
}

TEST_F(YULotifyTest, LookupWatchOfAnAdjacentNameIsNotConfused) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  notify->AddWatch("/vol1/media2");
  std::string watch, relative;
  int id = -1;
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media2/x", watch, relative, id));
  EXPECT_EQ("/vol1/media2", watch);
  EXPECT_EQ(1, id);
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media/x", watch, relative, id));
  EXPECT_EQ("/vol1/media", watch);
  EXPECT_EQ(0, id);
}

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

// --- mount points -----------------------------------------------------

TEST_F(YULotifyTest, MountPointHelpers) {
  auto notify = Make();
  EXPECT_EQ("/vol1", notify->GetMountPoint("/vol1/media"));
  EXPECT_EQ("/vol1", YULotify::ParentDir("/vol1/media"));
  EXPECT_EQ("/", YULotify::ParentDir("/vol1"));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
