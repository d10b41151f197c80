#include "output/testing/scripted_file_ops.h"

#include <errno.h>
#include <sys/file.h>

#include <algorithm>
#include <utility>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

void ScriptedFileOps::FailNext(Op op, std::vector<int> errnos) {
  failures_[op].assign(errnos.begin(), errnos.end());
}

void ScriptedFileOps::ShortNextWrite(size_t bytes) {
  short_writes_.push_back(bytes);
}

std::vector<int> ScriptedFileOps::TakeFlockCalls() {
  std::vector<int> calls;
  calls.swap(flock_calls_);
  return calls;
}

int ScriptedFileOps::Calls(Op op) const {
  auto it = calls_.find(op);
  return it == calls_.end() ? 0 : it->second;
}

int ScriptedFileOps::Next(Op op) {
  ++calls_[op];
  std::deque<int>& pending = failures_[op];
  if (pending.empty()) return 0;
  const int err = pending.front();
  pending.pop_front();
  return err;
}

int ScriptedFileOps::Open(const char* path, int flags, mode_t mode) {
  if (const int err = Next(kOpen)) return errno = err, -1;
  return PosixQueueFileOps::Open(path, flags, mode);
}

int ScriptedFileOps::Flock(int fd, int operation) {
  flock_calls_.push_back(operation);
  if (operation != LOCK_UN) {
    if (const int err = Next(kFlock)) return errno = err, -1;
  }
  return PosixQueueFileOps::Flock(fd, operation);
}

ssize_t ScriptedFileOps::Read(int fd, void* buffer, size_t count) {
  if (const int err = Next(kRead)) return errno = err, -1;
  return PosixQueueFileOps::Read(fd, buffer, count);
}

int ScriptedFileOps::Fstat(int fd, struct stat* st) {
  if (const int err = Next(kFstat)) return errno = err, -1;
  return PosixQueueFileOps::Fstat(fd, st);
}

off_t ScriptedFileOps::Lseek(int fd, off_t offset, int whence) {
  if (const int err = Next(kLseek)) return errno = err, -1;
  return PosixQueueFileOps::Lseek(fd, offset, whence);
}

ssize_t ScriptedFileOps::Write(int fd, const void* buffer, size_t count) {
  if (const int err = Next(kWrite)) return errno = err, -1;
  if (!short_writes_.empty()) {
    count = std::min(count, short_writes_.front());
    short_writes_.pop_front();
  }
  return PosixQueueFileOps::Write(fd, buffer, count);
}

int ScriptedFileOps::Ftruncate(int fd, off_t length) {
  if (const int err = Next(kFtruncate)) return errno = err, -1;
  return PosixQueueFileOps::Ftruncate(fd, length);
}

int ScriptedFileOps::Close(int fd) {
  Next(kClose);
  return PosixQueueFileOps::Close(fd);
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
