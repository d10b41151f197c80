#include "volume/event_queue.h"

#include <new>

namespace YULO {
namespace YULOTIFYD {

// A default-attribute mutex cannot fail to initialise on Linux.
EventQueue::EventQueue() : mutex_(PTHREAD_MUTEX_INITIALIZER) {}

EventQueue::~EventQueue() { pthread_mutex_destroy(&mutex_); }

template <typename Add>
bool EventQueue::AddLocked(const Add& add, size_t* size_after) {
  pthread_mutex_lock(&mutex_);
  try {
    add(events_);
  } catch (const std::bad_alloc&) {
    pthread_mutex_unlock(&mutex_);
    return false;
  }
  if (size_after != nullptr) *size_after = events_.size();
  pthread_mutex_unlock(&mutex_);
  return true;
}

bool EventQueue::Push(const NotifyEvent& event, size_t* size_after) {
  return AddLocked([&event](PackedEvents& queued) { queued.Push(event); },
                   size_after);
}

bool EventQueue::PushAll(PackedEvents& events, size_t* size_after) {
  return AddLocked([&events](PackedEvents& queued) { queued.Append(events); },
                   size_after);
}

void EventQueue::TakeAll(PackedEvents& out) {
  pthread_mutex_lock(&mutex_);
  try {
    out.Append(events_);
  } catch (...) {
    // Out of memory: the events stay queued for the next taker.
    pthread_mutex_unlock(&mutex_);
    throw;
  }
  pthread_mutex_unlock(&mutex_);
}

size_t EventQueue::Size() {
  pthread_mutex_lock(&mutex_);
  const size_t n = events_.size();
  pthread_mutex_unlock(&mutex_);
  return n;
}

}  // namespace YULOTIFYD
}  // namespace YULO
