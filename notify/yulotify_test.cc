#include "notify/yulotify.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <vector>

#include "notify/yulotify_test_fixture.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeBackend;
using testing::kMask;
using testing::TakeCapturedLines;
using testing::TakeLogLines;
using testing::YULotifyTest;

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
