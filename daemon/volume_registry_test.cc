#include "daemon/volume_registry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/testing/fake_platform.h"
#include "daemon/testing/fake_volume.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakePlatform;
using testing::FakeVolumes;
using testing::LinesWithMessage;
using testing::TakeLogLines;
using Journal = std::vector<std::string>;

// The registry never calls back into the daemon itself; the fakes only post
// reload acknowledgements, which these tests do not ask for.
class NoContext : public VolumeContext {
 public:
  std::vector<MonitorQueue> GetMonitorQueues() override { return {}; }
  int32_t GetRunStatus() const override { return RUN_STATUS_INIT; }
  void PostReloadSemaphore() override {}
};

class VolumeRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { TakeLogLines(); }
  void TearDown() override { LOG_LEVEL = 3; }

  YULO_VOLUME_INFO Info(int32_t id, const std::string& mount_point,
                        int32_t kind = 0) {
    FakePlatform one;
    one.AddVolume(id, mount_point, kind);
    YULO_VOLUME_INFO info;
    EXPECT_EQ(0, one.GetMountedVolume(mount_point.c_str(), &info));
    return info;
  }

  size_t Logged(const std::vector<std::string>& lines,
                const std::string& message) {
    return LinesWithMessage(lines, message, "volume_registry").size();
  }

  FakePlatform platform_;
  FakeVolumes fakes_;
  NoContext context_;
  VolumeRegistry registry_{&platform_, fakes_.Factory(), &context_};
};

TEST_F(VolumeRegistryTest, CreateAllMakesAManagerPerMountedVolume) {
  platform_.AddVolume(2, "/vol2");
  platform_.AddVolume(1, "/vol1");
  // USB volumes mounted at start are watched too.
  platform_.AddVolume(3, "/usb1", YULO_VOLUME_KIND_USB);
  ASSERT_TRUE(registry_.CreateAll());
  EXPECT_EQ(3u, registry_.size());
  // Made in table order, kept by id.
  EXPECT_EQ((Journal{"2 made", "1 made", "3 made"}), fakes_.TakeJournal());
  std::vector<int32_t> ids;
  for (const auto& entry : registry_.volumes()) ids.push_back(entry.first);
  EXPECT_EQ((std::vector<int32_t>{1, 2, 3}), ids);
  EXPECT_EQ(0, platform_.lists_outstanding());
}

TEST_F(VolumeRegistryTest, CreateAllFailsWithoutAnyVolume) {
  EXPECT_FALSE(registry_.CreateAll());
  EXPECT_EQ(1u, Logged(TakeLogLines(), "YULOMountVolAllEnum failed"));
}

TEST_F(VolumeRegistryTest, CreateAllGoesOnPastAVolumeThatFails) {
  platform_.AddVolume(1, "/vol1");
  platform_.AddVolume(2, "/vol2");
  fakes_.failing.insert(1);
  ASSERT_TRUE(registry_.CreateAll());
  EXPECT_EQ(1u, registry_.size());
  EXPECT_NE(nullptr, registry_.FindByMountPoint("/vol2"));
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines, "Failed to initiate mgr for volume(id=1)"));
  EXPECT_EQ(1u, Logged(lines, "CreateVolumeMgr failed"));
}

TEST_F(VolumeRegistryTest, OneManagerPerVolumeId) {
  const YULO_VOLUME_INFO info = Info(1, "/vol1");
  LOG_LEVEL = 7;
  ASSERT_TRUE(registry_.Create(&info));
  EXPECT_FALSE(registry_.Create(&info));
  EXPECT_EQ(1, fakes_.made);
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines, "VolumeMgr created, id=1, mount point=/vol1"));
  EXPECT_EQ(1u,
            Logged(lines, "VolumeMgr exists already, id=1, mount point=/vol1"));
}

