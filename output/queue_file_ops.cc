#include "output/queue_file_ops.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace YULO {
namespace YULOTIFYD {

int PosixQueueFileOps::Open(const char* path, int flags, mode_t mode) {
  return open(path, flags, mode);
}

int PosixQueueFileOps::Flock(int fd, int operation) {
  return flock(fd, operation);
}

ssize_t PosixQueueFileOps::Read(int fd, void* buffer, size_t count) {
  return read(fd, buffer, count);
}

int PosixQueueFileOps::Fstat(int fd, struct stat* st) { return fstat(fd, st); }

off_t PosixQueueFileOps::Lseek(int fd, off_t offset, int whence) {
  return lseek(fd, offset, whence);
}

ssize_t PosixQueueFileOps::Write(int fd, const void* buffer, size_t count) {
  return write(fd, buffer, count);
}

int PosixQueueFileOps::Ftruncate(int fd, off_t length) {
  return ftruncate(fd, length);
}

int PosixQueueFileOps::Close(int fd) { return close(fd); }

}  // namespace YULOTIFYD
}  // namespace YULO
