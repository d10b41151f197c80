#include "volume/event_queue.h"

namespace YULO {
namespace YULOTIFYD {

// A default-attribute mutex cannot fail to initialise on Linux.
EventQueue::EventQueue() : mutex_(PTHREAD_MUTEX_INITIALIZER), count_(0) {}

EventQueue::~EventQueue() { pthread_mutex_destroy(&mutex_); }

bool EventQueue::Push(const NotifyEvent& event) {
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
  pthread_mutex_unlock(&mutex_);
  return true;
}

bool EventQueue::PushAll(const std::vector<NotifyEvent>& events) {
  std::list<NotifyEvent> copies;
  try {
    copies.assign(events.begin(), events.end());
  } catch (...) {
    return false;
  }
  pthread_mutex_lock(&mutex_);
  count_ += copies.size();
  events_.splice(events_.end(), copies);
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
