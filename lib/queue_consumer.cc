#include "yulotifyd/queue_consumer.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Pause between two lock attempts. Writers hold the lock for one short
// write, so a millisecond is about what one of them needs.
constexpr long kLockRetryNs = 1000 * 1000;
// How often the path may turn out to name another file once locked before
// the consumer gives up (someone keeps replacing it).
constexpr int kReopenAttempts = 5;

// Unlocks (if locked) and closes on every way out.
class LockedFile {
 public:
  explicit LockedFile(int fd) : fd_(fd) {}
  ~LockedFile() { Release(); }
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;

  int fd() const { return fd_.Get(); }
  void set_locked() { locked_ = true; }

  void Release() {
    if (locked_) flock(fd_.Get(), LOCK_UN);
    fd_.Reset();
    locked_ = false;
  }

 private:
  UniqueFd fd_;
  bool locked_ = false;
};

QueueConsumer::Result Fail(int error, std::string message) {
  QueueConsumer::Result result;
  result.ok = false;
  result.error = error;
  result.message = std::move(message);
  return result;
}

void SplitLines(const std::string& text, size_t end,
                std::vector<std::string>* lines) {
  size_t pos = 0;
  while (pos < end) {
    const size_t nl = text.find('\n', pos);  // there is one before `end`
    if (nl > pos) lines->emplace_back(text, pos, nl - pos);
    pos = nl + 1;
  }
}

int64_t LockDeadline(int lock_timeout_ms) {
  return MonotonicMillis() + (lock_timeout_ms > 0 ? lock_timeout_ms : 0);
}

// Opens the queue file with `flags` and checks that it is a regular file.
// Returns the descriptor and fills `st`, or returns -1 with `*failure` set
// (error ENOENT when the file does not exist).
int OpenQueue(const std::string& path, int flags, struct stat* st,
              QueueConsumer::Result* failure) {
  // O_NONBLOCK: a FIFO in the file's place must not hang us before the
  // regular-file check. It changes nothing for a regular file.
  flags |= O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  UniqueFd fd;
  for (;;) {
    fd.Reset(open(path.c_str(), flags));
    if (fd.Valid()) break;
    if (errno == EINTR) continue;
    // O_NOATIME is allowed to the file's owner (and CAP_FOWNER) only;
    // anybody else reads it the ordinary way.
    if (errno == EPERM && (flags & O_NOATIME) != 0) {
      flags &= ~O_NOATIME;
      continue;
    }
    const int err = errno;
    *failure = Fail(err, "cannot open " + path + ": " + ErrnoText(err));
    return -1;
  }
  if (fstat(fd.Get(), st) != 0) {
    const int err = errno;
    *failure = Fail(err, "cannot stat " + path + ": " + ErrnoText(err));
    return -1;
  }
  if (!S_ISREG(st->st_mode)) {
    *failure = Fail(EINVAL, path + " is not a regular file");
    return -1;
  }
  return fd.Release();
}

// Takes `op` (LOCK_EX or LOCK_SH) on the file with non-blocking attempts
// until `deadline`, so that a process that keeps the file locked makes us
// fail rather than hang.
bool LockUntil(LockedFile* file, int op, int64_t deadline, int timeout_ms,
               const std::string& path, QueueConsumer::Result* failure) {
  for (;;) {
    if (flock(file->fd(), op | LOCK_NB) == 0) {
      file->set_locked();
      return true;
    }
    const int err = errno;
    if (err != EWOULDBLOCK && err != EINTR) {
      *failure = Fail(err, "cannot lock " + path + ": " + ErrnoText(err));
      return false;
    }
    if (MonotonicMillis() >= deadline) {
      *failure = Fail(EWOULDBLOCK, path + " stayed locked by another " +
                                       "process for " +
                                       std::to_string(timeout_ms) + " ms");
      return false;
    }
    struct timespec pause = {0, kLockRetryNs};
    nanosleep(&pause, nullptr);
  }
}

// Whether `path` still names the file `st` describes. While we waited for
// the lock the file may have been removed or replaced; what the daemon
// writes next goes to whatever the path names now.
bool StillNamed(const std::string& path, const struct stat& st) {
  struct stat now;
  return stat(path.c_str(), &now) == 0 && now.st_dev == st.st_dev &&
         now.st_ino == st.st_ino;
}

}  // namespace

