// FanotifyBackend: the appliance notification protocol on stock Linux.
//
// Used when the appliance calls do not exist (see OpenKernelBackend). It
// emulates them so that nothing above the backend can tell the difference:
//
//   Init         fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME ...);
//                the descriptor is the fanotify descriptor, so waiting on it
//                with select or poll works unchanged
//   AddWatch     one FAN_MARK_FILESYSTEM mark for the mount point's file
//                system (a file system mounted at several watched places is
//                marked, and reported, once). A btrfs subvolume mounted on
//                its own, where the kernel refuses that mark (EXDEV), is
//                marked through a detached mount of its file system's
//                top-level subvolume instead (subvolume_mount.h): no
//                per-directory marks, set-up constant in the tree's size.
//                On failure errno holds the kernel's reason (EXDEV when
//                even that way is closed)
//   RemoveWatch  removes that mark when no watched mount point is left on
//                the file system (one no longer mounted at its mount point
//                lost its mark when it was unmounted)
//   ChangeWatchMask  widens or narrows that mark in place
//   Read         packed RawNotifyRecords with full paths, never a record
//                split across two reads (see FanotifyTranslator); it tells
//                the translator when a read found the kernel queue empty
//                and then has it check repeated names (CheckRepeats)
//
// Full paths: the directory handle of each event is opened with
// open_by_handle_at(O_PATH) on the watched mount point's file system (O_PATH
// opens raise no events of their own) and its path read back from
// /proc/self/fd; answers are cached per directory. Paths are spelt under the
// mount point string given to AddWatch. For a subvolume watched through the
// top-level subvolume, handles are decoded through the detached mount,
// paths below the subvolume are re-spelt under the mount point (PathRemap)
// and events elsewhere on the file system are dropped (one lookup per
// directory, then remembered until a directory is renamed); one fstatat per
// looked-up directory checks that the subvolume's root is still where its
// path says, and a renamed subvolume is found again by its handle.
//
// Never keeps a volume busy: between calls the backend holds no descriptor
// on a watched file system (a fanotify mark does not pin a mount), so the
// volume can be unmounted at any time. The mount point is opened again for
// each directory lookup, and the working directory, through which the handle
// is decoded, rests on it only during that lookup (see OpenByHandleWithin in
// the .cc: the calling thread gets a working directory of its own for it).
// One exception, while events keep coming: the directory whose names were
// last looked up (StatName and StatDir, for merged events and directory
// creates) stays open from one Read to the next as long as each Read looks
// names up in it, so that an archiver replacing a tree costs one fstatat
// per merged event; it is closed by the
// first Read that does not use it, by WaitReadable before it waits for
// events, and by RemoveWatch.
// When a watched file system is unmounted, the kernel drops its mark and
// nothing more arrives from it; events already queued whose directory is not
// cached are dropped. The exception is the detached top-level mount of a
// subvolume watch: it does not keep the user's mount busy (umount succeeds
// at once), but it keeps the file system itself alive until RemoveWatch or
// the backend's destruction lets it go.
//
// Requirements: CAP_SYS_ADMIN (file-system marks; Init fails with EPERM
// without it, leaving the caller inert), CAP_DAC_READ_SEARCH
// (open_by_handle_at), /proc, Linux 5.9 (FAN_REPORT_DFID_NAME). FAN_RENAME,
// which pairs the two names of a move, needs Linux 5.17; on older kernels
// moves come as unpaired halves (see FanotifyTranslator).
//
// Ownership: owns the fanotify descriptor, closed on destruction, the
// detached top-level mounts of subvolume watches, and no other descriptor
// between calls.
// Thread-safety: none (see NotifyBackend). Read (through path lookups)
// gives the calling thread a working directory of its own the first time.
#ifndef YULOTIFYD_NOTIFY_FANOTIFY_BACKEND_H_
#define YULOTIFYD_NOTIFY_FANOTIFY_BACKEND_H_

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "notify/fanotify_translator.h"
#include "notify/notify_backend.h"
#include "notify/subvolume_mount.h"

namespace YULO {
namespace YULOTIFYD {

class FanotifyBackend : public NotifyBackend, private DirResolver {
 public:
  enum class MoveEvents {
    kAuto,    // FAN_RENAME when the kernel has it, else the halves
    kRename,  // FAN_RENAME only
    kHalves,  // FAN_MOVED_FROM / FAN_MOVED_TO only (what old kernels give)
  };

  struct Options {
    MoveEvents move_events = MoveEvents::kAuto;
    // fanotify events read at once; translated records must fit the
    // caller's buffer, and what does not fit waits for the next Read.
    size_t staging_bytes = 128 * 1024;
  };

  FanotifyBackend();
  explicit FanotifyBackend(const Options& options);
  ~FanotifyBackend() override;

  const char* Name() const override { return "fanotify"; }
  int Init() override;
  int AddWatch(int fd, const std::string& mount_point, uint32_t mask) override;
  int RemoveWatch(int fd, const std::string& mount_point,
                  uint32_t mask) override;
  // FAN_MARK_ADD of the bits newly wanted on the mount point's file system,
  // then FAN_MARK_REMOVE of the bits no longer wanted; the mark itself is
  // never removed. Records are written for the union of both masks until
  // the removal is done.
  int ChangeWatchMask(int fd, const std::string& mount_point,
                      uint32_t old_mask, uint32_t new_mask) override;
  // Reports readable at once, without a system call, while events read from
  // the kernel are still waiting to be translated.
  int WaitReadable(int fd, const struct timeval& timeout,
                   bool* readable) override;
  ssize_t Read(int fd, void* buffer, size_t capacity) override;
  // Acts on every contradiction of the repeat check at once, settled or not
  // (see FanotifyTranslator), when the kernel queue is empty.
  bool FinishPending() override;

