// SourceWatch: notices changes of what the daemon follows by itself, the
// mount table, the volume table and the share configuration (smb.conf).
//
// On a stock machine no other service reports mounts and shares to the
// daemon, so it watches the sources of truth itself:
//   - the mount table, /proc/self/mountinfo: every mount and unmount in the
//     daemon's mount namespace makes an open descriptor of it report an
//     exceptional condition (POLLPRI) to select; nothing needs to be read;
//   - the volume table and smb.conf, through inotify watches on their
//     directories (a watch on the file itself would stay with the old file
//     when it is replaced by rename). A file of that name written, renamed
//     into or out of the directory, or removed, is a change.
//
// Changes are settled: they fall due kSettleMillis after the last one, so
// that a burst (a table rewritten in several steps, mounts at boot, an
// unmount and mount again) is followed once; but no later than
// kLongestSettleMillis after the first, so that changes that never stop
// (something mounting and unmounting in a loop) cannot hold the others
// back for good. The main loop asks how long it
// may wait (MillisUntilDue) and takes what is due (TakeDue); it never
// spins. Times are milliseconds on the monotonic clock, passed in, so that
// tests can step through them.
//
// Ownership: owns its descriptors, closed by Close or on destruction.
// Thread-safety: none; the daemon's main thread only.
#ifndef YULOTIFYD_DAEMON_SOURCE_WATCH_H_
#define YULOTIFYD_DAEMON_SOURCE_WATCH_H_

#include <sys/select.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

class SourceWatch {
 public:
  // What changed; a bit set.
  enum Change : unsigned {
    kVolumes = 1,  // the mount table or the volume table
    kShares = 2,   // the share configuration
  };
  static constexpr int64_t kSettleMillis = 500;
  static constexpr int64_t kLongestSettleMillis = 5000;

  struct Paths {
    std::string mount_table;   // "/proc/self/mountinfo"; "" to leave out
    std::string volume_table;  // "" to leave out
    std::string share_conf;    // "" to leave out
  };

  SourceWatch() = default;
  SourceWatch(const SourceWatch&) = delete;
  SourceWatch& operator=(const SourceWatch&) = delete;

  // Starts watching. A source that cannot be watched is logged and left
  // out (so is a file whose directory does not exist now); returns whether
  // anything is watched. REQUIRES: not open.
  bool Open(const Paths& paths);
  void Close();

  // Adds the descriptors to the sets of a select call and raises *width to
  // cover them.
  void AddToSets(fd_set* readable, fd_set* exceptional, int* width) const;

  // After select returned `readable` and `exceptional`: takes note of what
  // changed, at `now_ms`.
  void Handle(const fd_set& readable, const fd_set& exceptional,
              int64_t now_ms);

  // Notes `changes` as happening at `now_ms`: they fall due kSettleMillis
  // later (at the latest kLongestSettleMillis after the first change still
  // pending), together with any still pending.
  void Note(unsigned changes, int64_t now_ms);

  // Milliseconds until the pending changes fall due (0 when they are due);
  // -1 when nothing is pending.
  int64_t MillisUntilDue(int64_t now_ms) const;

  // The changes due at `now_ms`, forgotten here; 0 when none are due yet.
  unsigned TakeDue(int64_t now_ms);

 private:
  // A file watched through its directory's inotify watch.
  struct FileWatch {
    int wd;
    std::string name;  // base name in the directory
    unsigned change;
  };

  void WatchFile(const std::string& path, unsigned change);
  void ReadInotify(int64_t now_ms);

  UniqueFd mount_table_;
  UniqueFd inotify_;
  std::vector<FileWatch> files_;
  unsigned pending_ = 0;
  int64_t first_ms_ = 0;  // when the first pending change was noted
  int64_t due_ms_ = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_SOURCE_WATCH_H_
