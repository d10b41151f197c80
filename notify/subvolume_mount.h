// A btrfs subvolume mounted on its own, watched through its file system's
// top-level subvolume.
//
// A whole-file-system fanotify mark is refused (EXDEV) through a mount of a
// btrfs subvolume other than the top-level one: each subvolume reports a
// file-system id of its own, and the mark must be made through the one of
// the file system itself. The fanotify backend then makes a detached mount
// of the top-level subvolume (MountTopLevelSubvolume: never attached
// anywhere, so no other process sees it and nothing can be mounted over
// it), marks the file system through it and decodes file
// handles against it. What it reads back are paths below the top-level
// subvolume ("/data/dir"); PathRemap turns those below the mounted
// subvolume into paths under the watched mount point ("/vol/dir") and
// refuses the others, which belong to the rest of the file system.
//
// The detached mount keeps the file system alive while it is held: a user's
// umount of the watched mount point succeeds at once, and the file system
// itself goes when the backend lets go of the detached mount (RemoveWatch,
// which the daemon calls once it sees the mount gone, or its destruction).
//
// Thread-safety: any thread; the free functions keep no state and
// PathRemap is a value (const methods may run on any thread at once).
#ifndef YULOTIFYD_NOTIFY_SUBVOLUME_MOUNT_H_
#define YULOTIFYD_NOTIFY_SUBVOLUME_MOUNT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

// The generation of the top-level subvolume's root directory from the
// answer of a BTRFS_IOC_TREE_SEARCH for its inode item (`buf`: the
// answer's buffer, `items`: the items it holds). False when the answer
// holds no such item.
bool FindRootGeneration(const uint8_t* buf, size_t size, uint32_t items,
                        uint64_t* generation);

// The file handle (struct file_handle bytes) of the top-level subvolume's
// root directory, of the generation given.
std::string TopLevelRootHandle(uint64_t generation);

// A detached mount of the top-level subvolume of the btrfs file system
// that `mount_fd` (an O_PATH descriptor of a mount point) lies on, into
// *out (an O_PATH descriptor of its root). Needs no device: the root's
// generation is read from the file system's tree (BTRFS_IOC_TREE_SEARCH),
// its handle decoded through the mount point (which gives that directory,
// although the mount does not show it), and the mount cloned from there
// (open_tree). Returns 0, or an errno value: EXDEV when it is not btrfs.
// REQUIRES: CAP_SYS_ADMIN (the tree search), CAP_DAC_READ_SEARCH
// (open_by_handle_at); Linux 5.2 (open_tree).
int MountTopLevelSubvolume(int mount_fd, UniqueFd* out);

// Paths read back from the kernel, spelt under the watched mount point
// string. The kernel prints a directory's path through the mount its
// descriptor came from: for a plain watch, the mount point's path as the
// kernel prints it ("/mnt/vol" for a watch of "/mnt/vol/", or a path in
// another mount namespace); for a btrfs subvolume mounted on its own, the
// path of the subvolume's root below the top-level subvolume ("/data").
class PathRemap {
 public:
  // `mount_point`: the watched mount point string ("/vol"); `kernel_root`:
  // how the kernel prints its root through the descriptors decoded
  // ("/data").
  PathRemap(std::string mount_point, std::string kernel_root);

  // The root is printed otherwise now (a subvolume renamed or moved).
  void SetKernelRoot(std::string kernel_root) {
    kernel_root_ = std::move(kernel_root);
  }
  const std::string& kernel_root() const { return kernel_root_; }
  const std::string& mount_point() const { return mount_point_; }

  // `kernel_path` spelt under the mount point into *out: false when it does
  // not lie at or below the root (the rest of a btrfs file system, seen
  // through its top-level subvolume). Subvolumes nested in a mounted one
  // lie below its root like any directory.
  bool Map(std::string_view kernel_path, std::string* out) const;

 private:
  std::string mount_point_;
  std::string kernel_root_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_SUBVOLUME_MOUNT_H_
