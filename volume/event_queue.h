// EventQueue: the events of one volume between its receiver and processor.
//
// Push appends a copy; TakeAll moves everything out by relinking, so the
// time under the lock does not grow with the queue. No limit other than
// memory.
//
// Thread-safety: all operations may run concurrently. The mutex is a leaf:
// nothing else is locked while it is held.
#ifndef YULOTIFYD_VOLUME_EVENT_QUEUE_H_
#define YULOTIFYD_VOLUME_EVENT_QUEUE_H_

#include <pthread.h>

#include <list>
#include <vector>

#include "notify/notify_event.h"

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
  // Appends copies of all `events` at once: a taker sees all or none of
  // them. False, with the queue unchanged, when the copies cannot be made.
  bool PushAll(const std::vector<NotifyEvent>& events,
               size_t* size_after = nullptr);
  // Moves every queued event to the end of `out`, oldest first.
  void TakeAll(std::list<NotifyEvent>& out);
  size_t Size();

 private:
  pthread_mutex_t mutex_;
  std::list<NotifyEvent> events_;
  size_t count_;  // always events_.size()
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_EVENT_QUEUE_H_
