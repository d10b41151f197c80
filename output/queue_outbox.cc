#include "output/queue_outbox.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>

#include "base/errno_text.h"
#include "output/queue_line.h"
#include "yulotifyd/fs_ids.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"

// The writer's lines have always carried the processor's source name; keep
// it so that log watchers keep matching them.
#define OUTBOX_LOG(gate, ...) \
  YULO_LOG_GATED_AS("event_processor", ::YULO::YULOTIFYD::LogGate::gate, \
                    __VA_ARGS__)
// Lines that are written whatever the level, at a priority of their own.
#define OUTBOX_WARNING(...) YULO_LOG_WARNING_AS("event_processor", __VA_ARGS__)
#define OUTBOX_NOTICE(...) YULO_LOG_NOTICE_AS("event_processor", __VA_ARGS__)

namespace YULO {
namespace YULOTIFYD {

namespace {

// Reads the head of the file from offset 0 in chunks of at most
// kQueueHeadChunk bytes, each taken up to its first NUL byte, until a chunk
// holds a line feed, and puts the text before the first line feed into
// `first_line`. False when the file ends, a read fails, or kQueueHeadMax
// bytes pass without a line feed: such a head is no reset marker.
bool ReadFirstLine(QueueFileOps& ops, int fd, std::string* first_line) {
  char buf[kQueueHeadChunk + 1];
  std::string head;
  size_t total = 0;
  while (total < kQueueHeadMax) {
    std::memset(buf, 0, sizeof(buf));
    const size_t want = std::min(kQueueHeadChunk, kQueueHeadMax - total);
    const ssize_t n = ops.Read(fd, buf, want);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    total += static_cast<size_t>(n);
    head.append(buf);  // up to the chunk's first NUL
    if (std::strchr(buf, '\n') != nullptr) {
      *first_line = head.substr(0, head.find('\n'));
      return true;
    }
  }
  return false;
}

// Whether `line` is a reset marker: a JSON object whose "event" (0 when
// missing) reads as the unsigned integer 1024. Values that do not convert
// to an unsigned integer (strings, negative numbers, ...) count as 0.
bool IsResetMarker(const std::string& line) {
  Json::Value head;
  if (!fromString(line, head) || !head.isObject()) return false;
  const Json::Value event = head.get("event", 0);
  if (!event.isNumeric() && !event.isBool()) return false;
  if (!event.isConvertibleTo(Json::uintValue)) return false;
  return event.asUInt() == QUEUE_EVENT_RESET;
}

// Writes all of `data`, carrying on after short writes and interruptions.
// False, with errno set, when the file stops taking bytes.
bool WriteAll(QueueFileOps& ops, int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ops.Write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) {
      errno = EIO;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int TruncateTo(QueueFileOps& ops, int fd, off_t length) {
  int rc;
  do {
    rc = ops.Ftruncate(fd, length);
  } while (rc != 0 && errno == EINTR);
  return rc;
}

// Unlocks and closes a locked queue file on every way out, keeping errno.
class LockedFile {
 public:
  LockedFile(QueueFileOps& ops, int fd) : ops_(ops), fd_(fd) {}
  ~LockedFile() {
    const int saved = errno;
    ops_.Flock(fd_, LOCK_UN);
    ops_.Close(fd_);  // never retried: the descriptor is gone either way
    errno = saved;
  }
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;

 private:
  QueueFileOps& ops_;
  const int fd_;
};

}  // namespace

QueueOutbox::QueueOutbox(std::string path, uid_t owner_uid, gid_t owner_gid)
    : path_(std::move(path)), owner_uid_(owner_uid), owner_gid_(owner_gid) {}

void QueueOutbox::AddLine(std::string_view text,
                          std::string_view quoted_old_path) {
  // All or nothing: everything that may fail to allocate comes first, so
  // that running out of memory never leaves part of a line behind, to be
  // glued to the next one.
  bytes_.reserve(bytes_.size() + text.size() + 1);  // grows geometrically
  if (lines_.size() == lines_.capacity()) {
    lines_.reserve(std::max<size_t>(16, 2 * lines_.capacity()));
  }
  uint32_t old_index = 0;
  if (!quoted_old_path.empty()) {
    old_paths_.emplace_back(quoted_old_path);
    old_index = static_cast<uint32_t>(old_paths_.size());
  }
  bytes_.append(text.data(), text.size());
  bytes_ += '\n';
  lines_.push_back(Line{bytes_.size(), old_index});
}

std::string_view QueueOutbox::OldPathOf(size_t index) const {
  const uint32_t old_index = lines_[index].old_index;
  if (old_index == 0) return std::string_view();
  return old_paths_[old_index - 1];
}

void QueueOutbox::Clear() {
  bytes_.clear();
  lines_.clear();
  old_paths_.clear();
}

void QueueOutbox::Written() {
  Clear();
  kept_shares_.clear();
}

bool QueueOutbox::AppendToQueue(const std::vector<MonitorQueue>& snapshot,
                                QueueFileOps& ops) {
  if (lines_.empty()) return true;
  OUTBOX_LOG(kDebug, "write event to: %s", path_.c_str());
  if (owner_uid_ == 0) return AppendAs(snapshot, ops);
  // A user's subscription: the file is opened, locked, read, written and
  // truncated with the user's own rights, never root's.
  ScopedFsIds ids(owner_uid_, owner_gid_);
  if (!ids.ok()) {
    NoteFailure(Failure::kIds, errno);
    return false;
  }
  const bool empty = AppendAs(snapshot, ops);
  if (!ids.Restore()) {
    OUTBOX_LOG(kAlways, "Failed to restore file-system ids, reason=%m");
  }
  return empty;
}

bool QueueOutbox::AppendAs(const std::vector<MonitorQueue>& snapshot,
                           QueueFileOps& ops) {
  // A consumer holds the lock only while it reads and truncates, so a few
  // short tries are enough; after that the lines wait for the next pass
  // rather than stall the volume's pipeline. The file is reopened for every
  // try.
  int fd = -1;
  for (int attempt = 1;; ++attempt) {
    // Never through a symbolic link as the last component: whoever may
    // place one there must not steer the daemon's writes. O_NONBLOCK: a
    // FIFO in the file's place must not hang the open, and the check below
    // turns it away before anything reads from it.
    fd = ops.Open(path_.c_str(),
                  O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                  kQueueFileMode);
    if (fd < 0) {
      NoteFailure(Failure::kOpen, errno);
      break;
    }
    // Only a regular file is a queue file. A FIFO would block the head
    // check's read for good (its only writer is us), stalling every queue
    // of the volume; a device or socket is nothing a consumer reads either.
    struct stat st;
    const bool stat_ok = ops.Fstat(fd, &st) == 0;
    if (!stat_ok || !S_ISREG(st.st_mode)) {
      const int err = stat_ok ? EINVAL : errno;
      ops.Close(fd);  // never retried: the descriptor is gone either way
      fd = -1;
      NoteFailure(stat_ok ? Failure::kNotRegular : Failure::kOpen, err);
      break;
    }
    if (ops.Flock(fd, LOCK_EX | LOCK_NB) == 0) break;
    const int err = errno;
    if (err != EAGAIN && err != EWOULDBLOCK && err != EINTR) {
      errno = err;
      OUTBOX_LOG(kDebug, "flock fail, path=%s, reason=%m", path_.c_str());
      { LockedFile release(ops, fd); }
      NoteFailure(Failure::kLock, err);
      fd = -1;
      break;
    }
    ops.Close(fd);
    fd = -1;
    usleep(static_cast<useconds_t>(rand() % 10) * 1000);
    if (attempt == kQueueLockAttempts) {
      NoteFailure(Failure::kBusy, err);
      break;
    }
  }

  if (fd >= 0) {
    Outcome outcome;
    {
      LockedFile file(ops, fd);
      outcome = WriteLocked(fd, snapshot, ops);
    }
    if (outcome != Outcome::kKept) return true;
  }

  // Kept. The shares of the queues naming the file now are remembered
  // with the lines: should a reload remove those queues before the lines
  // are written, the rescans that sum them up still know where to point.
  KeepShares(snapshot);
  // A file that stays away must not cost unbounded memory: past the
  // bounds, what it missed is summed up as rescans of its shares.
  if (lines_.size() > kOutboxMaxLines || bytes_.size() > kOutboxMaxBytes) {
    if (!Subscribed(snapshot)) {
      // Nobody subscribes to the file any more: no consumer is left to
      // miss the lines.
      OUTBOX_LOG(kAlways,
                 "Queue file no longer subscribed, path=%s, dropped %zu kept "
                 "lines",
                 path_.c_str(), lines_.size());
      Clear();
      kept_shares_.clear();
      kept_lines_ = 0;
      return true;
    }
    if (!overflow_logged_) {
      OUTBOX_WARNING("Queue outbox full, path=%s, rescan instead",
                 path_.c_str());
      overflow_logged_ = true;
    }
    ReplaceByRescans(snapshot);
  }
  kept_lines_ = lines_.size();
  return lines_.empty();
}

QueueOutbox::Outcome QueueOutbox::WriteLocked(
    int fd, const std::vector<MonitorQueue>& snapshot, QueueFileOps& ops) {
  // A file that starts with a reset marker waits for its consumer: it takes
  // nothing until the consumer has emptied or removed it.
  std::string first_line;
  if (ReadFirstLine(ops, fd, &first_line) && IsResetMarker(first_line)) {
    LogOversized(/*reset=*/false);
    Written();
    NoteSuccess(State::kReset);
    return Outcome::kDropped;
  }

  struct stat st;
  const bool stat_ok = ops.Fstat(fd, &st) == 0;
  if (stat_ok && cut_.pending) {
    // A failed write whose bytes could not be taken back last time: take
    // them back now, before anything else goes in. A file that was replaced
    // or emptied meanwhile no longer holds them.
    if (st.st_dev == cut_.dev && st.st_ino == cut_.ino &&
        st.st_size > cut_.offset) {
      if (TruncateTo(ops, fd, cut_.offset) != 0) {
        NoteFailure(Failure::kWrite, errno);
        return Outcome::kKept;
      }
      st.st_size = cut_.offset;
    }
    cut_.pending = false;
  }
  if (!stat_ok || st.st_size > kQueueFileMaxSize) {
    return Reset(fd, 0, snapshot, ops);
  }
  // One at a time, a line goes in while the file is not above the limit;
  // the first line that finds it above resets it, and the lines after that
  // meet the reset file and are dropped. Lines before the reset would be
  // emptied out by it, so they are not written at all.
  off_t size = st.st_size;
  size_t fit = 0;
  size_t start = 0;
  while (fit < lines_.size() && size <= kQueueFileMaxSize) {
    size += static_cast<off_t>(lines_[fit].end - start);
    start = lines_[fit].end;
    ++fit;
  }
  if (fit < lines_.size()) return Reset(fd, fit, snapshot, ops);

  const off_t base = ops.Lseek(fd, 0, SEEK_END);
  if (base < 0 || !WriteAll(ops, fd, bytes_.data(), bytes_.size())) {
    const int err = errno;
    // No fragment may stay behind for the consumer to trip over; if it
    // cannot be taken back now, the next attempt does it first.
    if (base >= 0 && TruncateTo(ops, fd, base) != 0) {
      cut_ = Cut{true, st.st_dev, st.st_ino, base};
    }
    NoteFailure(Failure::kWrite, err);
    return Outcome::kKept;
  }
  // A consumer that has taken everything leaves the file empty: what goes
  // in now is its oldest line.
  if (st.st_size == 0 || oldest_line_time_ == 0) {
    oldest_line_time_ = time(nullptr);
  }
  lines_written_ += lines_.size();
  Written();
  NoteSuccess(State::kOk);
  return Outcome::kWritten;
}

void QueueOutbox::LogOversized(bool reset) const {
  static constexpr char kText[] = "Queue oversized, path=%s";
  if (reset) {
    OUTBOX_WARNING(kText, path_.c_str());
  } else {
    OUTBOX_LOG(kDebug, kText, path_.c_str());
  }
}

QueueOutbox::Outcome QueueOutbox::Reset(
    int fd, size_t index, const std::vector<MonitorQueue>& snapshot,
    QueueFileOps& ops) {
  LogOversized(/*reset=*/true);
  // The lines after line `index` meet the file just reset.
  if (index + 1 < lines_.size()) LogOversized(/*reset=*/false);
  const std::string output = ResetText(OldPathOf(index), snapshot);
  if (TruncateTo(ops, fd, 0) != 0) {
    NoteFailure(Failure::kWrite, errno);
    return Outcome::kKept;
  }
  if (ops.Lseek(fd, 0, SEEK_SET) < 0 ||
      !WriteAll(ops, fd, output.data(), output.size())) {
    const int err = errno;
    TruncateTo(ops, fd, 0);
    // The reset has happened; what the file still has to get is its marker
    // and rescan lines, which then go in as ordinary lines.
    Clear();
    size_t begin = 0;
    for (size_t end = output.find('\n'); end != std::string::npos;
         begin = end + 1, end = output.find('\n', begin)) {
      AddLine(std::string_view(output).substr(begin, end - begin));
    }
    NoteFailure(Failure::kWrite, err);
    return Outcome::kKept;
  }
  oldest_line_time_ = time(nullptr);
  Written();
  NoteSuccess(State::kReset);
  return Outcome::kWritten;
}

bool QueueOutbox::Subscribed(const std::vector<MonitorQueue>& snapshot) const {
  for (const MonitorQueue& queue : snapshot) {
    if (queue.GetQueuePath() == path_) return true;
  }
  return false;
}

std::set<std::string> QueueOutbox::SharesOf(
    const std::vector<MonitorQueue>& snapshot) const {
  std::set<std::string> shares = kept_shares_;
  for (const MonitorQueue& queue : snapshot) {
    if (queue.GetQueuePath() == path_) queue.CollectShareSet(shares);
  }
  return shares;
}

void QueueOutbox::KeepShares(const std::vector<MonitorQueue>& snapshot) {
  for (const MonitorQueue& queue : snapshot) {
    if (queue.GetQueuePath() == path_) queue.CollectShareSet(kept_shares_);
  }
}

std::string QueueOutbox::ResetText(
    std::string_view quoted_old_path,
    const std::vector<MonitorQueue>& snapshot) const {
  const std::set<std::string> shares = SharesOf(snapshot);
  // The marker and the rescan lines keep the old path of a move that
  // triggered the reset, as the object they were made from did.
  std::string text;
  AppendQueueLine(text, QUEUE_EVENT_RESET, "", false, quoted_old_path);
  text += '\n';
  for (const std::string& share : shares) {
    AppendQueueLine(text, QUEUE_EVENT_RESCAN, share, true, quoted_old_path);
    text += '\n';
  }
  return text;
}

void QueueOutbox::ReplaceByRescans(const std::vector<MonitorQueue>& snapshot) {
  const std::set<std::string> shares = SharesOf(snapshot);
  Clear();
  std::string text;
  for (const std::string& share : shares) {
    text.clear();
    AppendQueueLine(text, QUEUE_EVENT_RESCAN, share, true);
    AddLine(text);
  }
}

void QueueOutbox::NoteFailure(Failure failure, int err) {
  state_ = failure == Failure::kBusy ? State::kBusy : State::kFailing;
  last_error_ =
      failure == Failure::kNotRegular ? "not a regular file" : ErrnoText(err);
  last_error_time_ = time(nullptr);
  if (failing_) return;
  failing_ = true;
  errno = err;
  switch (failure) {
    case Failure::kOpen:
      OUTBOX_LOG(kAlways, "Failed to open queue path=%s, reason=%m",
                 path_.c_str());
      break;
    case Failure::kBusy:
      OUTBOX_WARNING("try lock too many times, path=%s, reason=%m",
                 path_.c_str());
      break;
    case Failure::kWrite:
      OUTBOX_LOG(kAlways, "Failed to write, reason=%m");
      break;
    case Failure::kLock:
      break;  // "flock fail" was logged at debug level where it happened
    case Failure::kNotRegular:
      OUTBOX_LOG(kAlways, "Queue path is not a regular file, path=%s",
                 path_.c_str());
      break;
    case Failure::kIds:
      OUTBOX_LOG(kAlways,
                 "Failed to switch to the owner's ids %u:%u, path=%s, "
                 "reason=%m",
                 static_cast<unsigned>(owner_uid_),
                 static_cast<unsigned>(owner_gid_), path_.c_str());
      break;
  }
}

void QueueOutbox::NoteSuccess(State state) {
  if (failing_) {
    OUTBOX_NOTICE("Queue writable again, path=%s, kept=%zu",
               path_.c_str(), kept_lines_);
  }
  state_ = state;
  failing_ = false;
  overflow_logged_ = false;
}

}  // namespace YULOTIFYD
}  // namespace YULO
