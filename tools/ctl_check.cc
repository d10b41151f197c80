// yulotifyctl check: loads the monitor-queue configuration as the daemon
// would, and reports every file, monitor and queue file that would not get
// its lines (tools/conf_check.h has the rules). Exit 0 when all is well,
// 1 when anything is skipped or warned about: fit for ExecStartPre= and
// configuration management.
#include <errno.h>
#include <grp.h>
#include <json/json.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "base/errno_text.h"
#include "base/text_escape.h"
#include "tools/conf_check.h"
#include "tools/ctl.h"
#include "tools/ctl_conf.h"
#include "yulo_build_config.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

namespace {

Json::Value Strings(const std::vector<std::string>& texts) {
  Json::Value list(Json::arrayValue);
  for (const std::string& text : texts) list.append(text);
  return list;
}

std::string Plural(int n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

void PrintJson(const ConfView& view, const std::vector<FileCheck>& checks,
               const CheckTotals& totals) {
  const std::vector<MonitorQueue::FileReport>& files = view.files;
  Json::Value root(Json::objectValue);
  root["conf_root"] = view.conf_root;
  root["passed"] = totals.Passed();
  root["dirs"] = ConfDirsJson(view.dirs);
  root["files"] = Json::Value(Json::arrayValue);
  for (size_t i = 0; i < files.size(); ++i) {
    const MonitorQueue::FileReport& f = files[i];
    Json::Value v = FileJson(f);
    v["warnings"] = Strings(checks[i].warnings);
    v["monitors"] = Json::Value(Json::arrayValue);
    for (size_t j = 0; j < f.monitors.size(); ++j) {
      const MonitorQueue::MonitorReport& m = f.monitors[j];
      Json::Value mv = MonitorJson(m);
      if (m.loaded) mv["directory"] = m.config.directory;
      mv["warnings"] = Strings(checks[i].monitor_warnings[j]);
      v["monitors"].append(mv);
    }
    root["files"].append(v);
  }
  Json::Value t(Json::objectValue);
  t["files"] = totals.files;
  t["queues"] = totals.queues;
  t["files_skipped"] = totals.files_skipped;
  t["monitors_skipped"] = totals.monitors_skipped;
  t["warnings"] = totals.warnings;
  root["totals"] = t;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  std::cout << Json::writeString(builder, root) << std::endl;
}

void PrintText(const ConfView& view, const std::vector<FileCheck>& checks,
               const CheckTotals& totals) {
  const std::vector<MonitorQueue::FileReport>& files = view.files;
  // File names, paths and reasons may come from users (user.d): escaped,
  // as `queues` does, so that none can start a line or drive the terminal.
  const auto E = [](const std::string& text) { return EscapeText(text); };
  PrintConfDirs(view.dirs, true);
  for (size_t i = 0; i < files.size(); ++i) {
    const MonitorQueue::FileReport& f = files[i];
    std::cout << E(f.file) << ": ";
    if (!f.loaded) {
      std::cout << "skipped: " << E(f.reason) << "\n";
      continue;
    }
    std::cout << "loaded, " << QueueText(f) << "\n";
    for (const std::string& w : checks[i].warnings) {
      std::cout << "  warning: " << E(w) << "\n";
    }
    for (size_t j = 0; j < f.monitors.size(); ++j) {
      const MonitorQueue::MonitorReport& m = f.monitors[j];
      std::cout << "  monitors[" << m.index << "]: ";
      if (!m.loaded) {
        std::cout << "skipped: " << E(m.reason) << "\n";
        continue;
      }
      std::cout << "loaded, watches "
                << (m.config.directory.empty() ? "nothing"
                                               : E(m.config.directory))
                << "\n";
      for (const std::string& w : checks[i].monitor_warnings[j]) {
        std::cout << "    warning: " << E(w) << "\n";
      }
    }
  }
  if (totals.files == 0) {
    std::cout << "note: no monitor queue is configured; the daemon would "
                 "have nothing to do\n";
  }
  std::cout << (totals.Passed() ? "passed: " : "failed: ")
            << Plural(totals.files, "file", "files") << " under "
            << E(view.conf_root) << ", "
            << Plural(totals.queues, "queue", "queues") << " loaded, "
            << Plural(totals.files_skipped, "file", "files") << " and "
            << Plural(totals.monitors_skipped, "monitor", "monitors")
            << " skipped, " << Plural(totals.warnings, "warning", "warnings")
            << std::endl;
}

}  // namespace

const char kCheckHelp[] =
    "usage: yulotifyctl check [--conf-root DIR] [--json]\n"
    "\n"
    "Loads every monitor-queue configuration file the way the daemon does,\n"
    "without a daemon, and reports each file and monitor: loaded, or\n"
    "skipped and why (bad JSON, unsafe ownership or modes, unknown shares,\n"
    "exclude patterns that do not compile...). It warns about what would\n"
    "load but not work: a monitor's directory that does not exist, events\n"
    "that can never produce a line (\"move\" without both \"create\" and\n"
    "\"delete\", or none), events a user.d subscription does not get, and a\n"
    "queue file its owner could not write (a symbolic link, not a regular\n"
    "file, no write permission, or, when it does not exist yet, a missing\n"
    "directory or one the owner may not create files in). Queue files are\n"
    "checked with their owners' ids and no supplementary groups, as the\n"
    "daemon writes them: run it as root, where the daemon runs.\n"
    "\n"
    "Exit status 0 when everything loads and nothing is warned about, 1\n"
    "otherwise; usable as ExecStartPre= or in configuration management.\n"
    "\n"
    "  --conf-root DIR  configuration root (default " YULOTIFYD_CONF_DIR ")\n"
    "  --json           one JSON object instead of text\n";

int RunCheck(const Args& args) {
  // The daemon keeps no supplementary groups, so that a subscription's
  // owner is judged by the ids of its file alone; the checks made with
  // those ids must not count root's groups either. Root needs none of them
  // for anything else this command does.
  if (geteuid() == 0 && setgroups(0, nullptr) != 0) {
    Error("warning: cannot drop supplementary groups: " + ErrnoText(errno) +
          "; they count in the checks below");
  }

  ConfView view;
  int status = kExitOk;
  if (!ReadConfView("check", args, &view, &status)) return status;
  SystemCheckProbe probe;
  std::vector<FileCheck> checks;
  checks.reserve(view.files.size());
  for (const auto& f : view.files) checks.push_back(CheckFile(f, &probe));
  const CheckTotals totals = Tally(view.dirs, view.files, checks);

  if (args.options.count("--json") != 0) {
    PrintJson(view, checks, totals);
  } else {
    PrintText(view, checks, totals);
  }
  if (!std::cout.good()) return kExitFailed;
  return totals.Passed() ? kExitOk : kExitFailed;
}

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
