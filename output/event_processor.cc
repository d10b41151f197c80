#include "output/event_processor.h"

#include <algorithm>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "base/path.h"
#include "output/queue_line.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

bool IsDir(uint32_t mask) { return (mask & YULO_ISDIR) != 0; }

// Whether a rescan of `dir` concerns `queue`: one of its monitors that keeps
// a model of the tree (it wants creations, deletions or moves) lies below
// `dir`, or sees into it (it is `dir`, or above it and recursive).
bool WatchesInto(const MonitorQueue& queue, const std::string& dir) {
  constexpr uint32_t kTreeCodes =
      QUEUE_EVENT_CREATE | QUEUE_EVENT_DELETE | QUEUE_EVENT_MOVE;
  for (const MonitorQueue::MonitorQueueConfig& config : queue.GetConfigs()) {
    if (config.directory.empty()) continue;  // matches nothing
    if ((config.events & kTreeCodes) == 0) continue;
    if (PathBelow(dir, config.directory)) return true;
    if (PathAtOrBelow(config.directory, dir) &&
        (config.recursive || dir == config.directory)) {
      return true;
    }
  }
  return false;
}

// A directory moved in: its contents came along without events of their own.
bool ArrivingDir(uint32_t mask) {
  return (mask & YULO_MOVE_TO) != 0 && IsDir(mask);
}

}  // namespace

EventProcessor::EventProcessor(EventSource* source, QueueFileOps* ops)
    : source_(source), fetching_(0), ops_(ops != nullptr ? ops : &posix_ops_) {
  if (source_ == nullptr) {
    YULO_LOG_ALWAYS("EventProcessor needs a volume");
    throw -1;
  }
}

EventProcessor::~EventProcessor() {
  Stop();
  pending_.clear();
}

void EventProcessor::Run() {
  SendRecoveryRescan();
  while (!stop_flag) {
    RunOnePass();
    SleepUnlessStopped(NextPauseMs());
  }
  drain_.Finish();
}

bool EventProcessor::FinalPasses(
    std::chrono::steady_clock::time_point deadline) {
  // How long to wait before trying a file that did not take its lines
  // again: long enough for a consumer to finish, short against the deadline.
  constexpr auto kRetryPause = std::chrono::milliseconds(100);
  RunOnePass();
  while (KeptLineCount() > 0) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) break;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
        kRetryPause, deadline - now));
    RunOnePass();
  }
  return PendingCount() == 0 && KeptLineCount() == 0;
}

void EventProcessor::SendRecoveryRescan() {
  if (!source_->IsRecovery()) return;
  StateGuard guard(this);
  recovery_owed_ = true;
  try {
    YULO_LOG_WARNING("Send Rescan because of recovery vol: %s",
                     source_->GetMountPoint().c_str());
    SendOwedRecovery();
  } catch (const std::bad_alloc&) {
    // Still owed: the next pass sends it first.
    YULO_LOG_ALWAYS("Out of memory during a pass, vol: %s",
                    source_->GetMountPoint().c_str());
    out_of_memory_ = true;
  }
}

void EventProcessor::SendOwedRecovery() {
  std::vector<MonitorQueue> snapshot = source_->GetMonitorQueues();
  BindOutboxes(snapshot);
  SendRescan(snapshot);
  // In the outboxes now, which keep their lines until written.
  recovery_owed_ = false;
  FlushOutboxes(snapshot);
}

void EventProcessor::RunOnePass() {
  StateGuard guard(this);
  PassLocked();
}

void EventProcessor::PassAction(Thread* thread, char* /*arg*/) {
  EventProcessor* processor = dynamic_cast<EventProcessor*>(thread);
  if (processor != nullptr) processor->PassLocked();
}

void EventProcessor::PassLocked() {
  YULO_LOG_DEBUG("EventProcessor alive ...");
  try {
    // Events the source could not even queue: the volume is rescanned.
    if (source_->TakeLostEvents()) recovery_owed_ = true;
    if (recovery_owed_) SendOwedRecovery();
    if (fetching_ == 0) FetchEvents();
    last_pass_events_ = pending_.size();
    if (pending_.empty() && KeptLinesLocked() == 0) return;
    // One copy of the monitor queues serves every event of the pass.
    std::vector<MonitorQueue> snapshot = source_->GetMonitorQueues();
    BindOutboxes(snapshot);
    HandlePending(snapshot);
    FlushOutboxes(snapshot);
    out_of_memory_ = false;
  } catch (const std::bad_alloc&) {
    // What was handled is in the outboxes and what was not stays pending;
    // the event being handled when memory ran out stays too, marked to
    // become a rescan of its watched path. All of it is tried again at the
    // next pass. Logged once until a pass completes again.
    if (!out_of_memory_) {
      YULO_LOG_ALWAYS("Out of memory during a pass, vol: %s",
                      source_->GetMountPoint().c_str());
      out_of_memory_ = true;
    }
  }
}

