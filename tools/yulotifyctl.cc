// yulotifyctl: command-line client of yulotifyd.
//
// Sends control commands over the daemon's socket, consumes queue files the
// way every consumer should (or shows their lines without taking them), and
// shows and checks how the daemon would read the monitor-queue
// configuration. Everything it does goes through
// libyulotifyd (ControlClient, QueueConsumer, MonitorQueue).
//
// Exit status: 0 the daemon answered 0 (or a local command succeeded),
// 1 the daemon answered -1 (or a local command failed), 2 usage error,
// 3 the daemon could not be reached, did not answer, or does not serve this
// caller (permission denied).
//
// This file holds the general help, the table of commands and the parsing
// of the global options; each group of commands has its own file (see
// tools/ctl.h).
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "tools/ctl.h"
#include "yulo_build_config.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {
namespace {

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
    "  consume QUEUE_FILE [--follow] [--wait] [--owner USER] ...\n"
    "                               take and print the lines of a queue file\n"
    "  peek QUEUE_FILE [--follow] [--wait] [--owner USER] ...\n"
    "                               print the lines of a queue file, leaving "
    "them there\n"
    "  queues [--conf-root DIR] [--json]\n"
    "                               list the monitor queues as the daemon "
    "would load them\n"
    "  check [--conf-root DIR] [--json]\n"
    "                               check the monitor-queue configuration;\n"
    "                               exit 1 when anything would be skipped\n"
    "  help [COMMAND]               this text, or a command's\n"
    "\n"
    "Options:\n"
    "  --socket PATH   the daemon's control socket (default "
    YULOTIFYD_SOCKET_PATH ")\n"
    "  --timeout MS    how long to wait for the daemon in all (default 10000)\n"
    "                  (both may also follow the command)\n"
    "  -h, --help      help; after a command, that command's help\n"
    "  --version       print the version\n"
    "\n"
    "Exit status: 0 the daemon answered 0 (or the local command worked),\n"
    "1 the daemon answered -1 (or the local command failed), 2 usage error,\n"
    "3 the daemon could not be reached or did not answer, or this user may\n"
    "not use it (only root and the members of the socket's group may).\n";

// ---------------------------------------------------------------------------
// Dispatch.

struct Command {
  const char* name;
  const char* help;
  std::vector<std::string> flags;
  std::vector<std::string> valued;
  std::function<int(const Globals&, const Args&)> run;
};

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"set-log-level", kSetLogLevelHelp, {}, {}, RunSetLogLevel},
      {"notify", kNotifyHelp, {}, {}, RunNotify},
      {"mount-share", kMountShareHelp, {}, {},
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "mount-share", "mount_share",
                               "share_name", "NAME");
       }},
      {"umount-share", kUmountShareHelp, {}, {},
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "umount-share", "umount_share",
                               "share_name", "NAME");
       }},
      {"mount-volume", kMountVolumeHelp, {}, {},
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "mount-volume", "mount_volume",
                               "mount_point", "MOUNT_POINT");
       }},
      {"umount-volume", kUmountVolumeHelp, {}, {},
       [](const Globals& g, const Args& a) {
         return RunOneArgument(g, a, "umount-volume", "umount_volume",
                               "mount_point", "MOUNT_POINT");
       }},
      {"send", kSendHelp, {}, {}, RunSend},
      {"status", kStatusHelp, {"--json", "--prometheus"}, {}, RunStatus},
      {"consume", kConsumeHelp, {"--follow", "--wait"},
       {"--interval", "--lock-timeout", "--owner", "--max-read"},
       [](const Globals&, const Args& a) { return RunConsume(a); }},
      {"peek", kPeekHelp, {"--follow", "--wait"},
       {"--interval", "--lock-timeout", "--owner", "--max-read"},
       [](const Globals&, const Args& a) { return RunPeek(a); }},
      {"queues", kQueuesHelp, {"--json"}, {"--conf-root"},
       [](const Globals&, const Args& a) { return RunQueues(a); }},
      {"check", kCheckHelp, {"--json"}, {"--conf-root"},
       [](const Globals&, const Args& a) { return RunCheck(a); }},
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

  // --socket and --timeout may come after any command; a local one has no
  // use for them.
  Args args;
  int status = kExitUsage;
  if (!SplitArgs(name, rest, command->flags, command->valued, &globals, &args,
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
}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO

int main(int argc, char** argv) {
  namespace ctl = YULO::YULOTIFYD::ctl;
  try {
    return ctl::Main(argc, argv);
  } catch (const std::exception& e) {
    ctl::Error(std::string("unexpected error: ") + e.what());
    return ctl::kExitFailed;
  }
}
