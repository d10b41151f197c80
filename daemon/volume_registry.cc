// The registry of volume managers, keyed by volume id.
#include <chrono>
#include <cstring>
#include <memory>

#include "daemon/daemon.h"
#include "notify/mount_point.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {
constexpr int kPathBufferSize = 4096;
}  // namespace

bool Daemon::SetupVolumeMgr() {
  YULO_VOLUME_INFO* list = YULOMountVolAllEnum(0, 0, 0);
  if (list == nullptr) {
    YULO_LOG_ALWAYS("YULOMountVolAllEnum failed");
    return false;
  }
  // Every volume mounted now gets a manager, USB volumes included.
  for (YULO_VOLUME_INFO* info = list; info != nullptr; info = info->next) {
    if (!CreateVolumeMgr(info)) YULO_LOG_ALWAYS("CreateVolumeMgr failed");
  }
  YULOMountVolInfoFree(list);
  return true;
}

bool Daemon::CreateVolumeMgr(const YULO_VOLUME_INFO* info,
                             bool rescan_at_start) {
  // One manager per volume: a second one would write every event twice.
  if (volume_mgrs.count(info->vol_id) != 0) {
    YULO_LOG_ALWAYS("VolumeMgr exists already, id=%d, mount point=%s",
                    info->vol_id, info->mount_point);
    return false;
  }
  // Taken before the receiver places its watch, so that a later remount
  // is told from this mount.
  MountIdentity mount;
  const bool mount_seen = GetMountIdentity(info->mount_point, &mount);
  try {
    // Owned here until registered: a manager that cannot be registered is
    // stopped and deleted, never left running.
    std::unique_ptr<VolumeMgr> mgr(new VolumeMgr(info, this, rescan_at_start));
    volume_mgrs.emplace(info->vol_id, mgr.get());
    mgr.release();
  } catch (...) {
    YULO_LOG_ALWAYS("Failed to initiate mgr for volume(id=%d)", info->vol_id);
    return false;
  }
  watched_mounts_[info->vol_id] =
      mount_seen ? SeenMount(mount) : SeenMount();
  held_.erase(info->vol_id);
  gone_.erase(info->vol_id);
  YULO_LOG_DEBUG("VolumeMgr created, id=%d, mount point=%s", info->vol_id,
                 info->mount_point);
  return true;
}

VolumeMgr* Daemon::GetVolumeMgrByShare(const std::string& share_name) {
  char path[kPathBufferSize];
  std::memset(path, 0, sizeof(path));
  if (YULOSharePathGet(share_name.c_str(), path, sizeof(path)) != 0) {
    return nullptr;
  }
  int vol_id = 0;
  if (VolumePathParse(path, &vol_id) <= 0) return nullptr;
  auto it = volume_mgrs.find(vol_id);
  return it == volume_mgrs.end() ? nullptr : it->second;
}

VolumeMgr* Daemon::GetVolumeMgrByMountPoint(const std::string& mount_point) {
  const std::string wanted = NormalisePath(mount_point);
  for (auto& entry : volume_mgrs) {
    if (NormalisePath(entry.second->GetMountPoint()) == wanted) {
      return entry.second;
    }
  }
  return nullptr;
}

void Daemon::MountVolume(const std::string& mount_point) {
  if (GetVolumeMgrByMountPoint(mount_point) != nullptr) return;
  YULO_VOLUME_INFO info;
  std::memset(&info, 0, sizeof(info));
  if (YULOMountVolInfoGet(mount_point.c_str(), &info) < 0) {
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
  if (!CreateVolumeMgr(&info, back)) YULO_LOG_ALWAYS("CreateVolumeMgr failed");
}

void Daemon::UmountVolume(const std::string& mount_point) {
  const std::string wanted = NormalisePath(mount_point);
  for (auto it = volume_mgrs.begin(); it != volume_mgrs.end(); ++it) {
    if (NormalisePath(it->second->GetMountPoint()) == wanted) {
      // What was read from the volume is written before it goes.
      if (!it->second->Drain(std::chrono::steady_clock::now() +
                             std::chrono::seconds(kDrainSeconds))) {
        all_drained_ = false;
      }
      delete it->second;
      volume_mgrs.erase(it);
      return;
    }
  }
}

void Daemon::StopVolumeMgrs() {
  // All volumes wind down side by side under one deadline: every receiver
  // reads what the kernel still holds, then every processor writes the
  // whole queue.
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::seconds(kDrainSeconds);
  for (auto& entry : volume_mgrs) entry.second->BeginDrain(deadline);
  for (auto& entry : volume_mgrs) entry.second->FinishReceiving(deadline);
  for (auto& entry : volume_mgrs) {
    if (!entry.second->FinishDrain()) all_drained_ = false;
  }
  // Deleted in ascending volume id.
  for (auto it = volume_mgrs.begin(); it != volume_mgrs.end();) {
    delete it->second;
    it = volume_mgrs.erase(it);
  }
}

}  // namespace YULOTIFYD
}  // namespace YULO
