#include "notify/syscall_backend.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace YULO {
namespace YULOTIFYD {

int SyscallBackend::Init() {
  const long fd = ::syscall(kSysYuloNotifyInit, 1);
  if (fd < 0) return -1;
  // The appliance call has no close-on-exec flag; set it at once.
  fd_.Reset(static_cast<int>(fd));
  ::fcntl(fd_.Get(), F_SETFD, FD_CLOEXEC);
  return fd_.Get();
}

int SyscallBackend::AddWatch(int fd, const std::string& mount_point,
                             uint32_t mask) {
  const long r =
      ::syscall(kSysYuloNotifyAddWatch, fd, mount_point.c_str(), mask);
  return r == 0 ? 0 : -1;
}

int SyscallBackend::RemoveWatch(int fd, const std::string& mount_point,
                                uint32_t mask) {
  const long r =
      ::syscall(kSysYuloNotifyRemoveWatch, fd, mount_point.c_str(), mask);
  return r == 0 ? 0 : -1;
}

int SyscallBackend::WaitReadable(int fd, const struct timeval& timeout,
                                 bool* readable) {
  return WaitFdReadable(fd, timeout, readable);
}

ssize_t SyscallBackend::Read(int fd, void* buffer, size_t capacity) {
  return RetryOnEintr([&] { return ::read(fd, buffer, capacity); });
}

}  // namespace YULOTIFYD
}  // namespace YULO
