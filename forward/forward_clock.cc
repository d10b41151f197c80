#include "forward/forward_clock.h"

#include <time.h>

#include "base/clock.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

int64_t SignalClock::NowMillis() { return MonotonicMillis(); }

bool SignalClock::StopRequested() {
  if (stopped_) return true;
  sigset_t pending;
  if (sigpending(&pending) != 0) return false;
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sigismember(&stop_set_, sig) == 1 && sigismember(&pending, sig) == 1) {
      stopped_ = true;
      break;
    }
  }
  return stopped_;
}

bool SignalClock::WaitForStop(int64_t ms) {
  if (StopRequested()) return true;
  if (ms < 0) ms = 0;
  const struct timespec wait = {static_cast<time_t>(ms / 1000),
                                static_cast<long>((ms % 1000) * 1000000)};
  // EINTR (a signal outside the set, handled) or EAGAIN (the time is up)
  // end the wait alike: the caller's next round comes a little early.
  if (sigtimedwait(&stop_set_, nullptr, &wait) > 0) stopped_ = true;
  return stopped_;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
