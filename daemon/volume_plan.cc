#include "daemon/volume_plan.h"

#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Whether another mount is at the place now than `then`. When the mount
// cannot be examined now, nothing is known to have changed: keep what is.
// When it could not be examined then, it may have been anything: treat it as
// changed, so the volume gets a manager made for what is there now.
bool Remounted(const SeenMount& then, const SeenMount& now) {
  if (!now) return false;
  if (!then) return true;
  return *then != *now;
}

const MountedVolume* FindMounted(const std::vector<MountedVolume>& mounted,
                                 int32_t id) {
  for (const MountedVolume& volume : mounted) {
    if (volume.id == id) return &volume;
  }
  return nullptr;
}

}  // namespace

VolumePlan PlanVolumeChanges(const std::vector<MountedVolume>& mounted,
                             const std::vector<WatchedVolume>& watched,
                             const std::map<int32_t, SeenMount>& holds,
                             const std::set<int32_t>& gone) {
  VolumePlan plan;
  plan.gone = gone;
  std::set<int32_t> kept;
  for (const WatchedVolume& volume : watched) {
    const MountedVolume* now = FindMounted(mounted, volume.id);
    VolumePlan::Drop drop;
    drop.id = volume.id;
    drop.mount_point = volume.mount_point;
    if (now == nullptr) {
      drop.why = VolumePlan::Why::kGone;
    } else if (NormalisePath(now->mount_point) !=
               NormalisePath(volume.mount_point)) {
      drop.why = VolumePlan::Why::kMoved;
    } else if (Remounted(volume.mount, now->mount)) {
      drop.why = VolumePlan::Why::kRemounted;
    } else {
      kept.insert(volume.id);
      continue;
    }
    plan.drops.push_back(drop);
    plan.gone.insert(volume.id);
  }

  for (const auto& hold : holds) {
    if (kept.count(hold.first) != 0) continue;  // watched again since
    const MountedVolume* now = FindMounted(mounted, hold.first);
    if (now != nullptr && !Remounted(hold.second, now->mount)) {
      plan.holds.insert(hold);
      continue;
    }
    // Unmounted since the command (or unmounted and mounted again): it
    // went away like any other volume.
    plan.gone.insert(hold.first);
  }

  for (const MountedVolume& volume : mounted) {
    if (kept.count(volume.id) != 0) continue;
    const VolumePlan::Skip skip{volume.id, volume.mount_point};
    if (plan.holds.count(volume.id) != 0) {
      plan.held.push_back(skip);
    } else if (volume.kind == YULO_VOLUME_KIND_USB) {
      plan.usb.push_back(skip);
    } else {
      plan.adds.push_back(VolumePlan::Add{volume.id, volume.mount_point,
                                          plan.gone.count(volume.id) != 0});
    }
  }
  return plan;
}

}  // namespace YULOTIFYD
}  // namespace YULO
