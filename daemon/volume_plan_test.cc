#include "daemon/volume_plan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using Why = VolumePlan::Why;

// A made-up mount; equal numbers are the same mount.
SeenMount Mount(uint64_t id) {
  MountIdentity identity;
  identity.mount_id = id;
  identity.unique = true;
  identity.dev = 100 + id;
  return identity;
}

MountedVolume Mounted(int32_t id, const std::string& mount_point,
                      SeenMount mount, int32_t kind = 0) {
  MountedVolume volume;
  volume.id = id;
  volume.kind = kind;
  volume.mount_point = mount_point;
  volume.mount = mount;
  return volume;
}

WatchedVolume Watched(int32_t id, const std::string& mount_point,
                      SeenMount mount) {
  WatchedVolume volume;
  volume.id = id;
  volume.mount_point = mount_point;
  volume.mount = mount;
  return volume;
}

std::vector<int32_t> DropIds(const VolumePlan& plan) {
  std::vector<int32_t> ids;
  for (const auto& drop : plan.drops) ids.push_back(drop.id);
  return ids;
}

std::vector<int32_t> AddIds(const VolumePlan& plan) {
  std::vector<int32_t> ids;
  for (const auto& add : plan.adds) ids.push_back(add.id);
  return ids;
}

TEST(VolumePlanTest, NothingChangedDoesNothing) {
  const auto plan = PlanVolumeChanges(
      {Mounted(1, "/vol1", Mount(11)), Mounted(2, "/vol2", Mount(12))},
      {Watched(1, "/vol1", Mount(11)), Watched(2, "/vol2", Mount(12))}, {},
      {});
  EXPECT_TRUE(plan.drops.empty());
  EXPECT_TRUE(plan.adds.empty());
  EXPECT_TRUE(plan.gone.empty());
}

TEST(VolumePlanTest, NewlyMountedVolumeIsAddedWithoutRescan) {
  const auto plan = PlanVolumeChanges(
      {Mounted(1, "/vol1", Mount(11)), Mounted(3, "/vol3", Mount(13))},
      {Watched(1, "/vol1", Mount(11))}, {}, {});
  ASSERT_EQ(std::vector<int32_t>{3}, AddIds(plan));
  EXPECT_EQ("/vol3", plan.adds[0].mount_point);
  EXPECT_FALSE(plan.adds[0].rescan);
  EXPECT_TRUE(plan.drops.empty());
}

TEST(VolumePlanTest, UnmountedVolumeIsDroppedAndRememberedAsGone) {
  const auto plan = PlanVolumeChanges(
      {Mounted(1, "/vol1", Mount(11))},
      {Watched(1, "/vol1", Mount(11)), Watched(2, "/vol2", Mount(12))}, {},
      {});
  ASSERT_EQ(std::vector<int32_t>{2}, DropIds(plan));
  EXPECT_EQ("/vol2", plan.drops[0].mount_point);
  EXPECT_EQ(Why::kGone, plan.drops[0].why);
  EXPECT_EQ(std::set<int32_t>{2}, plan.gone);
  EXPECT_TRUE(plan.adds.empty());
}

TEST(VolumePlanTest, VolumeThatComesBackIsAddedWithRescan) {
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol2", Mount(22))}, {}, {},
                                      {2});
  ASSERT_EQ(std::vector<int32_t>{2}, AddIds(plan));
  EXPECT_TRUE(plan.adds[0].rescan);
  // Still gone until its manager exists; the daemon forgets it then.
  EXPECT_EQ(std::set<int32_t>{2}, plan.gone);
}

TEST(VolumePlanTest, RemountedSinceLastSeenIsDroppedAndAddedWithRescan) {
  // Unmounted and mounted again before the daemon looked: another mount.
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol2", Mount(22))},
                                      {Watched(2, "/vol2", Mount(12))}, {}, {});
  ASSERT_EQ(std::vector<int32_t>{2}, DropIds(plan));
  EXPECT_EQ(Why::kRemounted, plan.drops[0].why);
  ASSERT_EQ(std::vector<int32_t>{2}, AddIds(plan));
  EXPECT_TRUE(plan.adds[0].rescan);
}

TEST(VolumePlanTest, MountThatCannotBeExaminedNowKeepsTheManager) {
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol2", std::nullopt)},
                                      {Watched(2, "/vol2", Mount(12))}, {}, {});
  EXPECT_TRUE(plan.drops.empty());
  EXPECT_TRUE(plan.adds.empty());
}

TEST(VolumePlanTest, MountUnknownWhenTheManagerWasMadeIsReplaced) {
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol2", Mount(12))},
                                      {Watched(2, "/vol2", std::nullopt)}, {},
                                      {});
  ASSERT_EQ(std::vector<int32_t>{2}, DropIds(plan));
  EXPECT_EQ(Why::kRemounted, plan.drops[0].why);
  EXPECT_EQ(std::vector<int32_t>{2}, AddIds(plan));
}

