// QueueOutbox: the lines on their way into one queue file.
//
// The event processor adds to a file's outbox every line a pass produces for
// that file, in order, and at the end of the pass has the outbox append them
// all at once: one open, one lock, one look at the head, one fstat and one
// write for the whole batch (AppendToQueue). The bytes that reach the file
// are exactly those that appending the lines one at a time would give,
// the 100 MiB reset included.
//
// Nothing is dropped when the file cannot take the lines (lock held by a
// consumer, open or write failing): the file is left as it was (a short write
// is truncated back), the lines stay in the outbox ahead of later ones, and
// every later AppendToQueue tries again. Such a failure is logged once when
// it starts and once when the file takes lines again. When more than
// kOutboxMaxLines lines or kOutboxMaxBytes bytes are kept, they are replaced
// by one rescan line per share of the queues that name the file, so a file
// that never comes back costs bounded memory and its consumer still learns
// what to rescan. The shares are remembered while lines are kept, so that a
// reload that removed the file's queues' monitors meanwhile still leaves
// them somewhere to point; a file that no queue names any more at that
// point has no consumer left, and its lines are dropped with one log line. A file in the reset state (first line a reset marker)
// takes nothing: lines meant for it are dropped, since the marker already
// tells its consumer to rescan.
//
// Ownership: owns its lines. Uses, without owning, the QueueFileOps passed
// in. No descriptor is held between calls.
// Thread-safety: none; one outbox belongs to one processor thread. The lock
// on the file is what orders it with consumers and other processors.
#ifndef YULOTIFYD_OUTPUT_QUEUE_OUTBOX_H_
#define YULOTIFYD_OUTPUT_QUEUE_OUTBOX_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "output/queue_file.h"
#include "output/queue_file_status.h"
#include "output/queue_file_ops.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

class QueueOutbox {
 public:
  // How the file did at the last attempt.
  using State = QueueFileState;

  // The lines of the queues naming file `path` whose configuration file
  // belongs to `owner_uid`:`owner_gid`. For an owner other than root, every
  // operation on the file runs with the owner's file-system ids, so a
  // subscription writes only where its owner could.
  explicit QueueOutbox(std::string path, uid_t owner_uid = 0,
                       gid_t owner_gid = 0);

  QueueOutbox(const QueueOutbox&) = delete;
  QueueOutbox& operator=(const QueueOutbox&) = delete;

  const std::string& path() const { return path_; }

  // Adds one line: `text` is the JSON object without its line feed. For a
  // move line, `quoted_old_path` is its "path_old" value as quoted JSON
  // text (a reset that this line triggers keeps it in the marker and the
  // rescan lines); empty otherwise. Adds nothing when it throws
  // std::bad_alloc.
  void AddLine(std::string_view text, std::string_view quoted_old_path = {});

  // Appends every line held to the file under its lock, as described above.
  // `snapshot` serves a reset and the rescan lines of a full outbox: the
  // shares of every queue whose file path equals this outbox's. True when
  // the outbox is empty afterwards.
  bool AppendToQueue(const std::vector<MonitorQueue>& snapshot,
                     QueueFileOps& ops);

  bool empty() const { return lines_.empty(); }
  size_t LineCount() const { return lines_.size(); }
  size_t ByteCount() const { return bytes_.size(); }
  State state() const { return state_; }
  // Lines that reached the file since the outbox was made.
  uint64_t lines_written() const { return lines_written_; }
  // When the oldest line in the file was appended, as far as this outbox
  // knows: the time of its first append after it last found the file empty
  // (or reset it), or of its first append at all when the file held lines
  // already (a lower bound of their age). 0 before the first append.
  time_t oldest_line_time() const { return oldest_line_time_; }
  // The last failure's text ("" when none yet) and when it happened.
  const std::string& last_error() const { return last_error_; }
  time_t last_error_time() const { return last_error_time_; }

 private:
  struct Line {
    size_t end;          // offset just past its line feed in bytes_
    uint32_t old_index;  // 1 + index into old_paths_; 0 when not a move
  };

  enum class Outcome { kWritten, kKept, kDropped };
  enum class Failure { kOpen, kBusy, kLock, kWrite, kIds, kNotRegular };

  // Open, lock, write and release, with the thread's current ids.
  bool AppendAs(const std::vector<MonitorQueue>& snapshot, QueueFileOps& ops);
  // The locked part of AppendToQueue, once the file is open and locked.
  Outcome WriteLocked(int fd, const std::vector<MonitorQueue>& snapshot,
                      QueueFileOps& ops);
  // Empties the file and writes a reset marker and the rescan lines built
  // from line `index` (whose "path_old", if any, they keep).
  Outcome Reset(int fd, size_t index, const std::vector<MonitorQueue>& snapshot,
                QueueFileOps& ops);
  // Logs "Queue oversized": always, at warning priority, when the file is
  // reset (`reset`); at debug level when lines meet a file that was reset
  // and are dropped.
  void LogOversized(bool reset) const;
  // The reset output (marker, then one rescan line per share) as lines.
  std::string ResetText(std::string_view quoted_old_path,
                        const std::vector<MonitorQueue>& snapshot) const;
  // Replaces what is held by one rescan line per share.
  void ReplaceByRescans(const std::vector<MonitorQueue>& snapshot);
  // Whether a queue of `snapshot` names this file.
  bool Subscribed(const std::vector<MonitorQueue>& snapshot) const;
  // The shares of the queues of `snapshot` naming this file, and those
  // remembered with the lines held.
  std::set<std::string> SharesOf(
      const std::vector<MonitorQueue>& snapshot) const;
  // Remembers the shares of the queues of `snapshot` naming this file.
  void KeepShares(const std::vector<MonitorQueue>& snapshot);
  // Clear, once what was held reached the file (or a reset file that
  // takes nothing): the remembered shares go too.
  void Written();
  std::string_view OldPathOf(size_t index) const;
  void Clear();
  // Records a failure (errno `err`) and logs it when it starts one; later
  // ones are quiet until the file takes lines again.
  void NoteFailure(Failure failure, int err);
  void NoteSuccess(State state);

  const std::string path_;
  const uid_t owner_uid_;
  const gid_t owner_gid_;
  std::string bytes_;   // every line held, each with its line feed
  std::vector<Line> lines_;
  std::vector<std::string> old_paths_;
  // The shares of the queues that named the file while lines were kept.
  std::set<std::string> kept_shares_;
  State state_ = State::kOk;
  bool failing_ = false;       // a failure was logged and has not ended
  bool overflow_logged_ = false;
  size_t kept_lines_ = 0;      // lines held after the last failed attempt
  // Where a failed write's bytes start, when truncating them away failed
  // too; the next attempt on the same file cuts there first.
  struct Cut {
    bool pending = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t offset = 0;
  } cut_;
  uint64_t lines_written_ = 0;
  time_t oldest_line_time_ = 0;
  std::string last_error_;
  time_t last_error_time_ = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_QUEUE_OUTBOX_H_