TEST_F(VolumeRegistryTest, FindByMountPointComparesNormalised) {
  const YULO_VOLUME_INFO info = Info(1, "/vol1");
  ASSERT_TRUE(registry_.Create(&info));
  ManagedVolume* mgr = registry_.FindByMountPoint("/vol1");
  ASSERT_NE(nullptr, mgr);
  EXPECT_EQ(1, mgr->GetVolumeId());
  EXPECT_EQ(mgr, registry_.FindByMountPoint("//vol1/"));
  EXPECT_EQ(mgr, registry_.FindByMountPoint("/./vol1"));
  EXPECT_EQ(nullptr, registry_.FindByMountPoint("/vol10"));
  EXPECT_EQ(nullptr, registry_.FindByMountPoint("/"));
}

TEST_F(VolumeRegistryTest, FindByShareGoesThroughTheShareVolume) {
  platform_.AddVolume(1, "/vol1");
  platform_.AddVolume(2, "/vol1/inner");
  platform_.AddVolume(3, "/vol3");
  platform_.AddShare("Public", "/vol1/Public");
  platform_.AddShare("Inner", "/vol1/inner/data");
  platform_.AddShare("Third", "/vol3/Third");
  platform_.AddShare("Nowhere", "/elsewhere/x");
  const YULO_VOLUME_INFO one = Info(1, "/vol1");
  const YULO_VOLUME_INFO two = Info(2, "/vol1/inner");
  ASSERT_TRUE(registry_.Create(&one));
  ASSERT_TRUE(registry_.Create(&two));
  ASSERT_NE(nullptr, registry_.FindByShare("Public"));
  EXPECT_EQ(1, registry_.FindByShare("Public")->GetVolumeId());
  // The deepest volume holds the share.
  ASSERT_NE(nullptr, registry_.FindByShare("Inner"));
  EXPECT_EQ(2, registry_.FindByShare("Inner")->GetVolumeId());
  // A volume without a manager, a path on no volume, an unknown share.
  EXPECT_EQ(nullptr, registry_.FindByShare("Third"));
  EXPECT_EQ(nullptr, registry_.FindByShare("Nowhere"));
  EXPECT_EQ(nullptr, registry_.FindByShare("Missing"));
}

TEST_F(VolumeRegistryTest, MountMakesAManagerOnce) {
  platform_.AddVolume(1, "/vol1");
  registry_.Mount("/vol1");
  registry_.Mount("/vol1/");
  EXPECT_EQ(1, fakes_.made);
  EXPECT_FALSE(fakes_.rescan_at_start[1]);
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(VolumeRegistryTest, MountOfAnUnknownVolumeIsLogged) {
  registry_.Mount("/nowhere");
  EXPECT_EQ(0u, registry_.size());
  EXPECT_EQ(1u, Logged(TakeLogLines(),
                       "YULOMountVolInfoGet failed, mount_point=/nowhere"));
}

TEST_F(VolumeRegistryTest, MountSkipsUsbVolumes) {
  platform_.AddVolume(5, "/usb1", YULO_VOLUME_KIND_USB);
  registry_.Mount("/usb1");
  EXPECT_EQ(0u, registry_.size());
  EXPECT_EQ(1u, Logged(TakeLogLines(), "skipped mounting usb volume [/usb1]"));
}

TEST_F(VolumeRegistryTest, MountOfAFailingVolumeIsLogged) {
  platform_.AddVolume(1, "/vol1");
  fakes_.failing.insert(1);
  registry_.Mount("/vol1");
  EXPECT_EQ(0u, registry_.size());
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines, "Failed to initiate mgr for volume(id=1)"));
  EXPECT_EQ(1u, Logged(lines, "CreateVolumeMgr failed"));
}