  // Whether moves are reported with FAN_RENAME (known after the first
  // successful AddWatch in kAuto mode).
  bool rename_events() const { return rename_events_; }
  bool PairsRenames() const override { return rename_events_; }
  const FanotifyTranslator& translator() const { return translator_; }

 private:
  struct MountWatch {
    // The file-system id the events of the watch carry: the mount point's,
    // or for a btrfs subvolume mounted on its own, the top-level
    // subvolume's.
    uint64_t fsid = 0;
    uint64_t order = 0;  // AddWatch sequence, oldest resolves paths first
    // Paths read back from the kernel, spelt under the mount point string.
    PathRemap paths{std::string(), std::string()};
    bool is_dir = false;
    // For a btrfs subvolume mounted on its own (see subvolume_mount.h): the
    // detached mount of the file system's top-level subvolume, through
    // which the file system is marked and handles are decoded; the handle
    // of the subvolume's root, to find it again when it was renamed; and
    // its identity, to check that the path known for it still names it.
    UniqueFd top_level;
    std::string root_handle;  // struct file_handle bytes
    dev_t root_dev = 0;
    ino_t root_ino = 0;
  };
  using WatchEntry = std::pair<const std::string, MountWatch>;

  int ResolveDir(const DirHandle& dir, std::string* path) override;
  int StatName(const DirHandle& dir, std::string_view name,
               struct stat* st) override;
  int StatDir(const DirHandle& dir, struct stat* st) override;
  // An O_PATH descriptor of the directory `dir` into *out, through `watch`
  // (by default the oldest watch of its file system). 0, or an errno
  // value.
  int OpenDir(const DirHandle& dir, UniqueFd* out,
              const WatchEntry* watch = nullptr);
  // The directory StatName and StatDir look in, opened (and kept) for
  // `dir`. 0, or an errno value (ESTALE when it cannot be opened).
  int UseStatDir(const DirHandle& dir);
  // The path of `real`, a path read back through `watch`, spelt under its
  // mount point. 0, or EXDEV when it lies outside what the watch sees.
  int MapPath(WatchEntry* watch, const std::string& real, std::string* path);
  // Where the EXDEV of a whole-file-system mark through `mount_fd` came
  // from a btrfs subvolume mounted on its own: mounts the top-level
  // subvolume privately for `watch` and learns where the subvolume lies in
  // it. 0, or an errno value.
  int SetUpTopLevel(int mount_fd, MountWatch* watch);
  // The path of the subvolume's root below the top-level subvolume, looked
  // up anew by its handle. 0, or an errno value.
  static int FindSubvolumeRoot(const MountWatch& watch, std::string* path);
  // The translator's repeat check, asking the kernel queue whether it is
  // still empty; then moves the pending records that fit to `out`.
  size_t CheckRepeats(uint8_t* out, size_t room);
  void ReleaseStatDir();
  // Whether the kernel holds no event right now (a zero-timeout poll).
  bool KernelQueueEmpty();
  // fanotify_mark on the file system of `mount_fd`, an O_PATH descriptor of
  // `mount_point`, or through the watch's top-level mount when it has one.
  int Mark(unsigned int flags, int mount_fd, const MountWatch& watch,
           const std::string& mount_point, uint64_t mask);
  // A descriptor through which `watch`'s file system can still be marked
  // (its top-level mount, or its mount point opened again) into *owned (or
  // nothing owned for the top-level mount); -1 when the file system is no
  // longer mounted at the mount point.
  int MarkableFd(const std::string& mount_point, const MountWatch& watch,
                 UniqueFd* owned);
  bool OwnDescriptor(int fd) const;
  // The watch of `mount_point`; watches_.end() with errno EBADF (not our
  // descriptor) or ENOENT (no such watch).
  std::map<std::string, MountWatch>::iterator FindWatch(
      int fd, const std::string& mount_point);
  // The watches of `fsid` into *out, oldest first: paths are resolved
  // through the first that sees them.
  void Resolvers(uint64_t fsid, std::vector<WatchEntry*>* out);

  Options options_;
  UniqueFd fd_;
  // Written by the reading thread, read by anyone (diagnostics).
  std::atomic<bool> rename_events_{true};
  bool move_mode_known_ = false;
  uint32_t event_mask_ = 0;
  uint64_t next_order_ = 0;
  std::map<std::string, MountWatch> watches_;  // by mount point string
  std::map<uint64_t, uint64_t> fs_masks_;      // fsid -> marked kernel mask
  std::vector<uint8_t> staging_;
  size_t staged_begin_ = 0;
  size_t staged_end_ = 0;
  // The last read found the kernel queue empty; the repeat check is due
  // once its events are translated.
  bool repeat_check_due_ = false;
  // The directory StatName last opened (see the top of this file), and
  // whether the Read under way looked a name up.
  UniqueFd stat_dir_;
  std::string stat_dir_key_;
  bool stat_dir_used_ = false;
  // fstat of stat_dir_, taken when StatDir first asks (0: not yet).
  struct stat stat_dir_st_ {};
  bool stat_dir_st_known_ = false;
  FanotifyTranslator translator_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_FANOTIFY_BACKEND_H_
