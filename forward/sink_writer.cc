#include "forward/sink_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/clock.h"
#include "base/errno_text.h"
#include "base/file_io.h"
#include "forward/sink_line.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

// How far back an unfinished last line is looked for: more than any line a
// message can carry.
constexpr size_t kTailScanBytes = 4 * 1024 * 1024;
// The head read for a reset marker: a first read that is nearly always
// enough, and the bound the daemon reads to as well.
constexpr size_t kHeadFirstRead = 4096;
constexpr size_t kHeadMax = 65536;
constexpr useconds_t kLockPauseUs = 2000;

int64_t Nanos(const struct timespec& ts) {
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::string Failed(const std::string& what, const std::string& path,
                   int err) {
  return "cannot " + what + " " + path + ": " + ErrnoText(err);
}

bool StartsWithResetMarker(int fd, off_t size) {
  if (size <= 0) return false;
  std::string head;
  size_t want = std::min<size_t>(static_cast<size_t>(size), kHeadFirstRead);
  if (ReadAt(fd, 0, want, &head) != 0) return false;
  if (head.find('\n') == std::string::npos &&
      static_cast<size_t>(size) > want) {
    want = std::min<size_t>(static_cast<size_t>(size), kHeadMax);
    if (ReadAt(fd, 0, want, &head) != 0) return false;
  }
  const size_t nl = head.find('\n');
  return nl != std::string::npos && IsResetMarker(head.substr(0, nl));
}

}  // namespace

SinkWriter::SinkWriter(Config config) : config_(std::move(config)) {}

bool SinkWriter::Open(std::string* error) {
  const std::string lock_path = config_.state_path + ".lock";
  instance_lock_.Reset(RetryOnEintr([&] {
    return open(lock_path.c_str(),
                O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600);
  }));
  if (!instance_lock_.Valid()) {
    *error = Failed("open", lock_path, errno);
    return false;
  }
  if (RetryOnEintr([&] {
        return flock(instance_lock_.Get(), LOCK_EX | LOCK_NB);
      }) != 0) {
    *error = errno == EWOULDBLOCK
                 ? "another yulotify-sink writes " + config_.queue_path +
                       " (it holds " + lock_path + ")"
                 : Failed("lock", lock_path, errno);
    return false;
  }
  return LoadSinkState(config_.state_path, &state_, error);
}

SinkWriter::Result SinkWriter::OpenLocked(UniqueFd* fd, struct stat* st,
                                          std::string* error) {
  const int64_t deadline = MonotonicMillis() + config_.lock_timeout_ms;
  const char* path = config_.queue_path.c_str();
  for (;;) {
    // O_NONBLOCK: a FIFO in the file's place must not hang the open.
    fd->Reset(RetryOnEintr([&] {
      return open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW |
                            O_NONBLOCK | O_NOCTTY,
                  0600);
    }));
    if (!fd->Valid()) {
      *error = Failed("open", config_.queue_path, errno);
      return Result::kFailed;
    }
    if (fstat(fd->Get(), st) != 0) {
      *error = Failed("stat", config_.queue_path, errno);
      return Result::kFailed;
    }
    // Another name for the file would be a file someone else cares about.
    if (!S_ISREG(st->st_mode) || st->st_nlink != 1) {
      *error = config_.queue_path +
               " is not a queue file (not a regular file with one name)";
      return Result::kFailed;
    }
    if (RetryOnEintr([&] { return flock(fd->Get(), LOCK_EX | LOCK_NB); }) ==
        0) {
      // The path may name another file by now: write to that one.
      struct stat now;
      if (lstat(path, &now) == 0 && now.st_dev == st->st_dev &&
          now.st_ino == st->st_ino) {
        return Result::kDone;
      }
      continue;
    }
    if (errno != EWOULDBLOCK) {
      *error = Failed("lock", config_.queue_path, errno);
      return Result::kFailed;
    }
    fd->Reset();
    if (MonotonicMillis() >= deadline) {
      *error = config_.queue_path + " stayed locked by others";
      return Result::kBusy;
    }
    usleep(kLockPauseUs);
  }
}

