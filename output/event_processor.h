// EventProcessor: the worker thread that drains one volume's event queue
// into the monitor queues' files.
//
// Every 3 seconds it takes all queued events of its EventSource, takes one
// private copy of the monitor queues for the pass, and for each event in
// order: logs it; on a kernel queue overflow drops the rest of the batch and
// writes a rescan of the volume (code 512, the mount point) to every queue
// that watches the volume; pairs the two halves of a move (same cookie,
// searched among the events already taken) and writes them as one move
// (256), a creation (64) or a deletion (128) depending on which halves each
// queue watches; writes every other event to each queue that wants its path
// and code. When the volume comes up in recovery, the thread writes a rescan
// of the volume before it handles any event.
//
// Rescans of one directory. A rescan that the kernel layer derived
// (YULO_RESCAN alone with kDerivedRescanCookie: it could not tell what
// happened below a directory) goes to every queue that watches something in
// that directory and wants creations, deletions or moves there
// (WatchesInto), whether or not it asked for code 512, as the rescans of the
// volume do; other rescan events (injected, or reported as such) go where
// code 512 is wanted, like any event. A directory that arrives in what a
// queue watches by a move from somewhere it does not watch reaches the queue
// as a creation (64) followed by a rescan of the directory's own path, so
// that the consumer lists what it brought along. A rescan line that repeats
// the one just written to the same queue is left out.
//
// The lines of a pass go into one outbox per queue file (QueueOutbox), and
// at the end of the pass each file gets its lines in one locked append.
// Lines a file does not take stay in its outbox and are tried again at every
// later pass, also a pass without new events.
//
// A pass that runs out of memory (std::bad_alloc) loses nothing: events not
// handled yet stay pending (or queued at the source), and the event being
// handled at that moment, with its move partner, becomes a rescan of its
// watched path for every queue near it at the next pass, since some queues
// may have its line already and others not. A recovery rescan that could
// not be made is made by the next pass, and so is a rescan of the volume
// when its source could not even queue some events (EventSource::
// TakeLostEvents).
//
// Ownership: the processor does not own its source, which must outlive it,
// nor the QueueFileOps it is given (it then must outlive it too). It owns
// the events it has taken and not yet handled, and its outboxes; the
// destructor drops both unwritten.
//
// Thread-safety: Run, RunOnePass and SendRecoveryRescan run on the worker
// thread (tests call them directly when the thread is not started).
// FetchAction is run through Thread::DoAction by another thread; the worker
// holds its StateGuard around fetching and walking the pending events, so
// the action never touches them while a pass is under way (it waits for the
// pass to finish, including that pass's file writes). REQUIRES: DoAction's
// caller holds no lock that the source's GetMonitorQueues takes.
#ifndef YULOTIFYD_OUTPUT_EVENT_PROCESSOR_H_
#define YULOTIFYD_OUTPUT_EVENT_PROCESSOR_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "base/stop_drain.h"
#include "notify/notify_event.h"
#include "notify/packed_events.h"
#include "output/event_source.h"
#include "output/queue_file_ops.h"
#include "output/queue_file_status.h"
#include "output/queue_outbox.h"
#include "yulotifyd/monitor_queue.h"
#include "yulotifyd/thread.h"

namespace YULO {
namespace YULOTIFYD {

class EventProcessor : public Thread {
 public:
  // Pause between two passes, in milliseconds.
  static constexpr unsigned kPassIntervalMs = 3000;
  // A pass starts early once this many events wait in the volume's queue
  // (the volume manager wakes the thread).
  static constexpr size_t kEarlyPassEvents = 4096;
  // Pause after a pass that took at least kEarlyPassEvents events: while a
  // burst lasts, and once right after it, passes follow each other quickly,
  // so its last lines are not left waiting for the 3-second pass.
  static constexpr unsigned kBurstPassIntervalMs = 250;

