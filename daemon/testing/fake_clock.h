// FakeClock: a monotonic clock that only moves when a test moves it.
//
// Thread-safety: none; tests read and move it on one thread.
#ifndef YULOTIFYD_DAEMON_TESTING_FAKE_CLOCK_H_
#define YULOTIFYD_DAEMON_TESTING_FAKE_CLOCK_H_

#include <chrono>

#include "daemon/clock.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

class FakeClock : public MonotonicClock {
 public:
  // Starts well away from the clock's epoch, as a real one does.
  FakeClock() : now_(std::chrono::hours(1)) {}

  std::chrono::steady_clock::time_point Now() const override { return now_; }
  void Advance(std::chrono::milliseconds by) { now_ += by; }

 private:
  std::chrono::steady_clock::time_point now_;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_TESTING_FAKE_CLOCK_H_
