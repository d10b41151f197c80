// SIGTERM and SIGINT as the forwarder's programs take them: blocked in
// every thread (block them before the NATS library starts its threads, so
// that they inherit the mask) and taken by the main thread with
// sigpending and sigtimedwait between two pieces of work.
//
// Thread-safety: BlockStopSignals changes the calling thread's mask; the
// others only read the process's pending signals.
#ifndef YULOTIFYD_FORWARD_STOP_SIGNALS_H_
#define YULOTIFYD_FORWARD_STOP_SIGNALS_H_

#include <signal.h>

#include <cstdint>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

// Blocks SIGTERM and SIGINT and puts them in `stop_set`; ignores SIGPIPE.
void BlockStopSignals(sigset_t* stop_set);

// Whether a signal of `stop_set` is pending (any member, not only the two
// BlockStopSignals puts there).
bool StopRequested(const sigset_t& stop_set);

// Sleeps up to `ms`; true when a stop signal came (or was pending).
bool WaitForStop(const sigset_t& stop_set, int64_t ms);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_STOP_SIGNALS_H_