TEST_F(VolumeRegistryTest, UnmountDrainsThenDeletes) {
  const YULO_VOLUME_INFO one = Info(1, "/vol1");
  const YULO_VOLUME_INFO two = Info(2, "/vol2");
  ASSERT_TRUE(registry_.Create(&one));
  ASSERT_TRUE(registry_.Create(&two));
  fakes_.TakeJournal();
  registry_.Unmount("/vol2/");
  EXPECT_EQ((Journal{"2 Drain", "2 deleted"}), fakes_.TakeJournal());
  EXPECT_EQ(1u, registry_.size());
  EXPECT_TRUE(registry_.all_drained());
  // Unknown: nothing happens, nothing is logged.
  registry_.Unmount("/vol2");
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(VolumeRegistryTest, UnmountThatLeftLinesUnwrittenIsRemembered) {
  const YULO_VOLUME_INFO one = Info(1, "/vol1");
  ASSERT_TRUE(registry_.Create(&one));
  fakes_.undrained.insert(1);
  registry_.Unmount("/vol1");
  EXPECT_EQ(0u, registry_.size());
  EXPECT_FALSE(registry_.all_drained());
}

TEST_F(VolumeRegistryTest, StopAllWindsDownSideBySide) {
  platform_.AddVolume(2, "/vol2");
  platform_.AddVolume(1, "/vol1");
  ASSERT_TRUE(registry_.CreateAll());
  fakes_.TakeJournal();
  registry_.StopAll();
  EXPECT_EQ((Journal{"1 BeginDrain", "2 BeginDrain", "1 FinishReceiving",
                     "2 FinishReceiving", "1 FinishDrain", "2 FinishDrain",
                     "1 deleted", "2 deleted"}),
            fakes_.TakeJournal());
  EXPECT_EQ(0u, registry_.size());
  EXPECT_TRUE(registry_.all_drained());
}

TEST_F(VolumeRegistryTest, StopAllRemembersAVolumeLeftUndrained) {
  platform_.AddVolume(1, "/vol1");
  platform_.AddVolume(2, "/vol2");
  ASSERT_TRUE(registry_.CreateAll());
  fakes_.undrained.insert(2);
  registry_.StopAll();
  EXPECT_FALSE(registry_.all_drained());
}

TEST_F(VolumeRegistryTest, GoneVolumeComesBackWithARescan) {
  platform_.AddVolume(1, "/vol1");
  registry_.Mount("/vol1");
  // The volume goes away: the plan drops it and remembers it as gone.
  platform_.RemoveVolume(1);
  const VolumePlan away = registry_.Plan({});
  ASSERT_EQ(1u, away.drops.size());
  EXPECT_EQ(1, away.drops[0].id);
  for (const VolumePlan::Drop& drop : away.drops) registry_.Drop(drop);
  registry_.KeepPlanned(away);
  EXPECT_EQ(0u, registry_.size());
  EXPECT_EQ(1u, registry_.gone().count(1));
  // Mounted again: watched with a rescan, and no longer gone.
  platform_.AddVolume(1, "/vol1");
  registry_.Mount("/vol1");
  ASSERT_EQ(1u, registry_.size());
  EXPECT_TRUE(fakes_.rescan_at_start[1]);
  EXPECT_EQ(0u, registry_.gone().size());
}

TEST_F(VolumeRegistryTest, HoldRecordsAWatchedVolumeOnly) {
  const YULO_VOLUME_INFO one = Info(1, "/vol1");
  ASSERT_TRUE(registry_.Create(&one));
  registry_.Hold("/vol9");
  EXPECT_TRUE(registry_.held().empty());
  registry_.Hold("/vol1/");
  EXPECT_EQ(1u, registry_.held().count(1));
  // A new manager for the volume ends the hold.
  registry_.Unmount("/vol1");
  ASSERT_TRUE(registry_.Create(&one));
  EXPECT_TRUE(registry_.held().empty());
}

TEST_F(VolumeRegistryTest, PlanSeesWhatIsWatched) {
  const YULO_VOLUME_INFO one = Info(1, "/vol1");
  ASSERT_TRUE(registry_.Create(&one));
  MountedVolume two;
  two.id = 2;
  two.mount_point = "/vol2";
  MountedVolume still;
  still.id = 1;
  still.mount_point = "/vol1";
  const VolumePlan plan = registry_.Plan({still, two});
  EXPECT_TRUE(plan.drops.empty());
  ASSERT_EQ(1u, plan.adds.size());
  EXPECT_EQ(2, plan.adds[0].id);
  EXPECT_FALSE(plan.adds[0].rescan);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
