#include "daemon/instance_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "base/file_io.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Longest pid text read back from the lock file.
constexpr size_t kPidTextMax = 32;

pid_t ReadHolder(int fd) {
  std::string text;
  if (lseek(fd, 0, SEEK_SET) != 0 || ReadToEnd(fd, kPidTextMax, &text) != 0) {
    return 0;
  }
  const long pid = std::strtol(text.c_str(), nullptr, 10);
  return pid > 0 ? static_cast<pid_t>(pid) : 0;
}

}  // namespace

InstanceLock::Result InstanceLock::Take(const std::string& path,
                                        pid_t* holder) {
  *holder = 0;
  UniqueFd fd(RetryOnEintr([&] {
    return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                  0644);
  }));
  if (!fd.Valid()) return Result::kFailed;
  if (RetryOnEintr([&] { return ::flock(fd.Get(), LOCK_EX | LOCK_NB); }) !=
      0) {
    if (errno != EWOULDBLOCK) return Result::kFailed;
    *holder = ReadHolder(fd.Get());
    return Result::kHeld;
  }
  // Only the holder writes, so a reader sees either the old or the new pid
  // text, or an empty file for a moment.
  const std::string pid = std::to_string(getpid()) + "\n";
  if (RetryOnEintr([&] { return ::ftruncate(fd.Get(), 0); }) == 0) {
    (void)WriteAllAt(fd.Get(), pid.data(), pid.size(), 0);
  }
  fd_ = std::move(fd);
  return Result::kTaken;
}

}  // namespace YULOTIFYD
}  // namespace YULO
