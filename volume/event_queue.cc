#include "volume/event_queue.h"

namespace YULO {
namespace YULOTIFYD {

// A default-attribute mutex cannot fail to initialise on Linux.
EventQueue::EventQueue() : mutex_(PTHREAD_MUTEX_INITIALIZER), count_(0) {}

EventQueue::~EventQueue() { pthread_mutex_destroy(&mutex_); }

bool EventQueue::Push(const NotifyEvent& event, size_t* size_after) {
  // The element is made before it is linked, under the lock; it holds its
  // own copies of the strings.
  pthread_mutex_lock(&mutex_);
  try {
    events_.push_back(event);
  } catch (...) {
    pthread_mutex_unlock(&mutex_);
    return false;
  }
  ++count_;
  if (size_after != nullptr) *size_after = count_;
  pthread_mutex_unlock(&mutex_);
  return true;
}

bool EventQueue::PushAll(const std::vector<NotifyEvent>& events,
                         size_t* size_after) {
  std::list<NotifyEvent> copies;
  try {
    copies.assign(events.begin(), events.end());
  } catch (...) {
    return false;
  }
  pthread_mutex_lock(&mutex_);
  count_ += copies.size();
  events_.splice(events_.end(), copies);
  if (size_after != nullptr) *size_after = count_;
  pthread_mutex_unlock(&mutex_);
  return true;
}

void EventQueue::TakeAll(std::list<NotifyEvent>& out) {
  pthread_mutex_lock(&mutex_);
  if (out.empty()) {
    out.swap(events_);
  } else {
    out.splice(out.end(), events_);
  }
  count_ = 0;
  pthread_mutex_unlock(&mutex_);
}

size_t EventQueue::Size() {
  pthread_mutex_lock(&mutex_);
  const size_t n = count_;
  pthread_mutex_unlock(&mutex_);
  return n;
}

}  // namespace YULOTIFYD
}  // namespace YULO
