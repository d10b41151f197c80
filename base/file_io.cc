#include "base/file_io.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

constexpr size_t kChunk = 64 * 1024;

// Calls `write_from(done)` until `size` bytes are written; it writes what
// is left after the first `done` bytes and returns what write(2) returns.
template <typename WriteFrom>
bool WriteInPieces(size_t size, WriteFrom write_from) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = RetryOnEintr([&] { return write_from(done); });
    if (n < 0) return false;
    if (n == 0) {
      errno = EIO;  // nothing taken: a failure nobody reports otherwise
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

int ReadWholeFile(const std::string& path, size_t max_bytes, std::string* out) {
  out->clear();
  const UniqueFd fd(RetryOnEintr([&] {
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  }));
  if (!fd.Valid()) return errno;
  return ReadToEnd(fd.Get(), max_bytes, out);
}

int ReadToEnd(int fd, size_t max_bytes, std::string* out) {
  out->clear();
  int err = 0;
  size_t used = 0;
  for (;;) {
    // Read straight into the string: grow it a chunk ahead of what it holds
    // and cut it back to what was read.
    if (out->size() - used < kChunk) out->resize(used + kChunk);
    const ssize_t n = RetryOnEintr(
        [&] { return ::read(fd, &(*out)[used], out->size() - used); });
    if (n < 0) {
      err = errno;
      break;
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
    if (used > max_bytes) {
      err = EFBIG;
      break;
    }
  }
  out->resize(err == 0 ? used : 0);
  return err;
}

int ReadAt(int fd, off_t offset, size_t count, std::string* out) {
  out->resize(count);
  size_t used = 0;
  while (used < count) {
    const ssize_t n = RetryOnEintr([&] {
      return ::pread(fd, &(*out)[used], count - used,
                     offset + static_cast<off_t>(used));
    });
    if (n < 0) {
      const int err = errno;
      out->clear();
      return err;
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  out->resize(used);
  return 0;
}

bool WriteWholeFile(const std::string& path, const std::string& data,
                    mode_t mode) {
  UniqueFd fd(RetryOnEintr([&] {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY,
                  mode);
  }));
  return fd.Valid() && WriteAll(fd.Get(), data.data(), data.size());
}

bool WriteAll(int fd, const char* data, size_t size) {
  return WriteInPieces(size, [&](size_t done) {
    return ::write(fd, data + done, size - done);
  });
}

bool WriteAllAt(int fd, const char* data, size_t size, off_t offset) {
  return WriteInPieces(size, [&](size_t done) {
    return ::pwrite(fd, data + done, size - done,
                    offset + static_cast<off_t>(done));
  });
}

bool FsyncRetrying(int fd) {
  return RetryOnEintr([&] { return ::fsync(fd); }) == 0;
}

}  // namespace YULOTIFYD
}  // namespace YULO
