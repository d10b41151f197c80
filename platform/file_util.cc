// file_util.cc: reading files line by line, and YULOFileExist.
//
// Every descriptor is opened O_CLOEXEC: the daemon that loads us forks
// helpers, and they must not inherit descriptors of files we happen to be
// reading at that moment.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform_internal.h"

namespace yulo_platform {
namespace {

constexpr size_t kChunk = 64 * 1024;

}  // namespace

LineReader::LineReader(size_t max_line) : max_line_(max_line) {}

int LineReader::Open(const std::string& path) {
  buf_.clear();
  pos_ = 0;
  eof_ = false;
  error_ = 0;
  fd_.Reset(RetryOnEintr(
      [&] { return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
  if (!fd_.Valid()) {
    error_ = errno;
    return error_;
  }
  return 0;
}

bool LineReader::Fill() {
  buf_.resize(kChunk);
  pos_ = 0;
  ssize_t n = !fd_.Valid()
                  ? (errno = EBADF, -1)
                  : RetryOnEintr([&] { return read(fd_.Get(), &buf_[0], kChunk); });
  if (n < 0) {
    error_ = errno;
    buf_.clear();
    return false;
  }
  buf_.resize(static_cast<size_t>(n));
  if (n == 0) eof_ = true;
  return n > 0;
}

bool LineReader::Next(std::string* line, bool* overlong) {
  line->clear();
  *overlong = false;
  if (error_ != 0) return false;
  bool have_any = false;
  for (;;) {
    size_t nl = buf_.find('\n', pos_);
    size_t end = nl == std::string::npos ? buf_.size() : nl;
    size_t avail = end - pos_;
    size_t room = line->size() < max_line_ ? max_line_ - line->size() : 0;
    size_t take = avail < room ? avail : room;
    line->append(buf_, pos_, take);
    if (avail > take) *overlong = true;
    if (avail > 0) have_any = true;
    if (nl != std::string::npos) {
      pos_ = nl + 1;
      return true;
    }
    // The buffer holds no more newlines; fetch more of the file, or hand out
    // a last line that has no "\n".
    if (eof_) return have_any;
    if (!Fill()) return error_ == 0 && have_any;
  }
}

}  // namespace yulo_platform

// lstat, not stat: a symbolic link exists even when its target does not, and
// the daemon asks about directory entries, not about what links point to.
extern "C" int YULOFileExist(const char* path) {
  if (path == nullptr || path[0] == '\0') return 0;
  struct stat st;
  return lstat(path, &st) == 0 ? 1 : 0;
}
