// yulotifyctl: command-line client of yulotifyd.
//
// Sends control commands over the daemon's socket, consumes queue files the
// way every consumer should (or shows their lines without taking them), and
// shows how the daemon would read the monitor-queue configuration. Everything it does goes through
// libyulotifyd (ControlClient, QueueConsumer, MonitorQueue).
//
// Exit status: 0 the daemon answered 0 (or a local command succeeded),
// 1 the daemon answered -1 (or a local command failed), 2 usage error,
// 3 the daemon could not be reached, did not answer, or does not serve this
// caller (permission denied).
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <json/json.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "yulo_build_config.h"
#include "yulotifyd/control_client.h"
#include "yulotifyd/monitor_queue.h"
#include "yulotifyd/queue_consumer.h"
#include "tools/status_format.h"

namespace {

using YULO::YULOTIFYD::ControlClient;
using YULO::YULOTIFYD::ControlResult;
using YULO::YULOTIFYD::MonitorQueue;
using YULO::YULOTIFYD::QueueConsumer;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreachable = 3;

constexpr const char kProgram[] = "yulotifyctl";
constexpr int kDefaultIntervalMs = 1000;
constexpr int kMaxIntervalMs = 24 * 3600 * 1000;

struct EventName {
  const char* name;
  uint32_t code;
};

// The queue event codes by the names monitor-queue files use.
constexpr EventName kEventNames[] = {
    {"access", 1},   {"modify", 2},        {"attrib", 4},
    {"close_write", 8}, {"close_nowrite", 16}, {"open", 32},
    {"create", 64},  {"delete", 128},      {"move", 256},
    {"rescan", 512},
};
constexpr uint32_t kMoveCode = 256;

// ---------------------------------------------------------------------------
// Help texts.

const char kGeneralHelp[] =
    "usage: yulotifyctl [--socket PATH] [--timeout MS] COMMAND [ARGS...]\n"
    "\n"
    "Controls a running yulotifyd and reads its queue files.\n"
    "\n"
    "Commands sent to the daemon:\n"
    "  set-log-level LEVEL          debug, info or error\n"
    "  notify EVENT PATH [OLD_PATH] inject a file-system event\n"
    "  mount-share NAME             a shared folder was mounted\n"
    "  umount-share NAME            a shared folder was unmounted\n"
    "  mount-volume MOUNT_POINT     a volume was mounted\n"
    "  umount-volume MOUNT_POINT    a volume was unmounted\n"
    "  send JSON                    send a raw command text\n"
    "  status [--json|--prometheus] what the daemon watches and counts\n"
    "\n"
    "Local commands:\n"
    "  consume QUEUE_FILE [--follow] [--interval MS]\n"
    "                               take and print the lines of a queue file\n"
    "  peek QUEUE_FILE [--lock-timeout MS]\n"
    "                               print the lines of a queue file, leaving "
    "them there\n"
    "  queues [--conf-root DIR] [--json]\n"
    "                               list the monitor queues as the daemon "
    "would load them\n"
    "  help [COMMAND]               this text, or a command's\n"
    "\n"
    "Options:\n"
    "  --socket PATH   the daemon's control socket (default "
    YULOTIFYD_SOCKET_PATH ")\n"
    "  --timeout MS    how long to wait for the daemon in all (default 10000)\n"
    "  -h, --help      help; after a command, that command's help\n"
    "  --version       print the version\n"
    "\n"
    "Exit status: 0 the daemon answered 0 (or the local command worked),\n"
    "1 the daemon answered -1 (or the local command failed), 2 usage error,\n"
    "3 the daemon could not be reached or did not answer, or this user may\n"
    "not use it (only root and the members of the socket's group may).\n";

const char kSetLogLevelHelp[] =
    "usage: yulotifyctl [--socket PATH] set-log-level debug|info|error\n"
    "\n"
    "Sets the daemon's log verbosity: error logs failures only, info adds\n"
    "progress lines (one \"Got command\" line per command, for example),\n"
    "debug adds tracing. The level lasts until the daemon stops.\n";

const char kNotifyHelp[] =
    "usage: yulotifyctl [--socket PATH] notify EVENT PATH [OLD_PATH]\n"
    "\n"
    "Offers an event to every volume manager of the daemon, as if the kernel\n"
    "had reported it; the manager whose shares hold PATH queues it.\n"
    "\n"
    "EVENT is a queue event code, as a number or a name:\n"
    "  create 64, delete 128, move 256, modify 2, attrib 4, close_write 8,\n"
    "  rescan 512 (also access 1, close_nowrite 16, open 32).\n"
    "PATH is absolute. OLD_PATH is given exactly when EVENT includes move:\n"
    "the entry moved from OLD_PATH to PATH.\n"
    "\n"
    "The daemon answers 0 whether or not any manager took the event.\n";

const char kMountShareHelp[] =
    "usage: yulotifyctl [--socket PATH] mount-share NAME\n"
    "\n"
    "Tells the daemon that the shared folder NAME was mounted. Fails (exit 1)\n"
    "when no volume manager serves the share: an unknown share, or one on a\n"
    "volume the daemon does not watch.\n";

const char kUmountShareHelp[] =
    "usage: yulotifyctl [--socket PATH] umount-share NAME\n"
    "\n"
    "Tells the daemon that the shared folder NAME was unmounted. Fails\n"
    "(exit 1) when no volume manager serves the share.\n";

const char kMountVolumeHelp[] =
    "usage: yulotifyctl [--socket PATH] mount-volume MOUNT_POINT\n"
    "\n"
    "Tells the daemon that a volume was mounted at MOUNT_POINT, so that it\n"
    "starts watching it. USB volumes are not watched. The daemon answers 0\n"
    "even when it cannot use the mount point; its syslog says why.\n";

const char kUmountVolumeHelp[] =
    "usage: yulotifyctl [--socket PATH] umount-volume MOUNT_POINT\n"
    "\n"
    "Tells the daemon that the volume at MOUNT_POINT is going away, so that\n"
    "it stops watching it. An unknown mount point is ignored (answer 0).\n";

const char kSendHelp[] =
    "usage: yulotifyctl [--socket PATH] send JSON\n"
    "\n"
    "Sends JSON unchanged as the command text, e.g.\n"
    "  yulotifyctl send '{\"type\": \"set_log_level\", "
    "\"data\": {\"log_level\": \"info\"}}'\n"
    "The text is not checked here; the daemon answers -1 to anything it\n"
    "cannot carry out.\n";

const char kStatusHelp[] =
    "usage: yulotifyctl [--socket PATH] status [--json | --prometheus]\n"
    "\n"
    "Asks the daemon what it watches and counts: its version, uptime, kernel\n"
    "backend and log level; per volume the watched shares, events read and\n"
    "queued, lines written, kernel overflows and rescan lines; per queue file\n"
    "the lines written and kept, its state (ok, busy, failing, reset) and\n"
    "its last error. A table by default.\n"
    "\n"
    "  --json        the daemon's object as it came\n"
    "  --prometheus  the counters in the Prometheus text format, for\n"
    "                node_exporter's textfile collector\n"
    "\n"
    "Exit status 0 when the daemon answered, 3 when it cannot be reached.\n";

const char kConsumeHelp[] =
    "usage: yulotifyctl consume QUEUE_FILE [--follow] [--interval MS]\n"
    "                           [--lock-timeout MS]\n"
    "\n"
    "Takes every complete line from a queue file and prints it on stdout:\n"
    "locks the file (exclusive flock), reads it, empties it (an unfinished\n"
    "last line stays in the file), unlocks it, and only then prints. The\n"
    "lock is never held for longer than that one read and one truncation,\n"
    "since the daemon drops an event when the file stays locked.\n"
    "\n"
    "A missing file has no lines yet. Lines are taken from the file before\n"
    "they are printed: if stdout fails they are lost, which is reported.\n"
    "\n"
    "  --follow           repeat until interrupted (SIGINT or SIGTERM)\n"
    "  --interval MS      pause between two rounds with --follow "
    "(default 1000)\n"
    "  --lock-timeout MS  give up when others hold the lock this long\n"
    "                     (default 5000); with --follow the round is retried\n";

const char kPeekHelp[] =
    "usage: yulotifyctl peek QUEUE_FILE [--lock-timeout MS]\n"
    "\n"
    "Prints the complete lines of a queue file on stdout and leaves them in\n"
    "the file: nothing is taken, the file is only read (its content and\n"
    "modification time stay as they were). It reads under a shared flock,\n"
    "so a line the daemon is writing is shown whole or not at all, and it\n"
    "holds the lock for that one read only. An unfinished last line is not\n"
    "shown (a note on stderr says it is there).\n"
    "\n"
    "A missing file is an error (exit 1), as is a file that cannot be read.\n"
    "\n"
    "  --lock-timeout MS  give up when others hold the lock this long\n"
    "                     (default 5000)\n";

const char kQueuesHelp[] =
    "usage: yulotifyctl queues [--conf-root DIR] [--json]\n"
    "\n"
    "Lists the monitor queues as the daemon would load them now: each\n"
    "configuration file with its queue file and its monitors, each monitor\n"
    "with the share's resolved path, and the reason for every file or\n"
    "monitor the daemon would skip. Shares are resolved the way the daemon\n"
    "resolves them, so run it where the daemon runs.\n"
    "\n"
    "  --conf-root DIR  configuration root (default " YULOTIFYD_CONF_DIR ")\n"
    "  --json           one JSON object instead of text\n";

// ---------------------------------------------------------------------------
// Reporting.

void Error(const std::string& message) {
  std::cerr << kProgram << ": " << message << std::endl;
}

int UsageError(const std::string& command, const std::string& message) {
  if (command.empty()) {
    Error(message + "; try 'yulotifyctl --help'");
  } else {
    Error(command + ": " + message + "; try 'yulotifyctl " + command +
          " --help'");
  }
  return kExitUsage;
}

// Parses a whole decimal number in [min, max].
bool ParseNumber(const std::string& text, long long min, long long max,
                 long long* out) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  if (text.size() > 18) return false;
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  if (value < min || value > max) return false;
  *out = value;
  return true;
}

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
// the options. Returns false, having reported, on an unknown option.
bool SplitArgs(const std::string& command, const std::vector<std::string>& argv,
               const std::vector<std::string>& flags,
               const std::vector<std::string>& valued, Globals* globals,
               Args* args, int* status) {
  auto is_in = [](const std::vector<std::string>& v, const std::string& s) {
    for (const std::string& x : v) {
      if (x == s) return true;
    }
    return false;
  };
  bool options_done = false;
  for (size_t i = 0; i < argv.size(); ++i) {
    const std::string& arg = argv[i];
    if (options_done || arg.size() < 2 || arg[0] != '-') {
      args->positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_done = true;
      continue;
    }
    if (arg == "-h" || arg == "--help") {
      args->help = true;
      continue;
    }
    std::string name = arg;
    std::string value;
    bool has_value = false;
    const size_t eq = arg.find('=');
    if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      has_value = true;
    }
    const bool global = globals != nullptr &&
                        (name == "--socket" || name == "--timeout");
    if (is_in(flags, name) && !has_value) {
      args->options[name] = "";
      continue;
    }
    if (is_in(valued, name) || global) {
      if (!has_value) {
        if (i + 1 >= argv.size()) {
          *status = UsageError(command, name + " needs a value");
          return false;
        }
        value = argv[++i];
      }
      if (global) {
        if (name == "--socket") {
          globals->socket_path = value;
        } else {
          long long ms = 0;
          if (!ParseNumber(value, 1, kMaxIntervalMs, &ms)) {
            *status = UsageError(command, "--timeout wants milliseconds, "
                                          "not \"" + value + "\"");
            return false;
          }
          globals->timeout_ms = static_cast<int>(ms);
        }
      } else {
        args->options[name] = value;
      }
      continue;
    }
    *status = UsageError(command, "unknown option " + arg);
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Commands sent to the daemon.

// What the daemon's -1 most likely means, for the one-line message.
std::string RefusalHint(const std::string& type) {
  if (type == "mount_share" || type == "umount_share") {
    return "no volume manager serves that share (unknown share, or its "
           "volume is not watched); the daemon's syslog has the details";
  }
  if (type == "set_log_level") {
    return "the daemon does not know that level";
  }
  if (type == "status") {
    return "a yulotifyd too old to know the status command?";
  }
  return "the daemon's syslog says why";
}

int Report(const ControlClient& client, const std::string& what,
           const ControlResult& result) {
  using Status = ControlResult::Status;
  switch (result.status) {
    case Status::kAnswered:
      if (result.reply == 0) return kExitOk;
      if (result.reply == -1) {
        Error(what + " failed: yulotifyd answered -1; " + RefusalHint(what));
      } else {
        Error(what + ": unexpected answer " + std::to_string(result.reply) +
              " from yulotifyd (a different protocol version?)");
      }
      return kExitFailed;
    case Status::kInvalidRequest:
      Error(what + ": " + result.message);
      return kExitUsage;
    case Status::kUnreachable: {
      std::string hint;
      if (result.error == ENOENT || result.error == ECONNREFUSED) {
        hint = " (is yulotifyd running? --socket PATH names another socket)";
      }
      Error(result.message + hint);
      return kExitUnreachable;
    }
    case Status::kDenied:
      Error(result.message);
      return kExitUnreachable;
    case Status::kTimedOut:
      Error(result.message + " (waited " +
            std::to_string(client.timeout_ms()) +
            " ms; yulotifyd is busy or hung, try again or raise --timeout)");
      return kExitUnreachable;
    case Status::kSendFailed:
    case Status::kNoReply:
      Error(result.message + " (did yulotifyd stop? check its syslog)");
      return kExitUnreachable;
  }
  return kExitUnreachable;
}

int SendCommand(const Globals& globals, const std::string& type,
                const Json::Value& data) {
  const ControlClient client(globals.socket_path, globals.timeout_ms);
  return Report(client, type, client.Send(type, data));
}

int RunSetLogLevel(const Globals& globals, const Args& args) {
  const std::string cmd = "set-log-level";
  if (args.positional.size() != 1) {
    return UsageError(cmd, "expects exactly one LEVEL");
  }
  const std::string& level = args.positional[0];
  if (level != "debug" && level != "info" && level != "error") {
    return UsageError(cmd, "unknown level \"" + level +
                               "\" (debug, info or error)");
  }
  Json::Value data(Json::objectValue);
  data["log_level"] = level;
  return SendCommand(globals, "set_log_level", data);
}

bool ParseEvent(const std::string& text, uint32_t* code) {
  for (const EventName& e : kEventNames) {
    if (text == e.name) {
      *code = e.code;
      return true;
    }
  }
  long long value = 0;
  if (!ParseNumber(text, 0, 0xffffffffLL, &value)) return false;
  *code = static_cast<uint32_t>(value);
  return true;
}

int RunNotify(const Globals& globals, const Args& args) {
  const std::string cmd = "notify";
  if (args.positional.size() < 2 || args.positional.size() > 3) {
    return UsageError(cmd, "expects EVENT PATH [OLD_PATH]");
  }
  uint32_t event = 0;
  if (!ParseEvent(args.positional[0], &event)) {
    return UsageError(cmd, "unknown event \"" + args.positional[0] +
                               "\" (a number, or create, delete, move, "
                               "modify, attrib, close_write, rescan)");
  }
  const std::string& path = args.positional[1];
  const bool has_old = args.positional.size() == 3;
  if (path.empty() || path[0] != '/') {
    return UsageError(cmd, "PATH must be absolute");
  }
  if ((event & kMoveCode) != 0 && !has_old) {
    return UsageError(cmd, "a move needs OLD_PATH, the path before the move");
  }
  if ((event & kMoveCode) == 0 && has_old) {
    return UsageError(cmd, "OLD_PATH goes only with a move");
  }
  if (has_old && (args.positional[2].empty() || args.positional[2][0] != '/')) {
    return UsageError(cmd, "OLD_PATH must be absolute");
  }
  Json::Value data(Json::objectValue);
  data["event"] = Json::Value(static_cast<Json::UInt>(event));
  data["path"] = path;
  if (has_old) data["path_old"] = args.positional[2];
  return SendCommand(globals, "notify", data);
}

// mount-share, umount-share, mount-volume, umount-volume: one argument.
int RunOneArgument(const Globals& globals, const Args& args,
                   const std::string& cmd, const std::string& type,
                   const std::string& key, const std::string& what) {
  if (args.positional.size() != 1) {
    return UsageError(cmd, "expects exactly one " + what);
  }
  if (args.positional[0].empty()) return UsageError(cmd, what + " is empty");
  Json::Value data(Json::objectValue);
  data[key] = args.positional[0];
  return SendCommand(globals, type, data);
}

int RunSend(const Globals& globals, const Args& args) {
  if (args.positional.size() != 1) {
    return UsageError("send", "expects exactly one JSON argument");
  }
  const ControlClient client(globals.socket_path, globals.timeout_ms);
  return Report(client, "send", client.SendRaw(args.positional[0]));
}

// ---------------------------------------------------------------------------
// consume

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) { g_stop = 1; }

