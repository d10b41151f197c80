// Spool: the lines taken from one queue file, kept on disk until the server
// has acknowledged them.
//
// Two files in the spool directory, both named after the queue file:
//   NAME.spool  the lines, one per line feed, appended and fsynced;
//   NAME.state  {"epoch", "acked_offset", "acked_seq"}, replaced as a whole
//               (temporary file, fsync, rename, fsync of the directory).
// Every line gets a sequence number: its index since the spool was created
// (0, 1, 2...). `acked_seq` is the number of the line at `acked_offset`, the
// first one not yet acknowledged; the numbers of the lines after it follow
// from their order, so only the acknowledged position needs saving, and a
// line that was appended but whose append was cut short by a crash (no line
// feed yet) is dropped when the spool is opened; it is still in the queue
// file then, since that file is cut only after the append was fsynced.
// `epoch` is the creation time of the spool: a spool made afresh does not
// reuse the message ids of an earlier one.
//
// When every line is acknowledged, the spool file is emptied (compacted):
// the state is saved with the new position first (offset at the end of the
// file, the next sequence number), the file is cut next, and the state is
// saved again with offset 0. Nothing is appended before that second save
// has succeeded, so a state whose offset lies past the end of the file can
// only mean a compaction that was interrupted after its cut, and is read as
// offset 0; the sequence number saved first is already the new one, so a
// restart at any point never gives a new line the number (and so the
// message id) of a line already sent.
//
// A state that cannot be saved stops Append until a save succeeds: the
// lines then stay in the queue file.
//
// Thread-safety: a Spool is used by one thread at a time. One process per
// queue file: the spool file is flock()ed while open.
#ifndef YULOTIFYD_FORWARD_SPOOL_H_
#define YULOTIFYD_FORWARD_SPOOL_H_

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

struct SpooledLine {
  uint64_t seq = 0;
  std::string text;  // without its line feed
};

class Spool {
 public:
  Spool() = default;
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  // "/var/q/a.queue" -> "var_q_a.queue-<16 hex digits>": readable, and
  // unique per path.
  static std::string NameFor(const std::string& queue_path);

  // Creates `dir` and its missing parents (mode 0700).
  static bool MakeDirs(const std::string& dir, std::string* error);

  // Opens (creating if needed) the spool of `queue_path` in `dir`, which is
  // created too. False with `error` when it cannot, or another process has
  // it open.
  bool Open(const std::string& dir, const std::string& queue_path,
            std::string* error);

  // Appends `lines` and fsyncs. False (and the spool as before, as far as
  // its readers can tell) when the write or the fsync fails, or when the
  // state could not be saved since it last changed and still cannot.
  bool Append(const std::vector<std::string>& lines, std::string* error);

  // Up to `max_lines` lines from the first unacknowledged one (and at most
  // about `max_bytes`, though always at least one line). Reads after the
  // ones already handed out by earlier calls since the last Acknowledge
  // or Rewind.
  bool ReadNext(size_t max_lines, size_t max_bytes,
                std::vector<SpooledLine>* out, std::string* error);

  // The next ReadNext starts again at the first unacknowledged line.
  void Rewind();

  // Every line up to and including `seq` is acknowledged; the position is
  // saved before this returns, and the spool is compacted when nothing is
  // left. False when the state could not be saved (Append then refuses
  // until a save succeeds).
  bool Acknowledge(uint64_t seq, std::string* error);

  // Saves the state if an earlier save failed. False while it still fails.
  bool SaveIfPending(std::string* error);
  bool state_pending() const { return state_pending_; }

  uint64_t size_bytes() const { return size_; }
  uint64_t unacked_bytes() const { return size_ - acked_offset_; }
  uint64_t acked_seq() const { return acked_seq_; }
  // Lines appended and not acknowledged yet.
  uint64_t unacked_lines() const { return next_seq_ - acked_seq_; }
  uint64_t next_seq() const { return next_seq_; }
  uint64_t epoch() const { return epoch_; }
  const std::string& spool_path() const { return spool_path_; }

 private:
  bool SaveState(std::string* error);
  // Cuts the file once every line in it is acknowledged and saved.
  bool Compact(std::string* error);

  UniqueFd fd_;
  std::string dir_;
  std::string spool_path_;
  std::string state_path_;
  uint64_t epoch_ = 0;
  uint64_t size_ = 0;
  uint64_t acked_offset_ = 0;
  uint64_t acked_seq_ = 0;
  uint64_t next_seq_ = 0;
  // The state in memory differs from the one on disk (a save failed).
  bool state_pending_ = false;
  // Where ReadNext goes on, and the number of the line there.
  uint64_t read_offset_ = 0;
  uint64_t read_seq_ = 0;
  // End offsets of the lines handed out and not yet acknowledged, by
  // sequence number - acked_seq_.
  std::vector<uint64_t> handed_ends_;
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_SPOOL_H_