TEST(VolumePlanTest, VolumeMountedElsewhereNowMoves) {
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol9", Mount(12))},
                                      {Watched(2, "/vol2", Mount(12))}, {}, {});
  ASSERT_EQ(std::vector<int32_t>{2}, DropIds(plan));
  EXPECT_EQ(Why::kMoved, plan.drops[0].why);
  EXPECT_EQ("/vol2", plan.drops[0].mount_point);
  ASSERT_EQ(std::vector<int32_t>{2}, AddIds(plan));
  EXPECT_EQ("/vol9", plan.adds[0].mount_point);
  EXPECT_TRUE(plan.adds[0].rescan);
}

TEST(VolumePlanTest, MountPointsAreComparedNormalised) {
  const auto plan = PlanVolumeChanges({Mounted(1, "/vol1", Mount(11))},
                                      {Watched(1, "//vol1/./", Mount(11))}, {},
                                      {});
  EXPECT_TRUE(plan.drops.empty());
  EXPECT_TRUE(plan.adds.empty());
}

TEST(VolumePlanTest, UsbVolumeMountedWhileRunningIsNotWatched) {
  const auto plan = PlanVolumeChanges(
      {Mounted(7, "/media/usb1", Mount(17), YULO_VOLUME_KIND_USB)}, {}, {},
      {7});
  EXPECT_TRUE(plan.adds.empty());
  ASSERT_EQ(1u, plan.usb.size());
  EXPECT_EQ(7, plan.usb[0].id);
  EXPECT_EQ("/media/usb1", plan.usb[0].mount_point);
}

TEST(VolumePlanTest, UsbVolumeWatchedSinceStartIsKept) {
  const auto plan = PlanVolumeChanges(
      {Mounted(7, "/media/usb1", Mount(17), YULO_VOLUME_KIND_USB)},
      {Watched(7, "/media/usb1", Mount(17))}, {}, {});
  EXPECT_TRUE(plan.drops.empty());
  EXPECT_TRUE(plan.usb.empty());
}

TEST(VolumePlanTest, HeldVolumeStaysUnwatchedWhileItsMountStays) {
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol2", Mount(12))}, {},
                                      {{2, Mount(12)}}, {});
  EXPECT_TRUE(plan.adds.empty());
  ASSERT_EQ(1u, plan.held.size());
  EXPECT_EQ(2, plan.held[0].id);
  EXPECT_EQ(1u, plan.holds.count(2));
  EXPECT_TRUE(plan.gone.empty());
}

TEST(VolumePlanTest, HeldVolumeUnmountedEndsTheHoldAndIsGone) {
  const auto plan = PlanVolumeChanges({}, {}, {{2, Mount(12)}}, {});
  EXPECT_TRUE(plan.holds.empty());
  EXPECT_EQ(std::set<int32_t>{2}, plan.gone);
  // Mounted again later: watched, with a rescan.
  const auto later = PlanVolumeChanges({Mounted(2, "/vol2", Mount(22))}, {},
                                       plan.holds, plan.gone);
  ASSERT_EQ(std::vector<int32_t>{2}, AddIds(later));
  EXPECT_TRUE(later.adds[0].rescan);
}

TEST(VolumePlanTest, HeldVolumeRemountedIsAddedWithRescan) {
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol2", Mount(22))}, {},
                                      {{2, Mount(12)}}, {});
  EXPECT_TRUE(plan.holds.empty());
  ASSERT_EQ(std::vector<int32_t>{2}, AddIds(plan));
  EXPECT_TRUE(plan.adds[0].rescan);
}

TEST(VolumePlanTest, HoldOfAVolumeWatchedAgainIsForgotten) {
  const auto plan = PlanVolumeChanges({Mounted(2, "/vol2", Mount(12))},
                                      {Watched(2, "/vol2", Mount(12))},
                                      {{2, Mount(12)}}, {});
  EXPECT_TRUE(plan.holds.empty());
  EXPECT_TRUE(plan.adds.empty());
  EXPECT_TRUE(plan.held.empty());
}

TEST(VolumePlanTest, AddsFollowTableOrderAndDropsWatchedOrder) {
  const auto plan = PlanVolumeChanges(
      {Mounted(5, "/vol5", Mount(15)), Mounted(3, "/vol3", Mount(13)),
       Mounted(4, "/vol4", Mount(14))},
      {Watched(1, "/vol1", Mount(11)), Watched(2, "/vol2", Mount(12)),
       Watched(4, "/vol4", Mount(14))},
      {}, {});
  EXPECT_EQ((std::vector<int32_t>{1, 2}), DropIds(plan));
  EXPECT_EQ((std::vector<int32_t>{5, 3}), AddIds(plan));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
