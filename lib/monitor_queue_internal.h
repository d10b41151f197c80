// The pieces MonitorQueue's source files share; not installed.
//
// MonitorQueue is built from four files: monitor_queue.cc (values and
// matching), monitor_queue_conf_file.cc (opening a configuration file and
// its safety checks), monitor_queue_parse.cc (what a file says) and
// monitor_queue_load.cc (the configuration directories, LoadAll, LoadFile,
// Describe).
//
// Thread-safety: the functions keep no state; they may run concurrently.
#ifndef YULOTIFYD_LIB_MONITOR_QUEUE_INTERNAL_H_
#define YULOTIFYD_LIB_MONITOR_QUEUE_INTERNAL_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "yulotifyd/log.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace monitor_queue_internal {

// Every line about monitor queues has always carried the source name
// "monitor_queue", whichever of the files above writes it; log watchers
// match on it.
constexpr char kLogSource[] = "monitor_queue";

// monitor_queue.cc

bool HasNul(const std::string& s);

// Turns an absolute path into its canonical spelling: repeated "/" collapsed,
// "." components dropped, no trailing "/" ("/" for the root itself). Fails on
// a relative path and on any ".." component: we never resolve those, since
// what ".." means depends on symlinks we are not going to chase.
bool NormalizeAbsolutePath(std::string_view in, std::string* out);

// monitor_queue_conf_file.cc

// What the checks before parsing found out about a configuration file.
struct ConfFile {
  std::string text;
  uid_t owner_uid = 0;
  gid_t owner_gid = 0;
  bool unsafe = false;  // refused as one that others could change
};

// Reads a configuration file of at most 1 MiB, refusing one that someone
// other than its owner could change before reading it (see
// MonitorQueue::LoadFile). False, with `reason` set, when it is refused.
bool ReadConfFile(const std::string& file, ConfFile* conf,
                  std::string* reason);

// Whether the user `uid` (group `gid`, no supplementary groups: as the
// daemon writes queue files) may list `dir`: search every directory on the
// way, read and search `dir` itself. Checked by the kernel with the calling
// thread's file-system ids switched to `uid` and `gid` (which takes
// CAP_SETUID and CAP_SETGID unless they are the thread's own already), so
// ACLs count too. False, with `reason` set, when not, or when it cannot be
// checked. Always true for root.
bool OwnerMayList(const std::string& dir, uid_t uid, gid_t gid,
                  std::string* reason);

// monitor_queue_parse.cc

// The queue event codes a subscription in user.d may not ask for: they tell
// who reads which file, which is nobody else's business.
constexpr uint32_t kOwnerOnlyEvents =
    QUEUE_EVENT_ACCESS | QUEUE_EVENT_OPEN | QUEUE_EVENT_CLOSE_NOWRITE;

// Reads and parses one configuration file into `out` (when given). False,
// with `reason` set, when the whole file is to be skipped; never throws.
// `reports`, when given, receives one entry per monitor and nothing is
// logged; else every dropped monitor is logged. `unsafe`, when given, is set
// when the file was refused as unsafe.
// `type` is the directory the file was found in: a file of user.d is held
// to what its owner could see (see MonitorQueue::LoadAll).
bool LoadFileGuarded(const std::string& file,
                     const MonitorQueue::ShareResolver& resolve,
                     MonitorQueue* out, std::string* reason,
                     std::vector<MonitorQueue::MonitorReport>* reports,
                     bool* unsafe,
                     _tag_monitor_queue_type_ type = MONITOR_QUEUE_TYPE_SYSTEM);

}  // namespace monitor_queue_internal
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_LIB_MONITOR_QUEUE_INTERNAL_H_
