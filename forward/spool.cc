#include "forward/spool.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/unique_fd.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

std::string Errno(const std::string& what, int err) {
  return what + ": " + ErrnoText(err);
}

bool FsyncDir(const std::string& dir) {
  const UniqueFd fd(RetryOnEintr([&] {
    return open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }));
  return fd.Valid() && FsyncRetrying(fd.Get());
}

uint64_t NowNanos() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u +
         static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

bool Spool::MakeDirs(const std::string& dir, std::string* error) {
  for (size_t pos = 1; pos <= dir.size(); ++pos) {
    if (pos != dir.size() && dir[pos] != '/') continue;
    const std::string part = dir.substr(0, pos);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      *error = Errno("cannot create " + part, errno);
      return false;
    }
  }
  return true;
}

std::string Spool::NameFor(const std::string& queue_path) {
  uint64_t hash = 1469598103934665603ull;  // FNV-1a
  for (unsigned char c : queue_path) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  std::string name;
  for (char c : queue_path) {
    if (name.empty() && c == '/') continue;
    name += (c == '/') ? '_' : c;
  }
  if (name.size() > 180) name.erase(0, name.size() - 180);
  char hex[20];
  snprintf(hex, sizeof(hex), "-%016llx", static_cast<unsigned long long>(hash));
  return name + hex;
}

bool Spool::Open(const std::string& dir, const std::string& queue_path,
                 std::string* error) {
  if (!MakeDirs(dir, error)) return false;
  dir_ = dir;
  const std::string name = NameFor(queue_path);
  spool_path_ = dir + "/" + name + ".spool";
  state_path_ = dir + "/" + name + ".state";
  // The lock goes with the descriptor: closing it releases the spool.
  fd_.Reset(RetryOnEintr([&] {
    return open(spool_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY,
                0600);
  }));
  if (!fd_.Valid()) {
    *error = Errno("cannot open " + spool_path_, errno);
    return false;
  }
  if (flock(fd_.Get(), LOCK_EX | LOCK_NB) != 0) {
    *error = spool_path_ + " is in use by another forwarder";
    return false;
  }
  struct stat st;
  if (fstat(fd_.Get(), &st) != 0) {
    *error = Errno("cannot stat " + spool_path_, errno);
    return false;
  }
  size_ = static_cast<uint64_t>(st.st_size);

  Json::Value state;
  if (fromFile(state_path_, state) && state.isObject() &&
      state["epoch"].isUInt64() && state["acked_offset"].isUInt64() &&
      state["acked_seq"].isUInt64()) {
    epoch_ = state["epoch"].asUInt64();
    acked_offset_ = state["acked_offset"].asUInt64();
    acked_seq_ = state["acked_seq"].asUInt64();
  } else if (access(state_path_.c_str(), F_OK) == 0) {
    *error = state_path_ + " is damaged; move it away to start a new spool "
             "(its lines are then sent again under new ids)";
    return false;
  } else {
    // A new spool. Whatever a spool file without a state holds was never
    // published under this epoch; it is all sent.
    epoch_ = NowNanos();
    acked_offset_ = 0;
    acked_seq_ = 0;
  }
  if (acked_offset_ > size_) acked_offset_ = 0;  // interrupted compaction

  // Count the lines after the acknowledged position; drop an unfinished
  // last line (an append cut short).
  next_seq_ = acked_seq_;
  uint64_t offset = acked_offset_;
  uint64_t complete_end = acked_offset_;
  std::string chunk;
  while (offset < size_) {
    const int err =
        ReadAt(fd_.Get(), static_cast<off_t>(offset), 1 << 20, &chunk);
    if (err != 0) {
      *error = Errno("cannot read " + spool_path_, err);
      return false;
    }
    if (chunk.empty()) break;
    for (size_t i = 0; i < chunk.size(); ++i) {
      if (chunk[i] == '\n') {
        ++next_seq_;
        complete_end = offset + i + 1;
      }
    }
    offset += chunk.size();
  }
  if (complete_end < size_) {
    if (ftruncate(fd_.Get(), static_cast<off_t>(complete_end)) != 0) {
      *error = Errno("cannot truncate " + spool_path_, errno);
      return false;
    }
    size_ = complete_end;
  }
  Rewind();
  if (!SaveState(error)) return false;
  // Everything acknowledged but the file not cut yet: a compaction that
  // was stopped before its cut.
  if (size_ > 0 && acked_offset_ == size_) return Compact(error);
  return true;
}

