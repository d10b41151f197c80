// MonitorQueue's values and matching: building monitors, and the queries
// the daemon asks of every event (IsMonitoring and the share queries).
// Loading the configuration is in monitor_queue_load.cc.
#include "yulotifyd/monitor_queue.h"

#include <sys/inotify.h>

#include <string_view>
#include <utility>

#include "base/path.h"
#include "lib/exclude_match.h"
#include "lib/monitor_queue_internal.h"

namespace YULO {
namespace YULOTIFYD {

namespace monitor_queue_internal {

bool HasNul(const std::string& s) {
  return s.find('\0') != std::string::npos;
}

bool NormalizeAbsolutePath(std::string_view in, std::string* out) {
  if (in.empty() || in[0] != '/') return false;
  std::string result = NormalisePath(in);
  // ".." could lead out of the share: refused rather than resolved.
  if ((result + "/").find("/../") != std::string::npos) return false;
  *out = std::move(result);
  return true;
}

}  // namespace monitor_queue_internal

using monitor_queue_internal::NormalizeAbsolutePath;

namespace {

// Kernel (inotify) bits the watcher has to ask for so that a queue event
// code can be produced. A created entry may also arrive by being moved in,
// a deleted one by being moved out; a rescan is triggered when a watched
// directory itself goes away.
uint32_t KernelBitsFor(uint32_t events) {
  uint32_t bits = events & (QUEUE_EVENT_ACCESS | QUEUE_EVENT_MODIFY |
                            QUEUE_EVENT_ATTRIB | QUEUE_EVENT_CLOSE_WRITE |
                            QUEUE_EVENT_CLOSE_NOWRITE | QUEUE_EVENT_OPEN);
  static_assert(QUEUE_EVENT_ACCESS == IN_ACCESS &&
                    QUEUE_EVENT_MODIFY == IN_MODIFY &&
                    QUEUE_EVENT_ATTRIB == IN_ATTRIB &&
                    QUEUE_EVENT_CLOSE_WRITE == IN_CLOSE_WRITE &&
                    QUEUE_EVENT_CLOSE_NOWRITE == IN_CLOSE_NOWRITE &&
                    QUEUE_EVENT_OPEN == IN_OPEN,
                "the low queue codes are the inotify bits themselves");
  if (events & QUEUE_EVENT_CREATE) bits |= IN_CREATE | IN_MOVED_TO;
  if (events & QUEUE_EVENT_DELETE) bits |= IN_DELETE | IN_MOVED_FROM;
  if (events & QUEUE_EVENT_MOVE) bits |= IN_MOVED_FROM | IN_MOVED_TO;
  if (events & QUEUE_EVENT_RESCAN) bits |= IN_DELETE_SELF;
  return bits;
}

}  // namespace

MonitorQueue::MonitorQueue(std::string queue_path,
                           std::vector<MonitorQueueConfig> configs,
                           uid_t owner_uid, gid_t owner_gid)
    : queue_path_(std::move(queue_path)),
      configs_(std::move(configs)),
      owner_uid_(owner_uid),
      owner_gid_(owner_gid) {}

MonitorQueue::MonitorQueueConfig MonitorQueue::MakeConfig(
    const std::string& share, const std::string& share_path,
    const std::string& dir, bool recursive, uint32_t events) {
  MonitorQueueConfig config;
  config.share = share;
  config.dir = dir;
  config.recursive = recursive;
  config.events = events;
  std::string normalized;
  if (!NormalizeAbsolutePath(share_path, &normalized)) {
    // Kept as given for the log lines; `directory` stays empty and the
    // monitor matches nothing.
    config.share_path = share_path;
    return config;
  }
  config.share_path = std::move(normalized);
  // `dir` is taken relative to the share root whether or not it starts
  // with "/". Left empty (matching nothing) on a ".." component.
  if (!NormalizeAbsolutePath(config.share_path + "/" + dir,
                             &config.directory)) {
    config.directory.clear();
  }
  return config;
}

std::set<std::string> MonitorQueue::GetShareSet(
    const std::vector<MonitorQueue>& queues) {
  std::set<std::string> shares;
  for (const MonitorQueue& queue : queues) queue.CollectShareSet(shares);
  return shares;
}

bool MonitorQueue::IsDirMonitoring(const std::vector<MonitorQueue>& queues,
                                   const std::string& path) {
  for (const MonitorQueue& queue : queues) {
    if (queue.IsDirMonitoring(path)) return true;
  }
  return false;
}

bool MonitorQueue::IsDirMonitoring(const std::string& path) const {
  for (const MonitorQueueConfig& config : configs_) {
    if (config.directory.empty()) continue;  // matches nothing
    if (PathAtOrBelow(path, config.share_path)) return true;
  }
  return false;
}

bool MonitorQueue::IsMonitoring(const std::string& path,
                                const uint32_t& mask) {
  for (const MonitorQueueConfig& config : configs_) {
    if ((config.events & mask) == 0) continue;
    std::string_view rest;
    if (!PathRelativeTo(config.directory, path, &rest)) continue;
    if (!config.recursive && rest.find('/') != std::string_view::npos) {
      continue;
    }
    if (!config.exclude.empty() && IsExcluded(config.exclude, rest)) continue;
    return true;
  }
  return false;
}

bool MonitorQueue::MayMonitorBelow(const std::string& dir) const {
  for (const MonitorQueueConfig& config : configs_) {
    if (config.directory.empty()) continue;  // matches nothing
    if (PathAtOrBelow(dir, config.directory) ||
        PathAtOrBelow(config.directory, dir)) {
      return true;
    }
  }
  return false;
}

uint32_t MonitorQueue::GetUnionMask(const std::string& mount_point) const {
  uint32_t bits = 0;
  for (const MonitorQueueConfig& config : configs_) {
    if (config.directory.empty()) continue;
    // Strictly below the mount point; the mount point itself is not a share.
    if (!PathBelow(mount_point, config.share_path)) continue;
    bits |= KernelBitsFor(config.events);
  }
  return bits;
}

void MonitorQueue::CollectShareSet(std::set<std::string>& shares) const {
  for (const MonitorQueueConfig& config : configs_) {
    // A monitor that matches nothing (see MakeConfig) has no usable share.
    if (!config.directory.empty()) shares.insert(config.share_path);
  }
}

}  // namespace YULOTIFYD
}  // namespace YULO
