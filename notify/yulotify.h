// YULotify: per-path watches over the kernel's mount-point-wide
// notification facility.
//
// The kernel watches whole mount points and reports every change on the
// mounted file system by full path. YULotify turns that into watches on
// single paths (shared folders): AddWatch gives each path a watch id, the
// object keeps one kernel watch per mount point, counted by the watched
// paths on it, and ReadEvent decodes each kernel record into a NotifyEvent
// naming the watched path that covers the object and the part below it.
//
// Backend. The kernel calls go through a NotifyBackend: by default the
// appliance calls, or fanotify when the kernel lacks them (see
// OpenKernelBackend). When no backend comes up the object is inert: every
// AddWatch of a new path fails, HasEvent is false, and ReadEvent only logs
// and returns false.
//
// Ownership: owns its backend (and so the notification descriptor, closed
// on destruction) and its read buffer. The destructor removes no watch one
// by one; call RemoveAllWatches for that.
// Thread-safety: none. All calls on one object must come from one thread at
// a time (the owning receiver thread); only GetMountPoint and ParentDir,
// which keep no state, may run anywhere.
#ifndef YULOTIFYD_NOTIFY_YULOTIFY_H_
#define YULOTIFYD_NOTIFY_YULOTIFY_H_

#include <sys/time.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "notify/mount_point.h"
#include "notify/notify_backend.h"
#include "notify/notify_event.h"
#include "notify/raw_record.h"

namespace YULO {
namespace YULOTIFYD {

class YULotify {
 public:
  // Bytes fetched from the descriptor by one read.
  static constexpr size_t kReadBufferSize = 262976;

  // Opens the kernel instance (appliance calls first, then fanotify) for the
  // event bits of `mask`. On failure logs the init line and leaves an inert
  // object.
  explicit YULotify(uint32_t mask);

  // The same over a given backend, resolving mount points through
  // `mount_env` (the real file system when null; else it must outlive the
  // object). For tests and tools.
  YULotify(uint32_t mask, std::unique_ptr<NotifyBackend> backend,
           const MountEnv* mount_env = nullptr);

  virtual ~YULotify();

  YULotify(const YULotify&) = delete;
  YULotify& operator=(const YULotify&) = delete;

  // Watches `path`; returns its watch id (>= 0), or -1 when the kernel watch
  // for its mount point cannot be added. A path already watched returns its
  // id and adds no reference. Ids count up from 0 and are never reused.
  int AddWatch(const std::string& path);

  // Drops the watch with this id (nothing when unknown); the mount point's
  // kernel watch goes with its last watched path. The mount point is
  // resolved again here, so a path that meanwhile vanished or moved to
  // another file system leaves the count found at add time unchanged.
  void RemoveWatch(int id);

  // Removes every kernel watch and forgets all paths and any records read
  // but not decoded yet. Ids keep counting from where they were.
  void RemoveAllWatches();

  // Makes `mask` the event bits of every kernel watch, present and future,
  // changing each in place (NotifyBackend::ChangeWatchMask): no watch is
  // removed, and no bit wanted both before and after is ever unwatched.
  // Returns false, after logging, when some kernel watch could not be
  // changed; the mask is then the union of both, as far as the kernel
  // took it. Nothing happens on an inert object.
  bool SetEventMask(uint32_t mask);

  // The watched path covering `name` (trailing slashes ignored, see the .cc)
  // into `watch`, the rest of the name into `relative` ("/" when nothing is
  // left) and its id into `id`. 0 when found, -1 when no watch covers it;
  // the outputs are then untouched. Of nested watched paths the outer wins.
  int LookupWatch(std::string_view name, std::string& watch,
                  std::string& relative, int& id) const;

  // True when a record waits in the buffer or the descriptor is readable
  // right now; never blocks. False at once on an inert object.
  bool HasEvent();

  // Refills the buffer when it is empty: 0 when it holds data, was refilled
  // or nothing arrived within the read timeout; -1 on a read error.
  int FillBuffer();

  // Decodes the next record into `out`, reading the descriptor (waiting up
  // to the read timeout) when the buffer is empty. True when `out` holds a
  // new event; false on timeout, error, or a record under no watched path
  // (consumed and dropped). One call decodes at most one record.
  bool ReadEvent(NotifyEvent& out);

  // Has the backend make ready what it still holds back (see
  // NotifyBackend::FinishPending), for a reader about to stop: true when
  // HasEvent and ReadEvent now have more to give.
  bool FinishPending();

  // `raw` -> `out`: 0 decoded; -1 (out untouched) when no watch covers the
  // record's name. Overflow records decode without a lookup.
  int DecodeEvent(const RawNotifyRecord& raw, NotifyEvent& out) const;

  // Waits up to `timeout` for `fd` and reads up to `capacity` bytes: the
  // byte count, 0 on timeout or end of data, -1 (logged) on error.
  ssize_t ReadWithTimeout(int fd, const struct timeval& timeout, void* buffer,
                          size_t capacity);

  // The mount point of `path` (see mount_point.h).
  std::string GetMountPoint(const std::string& path) const;
  static std::string ParentDir(const std::string& path);

  // The time every later blocking read waits (1 s after construction).
  void SetReadTimeout(long seconds, long microseconds);

  // Read-only views, for the owner's diagnostics and for tests.
  int descriptor() const { return fd_; }
  uint32_t event_mask() const { return mask_; }
  int32_t next_watch_id() const { return next_id_; }
  const struct timeval& read_timeout() const { return read_timeout_; }
  const std::map<std::string, int32_t, std::less<>>& watched_paths() const {
    return watched_paths_;
  }
  const std::map<std::string, uint64_t, std::less<>>& mount_points() const {
    return mount_points_;
  }
  uint64_t buffer_offset() const { return buffer_offset_; }
  uint64_t buffer_pending() const { return buffer_pending_; }
  uint64_t buffer_capacity() const { return buffer_capacity_; }
  // The backend in use (null only if none could be made at all).
  const NotifyBackend* backend() const { return backend_.get(); }

 private:
  void Init();
  int AddKernelWatch(int fd, const std::string& mount_point, uint32_t mask);
  int RemoveKernelWatch(int fd, const std::string& mount_point, uint32_t mask);

  // Watched path -> watch id, in byte-wise order of the paths.
  std::map<std::string, int32_t, std::less<>> watched_paths_;
  // Mount point with a kernel watch -> number of watched paths on it.
  std::map<std::string, uint64_t, std::less<>> mount_points_;
  uint32_t mask_ = 0;
  int32_t next_id_ = 0;
  int fd_ = -1;  // owned by backend_
  struct timeval read_timeout_ = {0, 0};
  std::unique_ptr<uint8_t[]> buffer_;
  uint64_t buffer_offset_ = 0;
  uint64_t buffer_pending_ = 0;
  uint64_t buffer_capacity_ = 0;

  std::unique_ptr<NotifyBackend> backend_;
  const MountEnv* mount_env_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_YULOTIFY_H_
