#include "notify/fanotify_backend.h"

#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/clock.h"
#include "base/errno_text.h"
#include "base/path.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Kernel reads per Read call while every event read so far was dropped, so
// that a stream of unwanted events cannot hold the caller for long.
constexpr int kMaxReadsPerCall = 8;
// A fanotify event of this group is far smaller than this; a read that left
// less room than this in the staging buffer probably left events behind.
constexpr size_t kLargeEvent = 1024;

uint64_t FsidKey(const struct statfs& sfs) {
  int32_t val[2];
  static_assert(sizeof(sfs.f_fsid) == sizeof(val), "fsid is two ints");
  std::memcpy(val, &sfs.f_fsid, sizeof(val));
  return static_cast<uint32_t>(val[0]) |
         (static_cast<uint64_t>(static_cast<uint32_t>(val[1])) << 32);
}

// The path of the object behind `fd`, as the kernel prints it. False with
// errno when it cannot be read or does not fit PATH_MAX.
bool ReadFdPath(int fd, std::string* path) {
  char link[64];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  char buf[PATH_MAX + 1];
  const ssize_t n = ::readlink(link, buf, sizeof(buf));
  if (n < 0) return false;
  if (static_cast<size_t>(n) >= sizeof(buf)) {
    errno = ENAMETOOLONG;
    return false;
  }
  path->assign(buf, static_cast<size_t>(n));
  return true;
}

// An O_PATH descriptor of `path`: enough to stat it, mark it, read its
// path back and make it the working directory, and opening or closing it
// raises no event. The backend holds one only for the length of a call: a
// descriptor kept between calls would keep the volume busy, so that
// unmounting it failed with EBUSY.
int OpenPathOnly(const std::string& path) {
  return RetryOnEintr(
      [&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC | O_NOCTTY); });
}

// fsid of the file system behind `fd`; false when it cannot be read.
bool FsidOf(int fd, uint64_t* fsid) {
  struct statfs sfs;
  if (RetryOnEintr([&] { return ::fstatfs(fd, &sfs); }) != 0) return false;
  *fsid = FsidKey(sfs);
  return true;
}

// Whether this thread has a working directory of its own: 0 not tried yet,
// 1 yes, -1 unshare refused it.
thread_local int t_private_cwd = 0;

