#include "notify/notify_backend.h"

#include <errno.h>
#include <poll.h>
#include <time.h>

#include "notify/fanotify_backend.h"
#include "notify/syscall_backend.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

struct timespec Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts;
}

// a - b, never below zero.
struct timespec Remaining(const struct timespec& deadline) {
  const struct timespec now = Now();
  struct timespec left;
  left.tv_sec = deadline.tv_sec - now.tv_sec;
  left.tv_nsec = deadline.tv_nsec - now.tv_nsec;
  if (left.tv_nsec < 0) {
    left.tv_nsec += 1000000000L;
    left.tv_sec -= 1;
  }
  if (left.tv_sec < 0) left.tv_sec = left.tv_nsec = 0;
  return left;
}

}  // namespace

int NotifyBackend::ChangeWatchMask(int fd, const std::string& mount_point,
                                   uint32_t old_mask, uint32_t new_mask) {
  const uint32_t added = new_mask & ~old_mask;
  const uint32_t removed = old_mask & ~new_mask;
  if (added != 0 && AddWatch(fd, mount_point, added) != 0) return -1;
  if (removed != 0 && RemoveWatch(fd, mount_point, removed) != 0) return -1;
  return 0;
}

int WaitFdReadable(int fd, const struct timeval& timeout, bool* readable) {
  *readable = false;
  if (fd < 0 || timeout.tv_sec < 0 || timeout.tv_usec < 0) {
    errno = fd < 0 ? EBADF : EINVAL;
    return -1;
  }
  struct timespec deadline = Now();
  deadline.tv_sec += timeout.tv_sec + timeout.tv_usec / 1000000;
  deadline.tv_nsec += (timeout.tv_usec % 1000000) * 1000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_nsec -= 1000000000L;
    deadline.tv_sec += 1;
  }
  struct timespec left;
  left.tv_sec = timeout.tv_sec + timeout.tv_usec / 1000000;
  left.tv_nsec = (timeout.tv_usec % 1000000) * 1000L;
  for (;;) {
    struct pollfd pfd = {fd, POLLIN, 0};
    const int r = ::ppoll(&pfd, 1, &left, nullptr);
    if (r < 0 && errno == EINTR) {
      left = Remaining(deadline);
      continue;
    }
    if (r <= 0) return r;
    if (pfd.revents & POLLNVAL) {
      errno = EBADF;
      return -1;
    }
    // select reports a descriptor with an error or a hang-up as readable.
    *readable = (pfd.revents & (POLLIN | POLLERR | POLLHUP)) != 0;
    return 1;
  }
}

int OpenFirstBackend(std::vector<std::unique_ptr<NotifyBackend>> candidates,
                     std::unique_ptr<NotifyBackend>* chosen) {
  chosen->reset();
  int fd = -1;
  int err = ENOSYS;
  for (auto& candidate : candidates) {
    if (!candidate) continue;
    *chosen = std::move(candidate);
    fd = (*chosen)->Init();
    err = errno;
    if (fd >= 0 || err != ENOSYS) break;
  }
  if (fd < 0) errno = err;
  return fd;
}

int OpenKernelBackend(std::unique_ptr<NotifyBackend>* chosen) {
  std::vector<std::unique_ptr<NotifyBackend>> candidates;
  candidates.push_back(std::make_unique<SyscallBackend>());
  candidates.push_back(std::make_unique<FanotifyBackend>());
  return OpenFirstBackend(std::move(candidates), chosen);
}

}  // namespace YULOTIFYD
}  // namespace YULO
