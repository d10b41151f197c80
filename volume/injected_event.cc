#include "volume/injected_event.h"

#include <sys/stat.h>

#include <algorithm>

#include "output/queue_line.h"
#include "yulotifyd/log.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Injected cookies stay below the top bit, which the kernel layer's cookies
// always have: halves of different origins never pair.
constexpr uint32_t kInjectedCookieMask = 0x7fffffffu;

// The first of `share_paths` that `path` begins with; "" when none.
std::string FindShareRoot(const std::vector<std::string>& share_paths,
                          const std::string& path) {
  // Deliberately a plain prefix test without a "/" boundary, in list order.
  for (const std::string& share : share_paths) {
    if (path.compare(0, share.size(), share) == 0) return share;
  }
  return std::string();
}

NotifyEvent BuildRecord(uint32_t mask, bool is_dir, const std::string& path,
                        const std::string& root) {
  NotifyEvent record;
  record.mask = is_dir ? (mask | YULO_ISDIR) : mask;
  record.cookie = 0;
  record.root = -1;
  record.watch = root;
  record.path = path.substr(std::min(root.size(), path.size()));
  return record;
}

uint32_t NextCookie(uint64_t* cookie) {
  uint32_t shared = static_cast<uint32_t>(++*cookie) & kInjectedCookieMask;
  if (shared == 0) shared = static_cast<uint32_t>(++*cookie) & kInjectedCookieMask;
  return shared;
}

}  // namespace

uint32_t ConvertType(uint32_t type, bool is_dir) {
  uint32_t mask = type & kPassThroughEventBits;
  if (type & QUEUE_EVENT_CREATE) mask |= YULO_CREATE;
  if (type & QUEUE_EVENT_DELETE) mask |= YULO_DELETE;
  if (type & QUEUE_EVENT_RESCAN) mask |= YULO_RESCAN;
  if (is_dir) mask |= YULO_ISDIR;
  return mask;
}

bool BuildInjected(uint32_t type, const std::string& path,
                   const std::string& path_old,
                   const std::vector<std::string>& share_paths,
                   const std::string& mount_point, uint64_t* cookie,
                   std::vector<NotifyEvent>* out) {
  const std::string root = FindShareRoot(share_paths, path);
  const std::string root_old = FindShareRoot(share_paths, path_old);
  if (root.empty() && root_old.empty()) return false;
  // An event for a path that no longer exists is dropped silently.
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return false;
  bool is_dir = S_ISDIR(st.st_mode);
  YULO_LOG_DEBUG("Volume: %s push event: %d, Path: %s, OldPath: %s",
                 mount_point.c_str(), static_cast<int>(type), path.c_str(),
                 path_old.c_str());
  if (type & QUEUE_EVENT_MOVE) {
    if (root == root_old) {
      const uint32_t shared = NextCookie(cookie);
      out->push_back(BuildRecord(YULO_MOVE_FROM, is_dir, path_old, root_old));
      out->back().cookie = shared;
      out->push_back(BuildRecord(YULO_MOVE_TO, is_dir, path, root));
      out->back().cookie = shared;
      return true;
    }
    // Across share roots the rename is a creation here and a deletion there.
    if (!root.empty() && lstat(path.c_str(), &st) == 0) {
      is_dir = S_ISDIR(st.st_mode);
      out->push_back(BuildRecord(YULO_CREATE, is_dir, path, root));
    }
    if (!root_old.empty()) {
      out->push_back(BuildRecord(YULO_DELETE, is_dir, path_old, root_old));
    }
    return true;
  }
  if (root.empty()) return false;
  out->push_back(BuildRecord(ConvertType(type, false), is_dir, path, root));
  return true;
}

}  // namespace YULOTIFYD
}  // namespace YULO
