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
#include "base/path.h"
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

// What a file must be for a consumer to read or cut it.
struct Expectation {
  bool owner_set;  // else: the directory's owner or the caller
  uid_t owner;
};

// Whether the open file `st` at `path` is one a consumer may take lines
// from; when not, fills `*failure`. See the header for why each rule.
bool Acceptable(const std::string& path, const struct stat& st,
                const Expectation& expect, QueueConsumer::Result* failure) {
  if (!S_ISREG(st.st_mode)) {
    *failure = Fail(EINVAL, path + " is not a regular file");
    return false;
  }
  if (st.st_nlink != 1) {
    *failure = Fail(EINVAL, path + " has " + std::to_string(st.st_nlink) +
                                " hard links; a queue file has one");
    return false;
  }
  bool owner_ok;
  std::string whose;
  if (expect.owner_set) {
    owner_ok = st.st_uid == expect.owner;
    whose = "uid " + std::to_string(expect.owner);
  } else {
    struct stat dir;
    const std::string parent = ParentDir(path);
    owner_ok = st.st_uid == geteuid() ||
               (lstat(parent.empty() ? "." : parent.c_str(), &dir) == 0 &&
                st.st_uid == dir.st_uid);
    whose = "its directory's owner or uid " + std::to_string(geteuid());
  }
  if (!owner_ok) {
    *failure = Fail(EPERM, path + " is owned by uid " +
                               std::to_string(st.st_uid) + ", not by " +
                               whose);
    return false;
  }
  if (st.st_size > QueueConsumer::kMaxQueueFileBytes) {
    *failure = Fail(EFBIG, path + " holds " + std::to_string(st.st_size) +
                               " bytes, more than a queue file ever does");
    return false;
  }
  return true;
}

// Opens the queue file with `flags` and checks it (Acceptable). Returns the
// descriptor and fills `st`, or returns -1 with `*failure` set (error
// ENOENT when the file does not exist).
int OpenQueue(const std::string& path, int flags, const Expectation& expect,
              struct stat* st, QueueConsumer::Result* failure) {
  // O_NONBLOCK: a FIFO in the file's place must not hang us before the
  // regular-file check. It changes nothing for a regular file. O_NOFOLLOW:
  // a link planted in the file's place is refused (ELOOP), never followed.
  flags |= O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW;
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
    if (err == ELOOP) {
      *failure = Fail(err, path + " is a symbolic link; a queue file is not");
      return -1;
    }
    *failure = Fail(err, "cannot open " + path + ": " + ErrnoText(err));
    return -1;
  }
  if (fstat(fd.Get(), st) != 0) {
    const int err = errno;
    *failure = Fail(err, "cannot stat " + path + ": " + ErrnoText(err));
    return -1;
  }
  if (!Acceptable(path, *st, expect, failure)) return -1;
  return fd.Release();
}

// Reads the head of the locked file: everything when it is no larger than
// `max_read`, else its first `max_read` bytes. `*complete` is the length
// of its complete lines (up to and with the last line feed read), `*more`
// whether the file goes on past what was read. False with `*failure` set
// when the read fails, or when the file goes on and the part read holds no
// complete line at all: no line the daemon writes is that long.
bool ReadHead(const std::string& path, int fd, size_t max_read,
              std::string* text, size_t* complete, bool* more,
              QueueConsumer::Result* failure) {
  struct stat st;
  if (fstat(fd, &st) != 0) {
    const int err = errno;
    *failure = Fail(err, "cannot stat " + path + ": " + ErrnoText(err));
    return false;
  }
  // The size may have changed while the lock was awaited.
  if (st.st_size > QueueConsumer::kMaxQueueFileBytes) {
    *failure = Fail(EFBIG, path + " holds " + std::to_string(st.st_size) +
                               " bytes, more than a queue file ever does");
    return false;
  }
  // One byte more than allowed tells whether the file goes on.
  const int err = ReadAt(fd, 0, max_read + 1, text);
  if (err != 0) {
    *failure = Fail(err, "cannot read " + path + ": " + ErrnoText(err));
    return false;
  }
  *more = text->size() > max_read;
  if (*more) text->resize(max_read);
  const size_t last_nl = text->rfind('\n');
  *complete = last_nl == std::string::npos ? 0 : last_nl + 1;
  if (*more && *complete == 0) {
    *failure = Fail(EFBIG, "the first " + std::to_string(max_read) +
                               " bytes of " + path +
                               " hold no complete line; not a queue file");
    return false;
  }
  return true;
}