bool Spool::Append(const std::vector<std::string>& lines, std::string* error) {
  if (lines.empty()) return true;
  if (!SaveIfPending(error)) return false;
  std::string text;
  for (const std::string& line : lines) {
    text += line;
    text += '\n';
  }
  if (!WriteAllAt(fd_.Get(), text.data(), text.size(),
                  static_cast<off_t>(size_)) ||
      !FsyncRetrying(fd_.Get())) {
    const int err = errno;
    // Take back whatever got written: the lines stay in the queue file.
    if (ftruncate(fd_.Get(), static_cast<off_t>(size_)) != 0) {
      // Open() drops an unfinished line; a finished one would be sent
      // twice under two ids, which the stream cannot tell apart.
    }
    *error = Errno("cannot append to " + spool_path_, err);
    return false;
  }
  size_ += text.size();
  next_seq_ += lines.size();
  return true;
}

void Spool::Rewind() {
  read_offset_ = acked_offset_;
  read_seq_ = acked_seq_;
  handed_ends_.clear();
}

bool Spool::ReadNext(size_t max_lines, size_t max_bytes,
                     std::vector<SpooledLine>* out, std::string* error) {
  out->clear();
  std::string chunk;
  while (out->size() < max_lines && read_offset_ < size_) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(
        size_ - read_offset_, std::max<size_t>(max_bytes, 4096)));
    const int err =
        ReadAt(fd_.Get(), static_cast<off_t>(read_offset_), want, &chunk);
    if (err != 0) {
      *error = Errno("cannot read " + spool_path_, err);
      return false;
    }
    size_t pos = 0;
    size_t taken = 0;
    for (;;) {
      const size_t nl = chunk.find('\n', pos);
      if (nl == std::string::npos) break;
      if (out->size() >= max_lines ||
          (taken > 0 && taken + nl - pos > max_bytes)) {
        break;
      }
      SpooledLine line;
      line.seq = read_seq_++;
      line.text.assign(chunk, pos, nl - pos);
      taken += nl - pos + 1;
      read_offset_ += nl - pos + 1;
      handed_ends_.push_back(read_offset_);
      out->push_back(std::move(line));
      pos = nl + 1;
    }
    if (taken == 0) {
      // No line feed at all: cannot happen, Open drops an unfinished line.
      if (pos == 0 && want == size_ - read_offset_) break;
      if (pos == 0) {
        // A line longer than max_bytes: read it whole.
        max_bytes = want * 2;
        continue;
      }
    }
    break;
  }
  return true;
}

bool Spool::Acknowledge(uint64_t seq, std::string* error) {
  if (seq < acked_seq_ || seq - acked_seq_ >= handed_ends_.size()) {
    *error = "acknowledged line " + std::to_string(seq) + " was not handed out";
    return false;
  }
  const size_t count = static_cast<size_t>(seq - acked_seq_ + 1);
  acked_offset_ = handed_ends_[count - 1];
  acked_seq_ = seq + 1;
  handed_ends_.erase(handed_ends_.begin(),
                     handed_ends_.begin() + static_cast<long>(count));
  // The new position is on disk before the file may be cut: whatever
  // happens next, a restart numbers new lines from acked_seq_ on.
  if (!SaveState(error)) return false;
  if (acked_offset_ == size_ && handed_ends_.empty()) return Compact(error);
  return true;
}

bool Spool::Compact(std::string* error) {
  // A failed cut leaves the file as it was and the saved state true to it;
  // the next full acknowledgement (or the next Open) tries again.
  if (ftruncate(fd_.Get(), 0) != 0) return true;
  size_ = 0;
  acked_offset_ = 0;
  read_offset_ = 0;
  // Until this second save succeeds the saved offset lies past the end of
  // the file, which Open reads as offset 0; Append refuses meanwhile, so
  // that the file cannot grow back under that stale offset.
  return SaveState(error);
}

bool Spool::SaveIfPending(std::string* error) {
  return !state_pending_ || SaveState(error);
}

bool Spool::SaveState(std::string* error) {
  // Cleared only once the new state is on disk.
  state_pending_ = true;
  Json::Value state(Json::objectValue);
  state["epoch"] = Json::UInt64(epoch_);
  state["acked_offset"] = Json::UInt64(acked_offset_);
  state["acked_seq"] = Json::UInt64(acked_seq_);
  const std::string text = toString(state) + "\n";
  const std::string tmp = state_path_ + ".tmp";
  const UniqueFd fd(RetryOnEintr([&] {
    return open(tmp.c_str(),
                O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0600);
  }));
  if (!fd.Valid()) {
    *error = Errno("cannot create " + tmp, errno);
    return false;
  }
  const bool written = WriteAllAt(fd.Get(), text.data(), text.size(), 0) &&
                       FsyncRetrying(fd.Get());
  const int err = errno;
  if (!written) {
    unlink(tmp.c_str());
    *error = Errno("cannot write " + tmp, err);
    return false;
  }
  if (rename(tmp.c_str(), state_path_.c_str()) != 0) {
    *error = Errno("cannot rename " + tmp, errno);
    unlink(tmp.c_str());
    return false;
  }
  if (!FsyncDir(dir_)) {
    *error = Errno("cannot fsync " + dir_, errno);
    return false;
  }
  state_pending_ = false;
  return true;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
