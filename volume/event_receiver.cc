#include "volume/event_receiver.h"

#include <errno.h>

#include <set>

#include "base/errno_text.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {
// How long a read waits for the kernel; it bounds how long a posted command
// or a stop request waits when no event arrives.
constexpr long kReadTimeoutMicros = 250000;
}  // namespace

EventReceiver::EventReceiver(uint32_t mask, ReceiverOwner* owner)
    : YULotify(mask), Thread(), owner_(nullptr), command_count_(0) {
  Setup(owner);
}

EventReceiver::EventReceiver(uint32_t mask, ReceiverOwner* owner,
                             std::unique_ptr<NotifyBackend> backend,
                             const MountEnv* mount_env)
    : YULotify(mask, std::move(backend), mount_env),
      Thread(),
      owner_(nullptr),
      command_count_(0) {
  Setup(owner);
}

void EventReceiver::Setup(ReceiverOwner* owner) {
  owner_ = owner;
  if (owner_ == nullptr) {
    YULO_LOG_ALWAYS("pVolumeMgr is NULL");
    throw -1;
  }
  if (pthread_mutex_init(&command_mutex_, nullptr) != 0) {
    YULO_LOG_ALWAYS("pthread_mutex_init failed");
    throw -1;
  }
}

EventReceiver::~EventReceiver() {
  // The body uses the command list and the kernel instance: it must be gone
  // before either is.
  Stop();
  pthread_mutex_destroy(&command_mutex_);
  // Commands still pending are dropped unrun.
  commands_.clear();
  command_count_ = 0;
}

void EventReceiver::PostCommand(int32_t type, const std::string& path) {
  pthread_mutex_lock(&command_mutex_);
  commands_.push_back(ReceiverCommand{type, path});
  ++command_count_;
  pthread_mutex_unlock(&command_mutex_);
}

size_t EventReceiver::PendingCommands() { return command_count_.load(); }

void EventReceiver::RunCommands() {
  // Looked at once per read: without a command posted, no lock is taken.
  if (command_count_.load() == 0) return;
  // The lock stays held while the handlers run, so a command posted
  // meanwhile waits for the whole batch and runs in the next turn.
  pthread_mutex_lock(&command_mutex_);
  while (!commands_.empty()) {
    const ReceiverCommand command = commands_.front();
    commands_.pop_front();
    --command_count_;
    switch (command.type) {
      case ReceiverCommand::kUmountShare:
        UmountShare(command.path);
        break;
      case ReceiverCommand::kReloadAll:
        ReAddAllWatches();
        break;
      case ReceiverCommand::kMountShare:
        MountShare(command.path);
        break;
      case ReceiverCommand::kDrainKernel:
        DrainKernelNow();
        break;
      default:
        break;  // unknown commands are dropped
    }
  }
  pthread_mutex_unlock(&command_mutex_);
}

bool EventReceiver::RunOnce(NotifyEvent& event) {
  RunCommands();
  if (descriptor() < 0) {
    // No kernel instance: nothing to read, just keep serving commands.
    SleepUnlessStopped(kReadTimeoutMicros / 1000);
    return false;
  }
  if (!ReadEvent(event)) return false;
  // Everything else the last read brought is decoded without waiting and
  // queued in one go: one lock per read instead of one per event, and the
  // two halves of a rename, which the kernel writes one after the other,
  // reach the queue together, so no pass takes one without the other.
  batch_.clear();
  batch_.Push(event);
  while (buffer_pending() != 0) {
    if (ReadEvent(next_)) batch_.Push(next_);
  }
  owner_->EnqueueEvents(batch_);
  return true;
}

void EventReceiver::Run() {
  NotifyEvent event;
  ReAddAllWatches();
  SetReadTimeout(0, kReadTimeoutMicros);
  while (!stop_flag) RunOnce(event);
  drain_.Finish();
}

bool EventReceiver::DrainKernel(
    std::chrono::steady_clock::time_point deadline) {
  // HasEvent never waits: it is true while records sit in the buffer or the
  // descriptor is readable now, so the loop ends as soon as the kernel has
  // nothing more. Writers that keep going are cut off by the deadline.
  // Then the backend's held-back records (rescans it was still making sure
  // of): after the stop nobody would write them.
  NotifyEvent event;
  do {
    while (HasEvent()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      if (ReadEvent(event)) owner_->EnqueueEvent(event);
    }
  } while (FinishPending() || HasEvent());
  return true;
}

