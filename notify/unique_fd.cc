#include "notify/unique_fd.h"

#include <string.h>
#include <unistd.h>

namespace YULO {
namespace YULOTIFYD {

void UniqueFd::Reset(int fd) {
  if (fd_ >= 0 && fd_ != fd) {
    const int saved_errno = errno;
    ::close(fd_);
    errno = saved_errno;
  }
  fd_ = fd;
}

std::string ErrnoText(int err) {
  char buf[256];
  // GNU strerror_r: returns either buf or a static string.
  return std::string(strerror_r(err, buf, sizeof(buf)));
}

}  // namespace YULOTIFYD
}  // namespace YULO
