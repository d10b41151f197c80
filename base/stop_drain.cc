#include "base/stop_drain.h"

namespace YULO {
namespace YULOTIFYD {

void StopDrain::Request(TimePoint deadline) {
  deadline_ = deadline;
  requested_ = true;
}

bool StopDrain::Finish() {
  if (!requested_) return false;
  drained_.store(step_(deadline_));
  return true;
}

}  // namespace YULOTIFYD
}  // namespace YULO
