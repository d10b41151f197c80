#include "forward/forward_clock.h"

#include "base/clock.h"
#include "forward/stop_signals.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

int64_t SignalClock::NowMillis() { return MonotonicMillis(); }

// Sticky: sigtimedwait takes the signal out of the pending set, and every
// later round must still see the stop.
bool SignalClock::StopRequested() {
  if (!stopped_) stopped_ = FORWARD::StopRequested(stop_set_);
  return stopped_;
}

bool SignalClock::WaitForStop(int64_t ms) {
  if (!stopped_) stopped_ = FORWARD::WaitForStop(stop_set_, ms);
  return stopped_;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
