// QueueConsumer: takes the lines yulotifyd has appended to a queue file.
//
// The daemon appends one JSON object per line to a queue file: each batch
// of lines it has for the file goes in with a single write, while it holds
// an exclusive flock() on the file; it tries that lock without blocking,
// three times within about 30 ms, and if the file stays locked it keeps
// the lines and tries again at its next pass, 3 seconds later. A consumer
// therefore holds the lock as briefly as it can, or its lines come late:
//
//   1. open the file (read-write, never creating it, never through a
//      symbolic link) and check that it is a queue file one may take
//      from: a regular file with one link, owned by the expected owner
//      (below), no larger than a queue file gets;
//   2. take the exclusive lock: non-blocking attempts, a millisecond or so
//      apart, for at most `lock_timeout_ms`;
//   3. read the file, at most `max_read_bytes` of it;
//   4. cut it down to its unfinished last line, if there is one (normally
//      there is none, since the daemon writes whole lines; after a failed
//      write the fragment stays where it is, so nothing is thrown away), or
//      to nothing; when the file held more than was read, move what was
//      not read to the front instead, so the next call takes it;
//   5. release the lock and close the file;
//
// and only then hands the lines to the caller. The lock is never held for
// more than that one read and one truncation. A line that does not parse as
// JSON is handed over like any other; the caller decides what to do with it.
//
// Whoever may write in the queue file's directory can put something else
// in the file's place. A consumer often runs with more rights than that
// person (root, or the forwarder), so it refuses, without reading or
// changing a byte: a symbolic link; anything but a regular file (a FIFO
// would also hang a reader); a file with more than one hard link (it has
// another name somewhere, maybe one its owner cares about); a file not
// owned by the expected owner, by default the owner of the file's
// directory or the caller itself (set_expected_owner() names another); and
// a file larger than kMaxQueueFileBytes, which the daemon never writes,
// since it resets a file once it passes kQueueFileResetBytes.
//
// A queue that has grown past 100 MiB is reset by the daemon: its first line
// is then {"event": 1024, ...}, followed by one {"event": 512, "path": P}
// line per share P of the queue, and the daemon adds nothing more until a
// consumer has emptied the file. A consumer that sees code 1024 rescans the
// paths of the 512 lines after it.
//
// Applied in the order taken, the lines keep a consumer's picture of the tree
// equal to the disk once the queue is quiet: 64 adds the path, 128 removes
// it (a directory with everything below it), 256 renames path_old to path (a
// directory with everything below it), 512 says: list the path again and
// take what is on disk, 1 to 32 change content or metadata, not names. The
// daemon writes a 512 line where the kernel's report leaves changes in
// doubt, for the smallest directory that covers them, and one for a
// directory that arrived whole, right after its 64 line.
//
// Thread-safety: a QueueConsumer may be used by one thread at a time. Any
// number of consumers (in this or other processes) may work on the same file;
// the lock hands each line to exactly one of them.
#ifndef YULOTIFYD_QUEUE_CONSUMER_H_
#define YULOTIFYD_QUEUE_CONSUMER_H_

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

class YULOTIFYD_EXPORT QueueConsumer {
 public:
  static constexpr int kDefaultLockTimeoutMs = 5000;
  // The daemon resets a queue file that has grown past this size...
  static constexpr off_t kQueueFileResetBytes = 104857600;  // 100 MiB
  // ...so it never makes one larger than this (its last batch of lines
  // may pass the reset size by less than the slack).
  static constexpr off_t kMaxQueueFileBytes =
      kQueueFileResetBytes + 1024 * 1024;
  // What one Consume() or Peek() reads at most, unless set otherwise.
  static constexpr size_t kDefaultMaxReadBytes = 16 * 1024 * 1024;
  // No line the daemon writes comes near this length; set_max_read_bytes()
  // takes no less.
  static constexpr size_t kMinMaxReadBytes = 64 * 1024;

  struct Result {
    bool ok = false;
    // The complete lines taken from the file, without their line feeds, in
    // file order. Empty lines are left out.
    std::vector<std::string> lines;
    // True when an unfinished last line was left in the file.
    bool kept_partial_line = false;
    // True when the file held more than this call read (max_read_bytes):
    // the complete lines after those returned are still in the file, and
    // the next call takes (or shows) them.
    bool more = false;
    // errno of the failed call (0 if none) and a one-line text: why the
    // call failed when !ok; when ok, empty or a warning (the unfinished
    // line could not be put back).
    int error = 0;
    std::string message;
  };

  explicit QueueConsumer(std::string queue_path,
                         int lock_timeout_ms = kDefaultLockTimeoutMs);

  const std::string& queue_path() const { return queue_path_; }

  // At most `bytes` of the file are read by one call, and so held in
  // memory; values below kMinMaxReadBytes count as kMinMaxReadBytes.
  void set_max_read_bytes(size_t bytes);
  size_t max_read_bytes() const { return max_read_bytes_; }

  // The file must be owned by `uid`, instead of by its directory's owner or
  // the caller.
  void set_expected_owner(uid_t uid);

  // Takes every complete line from the queue file, or those in its first
  // max_read_bytes (Result::more then says more are left). A missing file
  // is not an error: it simply holds no lines yet (the daemon creates it
  // with its first line). Fails, taking nothing and leaving the file as it
  // was, when the file cannot be opened, read or truncated, is refused (see
  // above; error ELOOP for a symbolic link, EINVAL for a file that is not
  // regular or has several links, EPERM for another owner, EFBIG for a file
  // too large or whose first max_read_bytes hold no complete line), or stays
  // locked by others for longer than the lock time-out. When the path is
  // replaced by another file while the lock is awaited, the new file is the
  // one consumed.
  Result Consume() const;

  // Called with the complete lines while the lock is still held, before the
  // file is cut. Returning false keeps every line in the file (the call then
  // fails with `why`): a consumer that must have the lines safe somewhere
  // else before they leave the queue file stores them here. Whatever it does
  // delays the daemon's writers, who give up for one pass (3 seconds) after
  // about 30 ms of waiting for the lock, so it should be one write and one
  // fsync at most.
  using KeepLines =
      std::function<bool(const std::vector<std::string>& lines,
                         std::string* why)>;

  // Consume() with `keep` run before the file is cut.
  Result Consume(const KeepLines& keep) const;

  // The complete lines of the queue file, left where they are: the file is
  // opened read-only and only read, so its content and mtime stay as they
  // were (and its atime too, where O_NOATIME is allowed). The read happens
  // under a shared flock, so a line the daemon is writing at that moment is
  // either wholly there or not at all; the lock is held for that one read
  // and taken the same way as in Consume(), within the lock time-out. An
  // unfinished last line is not returned (kept_partial_line says it is
  // there). Unlike Consume(), a missing file is an error (ENOENT): there is
  // nothing to look at. Fails too when the file is refused as in Consume(),
  // cannot be read, or stays locked by others. Only the lines within the
  // first max_read_bytes are shown (Result::more says there are others).
  Result Peek() const;

 private:
  std::string queue_path_;
  int lock_timeout_ms_;
  size_t max_read_bytes_ = kDefaultMaxReadBytes;
  bool owner_set_ = false;
  uid_t expected_owner_ = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_QUEUE_CONSUMER_H_
