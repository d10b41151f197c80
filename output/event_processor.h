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
// Ownership: the processor does not own its source, which must outlive it.
// It owns the events it has taken and not yet handled; the destructor drops
// them unwritten.
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

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

#include "notify/notify_event.h"
#include "output/event_source.h"
#include "output/queue_line.h"
#include "yulotifyd/monitor_queue.h"
#include "yulotifyd/thread.h"

namespace YULO {
namespace YULOTIFYD {

class EventProcessor : public Thread {
 public:
  // Pause between two passes, in milliseconds.
  static constexpr unsigned kPassIntervalMs = 3000;

  // Throws the integer -1, after logging, when `source` is null.
  explicit EventProcessor(EventSource* source);
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

  // The start-up step of the thread body: when the source is in recovery,
  // logs that and writes a rescan of the volume to every watching queue.
  void SendRecoveryRescan();

  // Events taken from the source and not yet handled.
  size_t PendingCount();

 protected:
  // SendRecoveryRescan, then RunOnePass and a 3-second pause (cut short by
  // Stop) until the stop flag is raised.
  void Run() override;

 private:
  // REQUIRES (for these and everything below): StateGuard held, or the
  // thread not running.
  void FetchEvents();
  static void LogEvent(const NotifyEvent& event);
  // Looks for the first pending event with `first`'s cookie; if found,
  // moves it to `partner`, logs it and returns true.
  bool PairMoveEvent(const NotifyEvent& first, NotifyEvent& partner);
  void HandleEvent(const NotifyEvent& event,
                   std::vector<MonitorQueue>& snapshot);
  void HandleMovePair(const NotifyEvent& first, const NotifyEvent& partner,
                      std::vector<MonitorQueue>& snapshot);
  void SendRescan(std::vector<MonitorQueue>& snapshot);

  EventSource* source_;
  // 1 while FetchEvents runs, else 0. Both fetch paths test it; with the
  // StateGuard they never overlap, so it stays a plain flag.
  int32_t fetching_;
  std::list<NotifyEvent> pending_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_EVENT_PROCESSOR_H_
