// What yulotifyctl's subcommands share: exit statuses, error reporting,
// the splitting of a command line into options and arguments, the report of
// a daemon's answer, and one entry point per command.
//
// Each group of commands lives in its own file (ctl_commands.cc for the
// control commands, ctl_status.cc, ctl_consume.cc for consume and peek,
// ctl_queues.cc, ctl_check.cc); yulotifyctl.cc holds the table that
// dispatches to them.
//
// Thread-safety: single-threaded program; nothing here is meant to be called
// from more than one thread.
#ifndef YULOTIFYD_TOOLS_CTL_H_
#define YULOTIFYD_TOOLS_CTL_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "yulo_build_config.h"
#include "yulotifyd/control_client.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreachable = 3;

constexpr const char kProgram[] = "yulotifyctl";
// The longest pause or wait any option accepts: a day.
constexpr int kMaxIntervalMs = 24 * 3600 * 1000;

// ---------------------------------------------------------------------------
// Reporting.

// "yulotifyctl: <message>" on stderr.
void Error(const std::string& message);

// Reports a usage error of `command` ("" before any command) with a hint at
// its help; returns kExitUsage.
int UsageError(const std::string& command, const std::string& message);

// Parses a whole decimal number in [min, max] into `out`. False, leaving
// `out` alone, for anything else.
bool ParseNumber(const std::string& text, long long min, long long max,
                 long long* out);

// ---------------------------------------------------------------------------
// Command lines.

struct Globals {
  std::string socket_path = YULOTIFYD_SOCKET_PATH;
  int timeout_ms = ControlClient::kDefaultTimeoutMs;
};

// A command's arguments once the options it knows have been taken out.
struct Args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;  // name -> value ("" flags)
  bool help = false;
};

// Splits `argv` into options and positional arguments. `flags` take no
// value, `valued` take one (as the next argument or after "="). "--" ends
// the options. With `globals` given, --socket and --timeout are taken too
// and stored there. Returns false, having reported and set `status`, on an
// unknown option or a bad value.
bool SplitArgs(const std::string& command, const std::vector<std::string>& argv,
               const std::vector<std::string>& flags,
               const std::vector<std::string>& valued, Globals* globals,
               Args* args, int* status);

// Reports the outcome of request `what` sent through `client`: nothing when
// the daemon answered 0, else one line on stderr. Returns the exit status.
int Report(const ControlClient& client, const std::string& what,
           const ControlResult& result);

// ---------------------------------------------------------------------------
// Commands. Each returns the exit status; `args` hold what SplitArgs left.

// Sent to the daemon (ctl_commands.cc).
extern const char kSetLogLevelHelp[];
extern const char kNotifyHelp[];
extern const char kMountShareHelp[];
extern const char kUmountShareHelp[];
extern const char kMountVolumeHelp[];
extern const char kUmountVolumeHelp[];
extern const char kSendHelp[];
int RunSetLogLevel(const Globals& globals, const Args& args);
int RunNotify(const Globals& globals, const Args& args);
// mount-share, umount-share, mount-volume, umount-volume: command `cmd`
// sends request `type` with its one argument (called `what` in messages)
// as member `key`.
int RunOneArgument(const Globals& globals, const Args& args,
                   const std::string& cmd, const std::string& type,
                   const std::string& key, const std::string& what);
int RunSend(const Globals& globals, const Args& args);

// ctl_status.cc.
extern const char kStatusHelp[];
int RunStatus(const Globals& globals, const Args& args);

// Local, on queue files (ctl_consume.cc).
extern const char kConsumeHelp[];
extern const char kPeekHelp[];
int RunConsume(const Args& args);
int RunPeek(const Args& args);

// Local, on the monitor-queue configuration (ctl_queues.cc, ctl_check.cc).
extern const char kQueuesHelp[];
int RunQueues(const Args& args);
extern const char kCheckHelp[];
int RunCheck(const Args& args);
// "system", "app" or "user" for a MONITOR_QUEUE_TYPE.
const char* QueueTypeName(int type);

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_TOOLS_CTL_H_