// SIGINT and SIGTERM end --follow between two rounds; without SA_RESTART a
// pause is cut short at once.
void InstallStopHandlers() {
  struct sigaction sa;
  memset(&sa, 0, sizeof(sa));
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

void SleepMs(int ms) {
  struct timespec pause = {ms / 1000, static_cast<long>(ms % 1000) * 1000000};
  // An interrupting signal ends the pause; the caller checks g_stop.
  nanosleep(&pause, nullptr);
}

// Writes the lines to stdout. False when stdout failed.
bool PrintLines(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) {
    out += line;
    out += '\n';
  }
  size_t done = 0;
  while (done < out.size()) {
    const ssize_t n = write(STDOUT_FILENO, out.data() + done, out.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// The --lock-timeout of consume and peek. False, having reported, when it
// is not a number of milliseconds.
bool LockTimeout(const std::string& cmd, const Args& args, int* timeout_ms,
                 int* status) {
  long long ms = QueueConsumer::kDefaultLockTimeoutMs;
  const auto it = args.options.find("--lock-timeout");
  if (it != args.options.end() &&
      !ParseNumber(it->second, 1, kMaxIntervalMs, &ms)) {
    *status = UsageError(cmd, "--lock-timeout wants milliseconds (1 or "
                              "more), not \"" + it->second + "\"");
    return false;
  }
  *timeout_ms = static_cast<int>(ms);
  return true;
}

int RunConsume(const Args& args) {
  const std::string cmd = "consume";
  if (args.positional.size() != 1) {
    return UsageError(cmd, "expects exactly one QUEUE_FILE");
  }
  const bool follow = args.options.count("--follow") != 0;
  long long interval = kDefaultIntervalMs;
  if (args.options.count("--interval") != 0) {
    if (!ParseNumber(args.options.at("--interval"), 1, kMaxIntervalMs,
                     &interval)) {
      return UsageError(cmd, "--interval wants milliseconds (1 or more), "
                             "not \"" + args.options.at("--interval") + "\"");
    }
    if (!follow) return UsageError(cmd, "--interval goes with --follow");
  }
  int lock_timeout = 0;
  int status = kExitOk;
  if (!LockTimeout(cmd, args, &lock_timeout, &status)) return status;
  // A closed stdout must not kill us between taking lines and reporting
  // that they could not be written.
  signal(SIGPIPE, SIG_IGN);
  if (follow) InstallStopHandlers();

  const QueueConsumer consumer(args.positional[0], lock_timeout);
  for (;;) {
    const QueueConsumer::Result result = consumer.Consume();
    if (!result.ok) {
      const bool retry = follow && result.error == EWOULDBLOCK;
      Error("cannot consume " + consumer.queue_path() + ": " +
            result.message +
            (retry ? " (retrying)" : " (nothing was taken from it)"));
      if (!retry) return kExitFailed;
    } else {
      if (!result.message.empty()) Error("warning: " + result.message);
      if (!PrintLines(result.lines)) {
        Error("cannot write to stdout: " + std::string(strerror(errno)) +
              "; " + std::to_string(result.lines.size()) +
              " line(s) taken from " + consumer.queue_path() + " are lost");
        return kExitFailed;
      }
    }
    if (!follow || g_stop) return kExitOk;
    SleepMs(static_cast<int>(interval));
    if (g_stop) return kExitOk;
  }
}

// ---------------------------------------------------------------------------
// peek

int RunPeek(const Args& args) {
  const std::string cmd = "peek";
  if (args.positional.size() != 1) {
    return UsageError(cmd, "expects exactly one QUEUE_FILE");
  }
  int lock_timeout = 0;
  int status = kExitOk;
  if (!LockTimeout(cmd, args, &lock_timeout, &status)) return status;
  signal(SIGPIPE, SIG_IGN);  // a closed stdout is reported, not fatal

  const QueueConsumer queue(args.positional[0], lock_timeout);
  const QueueConsumer::Result result = queue.Peek();
  if (!result.ok) {
    Error("cannot peek at " + queue.queue_path() + ": " + result.message);
    return kExitFailed;
  }
  if (!PrintLines(result.lines)) {
    Error("cannot write to stdout: " + std::string(strerror(errno)));
    return kExitFailed;
  }
  if (result.kept_partial_line) {
    Error("note: " + queue.queue_path() +
          " ends in an unfinished line, not shown");
  }
  return kExitOk;
}

// ---------------------------------------------------------------------------
// queues

const char* TypeName(int type) {
  switch (type) {
    case YULO::YULOTIFYD::MONITOR_QUEUE_TYPE_SYSTEM:
      return "system";
    case YULO::YULOTIFYD::MONITOR_QUEUE_TYPE_APP:
      return "app";
    case YULO::YULOTIFYD::MONITOR_QUEUE_TYPE_USER:
      return "user";
  }
  return "?";
}

std::string EventNames(uint32_t events) {
  if ((events & 1023u) == 1023u) return "all";
  if (events == 0) return "none";
  std::string names;
  for (const EventName& e : kEventNames) {
    if ((events & e.code) == 0) continue;
    if (!names.empty()) names += ",";
    names += e.name;
  }
  return names;
}

int RunQueues(const Args& args) {
  const std::string cmd = "queues";
  if (!args.positional.empty()) {
    return UsageError(cmd, "takes no arguments");
  }
  std::string conf_root = YULOTIFYD_CONF_DIR;
  if (args.options.count("--conf-root") != 0) {
    conf_root = args.options.at("--conf-root");
    if (conf_root.empty()) return UsageError(cmd, "--conf-root is empty");
  }
  const bool json = args.options.count("--json") != 0;

  std::vector<MonitorQueue::DirReport> dirs;
  const std::vector<MonitorQueue::FileReport> files = MonitorQueue::Describe(
      conf_root, &MonitorQueue::ResolveSharePath, &dirs);
  int loaded = 0;
  for (const auto& f : files) loaded += f.loaded ? 1 : 0;

  if (json) {
    Json::Value root(Json::objectValue);
    root["conf_root"] = conf_root;
    root["dirs"] = Json::Value(Json::arrayValue);
    for (const auto& d : dirs) {
      Json::Value v(Json::objectValue);
      v["type"] = TypeName(d.type);
      v["dir"] = d.dir;
      v["exists"] = d.exists;
      if (!d.error.empty()) v["error"] = d.error;
      root["dirs"].append(v);
    }
    root["files"] = Json::Value(Json::arrayValue);
    for (const auto& f : files) {
      Json::Value v(Json::objectValue);
      v["file"] = f.file;
      v["type"] = TypeName(f.type);
      v["loaded"] = f.loaded;
      if (!f.loaded) {
        v["reason"] = f.reason;
      } else {
        v["queue"] = f.queue_path;
        v["owner_uid"] = static_cast<Json::UInt>(f.owner_uid);
        v["owner_gid"] = static_cast<Json::UInt>(f.owner_gid);
        v["monitors"] = Json::Value(Json::arrayValue);
        for (const auto& m : f.monitors) {
          Json::Value mv(Json::objectValue);
          mv["index"] = m.index;
          mv["loaded"] = m.loaded;
          if (!m.loaded) {
            mv["reason"] = m.reason;
          } else {
            mv["share"] = m.config.share;
            mv["share_path"] = m.config.share_path;
            mv["dir"] = m.config.dir;
            mv["directory"] = m.config.directory;
            mv["recursive"] = m.config.recursive;
            mv["events"] = m.config.events;
          }
          v["monitors"].append(mv);
        }
      }
      root["files"].append(v);
    }
    root["queues"] = loaded;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::cout << Json::writeString(builder, root) << std::endl;
    return std::cout.good() ? kExitOk : kExitFailed;
  }

  for (const auto& d : dirs) {
    if (!d.exists) {
      std::cout << "(" << d.dir << " does not exist)\n";
    } else if (!d.error.empty()) {
      std::cout << "(" << d.dir << " cannot be read: " << d.error << ")\n";
    }
  }
  for (const auto& f : files) {
    std::cout << f.file << "\n";
    if (!f.loaded) {
      std::cout << "  skipped: " << f.reason << "\n";
      continue;
    }
    std::cout << "  queue " << f.queue_path;
    if (f.owner_uid != 0) {
      std::cout << ", written as uid " << f.owner_uid << " gid "
                << f.owner_gid;
    }
    std::cout << "\n";
    if (f.monitors.empty()) std::cout << "  no monitors\n";
    for (const auto& m : f.monitors) {
      std::cout << "  monitors[" << m.index << "] ";
      if (!m.loaded) {
        std::cout << "skipped: " << m.reason << "\n";
        continue;
      }
      const auto& c = m.config;
      std::cout << "share \"" << c.share << "\" at " << c.share_path
                << ", dir \"" << c.dir << "\", "
                << (c.recursive ? "recursive" : "not recursive")
                << ", events " << c.events << " (" << EventNames(c.events)
                << ")";
      if (c.directory.empty()) {
        std::cout << ": matches nothing";
      } else {
        std::cout << ": watches " << c.directory;
      }
      std::cout << "\n";
    }
  }
  std::cout << loaded << (loaded == 1 ? " queue" : " queues") << " from "
            << files.size() << (files.size() == 1 ? " file" : " files")
            << " under " << conf_root << std::endl;
  return std::cout.good() ? kExitOk : kExitFailed;
}

// ---------------------------------------------------------------------------
// Dispatch.

struct Command {
  const char* name;
  const char* help;
  std::vector<std::string> flags;
  std::vector<std::string> valued;
  bool talks_to_daemon;
  std::function<int(const Globals&, const Args&)> run;
};

int RunStatus(const Globals& globals, const Args& args) {
  const std::string cmd = "status";
  if (!args.positional.empty()) return UsageError(cmd, "takes no arguments");
  const bool json = args.options.count("--json") != 0;
  const bool prometheus = args.options.count("--prometheus") != 0;
  if (json && prometheus) {
    return UsageError(cmd, "--json and --prometheus exclude each other");
  }
  const ControlClient client(globals.socket_path, globals.timeout_ms);
  Json::Value status;
  const ControlResult result = client.Status(&status);
  if (!result.ok()) return Report(client, "status", result);
  if (json) {
    std::cout << status.toStyledString();
  } else if (prometheus) {
    std::cout << YULO::YULOTIFYD::StatusPrometheus(status);
  } else {
    std::cout << YULO::YULOTIFYD::StatusTable(status);
  }
  std::cout.flush();
  return std::cout.good() ? kExitOk : kExitFailed;
}

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"set-log-level", kSetLogLevelHelp, {}, {}, true, RunSetLogLevel},
      {"notify", kNotifyHelp, {}, {}, true, RunNotify},
      {"mount-share", kMountShareHelp, {}, {}, true,
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "mount-share", "mount_share",
                               "share_name", "NAME");
       }},
      {"umount-share", kUmountShareHelp, {}, {}, true,
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "umount-share", "umount_share",
                               "share_name", "NAME");
       }},
      {"mount-volume", kMountVolumeHelp, {}, {}, true,
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "mount-volume", "mount_volume",
                               "mount_point", "MOUNT_POINT");
       }},
      {"umount-volume", kUmountVolumeHelp, {}, {}, true,
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "umount-volume", "umount_volume",
                               "mount_point", "MOUNT_POINT");
       }},
      {"send", kSendHelp, {}, {}, true, RunSend},
      {"status", kStatusHelp, {"--json", "--prometheus"}, {}, true, RunStatus},
      {"consume", kConsumeHelp, {"--follow"},
       {"--interval", "--lock-timeout"}, false,
       [](const Globals&, const Args& a) { return RunConsume(a); }},
      {"peek", kPeekHelp, {}, {"--lock-timeout"}, false,
       [](const Globals&, const Args& a) { return RunPeek(a); }},
      {"queues", kQueuesHelp, {"--json"}, {"--conf-root"}, false,
       [](const Globals&, const Args& a) { return RunQueues(a); }},
  };
  return commands;
}

