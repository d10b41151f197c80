#include "volume/volume_manager.h"

#include <new>

#include "notify/mount_point.h"
#include "output/event_processor.h"
#include "volume/event_receiver.h"
#include "volume/injected_event.h"
#include "volume/share_list.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Cookies of injected renames, shared by all volumes. Only the main thread
// injects events, so it needs no lock.
uint64_t g_push_cookie = 0;

}  // namespace

VolumeMgr::VolumeMgr(const YULO_VOLUME_INFO* info, VolumeContext* context,
                     bool rescan_at_start)
    : context_(context),
      rescan_at_start_(rescan_at_start),
      processor_(nullptr),
      receiver_(nullptr) {
  if (!Init(info)) {
    // Nothing half-built outlives a failed start.
    FreeThreads();
    throw -1;
  }
}

VolumeMgr::~VolumeMgr() {
  // Without a Drain first, the processor goes first, so nothing drains the
  // queue while the receiver may still fill it; what is left in the queue is
  // discarded.
  FreeThreads();
}

void VolumeMgr::FreeThreads() {
  wake_target_ = nullptr;
  delete processor_;
  processor_ = nullptr;
  delete receiver_;
  receiver_ = nullptr;
}

bool VolumeMgr::Init(const YULO_VOLUME_INFO* info) {
  mount_point_ = info->mount_point;
  vol_id_ = info->vol_id;
  ListShares();

  const uint32_t mask = WantedKernelMask(GetMonitorQueues(), mount_point_);
  try {
    receiver_ = new EventReceiver(mask, this);
  } catch (...) {
    receiver_ = nullptr;
  }
  if (receiver_ == nullptr || !receiver_->Start()) {
    YULO_LOG_ALWAYS("Failed to run EventReceiver");
    return false;
  }
  try {
    processor_ = new EventProcessor(this);
  } catch (...) {
    processor_ = nullptr;
  }
  if (processor_ == nullptr || !processor_->Start()) {
    YULO_LOG_ALWAYS("Failed to run EventProcessor");
    return false;
  }
  wake_target_ = processor_;
  // The receiver places its kernel watches on its own thread. Waiting for
  // that here means that once a volume counts as watched (the daemon's
  // readiness, the answer to "mount_volume"), its changes are seen. Bounded,
  // so that a stuck kernel call cannot hold the daemon up for ever.
  std::unique_lock<std::mutex> lock(ready_mutex_);
  if (!ready_cv_.wait_for(lock, std::chrono::seconds(kWatchesReadySeconds),
                          [this] { return watches_placed_; })) {
    YULO_LOG_ALWAYS("Watches not placed in time, vol: %s",
                    mount_point_.c_str());
  }
  return true;
}

void VolumeMgr::ListShares() {
  std::vector<std::pair<std::string, std::string>> shares;
  if (ReadAllShares(kShareEnumFlags, &shares) == kSharesNoMemory) {
    YULO_LOG_ALWAYS("ListShare malloc fail");
    return;
  }
  for (const auto& share : shares) {
    if (OwnsPath(share.second)) share_paths_.push_back(share.second);
  }
}

bool VolumeMgr::OwnsPath(const std::string& path) const {
  // The trailing "/" keeps /vol1 from claiming the shares of /vol10, and the
  // volume's root from counting as a share.
  if (!ReceiverOwner::OwnsPath(path)) return false;
  int vol_id = 0;
  // When the table cannot tell, the mount point alone decides.
  if (VolumePathParse(path.c_str(), &vol_id) > 0) return vol_id == vol_id_;
  return true;
}

void VolumeMgr::RelistShares() {
  share_paths_.clear();
  ListShares();
}

bool VolumeMgr::EnqueueEvent(const NotifyEvent& event) {
  size_t size_after = 0;
  events_read_.fetch_add(1, std::memory_order_relaxed);
  return AfterPush(queue_.Push(event, &size_after), 1, size_after);
}

bool VolumeMgr::CrossesEarlyPassMark(size_t pushed, size_t size_after) {
  const size_t mark = EventProcessor::kEarlyPassEvents;
  return size_after >= mark && size_after - pushed < mark;
}

bool VolumeMgr::EnqueueEvents(PackedEvents& events) {
  size_t size_after = 0;
  const size_t pushed = events.size();
  events_read_.fetch_add(pushed, std::memory_order_relaxed);
  return AfterPush(queue_.PushAll(events, &size_after), pushed, size_after);
}

bool VolumeMgr::AfterPush(bool queued, size_t pushed, size_t size_after) {
  if (!queued) {
    YULO_LOG_WARNING("Event queue is full");
    // The processor rescans the volume at its next pass instead.
    events_lost_.store(true);
    return false;
  }
  // A burst is written as it comes rather than piled up for the next
  // 3-second pass: that bounds both the memory it takes and how late its
  // lines are. Only the push that crosses the mark wakes the processor; it
  // takes everything queued when its pass starts.
  if (!CrossesEarlyPassMark(pushed, size_after)) return true;
  EventProcessor* processor = wake_target_.load();
  if (processor != nullptr) processor->Wake();
  return true;
}

bool VolumeMgr::TakeLostEvents() { return events_lost_.exchange(false); }

void VolumeMgr::GetEvents(PackedEvents& out) { queue_.TakeAll(out); }

