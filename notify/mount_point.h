// Mount-point resolution: on which mount point does a path lie?
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

#include <string>
#include <string_view>

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

// The part of `path` before its last "/"; "/" when that "/" is the first
// character, when there is none, or when `path` is empty. Trailing slashes
// are not removed first: ParentDir("/vol1/share/") is "/vol1/share".
std::string ParentDir(const std::string& path);

// Decodes a mount-table field: "\ooo" (three octal digits) is one byte; a
// "\" not followed by three octal digits cuts the field there.
std::string DecodeMountField(std::string_view field);

// The mount point of `path`. Returns "" after logging when `path` or one of
// its ancestors cannot be stat'ed. When the highest same-device ancestor is
// not in the table, returns the first ancestor on another device, or "/"
// when the climb reached the root (callers then watch what they get).
std::string GetMountPoint(const std::string& path,
                          const MountEnv& env = SystemMountEnv());

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_MOUNT_POINT_H_