std::string SinkWriter::HostOf(const std::string& host) const {
  return config_.host_member ? host : std::string();
}

std::string SinkWriter::RescanText(const HostRoots& roots) const {
  std::string text;
  for (const auto& host : roots) {
    for (const std::string& root : host.second) {
      text += RescanLine(root, HostOf(host.first));
      text += '\n';
    }
  }
  return text;
}

std::string SinkWriter::ResetText() const {
  return ResetMarkerLine() + "\n" + RescanText(state_.roots);
}

bool SinkWriter::Save(std::string* error) {
  return SaveSinkState(config_.state_path, state_, error);
}

bool SinkWriter::CutUnfinishedTail(int fd, struct stat* st,
                                   std::string* error) {
  if (st->st_size == 0) return true;
  std::string last;
  if (ReadAt(fd, st->st_size - 1, 1, &last) != 0 || last.size() != 1) {
    *error = Failed("read", config_.queue_path, errno);
    return false;
  }
  if (last[0] == '\n') return true;
  const size_t span =
      std::min<size_t>(static_cast<size_t>(st->st_size), kTailScanBytes);
  std::string tail;
  if (ReadAt(fd, st->st_size - static_cast<off_t>(span), span, &tail) != 0) {
    *error = Failed("read", config_.queue_path, errno);
    return false;
  }
  const size_t nl = tail.rfind('\n');
  if (nl == std::string::npos && span < static_cast<size_t>(st->st_size)) {
    *error = config_.queue_path + " ends in a line longer than " +
             std::to_string(kTailScanBytes) + " bytes";
    return false;
  }
  const off_t keep = nl == std::string::npos
                         ? 0
                         : st->st_size - static_cast<off_t>(span) +
                               static_cast<off_t>(nl) + 1;
  if (RetryOnEintr([&] { return ftruncate(fd, keep); }) != 0) {
    *error = Failed("truncate", config_.queue_path, errno);
    return false;
  }
  YULO_LOG_WARNING("cut an unfinished line of %lld bytes from the end of %s",
                   static_cast<long long>(st->st_size - keep),
                   config_.queue_path.c_str());
  st->st_size = keep;
  return true;
}

bool SinkWriter::AppendText(int fd, struct stat* st, const std::string& text,
                            std::string* error) {
  if (!WriteAllAt(fd, text.data(), text.size(), st->st_size) ||
      !FsyncRetrying(fd)) {
    *error = Failed("write", config_.queue_path, errno);
    return false;
  }
  st->st_size += static_cast<off_t>(text.size());
  return true;
}

bool SinkWriter::WriteReset(int fd, std::string* error) {
  const std::string text = ResetText();
  if (RetryOnEintr([&] { return ftruncate(fd, 0); }) != 0 ||
      !WriteAllAt(fd, text.data(), text.size(), 0) || !FsyncRetrying(fd)) {
    *error = Failed("reset", config_.queue_path, errno);
    return false;
  }
  return true;
}

