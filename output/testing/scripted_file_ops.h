// ScriptedFileOps: the real queue-file system calls, except those a test
// scripts to fail. Every flock() operation is recorded.
//
// Thread-safety: one thread at a time.
#ifndef YULOTIFYD_OUTPUT_TESTING_SCRIPTED_FILE_OPS_H_
#define YULOTIFYD_OUTPUT_TESTING_SCRIPTED_FILE_OPS_H_

#include <cstddef>
#include <deque>
#include <map>
#include <vector>

#include "output/queue_file_ops.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

class ScriptedFileOps : public PosixQueueFileOps {
 public:
  enum Op { kOpen, kFlock, kRead, kFstat, kLseek, kWrite, kFtruncate, kClose };

  // The next calls of `op` fail, one per entry, with these errno values,
  // without reaching the kernel. For kFlock only lock requests count
  // (LOCK_UN always goes through).
  void FailNext(Op op, std::vector<int> errnos);
  // The next write() passes at most `bytes` bytes to the kernel and returns
  // what the kernel wrote: a short write.
  void ShortNextWrite(size_t bytes);

  // The flock() operations since the last call, oldest first.
  std::vector<int> TakeFlockCalls();
  // How many times `op` was called (failed calls included).
  int Calls(Op op) const;

  int Open(const char* path, int flags, mode_t mode) override;
  int Flock(int fd, int operation) override;
  ssize_t Read(int fd, void* buffer, size_t count) override;
  int Fstat(int fd, struct stat* st) override;
  off_t Lseek(int fd, off_t offset, int whence) override;
  ssize_t Write(int fd, const void* buffer, size_t count) override;
  int Ftruncate(int fd, off_t length) override;
  int Close(int fd) override;

 private:
  // Counts the call; returns the errno it is scripted to fail with, or 0.
  int Next(Op op);

  std::map<Op, std::deque<int>> failures_;
  std::map<Op, int> calls_;
  std::deque<size_t> short_writes_;
  std::vector<int> flock_calls_;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_TESTING_SCRIPTED_FILE_OPS_H_
