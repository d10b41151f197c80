// NotifyBackend: the narrow seam between YULotify and the kernel.
//
// YULotify speaks the appliance's notification protocol: an init call that
// returns a descriptor, add-watch and remove-watch calls on whole mount
// points, and a descriptor that yields packed RawNotifyRecords (see
// raw_record.h) when read. A backend provides exactly these calls:
//
//   SyscallBackend   the appliance kernel's own calls (tried first)
//   FanotifyBackend  the same protocol emulated on stock Linux with fanotify
//   tests            fakes that serve made-up records
//
// Every call reports failure as -1 with errno, like the system calls it
// stands for.
//
// Ownership: the backend owns the descriptor that Init returns and closes it
// when it is destroyed; callers keep only the number.
// Thread-safety: none. A backend belongs to one YULotify and is used by one
// thread at a time.
#ifndef YULOTIFYD_NOTIFY_NOTIFY_BACKEND_H_
#define YULOTIFYD_NOTIFY_NOTIFY_BACKEND_H_

#include <sys/time.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

class NotifyBackend {
 public:
  virtual ~NotifyBackend() = default;

  // Short name for logs and diagnostics ("appliance", "fanotify", ...).
  virtual const char* Name() const = 0;

  // Whether a rename comes as two halves sharing a cookie (so that it can
  // become one move line) rather than as unrelated halves. Callable from
  // any thread.
  virtual bool PairsRenames() const { return true; }

  // Opens the notification instance. Returns its descriptor (>= 0), or -1
  // with errno. REQUIRES: called once, before any other call.
  virtual int Init() = 0;

  // Starts reporting every change on the file system mounted at
  // `mount_point`, for the event bits of `mask`. 0 on success, else -1.
  virtual int AddWatch(int fd, const std::string& mount_point,
                       uint32_t mask) = 0;

  // Stops what AddWatch(fd, mount_point, mask) started. 0 on success, else
  // -1 (for instance when the mount point carries no watch).
  virtual int RemoveWatch(int fd, const std::string& mount_point,
                          uint32_t mask) = 0;

  // Changes the event bits of the watch AddWatch placed on `mount_point`
  // from `old_mask` to `new_mask`, in place: the bits only `new_mask` has
  // are added before the bits only `old_mask` has are removed, so that an
  // event type both masks want is never unwatched, not even for a moment.
  // 0 on success, else -1 with errno. By default an add-watch call with the
  // added bits, then a remove-watch call with the removed ones (each only
  // when there are any), which is what the appliance calls take.
  virtual int ChangeWatchMask(int fd, const std::string& mount_point,
                              uint32_t old_mask, uint32_t new_mask);

  // Waits up to `timeout` for `fd` to become readable, like select(2) on a
  // set holding only `fd`: returns 1 when the wait ended with `fd` reported
  // (then *readable tells whether it is readable), 0 on timeout, -1 with
  // errno on failure. Interrupted waits resume with the time left.
  virtual int WaitReadable(int fd, const struct timeval& timeout,
                           bool* readable) = 0;

  // Reads whole records, at most `capacity` bytes, into `buffer`. Returns
  // the byte count (0 when nothing is available), or -1 with errno. Never
  // returns part of a record.
  virtual ssize_t Read(int fd, void* buffer, size_t capacity) = 0;

  // Makes the records the backend still holds back (rescans it waits to be
  // sure of) ready for Read now, for a reader that is about to stop.
  // Returns whether that gave anything to read.
  virtual bool FinishPending() { return false; }
};

// WaitReadable for a real descriptor, with ppoll(2) (no FD_SETSIZE limit).
// A negative or closed descriptor fails with EBADF, as select would.
int WaitFdReadable(int fd, const struct timeval& timeout, bool* readable);

// Initialises the candidates in order and keeps the first that comes up;
// moves on to the next only when Init fails with ENOSYS (the call does not
// exist on this kernel). Returns the descriptor, or -1 with errno from the
// last attempt. *chosen receives the backend that came up, or the last one
// tried when none did (so that later calls fail the way it fails).
int OpenFirstBackend(std::vector<std::unique_ptr<NotifyBackend>> candidates,
                     std::unique_ptr<NotifyBackend>* chosen);

// OpenFirstBackend over the appliance calls, then fanotify.
int OpenKernelBackend(std::unique_ptr<NotifyBackend>* chosen);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_NOTIFY_BACKEND_H_
