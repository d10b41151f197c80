// ReceiverOwner: what an EventReceiver needs from the volume it serves.
// VolumeMgr implements it; tests supply their own.
//
// Thread-safety: called from the receiver's thread.
#ifndef YULOTIFYD_VOLUME_RECEIVER_OWNER_H_
#define YULOTIFYD_VOLUME_RECEIVER_OWNER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "base/path.h"
#include "notify/notify_event.h"
#include "notify/packed_events.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

// The kernel event bits a volume ever asks for: modify, attrib,
// close-write, both move halves, create and delete. Access, open and
// close-without-write are never asked of the kernel.
constexpr uint32_t kVolumeKernelMaskBits = 0x3ce;

// The kernel event bits that `queues` want on the volume mounted at
// `mount_point`.
inline uint32_t WantedKernelMask(const std::vector<MonitorQueue>& queues,
                                 const std::string& mount_point) {
  uint32_t mask = 0;
  for (const MonitorQueue& queue : queues) {
    mask |= queue.GetUnionMask(mount_point);
  }
  return mask & kVolumeKernelMaskBits;
}

class ReceiverOwner {
 public:
  virtual ~ReceiverOwner() = default;

  // A private copy of the daemon's monitor-queue list.
  virtual std::vector<MonitorQueue> GetMonitorQueues() = 0;
  // Appends a copy of `event` to the volume's queue; false when dropped.
  virtual bool EnqueueEvent(const NotifyEvent& event) = 0;
  // Moves `events` into the queue at once, so that no taker sees some
  // without the others (the two halves of a rename), and leaves it empty;
  // false when dropped.
  virtual bool EnqueueEvents(PackedEvents& events) = 0;
  // Called after every full (re)adding of the watches.
  virtual void WatchesReady() = 0;
  // Called once the receiver has queued what the kernel held when it was
  // asked to (ReceiverCommand::kDrainKernel).
  virtual void KernelDrained() {}
  // Called when a share's watch was placed after the kernel had refused
  // it: what changed on the volume meanwhile was never read, so the volume
  // is owed a rescan.
  virtual void WatchRecovered() {}
  // The volume's mount point.
  virtual const std::string& GetMountPoint() const = 0;
  // Whether `path` lies on the volume, i.e. is to be watched by its
  // receiver. By default: strictly below the mount point.
  virtual bool OwnsPath(const std::string& path) const {
    return PathBelow(GetMountPoint(), path);
  }
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_RECEIVER_OWNER_H_