void EventReceiver::ReAddAllWatches() {
  const std::vector<MonitorQueue> queues = owner_->GetMonitorQueues();
  std::set<std::string> shares;
  for (const std::string& share : MonitorQueue::GetShareSet(queues)) {
    if (owner_->OwnsPath(share)) shares.insert(share);
  }
  const uint32_t old_mask = event_mask();
  const uint32_t new_mask = WantedKernelMask(queues, owner_->GetMountPoint());
  if (new_mask != old_mask) {
    YULO_LOG_DEBUG("Event mask of volume %s changes from 0x%x to 0x%x",
                   owner_->GetMountPoint().c_str(),
                   static_cast<unsigned>(old_mask),
                   static_cast<unsigned>(new_mask));
  }
  // Widen first: the kernel watches already there take the new bits, and
  // shares added below are watched with them.
  SetEventMask(old_mask | new_mask);
  for (const std::string& share : shares) {
    if (watched_paths().count(share) != 0) continue;
    // Said once the watch is in place: whoever waits for the line may rely
    // on the share's changes being seen from then on.
    if (PlaceWatch(share)) YULO_LOG_INFO("Add watch, path=%s", share.c_str());
  }
  // A share no longer wanted is no longer a failure of the volume.
  health_.KeepRefusalsOf(shares);
  std::vector<std::pair<std::string, int>> unwanted;
  for (const auto& watched : watched_paths()) {
    if (shares.count(watched.first) == 0) unwanted.emplace_back(watched);
  }
  for (const auto& watched : unwanted) {
    YULO_LOG_INFO("Remove watch, path=%s", watched.first.c_str());
    RemoveWatch(watched.second);
    health_.Forget(watched.first);
  }
  // Narrow last, once every wanted bit is in place.
  SetEventMask(new_mask);
  owner_->WatchesReady();
}

void EventReceiver::DrainKernelNow() {
  // Bounded, so that writers that never pause cannot hold a reload up;
  // what comes after the deadline is read as usual.
  constexpr auto kDrainLimit = std::chrono::seconds(1);
  NotifyEvent event;
  const auto deadline = std::chrono::steady_clock::now() + kDrainLimit;
  while (HasEvent() && std::chrono::steady_clock::now() < deadline) {
    // Records of one read go in together, as RunOnce queues them.
    batch_.clear();
    if (ReadEvent(event)) batch_.Push(event);
    while (buffer_pending() != 0) {
      if (ReadEvent(event)) batch_.Push(event);
    }
    if (batch_.size() != 0) owner_->EnqueueEvents(batch_);
  }
  owner_->KernelDrained();
}

void EventReceiver::MountShare(const std::string& path) {
  const std::vector<MonitorQueue> queues = owner_->GetMonitorQueues();
  if (!MonitorQueue::IsDirMonitoring(queues, path)) return;
  // The share is watched with every bit its subscriptions want; bits are
  // only ever added here (a reload narrows).
  SetEventMask(event_mask() |
               WantedKernelMask(queues, owner_->GetMountPoint()));
  if (!PlaceWatch(path)) return;
  YULO_LOG_DEBUG("EventReceiver Mount share, share=%s", path.c_str());
}

void EventReceiver::UmountShare(const std::string& path) {
  if (!MonitorQueue::IsDirMonitoring(owner_->GetMonitorQueues(), path)) return;
  // Unmounted, the share is no longer the volume's failure either.
  health_.Forget(path);
  std::string watch, relative;
  int id = -1;
  if (LookupWatch(path, watch, relative, id) != 0) {
    YULO_LOG_ALWAYS("Fail to find watch root for umount, share=%s",
                    path.c_str());
    return;
  }
  RemoveWatch(id);
  YULO_LOG_DEBUG("EventReceiver Umount share, share=%s", path.c_str());
}

bool EventReceiver::PlaceWatch(const std::string& share) {
  errno = 0;
  if (AddWatch(share) >= 0) {
    if (health_.Placed(share)) {
      // Its changes since the refusal were never read: the volume's
      // processor rescans it, as for a volume that comes back.
      YULO_LOG_WARNING("Volume %s watched after the kernel refused it, "
                       "rescanning it, share=%s",
                       owner_->GetMountPoint().c_str(), share.c_str());
      owner_->WatchRecovered();
    }
    return true;
  }
  // Without a kernel instance no call was made, and errno tells nothing.
  const bool instance = descriptor() >= 0;
  const int err = instance ? errno : 0;
  const std::string reason =
      instance ? ErrnoText(err) : std::string("no kernel notification instance");
  // Said at error priority once per cause; every mount-table change, reload
  // and "mount_volume" tries again, and a refusal that repeats is traced
  // only.
  if (health_.Refused(share, err, reason)) {
    YULO_LOG_ALWAYS("Volume %s not watched: the kernel refused the watch of "
                    "%s: %s",
                    owner_->GetMountPoint().c_str(), share.c_str(),
                    reason.c_str());
  } else {
    YULO_LOG_DEBUG("Volume %s still not watched: the kernel refused the "
                   "watch of %s: %s",
                   owner_->GetMountPoint().c_str(), share.c_str(),
                   reason.c_str());
  }
  return false;
}

}  // namespace YULOTIFYD
}  // namespace YULO