bool SinkWriter::RecoverLocked(int fd, struct stat* st, std::string* error) {
  const PendingWrite& p = state_.pending;
  const bool same = static_cast<uint64_t>(st->st_dev) == p.dev &&
                    static_cast<uint64_t>(st->st_ino) == p.ino;
  const off_t end = p.offset + static_cast<off_t>(p.length);
  if (p.reset) {
    // A reset is owed whatever happened since: doing it twice only asks
    // for a rescan twice.
    if (!(same && st->st_size == end)) {
      if (!WriteReset(fd, error)) return false;
      st->st_size = 0;
      if (fstat(fd, st) != 0) {
        *error = Failed("stat", config_.queue_path, errno);
        return false;
      }
    }
    state_.committed = p.last_seq;
  } else if (same && st->st_size == end) {
    state_.committed = p.last_seq;
  } else if (same && st->st_size == p.offset &&
             Nanos(st->st_mtim) == p.mtime_ns &&
             Nanos(st->st_ctim) == p.ctime_ns) {
    // Untouched: the batch never got in and is written again.
  } else if (same && st->st_size > p.offset && st->st_size < end) {
    // Part of it: taken back, and written again whole.
    if (RetryOnEintr([&] { return ftruncate(fd, p.offset); }) != 0) {
      *error = Failed("truncate", config_.queue_path, errno);
      return false;
    }
    st->st_size = p.offset;
  } else {
    // A consumer took the file's lines before this sink came back: they
    // may or may not have held the batch. Rescan lines cover it without
    // risking a second copy of any line.
    if (!CutUnfinishedTail(fd, st, error) ||
        !AppendText(fd, st, RescanText(p.roots), error)) {
      return false;
    }
    state_.committed = p.last_seq;
    ++counts_.unsure;
    YULO_LOG_WARNING("%s changed while a write to it was unfinished: rescan "
                     "lines stand in for the stream's messages up to %llu",
                     config_.queue_path.c_str(),
                     static_cast<unsigned long long>(p.last_seq));
  }
  state_.pending = PendingWrite();
  return Save(error);
}

SinkWriter::Result SinkWriter::OpenSettled(UniqueFd* fd, struct stat* st,
                                           std::string* error) {
  const Result r = OpenLocked(fd, st, error);
  if (r != Result::kDone) return r;
  if (state_.pending.active && !RecoverLocked(fd->Get(), st, error)) {
    return Result::kFailed;
  }
  return Result::kDone;
}

SinkWriter::Result SinkWriter::BindStream(const std::string& stream,
                                          const std::string& created,
                                          std::string* error) {
  if (state_.pending.active) {
    UniqueFd fd;
    struct stat st;
    const Result r = OpenSettled(&fd, &st, error);
    if (r != Result::kDone) return r;
  }
  if (state_.stream == stream && state_.stream_created == created) {
    return Result::kDone;
  }
  if (!state_.stream.empty()) {
    YULO_LOG_NOTICE("stream %s (created %s) is not the one %s was written "
                    "from (%s, created %s): starting from its first message",
                    stream.c_str(), created.c_str(),
                    config_.queue_path.c_str(), state_.stream.c_str(),
                    state_.stream_created.c_str());
  }
  state_.stream = stream;
  state_.stream_created = created;
  state_.committed = 0;
  return Save(error) ? Result::kDone : Result::kFailed;
}

SinkWriter::Result SinkWriter::SkipTo(uint64_t first_seq,
                                      std::string* error) {
  if (first_seq <= state_.committed + 1) return Result::kDone;
  UniqueFd fd;
  struct stat st;
  const Result r = OpenSettled(&fd, &st, error);
  if (r != Result::kDone) return r;
  if (!CutUnfinishedTail(fd.Get(), &st, error)) return Result::kFailed;
  // A reset file already asks for every rescan.
  if (!StartsWithResetMarker(fd.Get(), st.st_size) &&
      !AppendText(fd.Get(), &st, RescanText(state_.roots), error)) {
    return Result::kFailed;
  }
  YULO_LOG_WARNING("stream %s no longer holds messages %llu to %llu: "
                   "rescan lines of every host's roots stand in for them",
                   state_.stream.c_str(),
                   static_cast<unsigned long long>(state_.committed + 1),
                   static_cast<unsigned long long>(first_seq - 1));
  state_.committed = first_seq - 1;
  return Save(error) ? Result::kDone : Result::kFailed;
}

