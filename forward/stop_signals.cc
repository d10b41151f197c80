#include "forward/stop_signals.h"

#include <time.h>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

void BlockStopSignals(sigset_t* stop_set) {
  sigemptyset(stop_set);
  sigaddset(stop_set, SIGTERM);
  sigaddset(stop_set, SIGINT);
  sigprocmask(SIG_BLOCK, stop_set, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool StopRequested(const sigset_t& stop_set) {
  sigset_t pending;
  if (sigpending(&pending) != 0) return false;
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sigismember(&stop_set, sig) == 1 && sigismember(&pending, sig) == 1) {
      return true;
    }
  }
  return false;
}

bool WaitForStop(const sigset_t& stop_set, int64_t ms) {
  if (StopRequested(stop_set)) return true;
  if (ms < 0) ms = 0;
  // EINTR (a signal outside the set, handled) or EAGAIN (the time is up)
  // end the wait alike: the caller's next round comes a little early.
  struct timespec ts = {static_cast<time_t>(ms / 1000),
                        static_cast<long>((ms % 1000) * 1000000)};
  return sigtimedwait(&stop_set, nullptr, &ts) > 0;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
