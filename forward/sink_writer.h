// SinkWriter: appends forwarded lines to the central queue file, under the
// lock protocol of every queue-file writer, without losing or doubling any
// across crashes.
//
// Each Write() takes the batch's lines that are not in the file yet
// (stream sequence above SinkState::committed), then:
//   1. opens the queue file (never through a symbolic link; only a regular
//      file with one name) and takes its exclusive flock, trying without
//      blocking for up to the lock time-out, as consumers hold it briefly;
//   2. settles a write a crash left pending (see sink_state.h): the file
//      holds all of it (committed), none of it and is untouched (written
//      again), part of it (cut back, written again), or it was changed
//      meanwhile, when nobody can tell: then a rescan line per root of the
//      batch's lines stands in for them, never a second copy;
//   3. builds the text: each line, with the host member when configured; a
//      line that is not one JSON object becomes a rescan line of its
//      host; in a file that starts with a reset marker, lines are dropped
//      (the marker already says to rescan), with a rescan line for a root
//      that the marker's rescan lines do not cover; a line that would take
//      the file past its size limit (NeedsReset) empties it instead and
//      puts a reset marker and a rescan line for every root of every host
//      seen in its place, the batch's remaining lines dropped;
//   4. saves the pending record, writes the text, fsyncs the file, saves
//      the state with `committed` at the batch's last sequence;
//   5. releases the lock.
// The caller acknowledges the batch's messages only after kDone.
//
// One sink per queue file: Open() takes an flock on STATE.lock for as long
// as the writer lives.
//
// Ownership: owns its state and the lock file's descriptor; holds no other
// descriptor between calls. Thread-safety: one thread at a time.
#ifndef YULOTIFYD_FORWARD_SINK_WRITER_H_
#define YULOTIFYD_FORWARD_SINK_WRITER_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "forward/sink_state.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

struct SinkMessage {
  uint64_t seq = 0;   // stream sequence number
  std::string host;   // Yulotifyd-Host, cleaned (CleanHostName); may be ""
  std::string line;   // the payload: one queue line, no line feed
};

class SinkWriter {
 public:
  struct Config {
    std::string queue_path;
    std::string state_path;
    bool host_member = false;
    int lock_timeout_ms = 5000;
  };

  // What happened to the lines so far, for the log and the tests.
  struct Counts {
    uint64_t lines = 0;    // forwarded lines written
    uint64_t dropped = 0;  // lines dropped by or after a reset
    uint64_t resets = 0;
    uint64_t unsure = 0;   // pending writes replaced by rescan lines
    uint64_t invalid = 0;  // payloads that were no queue line
  };

  enum class Result {
    kDone,    // the batch is in the file (or dropped on purpose)
    kBusy,    // the lock stayed taken; nothing changed
    kFailed,  // `error` says why; the batch is not (known to be) in
  };

  explicit SinkWriter(Config config);
  SinkWriter(const SinkWriter&) = delete;
  SinkWriter& operator=(const SinkWriter&) = delete;

  // Takes the instance lock and loads the state. False when another sink
  // holds the lock or the state file cannot be read.
  bool Open(std::string* error);

  // Settles a pending write, if any (step 2 above), then ties the state to
  // `stream` as created at `created`: a state of another stream, or of
  // one deleted and made again, starts over from its first message.
  Result BindStream(const std::string& stream, const std::string& created,
                    std::string* error);

  // The stream no longer holds the messages after `committed` and before
  // `first_seq` (its limits dropped them before the sink took them): a
  // rescan line of every root seen stands in for them, and `committed`
  // moves to first_seq - 1. Done twice after a crash, it only asks for
  // the rescan twice.
  Result SkipTo(uint64_t first_seq, std::string* error);

  // Writes the lines of `messages` as described above. REQUIRES: sorted
  // by stream sequence.
  Result Write(const std::vector<SinkMessage>& messages, std::string* error);

  uint64_t committed() const { return state_.committed; }
  const SinkState& state() const { return state_; }
  const Counts& counts() const { return counts_; }

 private:
  // Opens and locks the queue file (step 1); `st` is its fstat.
  Result OpenLocked(UniqueFd* fd, struct stat* st, std::string* error);
  // OpenLocked, then RecoverLocked when a write is pending.
  Result OpenSettled(UniqueFd* fd, struct stat* st, std::string* error);
  // Step 2, under the lock.
  bool RecoverLocked(int fd, struct stat* st, std::string* error);
  // Cuts an unfinished last line left by a write that died: only this
  // program writes the file, and the line is owed to a pending write.
  bool CutUnfinishedTail(int fd, struct stat* st, std::string* error);
  // Appends `text` at the end of the file and fsyncs it.
  bool AppendText(int fd, struct stat* st, const std::string& text,
                  std::string* error);
  // Empties the file and writes the marker and every root's rescan line.
  bool WriteReset(int fd, std::string* error);
  std::string ResetText() const;
  std::string RescanText(const HostRoots& roots) const;
  std::string HostOf(const std::string& host) const;
  bool Save(std::string* error);

  Config config_;
  UniqueFd instance_lock_;
  SinkState state_;
  Counts counts_;
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_SINK_WRITER_H_
