// ManagedVolume: what the daemon core asks of a volume manager.
//
// VolumeMgr (volume_manager.h, where each operation is documented under
// the same name) is the one real implementation. The daemon's registry
// holds volumes through this interface and makes them through a
// VolumeFactory, so that its tests can register volumes that start no
// thread and touch no kernel.
//
// Thread-safety: the daemon's main thread calls all of these.
#ifndef YULOTIFYD_VOLUME_MANAGED_VOLUME_H_
#define YULOTIFYD_VOLUME_MANAGED_VOLUME_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "output/queue_file_status.h"
#include "volume/volume_context.h"
#include "volume/watch_health.h"
#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

// What a volume manager reports about itself (the daemon's "status").
struct VolumeStatus {
  int32_t id = 0;
  std::string mount_point;
  // Shares with their kernel watch in place.
  std::vector<std::string> watched_shares;
  // Wanted shares the kernel refused to watch, with why: the volume counts
  // as failed while any is listed.
  std::vector<RefusedWatch> refused_watches;
  std::string backend;          // "appliance", "fanotify" or "none"
  bool paired_renames = false;
  uint64_t events_read = 0;     // from the kernel
  uint64_t events_injected = 0;  // by "notify" commands
  uint64_t events_queued = 0;   // waiting for the processor now
  uint64_t lines_written = 0;
  uint64_t kernel_overflows = 0;
  uint64_t rescan_lines = 0;
};

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

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_MANAGED_VOLUME_H_
