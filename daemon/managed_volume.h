// ManagedVolume: what the daemon core asks of a volume manager.
//
// The registry holds volumes through this interface and makes them through
// a VolumeFactory, so that tests can register volumes that start no thread
// and touch no kernel (testing/fake_volume.h). The shipped daemon makes real
// VolumeMgr objects (MakeVolumeMgr); each operation is documented in
// volume/volume_manager.h under the same name.
//
// Thread-safety: as VolumeMgr's; the daemon's main thread calls all of
// these.
#ifndef YULOTIFYD_DAEMON_MANAGED_VOLUME_H_
#define YULOTIFYD_DAEMON_MANAGED_VOLUME_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "output/event_processor.h"
#include "volume/volume_context.h"
#include "volume/volume_manager.h"
#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

class ManagedVolume {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  virtual ~ManagedVolume() = default;

  virtual int32_t GetVolumeId() const = 0;
  virtual const std::string& GetMountPoint() const = 0;

  virtual bool PushEvent(uint32_t type, const std::string& path,
                         const std::string& path_old) = 0;
  virtual void MountShare(const std::string& share_name) = 0;
  virtual void UmountShare(const std::string& share_name) = 0;
  virtual void ReloadWatches() = 0;
  virtual void DrainKernel() = 0;
  virtual void ProcessQueued() = 0;
  virtual void RelistShares() = 0;

  virtual void BeginDrain(Deadline deadline) = 0;
  virtual void FinishReceiving(Deadline deadline) = 0;
  virtual bool FinishDrain() = 0;
  virtual bool Drain(Deadline deadline) = 0;

  virtual VolumeStatus GetStatus() = 0;
  // Whether the kernel refused the watch of a share the volume should
  // watch (VolumeStatus::refused_watches is not empty). Cheap: the main
  // loop asks it every round.
  virtual bool WatchFailed() = 0;
  virtual std::vector<QueueFileStatus> GetQueueFileStatus() = 0;
};

// Makes the manager of the volume `info` describes, serving `context`, with
// a rescan at its start when `rescan_at_start`. Throws, after logging why,
// when the manager cannot be set up.
using VolumeFactory = std::function<std::unique_ptr<ManagedVolume>(
    const YULO_VOLUME_INFO* info, VolumeContext* context,
    bool rescan_at_start)>;

// The shipped factory: a VolumeMgr with its threads running.
std::unique_ptr<ManagedVolume> MakeVolumeMgr(const YULO_VOLUME_INFO* info,
                                             VolumeContext* context,
                                             bool rescan_at_start);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_MANAGED_VOLUME_H_