// Moves the bytes of the file from `from` on to its start and cuts it to
// their length, in bounded memory. Each block is written below where it was
// read, so nothing not yet moved is overwritten. False with errno set.
bool MoveToFront(int fd, off_t from) {
  constexpr size_t kBlock = 1024 * 1024;
  std::string block;
  off_t to = 0;
  for (;;) {
    const int err = ReadAt(fd, from, kBlock, &block);
    if (err != 0) return errno = err, false;
    if (block.empty()) break;
    if (!WriteAllAt(fd, block.data(), block.size(), to)) return false;
    from += static_cast<off_t>(block.size());
    to += static_cast<off_t>(block.size());
  }
  return ftruncate(fd, to) == 0;
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
  return lstat(path.c_str(), &now) == 0 && now.st_dev == st.st_dev &&
         now.st_ino == st.st_ino;
}

}  // namespace

QueueConsumer::QueueConsumer(std::string queue_path, int lock_timeout_ms)
    : queue_path_(std::move(queue_path)), lock_timeout_ms_(lock_timeout_ms) {}

void QueueConsumer::set_max_read_bytes(size_t bytes) {
  max_read_bytes_ = bytes < kMinMaxReadBytes ? kMinMaxReadBytes : bytes;
}

void QueueConsumer::set_expected_owner(uid_t uid) {
  owner_set_ = true;
  expected_owner_ = uid;
}

QueueConsumer::Result QueueConsumer::Consume() const {
  return Consume(KeepLines());
}

QueueConsumer::Result QueueConsumer::Consume(const KeepLines& keep) const {
  const std::string& path = queue_path_;
  const Expectation expect{owner_set_, expected_owner_};
  const int64_t lock_deadline = LockDeadline(lock_timeout_ms_);
  for (int attempt = 0; attempt < kReopenAttempts; ++attempt) {
    Result failure;
    struct stat st;
    LockedFile file(OpenQueue(path, O_RDWR, expect, &st, &failure));
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

    std::string text;
    size_t complete = 0;
    bool more = false;
    if (!ReadHead(path, file.fd(), max_read_bytes_, &text, &complete, &more,
                  &failure)) {
      return failure;
    }
    if (complete == 0) {
      // Empty, or only an unfinished line: nothing to take, nothing to
      // change.
      Result result;
      result.ok = true;
      result.kept_partial_line = !text.empty();
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
    Result result;
    result.ok = true;
    result.more = more;
    int err;
    if (more) {
      // Only part of the file was read: what follows goes to the front.
      if (!MoveToFront(file.fd(), static_cast<off_t>(complete))) {
        err = errno;
        result.error = err;
        result.message = "the rest of " + path +
                         " could not be moved to its front (" +
                         ErrnoText(err) + "): lines after the first " +
                         std::to_string(complete) +
                         " bytes may be there twice";
      }
    } else {
      // Empty the file first, then put the unfinished tail back. Should
      // the second step fail, only that fragment is lost, never a whole
      // line.
      if (ftruncate(file.fd(), 0) != 0) {
        err = errno;
        return Fail(err, "cannot truncate " + path + ": " + ErrnoText(err));
      }
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
    }
    file.Release();  // unlock before the caller sees anything

    result.lines = std::move(lines);
    return result;
  }
  return Fail(EAGAIN, path + " keeps being replaced; try again");
}

QueueConsumer::Result QueueConsumer::Peek() const {
  const std::string& path = queue_path_;
  const Expectation expect{owner_set_, expected_owner_};
  const int64_t lock_deadline = LockDeadline(lock_timeout_ms_);
  for (int attempt = 0; attempt < kReopenAttempts; ++attempt) {
    Result failure;
    struct stat st;
    // Read-only: nothing here can change the file or its mtime.
    LockedFile file(
        OpenQueue(path, O_RDONLY | O_NOATIME, expect, &st, &failure));
    if (file.fd() < 0) return failure;
    // A shared lock: it keeps the daemon's writers and the consumers (who
    // all take it exclusively) out for the length of the read, so no line
    // is seen half written, while other readers may look at the same time.
    if (!LockUntil(&file, LOCK_SH, lock_deadline, lock_timeout_ms_, path,
                   &failure)) {
      return failure;
    }
    if (!StillNamed(path, st)) continue;  // show what the path names now

    std::string text;
    size_t complete = 0;
    bool more = false;
    if (!ReadHead(path, file.fd(), max_read_bytes_, &text, &complete, &more,
                  &failure)) {
      return failure;
    }
    file.Release();

    Result result;
    result.ok = true;
    result.more = more;
    result.kept_partial_line = !more && complete < text.size();
    SplitLines(text, complete, &result.lines);
    return result;
  }
  return Fail(EAGAIN, path + " keeps being replaced; try again");
}

}  // namespace YULOTIFYD
}  // namespace YULO
