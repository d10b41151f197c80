#include "volume/volume_manager.h"

#include "output/event_processor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

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

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
