// EventQueue: the events of one volume between its receiver and processor.
//
// Events are kept packed (PackedEvents): no heap object per event, the
// watched paths kept once. Push appends a copy; TakeAll hands everything
// over by swapping buffers, so the time under the lock does not grow with
// the queue. No limit other than memory.
//
// Thread-safety: all operations may run concurrently. The mutex is a leaf:
// nothing else is locked while it is held.
#ifndef YULOTIFYD_VOLUME_EVENT_QUEUE_H_
#define YULOTIFYD_VOLUME_EVENT_QUEUE_H_

#include <pthread.h>

#include <cstddef>

#include "notify/notify_event.h"
#include "notify/packed_events.h"

namespace YULO {
namespace YULOTIFYD {

class EventQueue {
 public:
  EventQueue();
  ~EventQueue();
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  // False when the copy cannot be made (out of memory); the queue is
  // unchanged. `size_after`, when given, gets the number of queued events
  // right after the push.
  bool Push(const NotifyEvent& event, size_t* size_after = nullptr);
  // Moves all `events` to the end at once, leaving `events` empty: a taker
  // sees all or none of them. False, with the queue unchanged, when memory
  // runs out.
  bool PushAll(PackedEvents& events, size_t* size_after = nullptr);
  // Moves every queued event to the end of `out`, oldest first.
  void TakeAll(PackedEvents& out);
  size_t Size();

 private:
  // Runs `add` on the queued events under the lock; what Push and PushAll
  // share. An allocation failure inside `add` must leave them unchanged.
  template <typename Add>
  bool AddLocked(const Add& add, size_t* size_after);

  pthread_mutex_t mutex_;
  PackedEvents events_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_EVENT_QUEUE_H_
