#include "notify/subvolume_mount.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statfs.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "base/path.h"
#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// The handle type btrfs gives a directory without its parent: the object
// id, the subvolume (root) id, both 64 bits, and the 32-bit generation, in
// the machine's byte order. Handles outlive reboots (NFS keeps them), so
// their form does not change.
constexpr int32_t kBtrfsHandleWithoutParent = 0x4d;
constexpr size_t kBtrfsHandleBytes = 20;

}  // namespace

bool FindRootGeneration(const uint8_t* buf, size_t size, uint32_t items,
                        uint64_t* generation) {
  size_t pos = 0;
  for (uint32_t i = 0; i < items; ++i) {
    struct btrfs_ioctl_search_header header;
    if (size - pos < sizeof(header)) return false;
    std::memcpy(&header, buf + pos, sizeof(header));
    pos += sizeof(header);
    if (header.len > size - pos) return false;
    if (header.objectid == BTRFS_FIRST_FREE_OBJECTID &&
        header.type == BTRFS_INODE_ITEM_KEY &&
        header.len >= sizeof(struct btrfs_inode_item)) {
      // The item as it is on disk: little-endian.
      uint64_t le;
      std::memcpy(&le, buf + pos + offsetof(struct btrfs_inode_item,
                                            generation),
                  sizeof(le));
      *generation = le64toh(le);
      return true;
    }
    pos += header.len;
  }
  return false;
}

std::string TopLevelRootHandle(uint64_t generation) {
  std::string bytes(sizeof(struct file_handle) + kBtrfsHandleBytes, '\0');
  struct file_handle head;
  head.handle_bytes = kBtrfsHandleBytes;
  head.handle_type = kBtrfsHandleWithoutParent;
  std::memcpy(&bytes[0], &head, sizeof(head));
  const uint64_t object = BTRFS_FIRST_FREE_OBJECTID;
  const uint64_t root = BTRFS_FS_TREE_OBJECTID;
  const uint32_t gen = static_cast<uint32_t>(generation);
  char* handle = &bytes[sizeof(struct file_handle)];
  std::memcpy(handle, &object, 8);
  std::memcpy(handle + 8, &root, 8);
  std::memcpy(handle + 16, &gen, 4);
  return bytes;
}

int MountTopLevelSubvolume(int mount_fd, UniqueFd* out) {
  // A real descriptor, for the ioctl and as the mount to decode through.
  // Its open is seen by no mark of ours yet: the file system is not marked.
  UniqueFd dir(RetryOnEintr([&] {
    return ::openat(mount_fd, ".",
                    O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY);
  }));
  if (!dir.Valid()) return errno;
  struct statfs sfs;
  if (RetryOnEintr([&] { return ::fstatfs(dir.Get(), &sfs); }) != 0) {
    return errno;
  }
  if (static_cast<uint64_t>(sfs.f_type) != BTRFS_SUPER_MAGIC) return EXDEV;

  struct btrfs_ioctl_search_args search;
  std::memset(&search, 0, sizeof(search));
  search.key.tree_id = BTRFS_FS_TREE_OBJECTID;
  search.key.min_objectid = search.key.max_objectid =
      BTRFS_FIRST_FREE_OBJECTID;
  search.key.min_type = search.key.max_type = BTRFS_INODE_ITEM_KEY;
  search.key.max_offset = UINT64_MAX;
  search.key.max_transid = UINT64_MAX;
  search.key.nr_items = 1;
  if (::ioctl(dir.Get(), BTRFS_IOC_TREE_SEARCH, &search) != 0) return errno;
  uint64_t generation = 0;
  if (!FindRootGeneration(reinterpret_cast<const uint8_t*>(search.buf),
                          sizeof(search.buf), search.key.nr_items,
                          &generation)) {
    return ENOENT;
  }

  // Decoded through the subvolume's mount, the handle gives the top-level
  // root although that mount does not show it; a clone of the mount made
  // from there shows the whole file system. The clone holds no reference
  // to the subvolume's mount, so that one can be unmounted at any time.
  std::string handle = TopLevelRootHandle(generation);
  UniqueFd top(RetryOnEintr([&] {
    return ::open_by_handle_at(
        dir.Get(), reinterpret_cast<struct file_handle*>(&handle[0]),
        O_PATH | O_CLOEXEC);
  }));
  if (!top.Valid()) return errno;
  const int clone = ::open_tree(top.Get(), "",
                                OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC |
                                    AT_EMPTY_PATH);
  if (clone < 0) return errno;
  out->Reset(clone);
  return 0;
}

PathRemap::PathRemap(std::string mount_point, std::string kernel_root)
    : mount_point_(std::move(mount_point)),
      kernel_root_(std::move(kernel_root)) {}

bool PathRemap::Map(std::string_view kernel_path, std::string* out) const {
  std::string_view rest;
  if (!PathRelativeTo(kernel_root_, kernel_path, &rest)) return false;
  out->assign(mount_point_);
  if (!rest.empty()) {
    if (out->empty() || out->back() != '/') out->push_back('/');
    out->append(rest.data(), rest.size());
  }
  return true;
}

}  // namespace YULOTIFYD
}  // namespace YULO
