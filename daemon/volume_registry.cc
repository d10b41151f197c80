#include "daemon/volume_registry.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "notify/mount_point.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

constexpr int kPathBufferSize = 4096;

}  // namespace

SeenMount SeeMount(const std::string& path) {
  MountIdentity mount;
  if (!GetMountIdentity(path, &mount)) return SeenMount();
  return mount;
}

VolumeRegistry::VolumeRegistry(PlatformApi* platform, VolumeFactory factory,
                               VolumeContext* context)
    : platform_(platform), factory_(std::move(factory)), context_(context) {}

bool VolumeRegistry::CreateAll() {
  YULO_VOLUME_INFO* list = platform_->EnumMountedVolumes();
  if (list == nullptr) {
    YULO_LOG_ALWAYS("YULOMountVolAllEnum failed");
    return false;
  }
  // Every volume mounted now gets a manager, USB volumes included.
  for (YULO_VOLUME_INFO* info = list; info != nullptr; info = info->next) {
    if (!Create(info)) YULO_LOG_ALWAYS("CreateVolumeMgr failed");
  }
  platform_->FreeMountedVolumes(list);
  return true;
}

bool VolumeRegistry::Create(const YULO_VOLUME_INFO* info,
                            bool rescan_at_start) {
  // One manager per volume: a second one would write every event twice.
  if (volumes_.count(info->vol_id) != 0) {
    YULO_LOG_ALWAYS("VolumeMgr exists already, id=%d, mount point=%s",
                    info->vol_id, info->mount_point);
    return false;
  }
  // Taken before the receiver places its watch, so that a later remount
  // is told from this mount.
  MountIdentity mount;
  const bool mount_seen = GetMountIdentity(info->mount_point, &mount);
  try {
    // A manager that cannot be registered is stopped and deleted, never
    // left running.
    std::unique_ptr<ManagedVolume> mgr =
        factory_(info, context_, rescan_at_start);
    if (!mgr) throw -1;
    volumes_.emplace(info->vol_id, std::move(mgr));
  } catch (...) {
    YULO_LOG_ALWAYS("Failed to initiate mgr for volume(id=%d)", info->vol_id);
    return false;
  }
  watched_mounts_[info->vol_id] = mount_seen ? SeenMount(mount) : SeenMount();
  held_.erase(info->vol_id);
  gone_.erase(info->vol_id);
  YULO_LOG_DEBUG("VolumeMgr created, id=%d, mount point=%s", info->vol_id,
                 info->mount_point);
  return true;
}

ManagedVolume* VolumeRegistry::FindByShare(const std::string& share_name) {
  char path[kPathBufferSize];
  std::memset(path, 0, sizeof(path));
  if (platform_->GetSharePath(share_name.c_str(), path, sizeof(path)) != 0) {
    return nullptr;
  }
  int vol_id = 0;
  if (platform_->ParseVolumePath(path, &vol_id) <= 0) return nullptr;
  auto it = volumes_.find(vol_id);
  return it == volumes_.end() ? nullptr : it->second.get();
}

ManagedVolume* VolumeRegistry::FindByMountPoint(
    const std::string& mount_point) {
  const std::string wanted = NormalisePath(mount_point);
  for (auto& entry : volumes_) {
    if (NormalisePath(entry.second->GetMountPoint()) == wanted) {
      return entry.second.get();
    }
  }
  return nullptr;
}

void VolumeRegistry::Mount(const std::string& mount_point) {
  if (FindByMountPoint(mount_point) != nullptr) return;
  YULO_VOLUME_INFO info;
  std::memset(&info, 0, sizeof(info));
  if (platform_->GetMountedVolume(mount_point.c_str(), &info) < 0) {
    YULO_LOG_ALWAYS("YULOMountVolInfoGet failed, mount_point=%s",
                    mount_point.c_str());
    return;
  }
  // USB volumes plugged in while the daemon runs are never watched.
  if (info.vol_kind == YULO_VOLUME_KIND_USB) {
    YULO_LOG_ALWAYS("skipped mounting usb volume [%s]", info.mount_point);
    return;
  }
  // A volume that went away while the daemon ran is rescanned: what
  // changed on it meanwhile is unknown.
  const bool back = gone_.count(info.vol_id) != 0;
  if (!Create(&info, back)) YULO_LOG_ALWAYS("CreateVolumeMgr failed");
}

void VolumeRegistry::Unmount(const std::string& mount_point) {
  const std::string wanted = NormalisePath(mount_point);
  for (auto it = volumes_.begin(); it != volumes_.end(); ++it) {
    if (NormalisePath(it->second->GetMountPoint()) == wanted) {
      // What was read from the volume is written before it goes.
      if (!it->second->Drain(std::chrono::steady_clock::now() +
                             std::chrono::seconds(kDrainSeconds))) {
        all_drained_ = false;
      }
      volumes_.erase(it);
      return;
    }
  }
}

void VolumeRegistry::Hold(const std::string& mount_point) {
  ManagedVolume* mgr = FindByMountPoint(mount_point);
  if (mgr == nullptr) return;
  held_[mgr->GetVolumeId()] = SeeMount(mgr->GetMountPoint());
}

void VolumeRegistry::StopAll() {
  // All volumes wind down side by side under one deadline: every receiver
  // reads what the kernel still holds, then every processor writes the
  // whole queue.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(kDrainSeconds);
  for (auto& entry : volumes_) entry.second->BeginDrain(deadline);
  for (auto& entry : volumes_) entry.second->FinishReceiving(deadline);
  for (auto& entry : volumes_) {
    if (!entry.second->FinishDrain()) all_drained_ = false;
  }
  // Deleted in ascending volume id.
  for (auto it = volumes_.begin(); it != volumes_.end();) {
    it = volumes_.erase(it);
  }
}

VolumePlan VolumeRegistry::Plan(
    const std::vector<MountedVolume>& mounted) const {
  std::vector<WatchedVolume> watched;
  for (const auto& entry : volumes_) {
    WatchedVolume volume;
    volume.id = entry.first;
    volume.mount_point = entry.second->GetMountPoint();
    const auto seen = watched_mounts_.find(entry.first);
    if (seen != watched_mounts_.end()) volume.mount = seen->second;
    watched.push_back(volume);
  }
  return PlanVolumeChanges(mounted, watched, held_, gone_);
}

void VolumeRegistry::Drop(const VolumePlan::Drop& drop) {
  Unmount(drop.mount_point);
  watched_mounts_.erase(drop.id);
}

void VolumeRegistry::KeepPlanned(const VolumePlan& plan) {
  held_ = plan.holds;
  gone_ = plan.gone;
}

}  // namespace YULOTIFYD
}  // namespace YULO