  // Throws the integer -1, after logging, when `source` is null. Queue
  // files are written through `ops`, the real system calls when null.
  explicit EventProcessor(EventSource* source, QueueFileOps* ops = nullptr);
  // Stops the thread first, then drops the pending events unwritten.
  ~EventProcessor() override;

  EventProcessor(const EventProcessor&) = delete;
  EventProcessor& operator=(const EventProcessor&) = delete;

  // The action for Thread::DoAction: takes the source's queued events into
  // the pending list unless a fetch is already under way. `thread` must be
  // an EventProcessor; `arg` is ignored (null).
  static void FetchAction(Thread* thread, char* arg);

  // One pass of the thread body without its pause: fetch, then handle every
  // pending event.
  void RunOnePass();

  // The action for Thread::DoAction: one pass, as RunOnePass, on the
  // caller's thread. A reload has the events queued under the old
  // configuration written with it this way. `thread` must be an
  // EventProcessor; `arg` is ignored (null).
  static void PassAction(Thread* thread, char* arg);

  // The start-up step of the thread body: when the source is in recovery,
  // logs that and writes a rescan of the volume to every watching queue.
  void SendRecoveryRescan();

  // Events taken from the source and not yet handled.
  size_t PendingCount();

  // The pause before the next pass: kBurstPassIntervalMs after a pass that
  // took at least kEarlyPassEvents events, else kPassIntervalMs. A Wake()
  // (the queue reached kEarlyPassEvents) ends it early.
  unsigned NextPauseMs();

  // Lines held in the outboxes for files that have not taken them yet.
  size_t KeptLineCount();

  // Counters since the processor was made; any thread, no lock.
  uint64_t LinesWritten() const { return lines_written_.load(); }
  uint64_t KernelOverflows() const { return kernel_overflows_.load(); }
  uint64_t RescanLines() const { return rescan_lines_.load(); }
  // The queue files this processor writes or keeps lines for, by path.
  // Waits for a pass under way to end.
  std::vector<QueueFileStatus> GetQueueFileStatus();

  // Stops the thread without waiting for it, as Thread::RequestStop, but has
  // it first write everything: one more pass over all the events queued by
  // then, and more passes while a file keeps lines, until `deadline`.
  // REQUIRES: nothing adds to the source any more (its receiver has
  // stopped). Stop() then joins; Drained() tells how it went.
  void RequestDrainStop(std::chrono::steady_clock::time_point deadline) {
    drain_.RequestStop(deadline);
  }

  // The last step of the thread body after RequestDrainStop, public so
  // tests can run it without the thread: true when every event taken was
  // written and no file keeps lines.
  bool FinalPasses(std::chrono::steady_clock::time_point deadline);

  // False when the last drain left something unwritten. True before any.
  bool Drained() const { return drain_.Drained(); }

 protected:
  // SendRecoveryRescan, then RunOnePass and a 3-second pause (cut short by
  // Stop) until the stop flag is raised.
  void Run() override;