bool VolumeMgr::PushEvent(uint32_t type, const std::string& path,
                          const std::string& path_old) {
  std::vector<NotifyEvent> records;
  const bool offered = BuildInjected(type, path, path_old, share_paths_,
                                     mount_point_, &g_push_cookie, &records);
  // Both halves of a rename go in together, so the processor never takes a
  // batch between them and fails to pair them. A failed push is logged; the
  // injection still counts as offered.
  if (!records.empty()) {
    PackedEvents packed;
    for (const NotifyEvent& record : records) packed.Push(record);
    events_injected_.fetch_add(packed.size(), std::memory_order_relaxed);
    size_t size_after = 0;
    const size_t pushed = packed.size();
    AfterPush(queue_.PushAll(packed, &size_after), pushed, size_after);
  }
  return offered;
}

void VolumeMgr::MountShare(const std::string& share_name) {
  const std::string path = JoinPath(mount_point_, share_name);
  share_paths_.push_back(path);
  receiver_->PostCommand(ReceiverCommand::kMountShare, path);
}

void VolumeMgr::UmountShare(const std::string& share_name) {
  const std::string path = JoinPath(mount_point_, share_name);
  for (auto it = share_paths_.begin(); it != share_paths_.end(); ++it) {
    if (*it == path) {
      share_paths_.erase(it);
      break;
    }
  }
  receiver_->PostCommand(ReceiverCommand::kUmountShare, path);
}

void VolumeMgr::ReloadWatches() {
  receiver_->PostCommand(ReceiverCommand::kReloadAll, std::string());
}

void VolumeMgr::DrainKernel() {
  receiver_->PostCommand(ReceiverCommand::kDrainKernel, std::string());
}

void VolumeMgr::ProcessQueued() {
  processor_->DoAction(&EventProcessor::PassAction, nullptr);
}

void VolumeMgr::BeginDrain(std::chrono::steady_clock::time_point deadline) {
  receiver_->RequestDrainStop(deadline);
}

void VolumeMgr::FinishReceiving(
    std::chrono::steady_clock::time_point deadline) {
  // Only once the receiver is gone is the queue complete; then the
  // processor takes it whole.
  receiver_->Stop();
  processor_->RequestDrainStop(deadline);
}

bool VolumeMgr::FinishDrain() {
  processor_->Stop();
  const bool drained = receiver_->Drained() && processor_->Drained();
  if (!drained) {
    YULO_LOG_ALWAYS("Stop before all events were written, vol: %s",
                    mount_point_.c_str());
  }
  return drained;
}

bool VolumeMgr::Drain(std::chrono::steady_clock::time_point deadline) {
  BeginDrain(deadline);
  FinishReceiving(deadline);
  return FinishDrain();
}

VolumeStatus VolumeMgr::GetStatus() {
  VolumeStatus status;
  status.id = vol_id_;
  status.mount_point = mount_point_;
  // What the receiver placed, not what the configuration asks for: a share
  // the kernel refused is never shown as watched.
  if (receiver_ != nullptr) {
    status.watched_shares = receiver_->health().Watched();
    status.refused_watches = receiver_->health().Refusals();
  }
  const NotifyBackend* backend =
      receiver_ != nullptr ? receiver_->backend() : nullptr;
  const bool live = receiver_ != nullptr && receiver_->descriptor() >= 0;
  status.backend = backend != nullptr && live ? backend->Name() : "none";
  status.paired_renames = backend != nullptr && live && backend->PairsRenames();
  status.events_read = events_read_.load();
  status.events_injected = events_injected_.load();
  status.events_queued = queue_.Size();
  if (processor_ != nullptr) {
    status.lines_written = processor_->LinesWritten();
    status.kernel_overflows = processor_->KernelOverflows();
    status.rescan_lines = processor_->RescanLines();
  }
  return status;
}

std::vector<QueueFileStatus> VolumeMgr::GetQueueFileStatus() {
  if (processor_ == nullptr) return {};
  return processor_->GetQueueFileStatus();
}

std::vector<MonitorQueue> VolumeMgr::GetMonitorQueues() {
  if (context_ == nullptr) return std::vector<MonitorQueue>();
  return context_->GetMonitorQueues();
}

void VolumeMgr::WatchesReady() {
  {
    std::lock_guard<std::mutex> lock(ready_mutex_);
    watches_placed_ = true;
  }
  ready_cv_.notify_all();
  if (context_ != nullptr) context_->PostReloadSemaphore();
}

void VolumeMgr::KernelDrained() {
  if (context_ != nullptr) context_->PostReloadSemaphore();
}

void VolumeMgr::WatchRecovered() {
  // The same owed rescan as for events that could not be queued; the
  // processor is woken so that it follows at once instead of at its next
  // pass.
  events_lost_.store(true);
  EventProcessor* processor = wake_target_.load();
  if (processor != nullptr) processor->Wake();
}

bool VolumeMgr::WatchFailed() {
  return receiver_ != nullptr && receiver_->health().AnyRefused();
}

bool VolumeMgr::IsRecovery() {
  if (rescan_at_start_) return true;
  return context_ != nullptr &&
         context_->GetRunStatus() == RUN_STATUS_RECOVERY;
}

std::unique_ptr<ManagedVolume> MakeVolumeMgr(const YULO_VOLUME_INFO* info,
                                             VolumeContext* context,
                                             bool rescan_at_start) {
  return std::make_unique<VolumeMgr>(info, context, rescan_at_start);
}

}  // namespace YULOTIFYD
}  // namespace YULO
