#include "volume/volume_manager.h"

#include "output/event_processor.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/testing/temp_dir.h"
#include "yulotifyd/thread.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

// Real files in a scratch directory: injected events are checked against
// the file system.
class InjectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = dir_.path();
    share_a_ = dir_.MakeDir("a");
    share_b_ = dir_.MakeDir("b");
    dir_.MakeDir("a/dir");
    dir_.Write("a/file", "");
    dir_.Write("b/file", "");
    dir_.Write("outside", "");
    shares_ = {share_a_, share_b_};
  }
  bool Build(uint32_t type, const std::string& path,
             const std::string& old = "") {
    records_.clear();
    return VolumeMgr::BuildInjected(type, path, old, shares_, root_, &cookie_,
                                    &records_);
  }

  testing::TempDir dir_{"inject"};
  std::string root_, share_a_, share_b_;
  std::vector<std::string> shares_;
  std::vector<NotifyEvent> records_;
  uint64_t cookie_ = 0;
};

TEST(VolumeMgrTest, OnlyThePushThatCrossesTheMarkWakesTheProcessor) {
  const size_t mark = EventProcessor::kEarlyPassEvents;
  EXPECT_FALSE(VolumeMgr::CrossesEarlyPassMark(1, mark - 1));
  EXPECT_TRUE(VolumeMgr::CrossesEarlyPassMark(1, mark));
  EXPECT_FALSE(VolumeMgr::CrossesEarlyPassMark(1, mark + 1));
  EXPECT_TRUE(VolumeMgr::CrossesEarlyPassMark(2, mark + 1));  // a pair
  EXPECT_FALSE(VolumeMgr::CrossesEarlyPassMark(2, mark + 2));
}

TEST(VolumeMgrTest, ConvertTypeMapsQueueCodesToKernelBits) {
  EXPECT_EQ(VolumeMgr::ConvertType(64, false), static_cast<uint32_t>(YULO_CREATE));
  EXPECT_EQ(VolumeMgr::ConvertType(128, false), static_cast<uint32_t>(YULO_DELETE));
  EXPECT_EQ(VolumeMgr::ConvertType(512, true),
            static_cast<uint32_t>(YULO_RESCAN | YULO_ISDIR));
  EXPECT_EQ(VolumeMgr::ConvertType(0x3f, false), 0x3fu);
  // 256 (a rename) has no single-record form.
  EXPECT_EQ(VolumeMgr::ConvertType(256, false), 0u);
}

TEST_F(InjectTest, CreateInAShareIsOneRecordBelowTheShare) {
  ASSERT_TRUE(Build(64, share_a_ + "/file"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_CREATE));
  EXPECT_EQ(records_[0].watch, share_a_);
  EXPECT_EQ(records_[0].path, "/file");
  EXPECT_EQ(records_[0].root, -1);
  EXPECT_EQ(records_[0].cookie, 0u);
}

TEST_F(InjectTest, DirectoryGetsTheDirectoryFlag) {
  ASSERT_TRUE(Build(128, share_a_ + "/dir"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_DELETE | YULO_ISDIR));
}

TEST_F(InjectTest, MissingPathOrNoShareGivesNothing) {
  EXPECT_FALSE(Build(64, share_a_ + "/missing"));
  EXPECT_FALSE(Build(64, root_ + "/outside"));
  EXPECT_TRUE(records_.empty());
}

TEST_F(InjectTest, RenameWithinOneShareIsAPairWithOneCookie) {
  ASSERT_TRUE(Build(256, share_a_ + "/file", share_a_ + "/old"));
  ASSERT_EQ(records_.size(), 2u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_MOVE_FROM));
  EXPECT_EQ(records_[0].path, "/old");
  EXPECT_EQ(records_[1].mask, static_cast<uint32_t>(YULO_MOVE_TO));
  EXPECT_EQ(records_[1].path, "/file");
  EXPECT_EQ(records_[0].cookie, 1u);
  EXPECT_EQ(records_[1].cookie, 1u);
  ASSERT_TRUE(Build(256, share_a_ + "/file", share_a_ + "/older"));
  EXPECT_EQ(records_[0].cookie, 2u);  // one more per rename
}

