#include "base/unique_fd.h"

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

}  // namespace YULOTIFYD
}  // namespace YULO