// open_by_handle_at(`handle`, `flags`) on the file system of `mount_fd`, an
// O_PATH descriptor of its mount point.
//
// open_by_handle_at decodes a handle against the mount of the descriptor it
// is given and refuses O_PATH descriptors, while any other open of the
// mount point is itself an event (open, close-nowrite) on the very file
// system being watched. Given AT_FDCWD it decodes against the working
// directory instead, and fchdir sets that from an O_PATH descriptor without
// an event. The working directory belongs to the whole process, so the
// calling thread first takes a copy of its own (unshare(CLONE_FS), once per
// thread: the rest of the process never sees it move), and it goes back
// right after the call, so that it pins the volume only for that long.
int OpenByHandleWithin(int mount_fd, struct file_handle* handle, int flags) {
  if (t_private_cwd == 0) t_private_cwd = ::unshare(CLONE_FS) == 0 ? 1 : -1;
  if (t_private_cwd == 1) {
    UniqueFd back(RetryOnEintr(
        [] { return ::open(".", O_PATH | O_CLOEXEC | O_DIRECTORY); }));
    if (back.Valid() && ::fchdir(mount_fd) == 0) {
      const int fd = RetryOnEintr(
          [&] { return ::open_by_handle_at(AT_FDCWD, handle, flags); });
      const int err = errno;
      // Never stay on the volume, whatever it takes.
      if (::fchdir(back.Get()) != 0 && ::chdir("/") != 0) {
      }
      errno = err;
      return fd;
    }
  }
  // No working directory to borrow (or the mount point is no directory): a
  // real open of the mount point, which the mark sees if it asks for opens.
  char link[64];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", mount_fd);
  UniqueFd real(RetryOnEintr(
      [&] { return ::open(link, O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
  if (!real.Valid()) return -1;
  return RetryOnEintr(
      [&] { return ::open_by_handle_at(real.Get(), handle, flags); });
}

}  // namespace

FanotifyBackend::FanotifyBackend() : FanotifyBackend(Options()) {}

FanotifyBackend::FanotifyBackend(const Options& options)
    : options_(options), translator_(this) {
  switch (options_.move_events) {
    case MoveEvents::kAuto:
      break;
    case MoveEvents::kRename:
      move_mode_known_ = true;
      break;
    case MoveEvents::kHalves:
      rename_events_ = false;
      move_mode_known_ = true;
      break;
  }
  if (options_.staging_bytes < 4 * kLargeEvent) {
    options_.staging_bytes = 4 * kLargeEvent;
  }
}

FanotifyBackend::~FanotifyBackend() = default;

bool FanotifyBackend::OwnDescriptor(int fd) const {
  return fd_.Valid() && fd == fd_.Get();
}

int FanotifyBackend::Init() {
  if (fd_.Valid()) {
    errno = EBUSY;
    return -1;
  }
  // FAN_UNLIMITED_MARKS needs CAP_SYS_ADMIN, as file-system marks do: asking
  // for it makes a process that could never add a watch fail here, at init,
  // instead of at every AddWatch. We add a handful of marks at most.
  const int fd =
      ::fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_CLOEXEC |
                          FAN_NONBLOCK | FAN_UNLIMITED_MARKS,
                      O_RDONLY | O_CLOEXEC | O_LARGEFILE);
  if (fd < 0) return -1;
  fd_.Reset(fd);
  staging_.assign(options_.staging_bytes, 0);
  staged_begin_ = staged_end_ = 0;
  return fd;
}

int FanotifyBackend::Mark(unsigned int flags, int mount_fd,
                          const MountWatch& watch,
                          const std::string& mount_point, uint64_t mask) {
  if (watch.top_level.Valid()) {
    return ::fanotify_mark(fd_.Get(), flags | FAN_MARK_FILESYSTEM, mask,
                           watch.top_level.Get(), ".");
  }
  // Through the descriptor of the mount point, so that the mark lands on
  // the file system that was examined, even if something was mounted over
  // it meanwhile. fanotify_mark takes no O_PATH descriptor for the object
  // itself, only as the directory a name is looked up in.
  if (watch.is_dir) {
    return ::fanotify_mark(fd_.Get(), flags | FAN_MARK_FILESYSTEM, mask,
                           mount_fd, ".");
  }
  return ::fanotify_mark(fd_.Get(), flags | FAN_MARK_FILESYSTEM, mask, AT_FDCWD,
                         mount_point.c_str());
}

int FanotifyBackend::AddWatch(int fd, const std::string& mount_point,
                              uint32_t mask) {
  if (!OwnDescriptor(fd)) {
    errno = EBADF;
    return -1;
  }
  UniqueFd mount_fd(OpenPathOnly(mount_point));
  if (!mount_fd.Valid()) return -1;
  MountWatch watch;
  struct stat st;
  std::string root;
  if (::fstat(mount_fd.Get(), &st) != 0 ||
      !FsidOf(mount_fd.Get(), &watch.fsid) ||
      !ReadFdPath(mount_fd.Get(), &root)) {
    return -1;
  }
  watch.is_dir = S_ISDIR(st.st_mode);
  watch.paths = PathRemap(mount_point, std::move(root));

  const uint32_t wanted = event_mask_ | mask;
  uint64_t kernel_mask = FanotifyMarkMask(wanted, rename_events_);
  const auto mark = [&] {
    int r = Mark(FAN_MARK_ADD, mount_fd.Get(), watch, mount_point,
                 kernel_mask);
    if (r != 0 && errno == EINVAL && !move_mode_known_) {
      // No FAN_RENAME before Linux 5.17: fall back to the two halves.
      const uint64_t halves = FanotifyMarkMask(wanted, false);
      r = Mark(FAN_MARK_ADD, mount_fd.Get(), watch, mount_point, halves);
      if (r == 0) {
        rename_events_ = false;
        kernel_mask = halves;
      }
    }
    return r;
  };
  int r = mark();
  if (r != 0 && errno == EXDEV && watch.is_dir) {
    // A btrfs subvolume mounted on its own: the file system is marked
    // through its top-level subvolume instead.
    const int err = SetUpTopLevel(mount_fd.Get(), &watch);
    if (err != 0) {
      YULO_LOG_WARNING(
          "fanotify: %s: no whole-file-system mark through the mount point "
          "and no top-level subvolume to mark it through: %s (%d)",
          mount_point.c_str(), ErrnoText(err).c_str(), err);
      errno = EXDEV;  // the kernel's refusal is the reason the caller needs
      return -1;
    }
    r = mark();
  }
  if (r != 0) return -1;
  move_mode_known_ = true;
  watch.order = next_order_++;

  fs_masks_[watch.fsid] |= kernel_mask;
  event_mask_ = wanted;
  translator_.SetEventMask(event_mask_);
  watches_.erase(mount_point);  // a repeated add replaces the old entry
  watches_.emplace(mount_point, std::move(watch));
  translator_.ForgetPaths();  // paths may now resolve through another mount
  return 0;
}

void FanotifyBackend::ReleaseStatDir() {
  stat_dir_.Reset();
  stat_dir_key_.clear();
  stat_dir_st_known_ = false;
}

std::map<std::string, FanotifyBackend::MountWatch>::iterator
FanotifyBackend::FindWatch(int fd, const std::string& mount_point) {
  if (!OwnDescriptor(fd)) {
    errno = EBADF;
    return watches_.end();
  }
  ReleaseStatDir();  // it may be on the file system that goes
  const auto it = watches_.find(mount_point);
  if (it == watches_.end()) errno = ENOENT;
  return it;
}

int FanotifyBackend::SetUpTopLevel(int mount_fd, MountWatch* watch) {
  int err = MountTopLevelSubvolume(mount_fd, &watch->top_level);
  if (err != 0) return err;
  struct stat st;
  int mount_id = 0;
  alignas(struct file_handle)
      uint8_t storage[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  struct file_handle* handle = reinterpret_cast<struct file_handle*>(storage);
  handle->handle_bytes = MAX_HANDLE_SZ;
  std::string top_path;
  if (!FsidOf(watch->top_level.Get(), &watch->fsid) ||
      ::fstat(mount_fd, &st) != 0 ||
      ::name_to_handle_at(mount_fd, "", handle, &mount_id, AT_EMPTY_PATH) !=
          0) {
    err = errno;
  } else {
    watch->root_dev = st.st_dev;
    watch->root_ino = st.st_ino;
    watch->root_handle.assign(reinterpret_cast<const char*>(storage),
                              sizeof(struct file_handle) +
                                  handle->handle_bytes);
    err = FindSubvolumeRoot(*watch, &top_path);
  }
  if (err != 0) {
    watch->top_level.Reset();
    return err;
  }
  watch->paths.SetKernelRoot(std::move(top_path));
  return 0;
}

int FanotifyBackend::FindSubvolumeRoot(const MountWatch& watch,
                                       std::string* path) {
  alignas(struct file_handle)
      uint8_t storage[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  if (watch.root_handle.size() > sizeof(storage)) return EINVAL;
  std::memcpy(storage, watch.root_handle.data(), watch.root_handle.size());
  UniqueFd root(OpenByHandleWithin(watch.top_level.Get(),
                                   reinterpret_cast<struct file_handle*>(storage),
                                   O_PATH | O_CLOEXEC));
  if (!root.Valid() || !ReadFdPath(root.Get(), path)) return errno;
  return 0;
}

int FanotifyBackend::MarkableFd(const std::string& mount_point,
                                const MountWatch& watch, UniqueFd* owned) {
  // The top-level mount stays reachable whatever happens at the mount
  // point.
  if (watch.top_level.Valid()) return watch.top_level.Get();
  owned->Reset(OpenPathOnly(mount_point));
  uint64_t now = 0;
  if (!owned->Valid() || !FsidOf(owned->Get(), &now) || now != watch.fsid) {
    return -1;
  }
  return owned->Get();
}

int FanotifyBackend::RemoveWatch(int fd, const std::string& mount_point,
                                 uint32_t /*mask*/) {
  const auto it = FindWatch(fd, mount_point);
  if (it == watches_.end()) return -1;
  const uint64_t fsid = it->second.fsid;
  bool shared = false;
  for (const auto& entry : watches_) {
    if (entry.first != mount_point && entry.second.fsid == fsid) {
      shared = true;
      break;
    }
  }
  int r = 0;
  int err = 0;
  if (!shared) {
    // The file system is marked once for all its watched mount points; the
    // mark goes with the last of them.
    const auto mask = fs_masks_.find(fsid);
    if (mask != fs_masks_.end()) {
      UniqueFd owned;
      const int mount_fd = MarkableFd(mount_point, it->second, &owned);
      if (mount_fd >= 0) {
        r = Mark(FAN_MARK_REMOVE, mount_fd, it->second, mount_point,
                 mask->second);
        err = errno;
      }
      // Otherwise the file system is no longer mounted there. Unmounted, it
      // took its mark along; still mounted but hidden (something mounted
      // over it), its mark cannot be reached any more and stays until the
      // instance closes, its events dropped for want of a watch to name
      // them.
      fs_masks_.erase(mask);
    }
  }
  watches_.erase(it);
  translator_.ForgetPaths();
  if (r != 0) {
    errno = err;
    return -1;
  }
  return 0;
}

int FanotifyBackend::ChangeWatchMask(int fd, const std::string& mount_point,
                                     uint32_t /*old_mask*/,
                                     uint32_t new_mask) {
  const auto it = FindWatch(fd, mount_point);
  if (it == watches_.end()) return -1;
  const uint64_t fsid = it->second.fsid;
  const uint64_t marked = fs_masks_[fsid];
  const uint64_t wanted = FanotifyMarkMask(new_mask, rename_events_);
  const uint64_t added = wanted & ~marked;
  const uint64_t removed = marked & ~wanted;
  UniqueFd owned;
  const int mount_fd = MarkableFd(mount_point, it->second, &owned);
  if (mount_fd < 0) {
    // The file system is no longer mounted there: its mark went with it
    // (see RemoveWatch). Nothing to change in the kernel.
    fs_masks_[fsid] = wanted;
    event_mask_ = new_mask;
    translator_.SetEventMask(event_mask_);
    return 0;
  }
  if (added != 0) {
    if (Mark(FAN_MARK_ADD, mount_fd, it->second, mount_point, added) != 0) {
      return -1;
    }
    fs_masks_[fsid] |= added;
    // The new bits produce records from now on; the old ones still do
    // until they are removed below.
    translator_.SetEventMask(event_mask_ | new_mask);
  }
  if (removed != 0) {
    if (Mark(FAN_MARK_REMOVE, mount_fd, it->second, mount_point, removed) !=
        0) {
      const int err = errno;
      event_mask_ |= new_mask;
      errno = err;
      return -1;
    }
    fs_masks_[fsid] &= ~removed;
  }
  event_mask_ = new_mask;
  translator_.SetEventMask(event_mask_);
  return 0;
}

int FanotifyBackend::WaitReadable(int fd, const struct timeval& timeout,
                                  bool* readable) {
  if (OwnDescriptor(fd) &&
      (staged_begin_ < staged_end_ || translator_.HasPending())) {
    *readable = true;
    return 1;
  }
  if (OwnDescriptor(fd) && stat_dir_.Valid()) {
    // Before waiting for events, let go of the looked-up directory: a
    // quiet volume must be free to unmount.
    const struct timeval zero = {0, 0};
    const int now = WaitFdReadable(fd, zero, readable);
    if (now != 0 && (now < 0 || *readable)) return now;
    ReleaseStatDir();
  }
  const int64_t recheck = OwnDescriptor(fd) ? translator_.RecheckAtMs() : 0;
  if (recheck == 0) return WaitFdReadable(fd, timeout, readable);
  // A contradiction is settling: wake the reader when it is due, so that
  // its rescan does not wait for the next event.
  const int64_t left = recheck - MonotonicMillis();
  const int64_t wanted =
      static_cast<int64_t>(timeout.tv_sec) * 1000 + timeout.tv_usec / 1000;
  if (left <= 0) {
    *readable = true;
    return 1;
  }
  if (left >= wanted) return WaitFdReadable(fd, timeout, readable);
  struct timeval shorter;
  shorter.tv_sec = static_cast<time_t>(left / 1000);
  shorter.tv_usec = static_cast<suseconds_t>((left % 1000) * 1000);
  const int r = WaitFdReadable(fd, shorter, readable);
  if (r != 0) return r;
  *readable = true;
  return 1;
}

ssize_t FanotifyBackend::Read(int fd, void* buffer, size_t capacity) {
  if (!OwnDescriptor(fd)) {
    errno = EBADF;
    return -1;
  }
  // The directory opened for lookups is kept for the next call only if this
  // one looked names up in it too: merged events in one directory keep
  // coming (an archiver replacing a tree), and nothing else stays open.
  struct ReleaseStatDir {
    FanotifyBackend* self;
    ~ReleaseStatDir() {
      if (!self->stat_dir_used_) self->ReleaseStatDir();
      self->stat_dir_used_ = false;
    }
  } release{this};
  uint8_t* out = static_cast<uint8_t*>(buffer);
  // Rescan records concluded earlier go first: they follow the records of
  // the reads they are about.
  size_t produced = translator_.TakePending(out, capacity);
  if (translator_.HasPending()) return static_cast<ssize_t>(produced);
  const int64_t recheck = translator_.RecheckAtMs();
  if (recheck != 0 && MonotonicMillis() >= recheck) repeat_check_due_ = true;
  bool last_read_full = false;
  for (int reads = 0;;) {
    if (staged_begin_ < staged_end_) {
      size_t written = 0;
      const size_t used = translator_.Translate(
          staging_.data() + staged_begin_, staged_end_ - staged_begin_,
          out + produced, capacity - produced, &written);
      staged_begin_ += used;
      produced += written;
      if (staged_begin_ < staged_end_) {
        // The caller's buffer is full; the rest waits for the next Read.
        if (produced == 0 && used == 0) {
          errno = EINVAL;  // too small for even one event's records
          return -1;
        }
        return static_cast<ssize_t>(produced);
      }
      translator_.ReadTranslated();
    }
    if (repeat_check_due_) {
      produced += CheckRepeats(out + produced, capacity - produced);
      if (translator_.HasPending()) return static_cast<ssize_t>(produced);
    }
    // Everything read is translated. Read on only when all of it was
    // dropped, or when the kernel probably holds more and there is room.
    if ((produced > 0 && !last_read_full) || reads == kMaxReadsPerCall) {
      return static_cast<ssize_t>(produced);
    }
    const ssize_t n = RetryOnEintr(
        [&] { return ::read(fd_.Get(), staging_.data(), staging_.size()); });
    ++reads;
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        translator_.QueueFoundEmpty();
        repeat_check_due_ = true;
        produced += CheckRepeats(out + produced, capacity - produced);
        return static_cast<ssize_t>(produced);
      }
      if (produced > 0) return static_cast<ssize_t>(produced);
      return -1;
    }
    if (n == 0) return static_cast<ssize_t>(produced);
    staged_begin_ = 0;
    staged_end_ = static_cast<size_t>(n);
    last_read_full = staging_.size() - staged_end_ < kLargeEvent;
    if (!last_read_full) {
      // fanotify fills a read until its queue runs dry or the buffer is
      // full: with room left, it ran dry.
      translator_.QueueRanDry();
      repeat_check_due_ = true;
    }
  }
}

bool FanotifyBackend::KernelQueueEmpty() {
  const struct timeval zero = {0, 0};
  bool readable = false;
  const int r = WaitFdReadable(fd_.Get(), zero, &readable);
  return r == 0 || (r > 0 && !readable);
}

size_t FanotifyBackend::CheckRepeats(uint8_t* out, size_t room) {
  repeat_check_due_ = false;
  translator_.CheckRepeats(MonotonicMillis(),
                           [this] { return KernelQueueEmpty(); });
  return translator_.TakePending(out, room);
}

bool FanotifyBackend::FinishPending() {
  if (!fd_.Valid()) return false;
  translator_.CheckRepeats(
      MonotonicMillis(), [this] { return KernelQueueEmpty(); },
      /*at_once=*/true);
  ReleaseStatDir();
  return translator_.HasPending();
}

void FanotifyBackend::Resolvers(uint64_t fsid, std::vector<WatchEntry*>* out) {
  out->clear();
  for (auto& entry : watches_) {
    if (entry.second.fsid == fsid) out->push_back(&entry);
  }
  std::sort(out->begin(), out->end(),
            [](const WatchEntry* a, const WatchEntry* b) {
              return a->second.order < b->second.order;
            });
}

int FanotifyBackend::OpenDir(const DirHandle& dir, UniqueFd* out,
                             const WatchEntry* watch) {
  if (watch == nullptr) {
    for (const auto& entry : watches_) {
      if (entry.second.fsid == dir.fsid &&
          (watch == nullptr || entry.second.order < watch->second.order)) {
        watch = &entry;
      }
    }
  }
  if (watch == nullptr) return ESTALE;  // no watched mount point left there
  if (dir.size > MAX_HANDLE_SZ) return EINVAL;

  alignas(struct file_handle)
      uint8_t storage[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  struct file_handle* handle = reinterpret_cast<struct file_handle*>(storage);
  handle->handle_bytes = dir.size;
  handle->handle_type = dir.type;
  std::memcpy(handle->f_handle, dir.bytes, dir.size);

  int through = watch->second.top_level.Get();
  UniqueFd mount_fd;
  if (!watch->second.top_level.Valid()) {
    mount_fd.Reset(OpenPathOnly(watch->first));
    if (!mount_fd.Valid()) return errno;
    uint64_t fsid = 0;
    if (!FsidOf(mount_fd.Get(), &fsid)) return errno;
    // Another file system there now: the watched one was unmounted (or
    // something was mounted over it).
    if (fsid != dir.fsid) return ESTALE;
    through = mount_fd.Get();
  }
  // O_PATH: opening and closing the directory raises no events.
  out->Reset(OpenByHandleWithin(through, handle, O_PATH | O_CLOEXEC));
  if (!out->Valid()) return errno;
  return 0;
}

int FanotifyBackend::MapPath(WatchEntry* entry, const std::string& real,
                             std::string* path) {
  MountWatch& watch = entry->second;
  if (!watch.top_level.Valid()) {
    // Not reachable through the watched mount point: EXDEV.
    return watch.paths.Map(real, path) ? 0 : EXDEV;
  }
  // The subvolume's root must still be where its path says: one lookup
  // tells a renamed subvolume, or another directory put in its place, from
  // the one watched.
  const auto root_still_there = [&] {
    const std::string& top = watch.paths.kernel_root();
    const std::string rel = top == "/" ? "." : top.substr(1);
    struct stat st;
    return ::fstatat(watch.top_level.Get(), rel.c_str(), &st,
                     AT_SYMLINK_NOFOLLOW) == 0 &&
           st.st_dev == watch.root_dev && st.st_ino == watch.root_ino;
  };
  if (root_still_there()) return watch.paths.Map(real, path) ? 0 : EXDEV;
  std::string top_path;
  const int err = FindSubvolumeRoot(watch, &top_path);
  if (err != 0) return err;
  watch.paths.SetKernelRoot(std::move(top_path));
  if (!root_still_there()) return ESTALE;  // moving as we look: no answer
  return watch.paths.Map(real, path) ? 0 : EXDEV;
}

int FanotifyBackend::ResolveDir(const DirHandle& dir, std::string* path) {
  std::vector<WatchEntry*> watches;
  Resolvers(dir.fsid, &watches);
  if (watches.empty()) return ESTALE;  // no watched mount point left there
  int err = EXDEV;
  for (WatchEntry* watch : watches) {
    UniqueFd dir_fd;
    err = OpenDir(dir, &dir_fd, watch);
    if (err != 0) continue;
    std::string real;
    if (!ReadFdPath(dir_fd.Get(), &real)) return errno;
    // Checked after reading the path: a directory removed before or during
    // the read is refused, never reported under a " (deleted)" name.
    struct stat st;
    if (::fstat(dir_fd.Get(), &st) != 0) return errno;
    if (st.st_nlink == 0) return ENOENT;
    // Re-spelt under the mount point string the caller watches.
    err = MapPath(watch, real, path);
    if (err == 0) return 0;
  }
  return err;
}

int FanotifyBackend::UseStatDir(const DirHandle& dir) {
  std::string key;
  MakeDirKey(dir.fsid, dir.type, dir.bytes, dir.size, &key);
  stat_dir_used_ = true;
  if (stat_dir_.Valid() && stat_dir_key_ == key) return 0;
  ReleaseStatDir();
  const int err = OpenDir(dir, &stat_dir_);
  // ENOENT is kept for "no such entry": a directory that cannot be
  // opened is out of reach, whatever the reason.
  if (err != 0) return err == ENOENT ? ESTALE : err;
  stat_dir_key_ = std::move(key);
  return 0;
}

int FanotifyBackend::StatName(const DirHandle& dir, std::string_view name,
                              struct stat* st) {
  if (name.empty() || name == "." || name == ".." ||
      name.find('/') != std::string_view::npos) {
    return EINVAL;  // not one entry of the directory
  }
  const int err = UseStatDir(dir);
  if (err != 0) return err;
  const std::string entry(name);
  if (::fstatat(stat_dir_.Get(), entry.c_str(), st, AT_SYMLINK_NOFOLLOW) ==
      0) {
    return 0;
  }
  return errno;
}

int FanotifyBackend::StatDir(const DirHandle& dir, struct stat* st) {
  const int err = UseStatDir(dir);
  if (err != 0) return err;
  if (!stat_dir_st_known_) {
    if (::fstat(stat_dir_.Get(), &stat_dir_st_) != 0) {
      const int fstat_err = errno;
      return fstat_err == ENOENT ? ESTALE : fstat_err;
    }
    stat_dir_st_known_ = true;
  }
  *st = stat_dir_st_;
  return 0;
}

}  // namespace YULOTIFYD
}  // namespace YULO