TEST_F(InjectTest, RenameAcrossSharesIsCreateThenDelete) {
  ASSERT_TRUE(Build(256, share_b_ + "/file", share_a_ + "/gone"));
  ASSERT_EQ(records_.size(), 2u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_CREATE));
  EXPECT_EQ(records_[0].watch, share_b_);
  EXPECT_EQ(records_[1].mask, static_cast<uint32_t>(YULO_DELETE));
  EXPECT_EQ(records_[1].watch, share_a_);
  EXPECT_EQ(records_[1].path, "/gone");
  EXPECT_EQ(cookie_, 0u);
}

TEST_F(InjectTest, RenameIntoOrOutOfAShareIsOneRecord) {
  ASSERT_TRUE(Build(256, share_a_ + "/file", root_ + "/elsewhere"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_CREATE));
  ASSERT_TRUE(Build(256, root_ + "/outside", share_a_ + "/was"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_DELETE));
  EXPECT_EQ(records_[0].path, "/was");
}

TEST_F(InjectTest, ShareRootIsAPlainPrefixInListOrder) {
  // No "/" boundary: a share /x/a claims /x/ab/... when listed first.
  const std::string ab = dir_.MakeDir("ab");
  dir_.Write("ab/f", "");
  ASSERT_TRUE(Build(64, ab + "/f"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].watch, share_a_);
  EXPECT_EQ(records_[0].path, "b/f");
}

class FakeContext : public VolumeContext {
 public:
  std::vector<MonitorQueue> GetMonitorQueues() override { return {}; }
  int32_t GetRunStatus() const override { return status; }
  void PostReloadSemaphore() override {}
  int32_t status = RUN_STATUS_STOPPED;
};

// A manager made for a volume that came back asks for a rescan at start
// like one after an unclean stop; others only after an unclean stop.
TEST(VolumeMgrRescanTest, RescanAtStartCountsAsRecovery) {
  ASSERT_TRUE(Thread::InitThreadLock());
  YULO_VOLUME_INFO info;
  std::memset(&info, 0, sizeof(info));
  info.vol_id = 5;
  std::strcpy(info.mount_point, "/nonexistent-yulo-volume");
  FakeContext context;
  {
    VolumeMgr plain(&info, &context);
    EXPECT_FALSE(plain.IsRecovery());
    EXPECT_EQ(5, plain.GetVolumeId());
    VolumeMgr back(&info, &context, /*rescan_at_start=*/true);
    EXPECT_TRUE(back.IsRecovery());
  }
  context.status = RUN_STATUS_RECOVERY;
  {
    VolumeMgr plain(&info, &context);
    EXPECT_TRUE(plain.IsRecovery());
  }
  Thread::DestroyThreadLock();
}

// Monitor queues fixed before any manager exists.
class QueueContext : public VolumeContext {
 public:
  explicit QueueContext(std::vector<MonitorQueue> queues)
      : queues_(std::move(queues)) {}
  std::vector<MonitorQueue> GetMonitorQueues() override { return queues_; }
  int32_t GetRunStatus() const override { return RUN_STATUS_STOPPED; }
  void PostReloadSemaphore() override {}

 private:
  const std::vector<MonitorQueue> queues_;
};

// A watch placed after the kernel refused it leaves the volume's changes
// meanwhile unread: the queues watching the volume get a rescan line of it,
// soon, without waiting for the processor's next pass.
TEST(VolumeMgrRescanTest, AWatchPlacedAfterARefusalRescansTheVolume) {
  ASSERT_TRUE(Thread::InitThreadLock());
  {
    testing::TempDir dir("recovered");
    const std::string share = dir.MakeDir("vol") + "/Share";
    dir.MakeDir("vol/Share");
    const std::string queue = dir.File("q.queue");
    QueueContext context({MonitorQueue(
        queue, {MonitorQueue::MakeConfig("Share", share, "/", true, 1023)},
        getuid(), getgid())});
    YULO_VOLUME_INFO info;
    std::memset(&info, 0, sizeof(info));
    info.vol_id = 7;
    std::snprintf(info.mount_point, sizeof(info.mount_point), "%s",
                  dir.File("vol").c_str());
    VolumeMgr mgr(&info, &context);
    EXPECT_EQ(0u, mgr.GetStatus().rescan_lines);
    mgr.WatchRecovered();
    // Well inside the processor's regular pause: the wake brought it.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    while (mgr.GetStatus().rescan_lines == 0 &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(1u, mgr.GetStatus().rescan_lines);
    EXPECT_EQ("{\"event\":512,\"is_dir\":true,\"path\":\"" + dir.File("vol") +
                  "\"}\n",
              dir.Read("q.queue"));
  }
  Thread::DestroyThreadLock();
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