QueueConsumer::QueueConsumer(std::string queue_path, int lock_timeout_ms)
    : queue_path_(std::move(queue_path)), lock_timeout_ms_(lock_timeout_ms) {}

QueueConsumer::Result QueueConsumer::Consume() const {
  return Consume(KeepLines());
}

QueueConsumer::Result QueueConsumer::Consume(const KeepLines& keep) const {
  const std::string& path = queue_path_;
  const int64_t lock_deadline = LockDeadline(lock_timeout_ms_);
  for (int attempt = 0; attempt < kReopenAttempts; ++attempt) {
    Result failure;
    struct stat st;
    LockedFile file(OpenQueue(path, O_RDWR, &st, &failure));
    if (file.fd() < 0) {
      if (failure.error == ENOENT) {
        Result empty;
        empty.ok = true;
        return empty;
      }
      return failure;
    }
    if (!LockUntil(&file, LOCK_EX, lock_deadline, lock_timeout_ms_, path,
                   &failure)) {
      return failure;
    }
    if (!StillNamed(path, st)) continue;  // `file` unlocks and closes

    // The file was just opened: its whole content, from the start.
    std::string text;
    int err = ReadToEnd(file.fd(), kNoReadLimit, &text);
    if (err != 0) {
      return Fail(err, "cannot read " + path + ": " + ErrnoText(err));
    }
    if (text.empty()) {
      Result empty;
      empty.ok = true;
      return empty;
    }
    const size_t last_nl = text.rfind('\n');
    const size_t complete = last_nl == std::string::npos ? 0 : last_nl + 1;
    if (complete == 0) {
      // Only an unfinished line: nothing to take, nothing to change.
      Result result;
      result.ok = true;
      result.kept_partial_line = true;
      return result;
    }
    std::vector<std::string> lines;
    SplitLines(text, complete, &lines);
    if (keep) {
      std::string why;
      if (!keep(lines, &why)) {
        return Fail(EIO, "lines of " + path + " not taken: " + why);
      }
    }
    // Empty the file first, then put the unfinished tail back. Should the
    // second step fail, only that fragment is lost, never a whole line.
    if (ftruncate(file.fd(), 0) != 0) {
      err = errno;
      return Fail(err, "cannot truncate " + path + ": " + ErrnoText(err));
    }
    Result result;
    result.ok = true;
    if (complete < text.size()) {
      if (WriteAllAt(file.fd(), text.data() + complete,
                     text.size() - complete, 0)) {
        result.kept_partial_line = true;
      } else {
        err = errno;
        result.error = err;
        result.message = "the unfinished last line of " + path +
                         " could not be put back: " + ErrnoText(err);
      }
    }
    file.Release();  // unlock before the caller sees anything

    result.lines = std::move(lines);
    return result;
  }
  return Fail(EAGAIN, path + " keeps being replaced; try again");
}

QueueConsumer::Result QueueConsumer::Peek() const {
  const std::string& path = queue_path_;
  const int64_t lock_deadline = LockDeadline(lock_timeout_ms_);
  for (int attempt = 0; attempt < kReopenAttempts; ++attempt) {
    Result failure;
    struct stat st;
    // Read-only: nothing here can change the file or its mtime.
    LockedFile file(OpenQueue(path, O_RDONLY | O_NOATIME, &st, &failure));
    if (file.fd() < 0) return failure;
    // A shared lock: it keeps the daemon's writers and the consumers (who
    // all take it exclusively) out for the length of the read, so no line
    // is seen half written, while other readers may look at the same time.
    if (!LockUntil(&file, LOCK_SH, lock_deadline, lock_timeout_ms_, path,
                   &failure)) {
      return failure;
    }
    if (!StillNamed(path, st)) continue;  // show what the path names now

    // The file was just opened: its whole content, from the start.
    std::string text;
    const int err = ReadToEnd(file.fd(), kNoReadLimit, &text);
    if (err != 0) {
      return Fail(err, "cannot read " + path + ": " + ErrnoText(err));
    }
    file.Release();

    const size_t last_nl = text.rfind('\n');
    const size_t complete = last_nl == std::string::npos ? 0 : last_nl + 1;
    Result result;
    result.ok = true;
    result.kept_partial_line = complete < text.size();
    SplitLines(text, complete, &result.lines);
    return result;
  }
  return Fail(EAGAIN, path + " keeps being replaced; try again");
}

}  // namespace YULOTIFYD
}  // namespace YULO
