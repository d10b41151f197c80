// InstanceLock: one daemon at a time.
//
// The daemon takes an exclusive flock(2) on its lock file before it touches
// anything else (socket, run-status file, queue files) and holds it until
// the process ends; the kernel releases it however the process ends, so a
// crash never leaves a stale lock behind. A second daemon finds the lock
// taken and refuses to start. The holder writes its pid into the file, so
// that the refusal can say who holds it.
//
// Ownership: owns the lock file's descriptor while the lock is held.
// Thread-safety: none; the daemon's main thread only.
#ifndef YULOTIFYD_DAEMON_INSTANCE_LOCK_H_
#define YULOTIFYD_DAEMON_INSTANCE_LOCK_H_

#include <sys/types.h>

#include <string>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

class InstanceLock {
 public:
  enum class Result {
    kTaken,     // this process holds the lock now
    kHeld,      // another process holds it
    kFailed,    // the lock file could not be opened or locked (errno)
  };

  InstanceLock() = default;
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

  // Opens (creating it, never through a symbolic link) and locks `path`
  // without waiting. On kHeld, *holder gets the pid the holder wrote (0
  // when unknown). REQUIRES: not held yet.
  Result Take(const std::string& path, pid_t* holder);

  bool held() const { return fd_.Valid(); }

 private:
  UniqueFd fd_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_INSTANCE_LOCK_H_
