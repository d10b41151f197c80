#include "fuzz/common/mem_queue_file_ops.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "fuzz/common/fuzz_support.h"

namespace YULO {
namespace YULOTIFYD {
namespace fuzz {

namespace {

constexpr uint64_t kMaxMaterialisedHole = 1 << 20;

// errno values a failing call may report; never EWOULDBLOCK (see header).
constexpr int kOpenErrors[] = {ENOENT, EACCES, EMFILE, ENOSPC};
constexpr int kLockErrors[] = {ENOLCK, EBADF};

}  // namespace

std::string MemQueueFile::Content(uint64_t offset) const {
  std::string out;
  if (offset < data.size()) out.append(data, offset, std::string::npos);
  const uint64_t hole_start = std::max<uint64_t>(offset, data.size());
  const uint64_t hole_end = data.size() + hole;
  if (hole_start < hole_end) {
    FUZZ_CHECK(hole_end - hole_start <= kMaxMaterialisedHole,
               "a target asked for the content of a large hole");
    out.append(hole_end - hole_start, '\0');
  }
  const uint64_t tail_from = offset > hole_end ? offset - hole_end : 0;
  if (tail_from < tail.size()) out.append(tail, tail_from, std::string::npos);
  return out;
}

void MemQueueFileOps::SetFile(const std::string& path, std::string_view head,
                              uint64_t hole) {
  MemQueueFile& file = files_[path];
  file.data.assign(head.data(), head.size());
  file.hole = hole;
  file.tail.clear();
  file.original = file.size();
  file.intact = file.original;
}

const MemQueueFile* MemQueueFileOps::Find(const std::string& path) const {
  const auto it = files_.find(path);
  return it == files_.end() ? nullptr : &it->second;
}

int MemQueueFileOps::NextFault() {
  if (fault_pos_ >= faults_.size()) return -1;
  return static_cast<uint8_t>(faults_[fault_pos_++]);
}

MemQueueFileOps::Descriptor& MemQueueFileOps::Known(int fd) {
  const auto it = fds_.find(fd);
  FUZZ_CHECK(it != fds_.end(), "descriptor " + std::to_string(fd) +
                                   " used but not open");
  return it->second;
}

int MemQueueFileOps::Open(const char* path, int flags, mode_t /*mode*/) {
  const int fault = NextFault();
  if (fault >= 0 && fault < 0x10) {
    errno = kOpenErrors[fault % 4];
    return -1;
  }
  if (files_.count(path) == 0) {
    if ((flags & O_CREAT) == 0) {
      errno = ENOENT;
      return -1;
    }
    files_[path];
  }
  const int fd = next_fd_++;
  Descriptor& d = fds_[fd];
  d.path = path;
  return fd;
}

int MemQueueFileOps::Flock(int fd, int operation) {
  Descriptor& d = Known(fd);
  if ((operation & LOCK_UN) != 0) {
    d.locked = false;
    return 0;
  }
  const int fault = NextFault();
  if (fault >= 0 && fault < 0x10) {
    errno = kLockErrors[fault % 2];
    return -1;
  }
  d.locked = true;
  return 0;
}

ssize_t MemQueueFileOps::Read(int fd, void* buffer, size_t count) {
  Descriptor& d = Known(fd);
  const int fault = NextFault();
  if (fault >= 0 && fault < 0x08) {
    errno = EIO;
    return -1;
  }
  if (fault >= 0x08 && fault < 0x10) {
    errno = EINTR;
    return -1;
  }
  if (fault >= 0x10 && fault < 0x20) {
    count = std::min<size_t>(count, static_cast<size_t>(fault - 0x0F));
  }
  const MemQueueFile& file = files_[d.path];
  char* out = static_cast<char*>(buffer);
  size_t done = 0;
  while (done < count && d.pos < file.size()) {
    const uint64_t pos = d.pos;
    const uint64_t hole_end = file.data.size() + file.hole;
    size_t n;
    if (pos < file.data.size()) {
      n = std::min<uint64_t>(count - done, file.data.size() - pos);
      std::memcpy(out + done, file.data.data() + pos, n);
    } else if (pos < hole_end) {
      n = std::min<uint64_t>(count - done, hole_end - pos);
      std::memset(out + done, 0, n);
    } else {
      n = std::min<uint64_t>(count - done, file.tail.size() - (pos - hole_end));
      std::memcpy(out + done, file.tail.data() + (pos - hole_end), n);
    }
    done += n;
    d.pos += n;
  }
  return static_cast<ssize_t>(done);
}

int MemQueueFileOps::Fstat(int fd, struct stat* st) {
  Descriptor& d = Known(fd);
  const int fault = NextFault();
  if (fault >= 0 && fault < 0x10) {
    errno = EIO;
    return -1;
  }
  std::memset(st, 0, sizeof(*st));
  st->st_mode = S_IFREG | 0600;
  st->st_nlink = 1;
  st->st_size = static_cast<off_t>(files_[d.path].size());
  return 0;
}

off_t MemQueueFileOps::Lseek(int fd, off_t offset, int whence) {
  Descriptor& d = Known(fd);
  const int fault = NextFault();
  if (fault >= 0 && fault < 0x10) {
    errno = EIO;
    return -1;
  }
  int64_t base = 0;
  if (whence == SEEK_CUR) base = static_cast<int64_t>(d.pos);
  if (whence == SEEK_END) base = static_cast<int64_t>(files_[d.path].size());
  const int64_t pos = base + offset;
  if (pos < 0) {
    errno = EINVAL;
    return -1;
  }
  d.pos = static_cast<uint64_t>(pos);
  return static_cast<off_t>(pos);
}

ssize_t MemQueueFileOps::Write(int fd, const void* buffer, size_t count) {
  Descriptor& d = Known(fd);
  FUZZ_CHECK(d.locked, "write to " + d.path + " without holding its lock");
  const int fault = NextFault();
  if (fault >= 0 && fault < 0x08) {
    errno = ENOSPC;
    return -1;
  }
  if (fault >= 0x08 && fault < 0x0C) {
    errno = EINTR;
    return -1;
  }
  if (fault >= 0x0C && fault < 0x10) return 0;
  if (fault >= 0x10 && fault < 0x30) {
    count = std::min<size_t>(count, static_cast<size_t>(fault - 0x0F));
  }
  MemQueueFile& file = files_[d.path];
  const char* bytes = static_cast<const char*>(buffer);
  if (d.pos == file.size()) {
    (file.hole == 0 && file.tail.empty() ? file.data : file.tail)
        .append(bytes, count);
  } else {
    // The writer appends, or rewrites a file it has just emptied.
    FUZZ_CHECK(d.pos < file.size() && file.hole == 0 && file.tail.empty(),
               "write to " + d.path + " at " + std::to_string(d.pos) +
                   " in a file of " + std::to_string(file.size()) +
                   " bytes: neither an append nor a rewrite from the start");
    file.data.replace(d.pos, std::min<size_t>(count, file.data.size() - d.pos),
                      bytes, count);
    file.intact = std::min<uint64_t>(file.intact, d.pos);
  }
  d.pos += count;
  return static_cast<ssize_t>(count);
}

int MemQueueFileOps::Ftruncate(int fd, off_t length) {
  Descriptor& d = Known(fd);
  FUZZ_CHECK(d.locked, "truncation of " + d.path + " without its lock");
  FUZZ_CHECK(length >= 0, "negative truncation");
  const int fault = NextFault();
  if (fault >= 0 && fault < 0x10) {
    errno = EINTR;
    return -1;
  }
  MemQueueFile& file = files_[d.path];
  const uint64_t len = static_cast<uint64_t>(length);
  if (len <= file.data.size()) {
    file.data.resize(len);
    file.hole = 0;
    file.tail.clear();
  } else if (len <= file.data.size() + file.hole) {
    file.hole = len - file.data.size();
    file.tail.clear();
  } else {
    file.tail.resize(len - file.data.size() - file.hole, '\0');
  }
  file.intact = std::min(file.intact, len);
  return 0;
}

int MemQueueFileOps::Close(int fd) {
  Known(fd);
  fds_.erase(fd);
  return 0;
}

}  // namespace fuzz
}  // namespace YULOTIFYD
}  // namespace YULO
