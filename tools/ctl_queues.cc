// yulotifyctl queues: the monitor queues as the daemon would load them,
// with the reason for everything it would skip, as text or JSON.
#include <json/json.h>

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "base/text_escape.h"
#include "platform/share_path.h"
#include "tools/ctl.h"
#include "tools/ctl_conf.h"
#include "yulo_build_config.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

const char* QueueTypeName(int type) {
  switch (type) {
    case MONITOR_QUEUE_TYPE_SYSTEM:
      return "system";
    case MONITOR_QUEUE_TYPE_APP:
      return "app";
    case MONITOR_QUEUE_TYPE_USER:
      return "user";
  }
  return "?";
}

namespace {

std::string EventNames(uint32_t events) {
  if ((events & 1023u) == 1023u) return "all";
  if (events == 0) return "none";
  std::string names;
  for (const QueueEventName& e : kQueueEventNames) {
    if ((events & e.code) == 0) continue;
    if (!names.empty()) names += ",";
    names += e.name;
  }
  return names;
}

}  // namespace

bool ReadConfView(const std::string& cmd, const Args& args, ConfView* view,
                  int* status) {
  if (!args.positional.empty()) {
    *status = UsageError(cmd, "takes no arguments");
    return false;
  }
  view->conf_root = YULOTIFYD_CONF_DIR;
  const auto it = args.options.find("--conf-root");
  if (it != args.options.end()) {
    if (it->second.empty()) {
      *status = UsageError(cmd, "--conf-root is empty");
      return false;
    }
    view->conf_root = it->second;
  }
  view->files = MonitorQueue::Describe(
      view->conf_root, &ResolvePlatformSharePath, &view->dirs);
  return true;
}

Json::Value ConfDirsJson(const std::vector<MonitorQueue::DirReport>& dirs) {
  Json::Value list(Json::arrayValue);
  for (const auto& d : dirs) {
    Json::Value v(Json::objectValue);
    v["type"] = QueueTypeName(d.type);
    v["dir"] = d.dir;
    v["exists"] = d.exists;
    if (!d.error.empty()) v["error"] = d.error;
    list.append(v);
  }
  return list;
}

Json::Value FileJson(const MonitorQueue::FileReport& file) {
  Json::Value v(Json::objectValue);
  v["file"] = file.file;
  v["type"] = QueueTypeName(file.type);
  v["loaded"] = file.loaded;
  if (!file.loaded) {
    v["reason"] = file.reason;
  } else {
    v["queue"] = file.queue_path;
    v["owner_uid"] = static_cast<Json::UInt>(file.owner_uid);
    v["owner_gid"] = static_cast<Json::UInt>(file.owner_gid);
  }
  return v;
}

Json::Value MonitorJson(const MonitorQueue::MonitorReport& monitor) {
  Json::Value v(Json::objectValue);
  v["index"] = monitor.index;
  v["loaded"] = monitor.loaded;
  if (!monitor.loaded) v["reason"] = monitor.reason;
  return v;
}

// Every text below may come from a user (file names in user.d, queue
// paths, share names and directories, reasons quoting them): escaped, so
// that none can end its line early or drive the terminal. --json keeps
// the raw values, which its writer escapes as JSON wants.
void PrintConfDirs(const std::vector<MonitorQueue::DirReport>& dirs,
                   bool unreadable_is_warning) {
  for (const auto& d : dirs) {
    if (!d.exists) {
      std::cout << "(" << EscapeText(d.dir) << " does not exist)\n";
    } else if (!d.error.empty()) {
      std::cout << (unreadable_is_warning ? "warning: " : "(")
                << EscapeText(d.dir) << " cannot be read: "
                << EscapeText(d.error) << (unreadable_is_warning ? "" : ")")
                << "\n";
    }
  }
}

std::string QueueText(const MonitorQueue::FileReport& file) {
  std::string text = "queue " + EscapeText(file.queue_path);
  if (file.owner_uid != 0) {
    text += ", written as uid " + std::to_string(file.owner_uid) + " gid " +
            std::to_string(file.owner_gid);
  }
  return text;
}

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

int RunQueues(const Args& args) {
  ConfView view;
  int status = kExitOk;
  if (!ReadConfView("queues", args, &view, &status)) return status;
  const std::string& conf_root = view.conf_root;
  const std::vector<MonitorQueue::FileReport>& files = view.files;
  const bool json = args.options.count("--json") != 0;
  int loaded = 0;
  for (const auto& f : files) loaded += f.loaded ? 1 : 0;

  if (json) {
    Json::Value root(Json::objectValue);
    root["conf_root"] = conf_root;
    root["dirs"] = ConfDirsJson(view.dirs);
    root["files"] = Json::Value(Json::arrayValue);
    for (const auto& f : files) {
      Json::Value v = FileJson(f);
      if (f.loaded) {
        v["monitors"] = Json::Value(Json::arrayValue);
        for (const auto& m : f.monitors) {
          Json::Value mv = MonitorJson(m);
          if (m.loaded) {
            if (!m.reason.empty()) mv["note"] = m.reason;
            if (m.config.share.empty()) {
              mv["path"] = m.config.share_path;
            } else {
              mv["share"] = m.config.share;
              mv["share_path"] = m.config.share_path;
            }
            mv["dir"] = m.config.dir;
            mv["directory"] = m.config.directory;
            mv["recursive"] = m.config.recursive;
            mv["events"] = m.config.events;
            mv["exclude"] = Json::Value(Json::arrayValue);
            for (const std::string& pattern : m.config.exclude) {
              mv["exclude"].append(pattern);
            }
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

  // Escaped as in PrintConfDirs.
  const auto E = [](const std::string& text) { return EscapeText(text); };
  PrintConfDirs(view.dirs, false);
  for (const auto& f : files) {
    std::cout << E(f.file) << "\n";
    if (!f.loaded) {
      std::cout << "  skipped: " << E(f.reason) << "\n";
      continue;
    }
    std::cout << "  " << QueueText(f) << "\n";
    if (f.monitors.empty()) std::cout << "  no monitors\n";
    for (const auto& m : f.monitors) {
      std::cout << "  monitors[" << m.index << "] ";
      if (!m.loaded) {
        std::cout << "skipped: " << E(m.reason) << "\n";
        continue;
      }
      const auto& c = m.config;
      if (c.share.empty()) {
        std::cout << "path " << E(c.share_path);
      } else {
        std::cout << "share \"" << E(c.share) << "\" at " << E(c.share_path);
      }
      std::cout << ", dir \"" << E(c.dir) << "\", "
                << (c.recursive ? "recursive" : "not recursive")
                << ", events " << c.events << " (" << EventNames(c.events)
                << ")";
      if (!c.exclude.empty()) {
        std::cout << ", excluding";
        for (const std::string& pattern : c.exclude) {
          std::cout << " \"" << E(pattern) << "\"";
        }
      }
      if (c.directory.empty()) {
        std::cout << ": matches nothing";
      } else {
        std::cout << ": watches " << E(c.directory);
      }
      if (!m.reason.empty()) std::cout << " (" << E(m.reason) << ")";
      std::cout << "\n";
    }
  }
  std::cout << loaded << (loaded == 1 ? " queue" : " queues") << " from "
            << files.size() << (files.size() == 1 ? " file" : " files")
            << " under " << E(conf_root) << std::endl;
  return std::cout.good() ? kExitOk : kExitFailed;
}

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