void EventProcessor::HandlePending(std::vector<MonitorQueue>& snapshot) {
  // Events are handled in place, in order; a move's partner further on is
  // marked as done instead of being removed. The marks of a pass that ran
  // out of memory carry over: its handled events are not written twice,
  // and the one it was in the middle of becomes a rescan. Events fetched
  // since start unmarked.
  done_.resize(pending_.size(), kToHandle);
  size_t i = 0;
  size_t partner = kNoPartner;
  try {
    for (; i < pending_.size(); ++i) {
      if (done_[i] == kHandled) continue;
      const PackedEvents::View event = pending_.Get(i);
      partner = kNoPartner;
      if (done_[i] == kRescanInstead) {
        SendWatchRescan(event, snapshot);
        done_[i] = kHandled;
        continue;
      }
      LogEvent(i);

      if (event.mask & YULO_Q_OVERFLOW) {
        // The kernel lost events: what is still pending is no longer the
        // whole story, so drop it and have every watching queue rescan the
        // volume.
        YULO_LOG_WARNING("Recieve overflow event vol: %s",
                        source_->GetMountPoint().c_str());
        kernel_overflows_.fetch_add(1, std::memory_order_relaxed);
        SendRescan(snapshot);
        break;
      }
      if ((event.mask & 0xFFFF) == YULO_RESCAN &&
          event.cookie == kDerivedRescanCookie) {
        HandleRescan(event, snapshot);
        continue;
      }
      if (event.mask & (YULO_MOVE_FROM | YULO_MOVE_TO)) {
        if (PairMoveEvent(i, &partner)) {
          HandleMovePair(event, pending_.Get(partner), snapshot);
          done_[i] = kHandled;
          continue;
        }
        YULO_LOG_DEBUG("pair fail");
      }
      HandleEvent(event, snapshot);
      done_[i] = kHandled;
    }
  } catch (const std::bad_alloc&) {
    // Some queues may have the event's line and others not: rather than
    // write it twice or not at all, every queue near it gets a rescan of
    // its watched path next time. Marking allocates nothing.
    if (i < pending_.size()) done_[i] = kRescanInstead;
    if (partner != kNoPartner) done_[partner] = kRescanInstead;
    throw;
  }
  pending_.clear();
  done_.clear();
}

std::vector<QueueFileStatus> EventProcessor::GetQueueFileStatus() {
  StateGuard guard(this);
  std::vector<QueueFileStatus> files;
  for (const auto& entry : outboxes_) {
    const QueueOutbox& outbox = *entry.second;
    QueueFileStatus file;
    file.path = outbox.path();
    file.lines_written = outbox.lines_written();
    file.lines_kept = outbox.LineCount();
    file.state = outbox.state();
    file.last_error = outbox.last_error();
    file.last_error_time = outbox.last_error_time();
    file.oldest_line_time = outbox.oldest_line_time();
    files.push_back(std::move(file));
  }
  return files;
}

unsigned EventProcessor::NextPauseMs() {
  StateGuard guard(this);
  return last_pass_events_ >= kEarlyPassEvents ? kBurstPassIntervalMs
                                               : kPassIntervalMs;
}

size_t EventProcessor::PendingCount() {
  StateGuard guard(this);
  return pending_.size();
}

size_t EventProcessor::KeptLineCount() {
  StateGuard guard(this);
  return KeptLinesLocked();
}

size_t EventProcessor::KeptLinesLocked() const {
  size_t kept = 0;
  for (const auto& entry : outboxes_) kept += entry.second->LineCount();
  return kept;
}

const std::vector<size_t>& EventProcessor::QueuesNear(
    std::string_view watch, const std::vector<MonitorQueue>& snapshot) {
  // A volume has a few watched paths: a short list beats hashing.
  for (const auto& entry : queues_near_) {
    if (entry.first == watch) return entry.second;
  }
  queues_near_.emplace_back(std::string(watch), std::vector<size_t>());
  std::vector<size_t>& indices = queues_near_.back().second;
  for (size_t i = 0; i < snapshot.size(); ++i) {
    // An event without a watched path gets every queue's judgement.
    if (watch.empty() || snapshot[i].MayMonitorBelow(queues_near_.back().first)) {
      indices.push_back(i);
    }
  }
  return indices;
}

