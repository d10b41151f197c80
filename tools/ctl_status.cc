// yulotifyctl status: what the daemon watches and counts, as a table, as
// the daemon's JSON object, or in the Prometheus text format.
#include <json/json.h>

#include <iostream>
#include <string>
#include <vector>

#include "tools/ctl.h"
#include "tools/status_format.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

const char kStatusHelp[] =
    "usage: yulotifyctl [--socket PATH] status [--json | --prometheus]\n"
    "\n"
    "Asks the daemon what it watches and counts: its version, uptime, kernel\n"
    "backend and log level; per volume the watched shares (and the shares\n"
    "the kernel refused to watch, with why), events read and queued, lines\n"
    "written, kernel overflows and rescan lines; per queue file\n"
    "the lines written and kept, its state (ok, busy, failing, reset) and\n"
    "its last error. A table by default.\n"
    "\n"
    "  --json        the daemon's object as it came\n"
    "  --prometheus  the counters in the Prometheus text format, for\n"
    "                node_exporter's textfile collector (yulotifyd_up 0\n"
    "                alone when the daemon cannot be reached)\n"
    "\n"
    "Per queue file it also shows what waits there for its consumer: its\n"
    "size, the share of the 100 MiB past which it is reset, and the age of\n"
    "its oldest line.\n"
    "\n"
    "Exit status 0 when the daemon answered and all is well; 1 when it\n"
    "answered but a volume is not watched (the kernel refused its watch), or\n"
    "a queue file is failing, keeps lines it has not taken, or is past 80%\n"
    "of its reset size (each said on stderr), so that it can drive a health\n"
    "check; 3 when the daemon cannot be reached.\n";

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
  if (!result.ok()) {
    if (prometheus) std::cout << StatusPrometheusUp(false) << std::flush;
    return Report(client, "status", result);
  }
  if (json) {
    std::cout << status.toStyledString();
  } else if (prometheus) {
    std::cout << StatusPrometheus(status);
  } else {
    std::cout << StatusTable(status);
  }
  std::cout.flush();
  if (!std::cout.good()) return kExitFailed;
  const std::vector<std::string> problems = StatusProblems(status);
  for (const std::string& problem : problems) Error(problem);
  return problems.empty() ? kExitOk : kExitFailed;
}

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
