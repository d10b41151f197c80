// Thread: base class of the daemon's worker threads.
//
// A derived class overrides Run(), the thread body, and polls `stop_flag`
// once per loop turn (false while it should keep running). Start() launches
// the body on a new thread. Stop() raises the flag, wakes SleepUnlessStopped
// and joins the thread.
//
// Lifetime. A derived destructor runs before ~Thread, and the body may still
// be using derived members at that point. So every derived destructor must
// call Stop() as its first statement; ~Thread calls it again only as a last
// resort for classes that forgot (by then the body may already have touched
// destroyed members). REQUIRES: Stop() is never called from the worker itself.
//
// Actions. DoAction() is how another thread asks a worker to act on the
// worker's state: the action runs exactly once, on the caller's thread, while
// the worker is outside its state section (see StateGuard), and DoAction
// returns after it ran. The worker brackets each use of state that actions
// touch with a StateGuard; an action therefore never sees that state half
// changed.
//
// Process-wide lock. InitThreadLock() must succeed before any Start() or
// DoAction(); DestroyThreadLock() is called once every worker is gone.
// The lock serialises actions from different callers.
//
// Thread-safety: Start, Stop, DoAction and the destructor are called from one
// controlling thread (the daemon's main thread); Run runs on the worker.
#ifndef YULOTIFYD_THREAD_H_
#define YULOTIFYD_THREAD_H_

#include <pthread.h>

#include <atomic>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

class YULOTIFYD_EXPORT Thread {
 public:
  typedef void (*Action)(Thread* thread, char* arg);

  Thread();
  virtual ~Thread();

  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Launches Run() on a new thread. Returns false, leaving no thread behind,
  // when the thread cannot be created, the object was started before, or the
  // process-wide lock is not initialised.
  bool Start();

  // Raises the stop flag, wakes the worker from SleepUnlessStopped and waits
  // for Run() to return. Idempotent; harmless when never started.
  void Stop();

  // Raises the stop flag and wakes the worker without waiting for it, so
  // that several workers can wind down side by side; Stop() then joins.
  void RequestStop();

  // Ends the worker's current SleepUnlessStopped early, or its next one if
  // it is not sleeping now (a wake is never lost). Callable from any thread.
  void Wake();

  // Runs `action(this, copy of arg)` once, serialised with the worker's
  // StateGuard sections. A null `arg` reaches the action as null; otherwise
  // the action gets a private, writable copy of the text.
  void DoAction(Action action, const char* arg);

  // True while a thread started by Start() has not been joined.
  bool IsRunning() const { return started_; }

  static bool InitThreadLock();
  static void DestroyThreadLock();

 protected:
  // The thread body.
  virtual void Run() = 0;

  // Held by the worker around every use of the state that actions touch.
  class StateGuard {
   public:
    explicit StateGuard(Thread* thread);
    ~StateGuard();
    StateGuard(const StateGuard&) = delete;
    StateGuard& operator=(const StateGuard&) = delete;

   private:
    Thread* thread_;
  };

  // Sleeps `millis` milliseconds or until Stop() or Wake() is called,
  // whichever comes first. Returns false when the stop flag is raised.
  bool SleepUnlessStopped(unsigned millis);

  // False while the body should keep running.
  std::atomic<bool> stop_flag;

 private:
  // The pthread start routine; runs Run() on the new thread.
  YULOTIFYD_NO_EXPORT static void* Trampoline(void* self);

  pthread_t thread_;
  bool started_;
  pthread_mutex_t state_mutex_;
  pthread_mutex_t wake_mutex_;
  pthread_cond_t wake_cond_;
  bool wake_requested_;  // guarded by wake_mutex_
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_THREAD_H_
