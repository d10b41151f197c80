#include "tools/ctl.h"

#include <errno.h>

#include <cstdlib>
#include <iostream>

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

namespace {

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

}  // namespace

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

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
