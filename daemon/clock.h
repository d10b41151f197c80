// MonotonicClock: where the daemon core reads the time from.
//
// The settling of followed changes and the uptime in "status" read the
// monotonic clock through this interface, so that tests can step time
// forward (testing/fake_clock.h) instead of waiting for it. Deadlines that
// are handed to the kernel or to worker threads (client time-outs, volume
// drains) keep using the real clock.
//
// Thread-safety: SystemClock() may be read from any thread.
#ifndef YULOTIFYD_DAEMON_CLOCK_H_
#define YULOTIFYD_DAEMON_CLOCK_H_

#include <chrono>
#include <cstdint>

namespace YULO {
namespace YULOTIFYD {

class MonotonicClock {
 public:
  virtual ~MonotonicClock() = default;
  virtual std::chrono::steady_clock::time_point Now() const = 0;

  // Now() in milliseconds since the clock's epoch.
  int64_t NowMillis() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               Now().time_since_epoch())
        .count();
  }
};

// std::chrono::steady_clock. Lives for the whole program.
const MonotonicClock& SystemClock();

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_CLOCK_H_
