// Mount-point resolution: on which mount point does a path lie? (The path
// helpers it uses, ParentDir and the rest, are the base layer's: base/path.h.)
//
// GetMountPoint climbs the path's parent directories while they stay on the
// path's device, then confirms the highest one against the mount table
// ("/proc/mounts"). Nothing is cached: the table is read anew on every call,
// so mounts and unmounts made since the last call are seen.
//
// The file-system access goes through MountEnv so that tests can resolve
// against a made-up directory tree and mount table.
//
// Thread-safety: the free functions keep no state and may run on any thread
// at once; SystemMountEnv() is immutable.
#ifndef YULOTIFYD_NOTIFY_MOUNT_POINT_H_
#define YULOTIFYD_NOTIFY_MOUNT_POINT_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/path.h"

namespace YULO {
namespace YULOTIFYD {

class MountEnv {
 public:
  virtual ~MountEnv() = default;

  // stat(2): 0, or -1 with errno.
  virtual int Stat(const std::string& path, struct stat* st) const = 0;

  // The whole mount table in "/proc/mounts" form. False when it cannot be
  // read.
  virtual bool ReadMountTable(std::string* text) const = 0;
};

// The real file system and "/proc/mounts". Lives for the whole program.
const MountEnv& SystemMountEnv();

// Which mount is mounted at a path. Two identities are equal only for the
// same mount: a file system unmounted and mounted again at the same place
// gets a new one. Kernels from 6.8 on give mount ids that are never reused
// (`unique`); older ones reuse ids, and the device number then helps tell a
// new mount from the old one, but a quick remount of the same device can
// still look the same.
struct MountIdentity {
  uint64_t mount_id = 0;
  bool unique = false;  // mount_id is the never-reused kind
  uint64_t dev = 0;     // st_dev of the mounted root

  bool operator==(const MountIdentity& other) const {
    return mount_id == other.mount_id && unique == other.unique &&
           dev == other.dev;
  }
  bool operator!=(const MountIdentity& other) const {
    return !(*this == other);
  }
};

// The identity of the mount `path` lies on (the mount at `path` when `path`
// is a mount point). False with errno when `path` cannot be examined.
bool GetMountIdentity(const std::string& path, MountIdentity* out);

// The mount point of `path`. Returns "" after logging when `path` or one of
// its ancestors cannot be stat'ed. When the highest same-device ancestor is
// not in the table, returns the first ancestor on another device, or "/"
// when the climb reached the root (callers then watch what they get).
std::string GetMountPoint(const std::string& path,
                          const MountEnv& env = SystemMountEnv());

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_MOUNT_POINT_H_