void EventProcessor::BindOutboxes(const std::vector<MonitorQueue>& snapshot) {
  queues_near_.clear();
  last_rescan_.assign(snapshot.size(), {0, std::string()});
  targets_.clear();
  targets_.reserve(snapshot.size());
  for (const MonitorQueue& queue : snapshot) {
    OutboxKey key(queue.GetQueuePath(), queue.GetOwnerUid(),
                  queue.GetOwnerGid());
    auto found = outboxes_.find(key);
    if (found == outboxes_.end()) {
      // Made before it goes into the map, so that running out of memory
      // never leaves an empty slot there.
      auto outbox = std::make_unique<QueueOutbox>(
          queue.GetQueuePath(), queue.GetOwnerUid(), queue.GetOwnerGid());
      found = outboxes_.emplace(std::move(key), std::move(outbox)).first;
    }
    targets_.push_back(found->second.get());
  }
}

void EventProcessor::FlushOutboxes(const std::vector<MonitorQueue>& snapshot) {
  for (auto it = outboxes_.begin(); it != outboxes_.end();) {
    QueueOutbox* outbox = it->second.get();
    const uint64_t before = outbox->lines_written();
    outbox->AppendToQueue(snapshot, *ops_);
    lines_written_.fetch_add(outbox->lines_written() - before,
                             std::memory_order_relaxed);
    // An outbox that is empty and no longer named by any queue goes; one
    // still holding lines stays until they are written or summed up.
    if (outbox->empty() &&
        std::find(targets_.begin(), targets_.end(), outbox) == targets_.end()) {
      it = outboxes_.erase(it);
    } else {
      ++it;
    }
  }
}

void EventProcessor::SendEvent(uint32_t code, const std::string& path,
                               bool is_dir, size_t queue_index) {
  if (code & QUEUE_EVENT_RESCAN) {
    rescan_lines_.fetch_add(1, std::memory_order_relaxed);
  }
  line_.clear();
  AppendQueueLine(line_, code, path, is_dir);
  targets_[queue_index]->AddLine(line_);
}

void EventProcessor::SendMoveEvent(const std::string& old_path,
                                   const std::string& new_path, bool is_dir,
                                   size_t queue_index) {
  const std::string quoted_old = QuoteQueueString(old_path);
  line_.clear();
  AppendQueueLine(line_, QUEUE_EVENT_MOVE, new_path, is_dir, quoted_old);
  targets_[queue_index]->AddLine(line_, quoted_old);
}

void EventProcessor::FetchAction(Thread* thread, char* /*arg*/) {
  EventProcessor* processor = dynamic_cast<EventProcessor*>(thread);
  if (processor == nullptr) return;
  if (processor->fetching_ == 0) processor->FetchEvents();
}

void EventProcessor::FetchEvents() {
  fetching_ = 1;
  const size_t before = pending_.size();
  try {
    source_->GetEvents(pending_);
  } catch (...) {
    // Out of memory: the events stay with the source for the next fetch.
    fetching_ = 0;
    throw;
  }
  if (pending_.size() != before) {
    YULO_LOG_DEBUG("EventProcessor got %zd events",
                   static_cast<ssize_t>(pending_.size()));
  }
  fetching_ = 0;
}

void EventProcessor::LogEvent(size_t index) const {
  // The dump is made only when the line is written.
  if (!LogGateOpen(LogGate::kInfo)) return;
  std::ostringstream dump;
  dump << pending_.ToEvent(index);
  YULO_LOG_INFO("Got event, %s", dump.str().c_str());
}

bool EventProcessor::PairMoveEvent(size_t first, size_t* partner) {
  // The first pending half of the other direction with the same cookie is
  // the partner: a move-from pairs only with a move-to and the other way
  // round.
  const PackedEvents::View half = pending_.Get(first);
  const uint32_t wanted =
      (half.mask & YULO_MOVE_FROM) ? YULO_MOVE_TO : YULO_MOVE_FROM;
  for (size_t j = first + 1; j < pending_.size(); ++j) {
    if (done_[j] != kToHandle) continue;
    const PackedEvents::View other = pending_.Get(j);
    if (other.cookie != half.cookie || (other.mask & wanted) == 0) continue;
    done_[j] = kHandled;
    LogEvent(j);
    *partner = j;
    return true;
  }
  return false;
}