 private:
  // REQUIRES (for these and everything below): StateGuard held, or the
  // thread not running.
  void FetchEvents();
  // RunOnePass's body.
  void PassLocked();
  // The rescan of the volume owed by a recovery or by events the source
  // lost, once more if memory ran out the last time.
  void SendOwedRecovery();
  // Handles every pending event, in order, into the outboxes.
  void HandlePending(std::vector<MonitorQueue>& snapshot);
  // Logs pending event `index` (level 6 or 7).
  void LogEvent(size_t index) const;
  // Looks for the partner of the move half pending at `first`: the first
  // event after it, not taken yet, with the same cookie and the other
  // direction. If found, marks it taken, logs it, puts its position in
  // `partner` and returns true.
  bool PairMoveEvent(size_t first, size_t* partner);
  static void FullPath(const PackedEvents::View& event, std::string* out);
  void HandleEvent(const PackedEvents::View& event,
                   std::vector<MonitorQueue>& snapshot);
  void HandleMovePair(const PackedEvents::View& first,
                      const PackedEvents::View& partner,
                      std::vector<MonitorQueue>& snapshot);
  void SendRescan(std::vector<MonitorQueue>& snapshot);
  // A rescan of the event's directory to each queue that watches into it.
  void HandleRescan(const PackedEvents::View& event,
                    std::vector<MonitorQueue>& snapshot);
  // The creation line of `event` to queue `i` has just been written: when
  // the event is a directory moved in, the rescan of its path follows.
  void RescanArrival(const PackedEvents::View& event, const std::string& path,
                     const std::vector<MonitorQueue>& snapshot, size_t i);
  // A rescan of `dir` to queue `queue_index`, unless it would repeat the
  // line written last to that queue.
  void SendRescanLine(const std::string& dir, size_t queue_index);
  // A rescan of the event's watched path to every queue near it, in place
  // of the event (one that a pass could not finish).
  void SendWatchRescan(const PackedEvents::View& event,
                       std::vector<MonitorQueue>& snapshot);
  // Add one line to the outbox of the snapshot's queue `queue_index`.
  void SendEvent(uint32_t code, const std::string& path, bool is_dir,
                 size_t queue_index);
  void SendMoveEvent(const std::string& old_path, const std::string& new_path,
                     bool is_dir, size_t queue_index);
  // Points targets_ at the outbox of each queue of `snapshot`, making the
  // missing ones.
  void BindOutboxes(const std::vector<MonitorQueue>& snapshot);
  // Has every outbox append what it holds; drops the empty ones no queue
  // of `snapshot` names any more.
  void FlushOutboxes(const std::vector<MonitorQueue>& snapshot);
  size_t KeptLinesLocked() const;
  // The positions in `snapshot` of the queues that may want events under
  // `watch` (MonitorQueue::MayMonitorBelow), ascending; worked out once per
  // watched path and pass.
  const std::vector<size_t>& QueuesNear(
      std::string_view watch, const std::vector<MonitorQueue>& snapshot);

  EventSource* source_;
  // Events the last pass took; it chooses the pause after the pass.
  size_t last_pass_events_ = 0;
  // A pass ran out of memory and no pass has completed since.
  bool out_of_memory_ = false;
  // A rescan of the volume is owed (recovery, events the source lost) and
  // could not be made yet for want of memory.
  bool recovery_owed_ = false;
  std::atomic<uint64_t> lines_written_{0};
  std::atomic<uint64_t> kernel_overflows_{0};
  std::atomic<uint64_t> rescan_lines_{0};
  // 1 while FetchEvents runs, else 0. Both fetch paths test it; with the
  // StateGuard they never overlap, so it stays a plain flag.
  int32_t fetching_;
  PackedEvents pending_;
  // Per pending event: what is left to do with it. Kept across a pass that
  // ran out of memory.
  enum : char { kToHandle = 0, kHandled = 1, kRescanInstead = 2 };
  static constexpr size_t kNoPartner = static_cast<size_t>(-1);
  std::vector<char> done_;
  PosixQueueFileOps posix_ops_;
  QueueFileOps* ops_;
  // One outbox per queue file path (byte-wise) and owner of the queues
  // that name it.
  using OutboxKey = std::tuple<std::string, uid_t, gid_t>;
  std::map<OutboxKey, std::unique_ptr<QueueOutbox>> outboxes_;
  // The outbox of each queue of the current pass's snapshot, by position.
  std::vector<QueueOutbox*> targets_;
  // Per queue of the pass: the outbox's line count right after the last
  // rescan line of a directory, and that directory.
  std::vector<std::pair<size_t, std::string>> last_rescan_;
  // QueuesNear's answers for the current snapshot, by watched path.
  std::vector<std::pair<std::string, std::vector<size_t>>> queues_near_;
  std::string line_;  // reused for every line's text
  std::string path_a_, path_b_;  // reused for the events' full paths
  // RequestDrainStop's request and how it went; the step is FinalPasses.
  StopDrain drain_{
      [this](StopDrain::TimePoint deadline) { return FinalPasses(deadline); },
      [this] { RequestStop(); }};
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_EVENT_PROCESSOR_H_
