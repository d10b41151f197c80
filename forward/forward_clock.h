// ForwardClock: the forwarder's time and its waits between rounds, which a
// stop signal ends early.
//
// The forwarder's loop (forwarder.h) reads the time and waits through this
// interface, so that its tests move time themselves and ask for a stop
// when they please. SignalClock is the real one: the monotonic clock, and
// waits that SIGTERM or SIGINT cut short.
//
// Thread-safety: one thread uses a clock.
#ifndef YULOTIFYD_FORWARD_FORWARD_CLOCK_H_
#define YULOTIFYD_FORWARD_FORWARD_CLOCK_H_

#include <signal.h>

#include <cstdint>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

class ForwardClock {
 public:
  virtual ~ForwardClock() = default;

  // Milliseconds since an unspecified start; never goes back.
  virtual int64_t NowMillis() = 0;

  // True once a stop was asked for; stays true.
  virtual bool StopRequested() = 0;

  // Waits `ms` milliseconds, less when a stop is asked for meanwhile.
  // True when a stop was asked for (before the call or during it).
  virtual bool WaitForStop(int64_t ms) = 0;
};

// The monotonic clock (base/clock.h) and the signals of `stop_set`, which
// the caller has blocked in every thread (before starting any) so that
// they stay pending until taken here.
class SignalClock : public ForwardClock {
 public:
  explicit SignalClock(const sigset_t& stop_set) : stop_set_(stop_set) {}

  int64_t NowMillis() override;
  bool StopRequested() override;
  bool WaitForStop(int64_t ms) override;

 private:
  sigset_t stop_set_;
  // A stop signal was taken (sigtimedwait takes it off the pending set).
  bool stopped_ = false;
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_FORWARD_CLOCK_H_