void EventProcessor::FullPath(const PackedEvents::View& event,
                              std::string* out) {
  // The watched path alone for the watched path itself ("/" below it).
  out->assign(event.watch);
  if (event.path != "/") out->append(event.path);
}

void EventProcessor::HandleEvent(const PackedEvents::View& event,
                                 std::vector<MonitorQueue>& snapshot) {
  FullPath(event, &path_a_);
  const uint32_t code = QueueEventCode(event.mask);
  // Only the queues with a monitor near the event's watched path can want
  // it; they are asked in snapshot order, as all of them would be.
  for (size_t i : QueuesNear(event.watch, snapshot)) {
    if (snapshot[i].IsMonitoring(path_a_, code)) {
      SendEvent(code, path_a_, IsDir(event.mask), i);
      RescanArrival(event, path_a_, snapshot, i);
    }
  }
}

void EventProcessor::HandleRescan(const PackedEvents::View& event,
                                  std::vector<MonitorQueue>& snapshot) {
  FullPath(event, &path_a_);
  for (size_t i : QueuesNear(event.watch, snapshot)) {
    if (WatchesInto(snapshot[i], path_a_)) SendRescanLine(path_a_, i);
  }
}

void EventProcessor::RescanArrival(const PackedEvents::View& event,
                                   const std::string& path,
                                   const std::vector<MonitorQueue>& snapshot,
                                   size_t i) {
  if (ArrivingDir(event.mask) && WatchesInto(snapshot[i], path)) {
    SendRescanLine(path, i);
  }
}

void EventProcessor::SendRescanLine(const std::string& dir,
                                    size_t queue_index) {
  std::pair<size_t, std::string>& last = last_rescan_[queue_index];
  const size_t lines = targets_[queue_index]->LineCount();
  if (lines != 0 && last.first == lines && last.second == dir) return;
  SendEvent(QUEUE_EVENT_RESCAN, dir, true, queue_index);
  last.first = targets_[queue_index]->LineCount();
  last.second = dir;
}

void EventProcessor::HandleMovePair(const PackedEvents::View& first,
                                    const PackedEvents::View& partner,
                                    std::vector<MonitorQueue>& snapshot) {
  FullPath(first, &path_a_);
  FullPath(partner, &path_b_);
  const uint32_t code_a = QueueEventCode(first.mask);
  const uint32_t code_b = QueueEventCode(partner.mask);
  for (size_t i = 0; i < snapshot.size(); ++i) {
    const bool wants_a = snapshot[i].IsMonitoring(path_a_, code_a);
    const bool wants_b = snapshot[i].IsMonitoring(path_b_, code_b);
    if (wants_a && wants_b) {
      // Both ends watched: one move line, whichever half came first.
      if (code_a & QUEUE_EVENT_DELETE) {
        SendMoveEvent(path_a_, path_b_, IsDir(first.mask), i);
      } else {
        SendMoveEvent(path_b_, path_a_, IsDir(partner.mask), i);
      }
    } else if (wants_a) {
      SendEvent(code_a, path_a_, IsDir(first.mask), i);
      RescanArrival(first, path_a_, snapshot, i);
    } else if (wants_b) {
      SendEvent(code_b, path_b_, IsDir(partner.mask), i);
      RescanArrival(partner, path_b_, snapshot, i);
    }
  }
}

void EventProcessor::SendWatchRescan(const PackedEvents::View& event,
                                     std::vector<MonitorQueue>& snapshot) {
  // Without a watched path (an overflow record) the whole volume.
  if (event.watch.empty()) {
    SendRescan(snapshot);
    return;
  }
  path_a_.assign(event.watch);
  for (size_t i : QueuesNear(event.watch, snapshot)) {
    SendEvent(QUEUE_EVENT_RESCAN, path_a_, true, i);
  }
}

void EventProcessor::SendRescan(std::vector<MonitorQueue>& snapshot) {
  const std::string& mount_point = source_->GetMountPoint();
  for (size_t i = 0; i < snapshot.size(); ++i) {
    if (snapshot[i].IsDirMonitoring(mount_point)) {
      SendEvent(QUEUE_EVENT_RESCAN, mount_point, true, i);
    }
  }
}

}  // namespace YULOTIFYD
}  // namespace YULO
