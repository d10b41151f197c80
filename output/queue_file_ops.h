// QueueFileOps: the system calls the queue-file writer makes, behind one
// narrow interface so that tests can make any of them fail (EINTR, EAGAIN,
// ENOSPC, EIO, short writes) and check the bytes left in the file.
//
// Each operation has the contract of the system call of the same name:
// the result, and errno on failure. PosixQueueFileOps passes every call to
// the kernel unchanged; it adds no retry of its own, so the writer sees
// exactly what the kernel said.
//
// Thread-safety: PosixQueueFileOps keeps no state and may be used from any
// number of threads. A test's implementation decides for itself.
#ifndef YULOTIFYD_OUTPUT_QUEUE_FILE_OPS_H_
#define YULOTIFYD_OUTPUT_QUEUE_FILE_OPS_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace YULO {
namespace YULOTIFYD {

class QueueFileOps {
 public:
  virtual ~QueueFileOps() = default;
  virtual int Open(const char* path, int flags, mode_t mode) = 0;
  virtual int Flock(int fd, int operation) = 0;
  virtual ssize_t Read(int fd, void* buffer, size_t count) = 0;
  virtual int Fstat(int fd, struct stat* st) = 0;
  virtual off_t Lseek(int fd, off_t offset, int whence) = 0;
  virtual ssize_t Write(int fd, const void* buffer, size_t count) = 0;
  virtual int Ftruncate(int fd, off_t length) = 0;
  virtual int Close(int fd) = 0;
};

class PosixQueueFileOps : public QueueFileOps {
 public:
  int Open(const char* path, int flags, mode_t mode) override;
  int Flock(int fd, int operation) override;
  ssize_t Read(int fd, void* buffer, size_t count) override;
  int Fstat(int fd, struct stat* st) override;
  off_t Lseek(int fd, off_t offset, int whence) override;
  ssize_t Write(int fd, const void* buffer, size_t count) override;
  int Ftruncate(int fd, off_t length) override;
  int Close(int fd) override;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_QUEUE_FILE_OPS_H_