const Command* FindCommand(const std::string& name) {
  for (const Command& c : Commands()) {
    if (name == c.name) return &c;
  }
  return nullptr;
}

int Main(int argc, char** argv) {
  std::vector<std::string> all(argv + 1, argv + argc);
  Globals globals;

  // Global options, up to the command.
  size_t i = 0;
  for (; i < all.size(); ++i) {
    const std::string& arg = all[i];
    if (arg == "-h" || arg == "--help") {
      std::cout << kGeneralHelp;
      return kExitOk;
    }
    if (arg == "--version") {
      std::cout << kProgram << " " << YULOTIFYD_VERSION << std::endl;
      return kExitOk;
    }
    if (arg.size() < 2 || arg[0] != '-') break;
    const bool needs_next = arg == "--socket" || arg == "--timeout";
    if (!needs_next && arg.compare(0, 9, "--socket=") != 0 &&
        arg.compare(0, 10, "--timeout=") != 0) {
      return UsageError("", "unknown option " + arg);
    }
    std::vector<std::string> option = {arg};
    if (needs_next && i + 1 < all.size()) option.push_back(all[++i]);
    Args ignored;
    int status = kExitUsage;
    if (!SplitArgs("", option, {}, {}, &globals, &ignored, &status)) {
      return status;
    }
  }
  if (i >= all.size()) return UsageError("", "no command given");

  const std::string name = all[i];
  std::vector<std::string> rest(all.begin() + static_cast<long>(i) + 1,
                                all.end());
  if (name == "help") {
    if (rest.empty()) {
      std::cout << kGeneralHelp;
      return kExitOk;
    }
    const Command* c = FindCommand(rest[0]);
    if (c == nullptr) return UsageError("", "unknown command " + rest[0]);
    std::cout << c->help;
    return kExitOk;
  }
  const Command* command = FindCommand(name);
  if (command == nullptr) return UsageError("", "unknown command " + name);

  Args args;
  int status = kExitUsage;
  if (!SplitArgs(name, rest, command->flags, command->valued,
                 command->talks_to_daemon ? &globals : nullptr, &args,
                 &status)) {
    return status;
  }
  if (args.help) {
    std::cout << command->help;
    return kExitOk;
  }
  return command->run(globals, args);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& e) {
    Error(std::string("unexpected error: ") + e.what());
    return kExitFailed;
  }
}
