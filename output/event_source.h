// EventSource: what an EventProcessor needs from the volume it drains.
// VolumeMgr implements it; tests supply their own.
//
// Thread-safety: every operation may be called from the processor's thread
// while other threads fill the queue.
#ifndef YULOTIFYD_OUTPUT_EVENT_SOURCE_H_
#define YULOTIFYD_OUTPUT_EVENT_SOURCE_H_

#include <string>
#include <vector>

#include "notify/packed_events.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

class EventSource {
 public:
  virtual ~EventSource() = default;

  // Moves every queued event to the end of `out`, oldest first.
  virtual void GetEvents(PackedEvents& out) = 0;

  // A private copy of the daemon's monitor-queue list.
  virtual std::vector<MonitorQueue> GetMonitorQueues() = 0;

  // True when the daemon started after a stop that was not clean.
  virtual bool IsRecovery() = 0;

  // True, once, when the volume must be rescanned since the last call:
  // events could not be queued (out of memory), or a watch the kernel had
  // refused was placed at last.
  virtual bool TakeLostEvents() { return false; }

  // The volume's mount point, e.g. "/vol1".
  virtual const std::string& GetMountPoint() const = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_EVENT_SOURCE_H_
