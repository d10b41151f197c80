// EventReceiver: the input thread of one volume.
//
// It is the volume's kernel notification instance (a YULotify) and keeps the
// kernel watches on the volume's monitored shares. Its thread reads events
// and appends each to the owner's queue. Changes to the set of watches (a
// share mounted or unmounted, the configuration reloaded) arrive as commands
// that other threads post and that only the receiver's own thread carries
// out, so the kernel instance is only ever used from that thread.
//
// Ownership: owned by its VolumeMgr; `owner` is not owned and outlives it.
// Thread-safety: PostCommand from any thread; everything else on the
// receiver's thread (after Start) or the creating thread (before).
#ifndef YULOTIFYD_VOLUME_EVENT_RECEIVER_H_
#define YULOTIFYD_VOLUME_EVENT_RECEIVER_H_

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "base/stop_drain.h"
#include "notify/packed_events.h"
#include "notify/yulotify.h"
#include "volume/receiver_owner.h"
#include "volume/watch_health.h"
#include "yulotifyd/thread.h"

namespace YULO {
namespace YULOTIFYD {

struct ReceiverCommand {
  enum Type : int32_t {
    kMountShare = 0,
    kUmountShare = 1,
    kReloadAll = 2,
    // Queue what the kernel holds now, then tell the owner (KernelDrained).
    kDrainKernel = 3,
  };
  int32_t type;
  std::string path;  // the share's absolute path; empty for kReloadAll
};

class EventReceiver : public YULotify, public Thread {
 public:
  // Opens the kernel instance for the event bits `mask`. Throws the integer
  // -1, after logging why, when `owner` is null or the command lock cannot
  // be created.
  EventReceiver(uint32_t mask, ReceiverOwner* owner);
  // The same over a given backend (tests).
  EventReceiver(uint32_t mask, ReceiverOwner* owner,
                std::unique_ptr<NotifyBackend> backend,
                const MountEnv* mount_env = nullptr);
  ~EventReceiver() override;

  // Queues a command for the receiver's thread; does not wait for it.
  void PostCommand(int32_t type, const std::string& path);

  // Carries out every pending command, oldest first. Called by the thread
  // body each turn; public so tests can drive the receiver step by step.
  void RunCommands();

  // One turn of the thread body: the pending commands, then one read
  // (waiting up to the read timeout) whose events are all queued at once.
  // Returns whether an event was queued; `event` holds the first.
  bool RunOnce(NotifyEvent& event);

  // Brings the watches in line with the current configuration, then tells
  // the owner (WatchesReady): every monitored share on the volume is
  // watched, no other path is, and the kernel watches ask for the event
  // bits the monitor queues want on the volume. Changed in place, never
  // removed and added again: newly wanted bits and shares come first, and
  // what is no longer wanted goes last, so that no event a queue wants
  // both before and after goes unseen.
  void ReAddAllWatches();

  // Stops the thread without waiting for it, as Thread::RequestStop, but has
  // it first hand the owner every event the kernel still holds, until none
  // is left or `deadline` passes. Stop() then joins; Drained() tells how it
  // went.
  void RequestDrainStop(std::chrono::steady_clock::time_point deadline) {
    drain_.RequestStop(deadline);
  }

  // Reads and queues events until the kernel has none left (true) or
  // `deadline` passes (false). The thread body's last step after
  // RequestDrainStop; public so tests can drive it step by step.
  bool DrainKernel(std::chrono::steady_clock::time_point deadline);

  // False when the last drain ran out of time. True before any drain.
  bool Drained() const { return drain_.Drained(); }

  size_t PendingCommands();

  // Which shares have their kernel watch and which the kernel refused; any
  // thread may read it.
  const WatchHealth& health() const { return health_; }

 protected:
  void Run() override;

 private:
  void Setup(ReceiverOwner* owner);
  void MountShare(const std::string& path);
  void UmountShare(const std::string& path);
  // Adds the watch of `share` and records the outcome in health_: a
  // refusal is said at error priority when it is new, and a share watched
  // after a refusal owes its volume a rescan (ReceiverOwner::WatchRecovered).
  // True when the watch is in place.
  bool PlaceWatch(const std::string& share);
  // kDrainKernel: queues what the kernel holds, for at most a second.
  void DrainKernelNow();

  ReceiverOwner* owner_;
  // RequestDrainStop's request and how it went; the step is DrainKernel.
  StopDrain drain_{
      [this](StopDrain::TimePoint deadline) { return DrainKernel(deadline); },
      [this] { RequestStop(); }};
  pthread_mutex_t command_mutex_;
  std::list<ReceiverCommand> commands_;
  // commands_.size(), changed under command_mutex_ and read without it.
  std::atomic<size_t> command_count_;
  PackedEvents batch_;  // reused by RunOnce
  NotifyEvent next_;    // reused by RunOnce
  WatchHealth health_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_EVENT_RECEIVER_H_
