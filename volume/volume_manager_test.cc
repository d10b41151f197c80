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

TEST(VolumeMgrTest, OnlyThePushThatCrossesTheMarkWakesTheProcessor) {
  const size_t mark = EventProcessor::kEarlyPassEvents;
  EXPECT_FALSE(VolumeMgr::CrossesEarlyPassMark(1, mark - 1));
  EXPECT_TRUE(VolumeMgr::CrossesEarlyPassMark(1, mark));
  EXPECT_FALSE(VolumeMgr::CrossesEarlyPassMark(1, mark + 1));
  EXPECT_TRUE(VolumeMgr::CrossesEarlyPassMark(2, mark + 1));  // a pair
  EXPECT_FALSE(VolumeMgr::CrossesEarlyPassMark(2, mark + 2));
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
