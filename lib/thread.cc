#include "yulotifyd/thread.h"

#include <errno.h>
#include <time.h>

#include <cstring>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

namespace {

// The process-wide lock: serialises DoAction calls from different callers.
// It exists between InitThreadLock and DestroyThreadLock; `g_lock_ready`
// tells whether it may be used.
pthread_mutex_t g_thread_lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<bool> g_lock_ready{false};

}  // namespace

Thread::Thread()
    : stop_flag(false), thread_(), started_(false), wake_requested_(false) {
  // Default-attribute mutexes cannot fail to initialise on Linux. The
  // condition variable measures its time-outs on the monotonic clock so a
  // change of the wall clock neither stretches nor cuts a sleep.
  state_mutex_ = PTHREAD_MUTEX_INITIALIZER;
  wake_mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&wake_cond_, &attr);
  pthread_condattr_destroy(&attr);
}

Thread::~Thread() {
  Stop();
  pthread_cond_destroy(&wake_cond_);
  pthread_mutex_destroy(&wake_mutex_);
  pthread_mutex_destroy(&state_mutex_);
}

bool Thread::Start() {
  if (started_ || !g_lock_ready.load()) return false;
  stop_flag.store(false);
  if (pthread_create(&thread_, nullptr, &Thread::Trampoline, this) != 0) {
    return false;
  }
  started_ = true;
  return true;
}

void* Thread::Trampoline(void* self) {
  static_cast<Thread*>(self)->Run();
  return nullptr;
}

void Thread::RequestStop() {
  pthread_mutex_lock(&wake_mutex_);
  stop_flag.store(true);
  pthread_cond_broadcast(&wake_cond_);
  pthread_mutex_unlock(&wake_mutex_);
}

void Thread::Wake() {
  pthread_mutex_lock(&wake_mutex_);
  wake_requested_ = true;
  pthread_cond_broadcast(&wake_cond_);
  pthread_mutex_unlock(&wake_mutex_);
}

void Thread::Stop() {
  RequestStop();
  if (started_) {
    pthread_join(thread_, nullptr);
    started_ = false;
  }
}

bool Thread::SleepUnlessStopped(unsigned millis) {
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += millis / 1000;
  deadline.tv_nsec += static_cast<long>(millis % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  pthread_mutex_lock(&wake_mutex_);
  while (!stop_flag.load() && !wake_requested_) {
    if (pthread_cond_timedwait(&wake_cond_, &wake_mutex_, &deadline) ==
        ETIMEDOUT) {
      break;
    }
  }
  wake_requested_ = false;
  const bool keep_going = !stop_flag.load();
  pthread_mutex_unlock(&wake_mutex_);
  return keep_going;
}

void Thread::DoAction(Action action, const char* arg) {
  if (action == nullptr) return;
  // The action may write into its argument, so it gets a private copy.
  std::vector<char> copy;
  if (arg != nullptr) copy.assign(arg, arg + std::strlen(arg) + 1);
  const bool global = g_lock_ready.load();
  if (global) pthread_mutex_lock(&g_thread_lock);
  pthread_mutex_lock(&state_mutex_);
  action(this, arg == nullptr ? nullptr : copy.data());
  pthread_mutex_unlock(&state_mutex_);
  if (global) pthread_mutex_unlock(&g_thread_lock);
}

Thread::StateGuard::StateGuard(Thread* thread) : thread_(thread) {
  pthread_mutex_lock(&thread_->state_mutex_);
}

Thread::StateGuard::~StateGuard() {
  pthread_mutex_unlock(&thread_->state_mutex_);
}

bool Thread::InitThreadLock() {
  if (g_lock_ready.load()) return false;
  if (pthread_mutex_init(&g_thread_lock, nullptr) != 0) return false;
  g_lock_ready.store(true);
  return true;
}

void Thread::DestroyThreadLock() {
  if (!g_lock_ready.exchange(false)) return;
  pthread_mutex_destroy(&g_thread_lock);
}

}  // namespace YULOTIFYD
}  // namespace YULO