SinkWriter::Result SinkWriter::Write(const std::vector<SinkMessage>& messages,
                                     std::string* error) {
  auto first_new = [&] {
    return std::find_if(
        messages.begin(), messages.end(),
        [&](const SinkMessage& m) { return m.seq > state_.committed; });
  };
  if (first_new() == messages.end() && !state_.pending.active) {
    return Result::kDone;
  }
  UniqueFd fd;
  struct stat st;
  const Result r = OpenSettled(&fd, &st, error);
  if (r != Result::kDone) return r;
  const auto begin = first_new();
  if (begin == messages.end()) return Result::kDone;
  if (!CutUnfinishedTail(fd.Get(), &st, error)) return Result::kFailed;

  bool in_reset = StartsWithResetMarker(fd.Get(), st.st_size);
  bool reset_now = false;
  PendingWrite pending;
  pending.active = true;
  pending.last_seq = messages.back().seq;
  pending.dev = st.st_dev;
  pending.ino = st.st_ino;
  pending.offset = st.st_size;
  pending.mtime_ns = Nanos(st.st_mtim);
  pending.ctime_ns = Nanos(st.st_ctim);
  std::string text;
  uint64_t written = 0;
  uint64_t dropped = 0;
  for (auto it = begin; it != messages.end(); ++it) {
    const LineFacts facts = InspectLine(it->line);
    const bool new_root = AddRoot(&state_.roots, it->host, facts.root);
    AddRoot(&pending.roots, it->host, facts.root);
    if (in_reset) {
      // Dropped; a root the file's rescan lines miss gets one of its own.
      if (new_root) {
        text += RescanLine(facts.root, HostOf(it->host));
        text += '\n';
      }
      ++dropped;
      continue;
    }
    std::string out;
    if (!facts.valid) {
      ++counts_.invalid;
      YULO_LOG_WARNING("message %llu from host %s is no queue line: a rescan "
                       "line of %s takes its place",
                       static_cast<unsigned long long>(it->seq),
                       it->host.c_str(), facts.root.c_str());
      out = RescanLine(facts.root, HostOf(it->host));
    } else if (config_.host_member && !facts.has_host && !it->host.empty()) {
      out = WithHostMember(it->line, it->host);
    } else {
      out = it->line;
    }
    out += '\n';
    if (NeedsReset(pending.offset + static_cast<off_t>(text.size()),
                   out.size())) {
      // Everything in the file and in this batch goes; the rescan lines of
      // the reset cover this line and those after it too.
      for (auto rest = it; rest != messages.end(); ++rest) {
        const std::string root = InspectLine(rest->line).root;
        AddRoot(&state_.roots, rest->host, root);
        AddRoot(&pending.roots, rest->host, root);
      }
      dropped += static_cast<uint64_t>(messages.end() - it);
      text = ResetText();
      reset_now = true;
      break;
    }
    text += out;
    ++written;
  }
  if (reset_now) {
    pending.reset = true;
    pending.offset = 0;
    written = 0;
  }
  pending.length = text.size();
  state_.pending = pending;
  if (!Save(error)) {
    state_.pending = PendingWrite();
    return Result::kFailed;
  }
  if (reset_now) {
    if (!WriteReset(fd.Get(), error)) return Result::kFailed;
    ++counts_.resets;
    YULO_LOG_WARNING("%s would pass its size limit: reset, with rescan "
                     "lines of every host's roots",
                     config_.queue_path.c_str());
  } else if (!text.empty() && !AppendText(fd.Get(), &st, text, error)) {
    // Taken back if it can be; if not, the pending record settles it.
    if (RetryOnEintr([&] { return ftruncate(fd.Get(), pending.offset); }) ==
        0) {
      state_.pending = PendingWrite();
      std::string ignored;
      Save(&ignored);
    }
    return Result::kFailed;
  }
  state_.committed = pending.last_seq;
  state_.pending = PendingWrite();
  counts_.lines += written;
  counts_.dropped += dropped;
  std::string why;
  if (!Save(&why)) {
    // The lines are in the file. The pending record on disk says so to a
    // restart; meanwhile `committed` keeps them from going in twice.
    YULO_LOG_WARNING("%s", why.c_str());
  }
  return Result::kDone;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
