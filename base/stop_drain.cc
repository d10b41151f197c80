#include "base/stop_drain.h"

namespace YULO {
namespace YULOTIFYD {

void StopDrain::RequestStop(TimePoint deadline) {
  deadline_ = deadline;
  requested_ = true;
  raise_stop_();
}

bool StopDrain::Finish() {
  if (!requested_) return false;
  drained_.store(step_(deadline_));
  return true;
}

}  // namespace YULOTIFYD
}  // namespace YULO
