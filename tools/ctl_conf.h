// What `yulotifyctl queues` and `yulotifyctl check` share: reading the
// monitor-queue configuration through MonitorQueue::Describe, and showing
// its directories and queue files the same way. Defined in ctl_queues.cc.
//
// Thread-safety: single-threaded tool code.
#ifndef YULOTIFYD_TOOLS_CTL_CONF_H_
#define YULOTIFYD_TOOLS_CTL_CONF_H_

#include <json/json.h>

#include <string>
#include <vector>

#include "tools/ctl.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

// The configuration as the daemon would load it now.
struct ConfView {
  std::string conf_root;
  std::vector<MonitorQueue::DirReport> dirs;
  std::vector<MonitorQueue::FileReport> files;
};

// Reads the configuration under --conf-root (by default the compiled-in
// root), shares resolved as the daemon resolves them. False, having
// reported a usage error of `cmd` and set `status`, on bad arguments.
bool ReadConfView(const std::string& cmd, const Args& args, ConfView* view,
                  int* status);

// The three directories as a JSON list (type, dir, exists, error).
Json::Value ConfDirsJson(const std::vector<MonitorQueue::DirReport>& dirs);

// A file's head as a JSON object: file, type, loaded, and the reason it is
// skipped or its queue, owner_uid and owner_gid.
Json::Value FileJson(const MonitorQueue::FileReport& file);

// A monitor's head as a JSON object: index, loaded, and the reason it is
// skipped.
Json::Value MonitorJson(const MonitorQueue::MonitorReport& monitor);

// One line on stdout for each directory that does not exist, "(DIR does
// not exist)", or cannot be read: "(DIR cannot be read: WHY)", or with
// `unreadable_is_warning` "warning: DIR cannot be read: WHY". Escaped.
void PrintConfDirs(const std::vector<MonitorQueue::DirReport>& dirs,
                   bool unreadable_is_warning);

// "queue PATH" and, for a queue not written as root, ", written as uid U
// gid G"; escaped.
std::string QueueText(const MonitorQueue::FileReport& file);

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_TOOLS_CTL_CONF_H_
