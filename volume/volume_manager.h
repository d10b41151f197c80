// VolumeMgr: one watched data volume.
//
// It owns the volume's two worker threads (the EventReceiver, which reads the
// kernel and fills the event queue, and the EventProcessor, which drains it
// into the queue files), the event queue between them, and the list of
// shares on the volume. The daemon core reaches the threads only through it,
// as a ManagedVolume (managed_volume.h): share mount and unmount, bringing
// the watches in line after a reload, and events injected by other
// services.
//
// Ownership: created and deleted by the daemon core; owns its receiver,
// processor and queued events; `context` is not owned and outlives it.
// Thread-safety: the event queue is guarded by its own (leaf) mutex. The
// share list and PushEvent, MountShare, UmountShare, ReloadWatches,
// DrainKernel and ProcessQueued belong to the daemon's main thread.
#ifndef YULOTIFYD_VOLUME_VOLUME_MANAGER_H_
#define YULOTIFYD_VOLUME_VOLUME_MANAGER_H_

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "notify/notify_event.h"
#include "output/event_source.h"
#include "volume/event_queue.h"
#include "volume/managed_volume.h"
#include "volume/receiver_owner.h"
#include "volume/volume_context.h"
#include "volume/watch_health.h"
#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

class EventProcessor;
class EventReceiver;

class VolumeMgr : public EventSource,
                  public ReceiverOwner,
                  public ManagedVolume {
 public:
  // Sets the volume up from its information record and starts its threads.
  // With `rescan_at_start` the processor requests a rescan of the volume
  // when it starts, as after an unclean stop: for a volume that comes back
  // after it went away while the daemon ran, since what changed on it
  // meanwhile is unknown. Throws the integer -1, after logging why, when
  // that fails.
  VolumeMgr(const YULO_VOLUME_INFO* info, VolumeContext* context,
            bool rescan_at_start = false);
  ~VolumeMgr() override;

  VolumeMgr(const VolumeMgr&) = delete;
  VolumeMgr& operator=(const VolumeMgr&) = delete;

  // Queue (ReceiverOwner / EventSource).
  bool EnqueueEvent(const NotifyEvent& event) override;
  bool EnqueueEvents(PackedEvents& events) override;
  void GetEvents(PackedEvents& out) override;

  // Injects an event reported by another service: queue event code `type`,
  // its path and, for a rename (256), the old path. True when a record was
  // offered to the queue.
  bool PushEvent(uint32_t type, const std::string& path,
                 const std::string& path_old) override;
  void MountShare(const std::string& share_name) override;
  void UmountShare(const std::string& share_name) override;
  // Asks the receiver to bring its watches in line with the current
  // configuration (EventReceiver::ReAddAllWatches); acknowledged through
  // the context's reload semaphore.
  void ReloadWatches() override;
  // Asks the receiver to queue what the kernel holds now; acknowledged
  // through the context's reload semaphore.
  void DrainKernel() override;
  // Has the processor write every event queued so far, with the monitor
  // queues as they are now. Main thread; waits for it.
  void ProcessQueued() override;

  // Stops the volume's threads so that everything read gets written: the
  // receiver first reads what the kernel still holds, then the processor
  // runs a last pass over the whole queue and tries files that keep lines
  // again, until `deadline`. In three steps, so that the daemon can wind
  // several volumes down side by side: BeginDrain on each, then
  // FinishReceiving on each, then FinishDrain on each. FinishDrain returns
  // whether everything was written, and logs it when not.
  void BeginDrain(Deadline deadline) override;
  void FinishReceiving(Deadline deadline) override;
  bool FinishDrain() override;
  // The three steps for this volume alone.
  bool Drain(Deadline deadline) override;
  // Lists the volume's shares again (after the share configuration
  // changed); shares added by MountShare are forgotten.
  void RelistShares() override;

  std::vector<MonitorQueue> GetMonitorQueues() override;
  void WatchesReady() override;
  void KernelDrained() override;
  // The processor's next pass, woken now, rescans the volume.
  void WatchRecovered() override;
  // Whether the kernel refused the watch of a wanted share. Any thread.
  bool WatchFailed() override;
  // True after an unclean stop of the previous run, and for a manager made
  // with `rescan_at_start`.
  bool IsRecovery() override;
  bool TakeLostEvents() override;
  const std::string& GetMountPoint() const override { return mount_point_; }
  // Whether `path` lies on this volume: below its mount point and on no
  // other mounted volume of the volume table inside it (the deepest one
  // wins, as for share commands; every other volume lies inside one
  // mounted at "/"). Any thread.
  bool OwnsPath(const std::string& path) const override;
  int32_t GetVolumeId() const override { return vol_id_; }
  // Main thread. Waits for a processor pass under way to end.
  VolumeStatus GetStatus() override;
  std::vector<QueueFileStatus> GetQueueFileStatus() override;

  // Whether a push of `pushed` events that left `size_after` queued brought
  // the queue across EventProcessor::kEarlyPassEvents.
  static bool CrossesEarlyPassMark(size_t pushed, size_t size_after);

 private:
  bool Init(const YULO_VOLUME_INFO* info);
  void ListShares();
  void FreeThreads();
  // What follows every push of `pushed` events onto the queue, `queued`
  // telling whether it took them and `size_after` how many it then held.
  // Taken: starts the processor's next pass now when the push brought the
  // queue across the early-pass mark. Not taken (out of memory): logged,
  // and the processor's next pass rescans the volume instead. Returns
  // `queued`.
  bool AfterPush(bool queued, size_t pushed, size_t size_after);

  std::string mount_point_;
  int32_t vol_id_ = 0;
  std::atomic<uint64_t> events_read_{0};
  // Set by the receiver's first WatchesReady; Init waits for it.
  static constexpr int kWatchesReadySeconds = 5;
  std::mutex ready_mutex_;
  std::condition_variable ready_cv_;
  bool watches_placed_ = false;
  std::atomic<uint64_t> events_injected_{0};
  // The volume is owed a rescan: events could not be queued, or a refused
  // watch was placed at last. Taken by the processor (TakeLostEvents).
  std::atomic<bool> events_lost_{false};
  std::vector<std::string> share_paths_;
  VolumeContext* context_;
  const bool rescan_at_start_;
  EventProcessor* processor_;
  // The processor once it runs: the receiver's thread reads it to wake it,
  // and it is set after that thread started.
  std::atomic<EventProcessor*> wake_target_{nullptr};
  EventReceiver* receiver_;
  EventQueue queue_;
};

// The daemon's VolumeFactory: a VolumeMgr with its threads running.
std::unique_ptr<ManagedVolume> MakeVolumeMgr(const YULO_VOLUME_INFO* info,
                                             VolumeContext* context,
                                             bool rescan_at_start);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_VOLUME_MANAGER_H_
