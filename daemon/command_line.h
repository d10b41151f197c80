// The daemon's command line: it takes no argument but --help and
// --version, which answer and end before anything is touched (no lock, no
// socket, no run-status file).
//
// Thread-safety: call from main only.
#ifndef YULOTIFYD_DAEMON_COMMAND_LINE_H_
#define YULOTIFYD_DAEMON_COMMAND_LINE_H_

#include <cstdio>

namespace YULO {
namespace YULOTIFYD {

// What main should do.
enum class CommandLineAction { kRun, kExitOk, kExitUsage };

// Reads argv; for --help or --version writes the answer to `out`, for
// anything else a one-line error to `err`.
CommandLineAction ParseDaemonCommandLine(int argc, const char* const* argv,
                                         std::FILE* out, std::FILE* err);

// The exit status of a usage error.
constexpr int kDaemonExitUsage = 2;

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_COMMAND_LINE_H_
