// The work of yulotify-sink once its options are read: taking its user,
// then the loop that fetches a batch of messages, writes it (SinkWriter)
// and acknowledges it, until SIGTERM or SIGINT.
//
// Thread-safety: call from the main thread, with SIGTERM and SIGINT
// blocked in every thread (they are taken with sigtimedwait).
#ifndef YULOTIFYD_FORWARD_SINK_RUN_H_
#define YULOTIFYD_FORWARD_SINK_RUN_H_

#include <signal.h>

#include "forward/sink_options.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

constexpr int kSinkExitOk = 0;
constexpr int kSinkExitFailed = 1;
constexpr int kSinkExitUsage = 2;
constexpr int kSinkExitSecretFile = 4;

// Checks where the queue file is and, started as root, becomes the user
// the sink writes as (startup.h: the named user, or the owner of the
// queue file's directory, or of the queue file). Returns an exit status,
// or -1 to go on.
int TakeSinkIdentity(const SinkOptions& options);

// Runs until a stop signal in `stop_set`; returns the exit status.
// REQUIRES: options.connection is loaded.
int RunSink(const SinkOptions& options, const sigset_t& stop_set);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_SINK_RUN_H_
