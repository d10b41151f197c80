// The commands yulotifyctl sends to the daemon: set-log-level, notify, the
// mount and unmount notices, and send.
#include <json/json.h>

#include <cstdint>
#include <string>

#include "tools/ctl.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

namespace {

constexpr uint32_t kMoveCode = 256;

int SendCommand(const Globals& globals, const std::string& type,
                const Json::Value& data) {
  const ControlClient client(globals.socket_path, globals.timeout_ms);
  return Report(client, type, client.Send(type, data));
}

bool ParseEvent(const std::string& text, uint32_t* code) {
  for (const QueueEventName& e : kQueueEventNames) {
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

}  // namespace

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

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
