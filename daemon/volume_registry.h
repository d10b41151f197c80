// VolumeRegistry: the volume managers of the watched volumes, by volume id.
//
// At most one manager per volume id; iteration is in ascending id. Managers
// are made through a VolumeFactory and the volumes are looked up through a
// PlatformApi, so the registry can be driven without a kernel, a volume
// table or root. Besides the managers it keeps what following the mounts
// needs to tell a volume's history: what was mounted at each watched
// volume's mount point when its manager was made, the volumes released by
// "umount_volume" while still mounted (held), and the volumes that went away
// while the daemon ran (gone; each is rescanned when it comes back).
// Mount points are compared normalised.
//
// Ownership: owns the managers; deleting one stops its threads. `platform`
// and `context` are not owned and outlive the registry.
// Thread-safety: none; the daemon's main thread only. Worker threads never
// touch the registry.
#ifndef YULOTIFYD_DAEMON_VOLUME_REGISTRY_H_
#define YULOTIFYD_DAEMON_VOLUME_REGISTRY_H_

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "daemon/platform_api.h"
#include "daemon/volume_plan.h"
#include "volume/managed_volume.h"
#include "volume/volume_context.h"
#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

// What is mounted at `path` now; nothing when that cannot be told.
SeenMount SeeMount(const std::string& path);

class VolumeRegistry {
 public:
  using Map = std::map<int32_t, std::unique_ptr<ManagedVolume>>;
  // How long a stopping volume may take to write what it has read before
  // the daemon gives up on it (and leaves the next start to rescan).
  static constexpr int kDrainSeconds = 10;

  VolumeRegistry(PlatformApi* platform, VolumeFactory factory,
                 VolumeContext* context);

  VolumeRegistry(const VolumeRegistry&) = delete;
  VolumeRegistry& operator=(const VolumeRegistry&) = delete;

  // A manager for every volume mounted now, USB volumes included. False
  // only when the platform lists no volume at all.
  bool CreateAll();
  // Makes and registers the manager of `info`'s volume. Refuses (false) a
  // volume id that has a manager already, and a manager that cannot be set
  // up; both are logged.
  bool Create(const YULO_VOLUME_INFO* info, bool rescan_at_start = false);

  // The manager of the volume holding share `share_name`; null for an
  // unknown share or a volume without a manager.
  ManagedVolume* FindByShare(const std::string& share_name);
  ManagedVolume* FindByMountPoint(const std::string& mount_point);

  // "mount_volume": a manager for the volume mounted at `mount_point`,
  // unless it has one or is a USB volume. A volume that is gone comes back
  // with a rescan.
  void Mount(const std::string& mount_point);
  // "umount_volume": writes what the volume's manager has read, then
  // deletes it; an unknown mount point is ignored.
  void Unmount(const std::string& mount_point);
  // Records the watched volume at `mount_point` as held, with what is
  // mounted there now.
  void Hold(const std::string& mount_point);
  // Drains every manager side by side under one deadline, then deletes
  // them in ascending id.
  void StopAll();

  // False once any volume stopped before all it had read was written.
  bool all_drained() const { return all_drained_; }
  const Map& volumes() const { return volumes_; }
  size_t size() const { return volumes_.size(); }

  // Following: what should change, given what is mounted now.
  VolumePlan Plan(const std::vector<MountedVolume>& mounted) const;
  // Carries out one of the plan's drops (as Unmount does).
  void Drop(const VolumePlan::Drop& drop);
  // Takes over the plan's held and gone volumes.
  void KeepPlanned(const VolumePlan& plan);
  const std::map<int32_t, SeenMount>& held() const { return held_; }
  const std::set<int32_t>& gone() const { return gone_; }

 private:
  PlatformApi* const platform_;
  const VolumeFactory factory_;
  VolumeContext* const context_;
  Map volumes_;
  bool all_drained_ = true;
  // What was mounted at each watched volume's mount point when its manager
  // was made, by volume id.
  std::map<int32_t, SeenMount> watched_mounts_;
  // Volumes released by "umount_volume" while mounted, with that mount.
  std::map<int32_t, SeenMount> held_;
  // Volumes that went away while the daemon ran.
  std::set<int32_t> gone_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_VOLUME_REGISTRY_H_
