// VolumeContext: what a volume manager and its threads need from the daemon
// core. The daemon implements it; tests can supply their own.
//
// Thread-safety: every operation may be called from any thread.
#ifndef YULOTIFYD_VOLUME_VOLUME_CONTEXT_H_
#define YULOTIFYD_VOLUME_VOLUME_CONTEXT_H_

#include <cstdint>
#include <vector>

#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

// How the previous run of the daemon ended, as read at start.
enum RunStatus : int32_t {
  RUN_STATUS_UNSET = 0,     // not read yet
  RUN_STATUS_INIT = 1,      // first start (no file, or "init")
  RUN_STATUS_RECOVERY = 2,  // unclean stop: every volume must be rescanned
  RUN_STATUS_STOPPED = 3,   // clean stop
};

class VolumeContext {
 public:
  virtual ~VolumeContext() = default;

  // A private copy of the current monitor-queue list.
  virtual std::vector<MonitorQueue> GetMonitorQueues() = 0;

  // The run status read at start; constant while volumes exist.
  virtual int32_t GetRunStatus() const = 0;

  // Acknowledges that a receiver has done what a reload asked of it
  // (queued what the kernel held, or brought its watches in line).
  // Harmless outside a reload.
  virtual void PostReloadSemaphore() = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_VOLUME_CONTEXT_H_
