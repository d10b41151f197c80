// MemQueueFileOps: queue files in memory, behind the QueueFileOps seam, for
// the fuzz targets that drive QueueOutbox and EventProcessor.
//
// Why not the real calls: the head check and the 100 MiB reset are only
// reached with files whose first bytes and size a target chooses, and a
// file "above 100 MiB" has to cost nothing. A MemQueueFile is its first
// bytes, then a hole of zeros that is counted but not stored, then whatever
// was appended; so a fuzzed head in front of a 100 MiB hole is a few bytes.
//
// Faults: SetFaults takes a script of bytes, one per system call made, that
// makes calls fail (EIO, ENOSPC, EINTR, ...) or come back short. Calls
// beyond the script succeed. A failed lock is never "busy" (EWOULDBLOCK):
// the writer sleeps between busy tries, which would slow a fuzzer to a
// crawl, and the unit tests cover it. A truncation only ever fails with
// EINTR (which the writer retries): the writer truncates to take a failed
// write back, and when that fails for good too nothing can take the
// fragment away, which is not what the checks are about.
//
// While serving the writer it checks the writer's promises and crashes when
// one is broken: every write and truncation happens under the lock, bytes
// are only ever appended or written into a file emptied to 0 bytes, and
// descriptors are known when used.
//
// Thread-safety: none; the processor's passes run on the target's thread.
#ifndef YULOTIFYD_FUZZ_COMMON_MEM_QUEUE_FILE_OPS_H_
#define YULOTIFYD_FUZZ_COMMON_MEM_QUEUE_FILE_OPS_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "output/queue_file_ops.h"

namespace YULO {
namespace YULOTIFYD {
namespace fuzz {

struct MemQueueFile {
  std::string data;   // bytes [0, data.size())
  uint64_t hole = 0;  // then this many zero bytes, not stored
  std::string tail;   // then these
  // How much of the content set up by the target is still as it was: it
  // shrinks when the file is truncated or written below it.
  uint64_t original = 0;
  uint64_t intact = 0;

  uint64_t size() const { return data.size() + hole + tail.size(); }
  // The bytes from `offset` to the end. REQUIRES: no hole of more than
  // 1 MiB lies in that range.
  std::string Content(uint64_t offset) const;
};

class MemQueueFileOps : public QueueFileOps {
 public:
  // Puts a file at `path`: `head`, then `hole` zero bytes.
  void SetFile(const std::string& path, std::string_view head, uint64_t hole);
  // The file at `path`, or null when there is none.
  const MemQueueFile* Find(const std::string& path) const;
  const std::map<std::string, MemQueueFile>& files() const { return files_; }

  void SetFaults(std::string_view script) {
    faults_.assign(script.data(), script.size());
    fault_pos_ = 0;
  }
  void ClearFaults() { SetFaults(std::string_view()); }

  // Descriptors opened and not closed yet.
  size_t open_descriptors() const { return fds_.size(); }

  int Open(const char* path, int flags, mode_t mode) override;
  int Flock(int fd, int operation) override;
  ssize_t Read(int fd, void* buffer, size_t count) override;
  int Fstat(int fd, struct stat* st) override;
  off_t Lseek(int fd, off_t offset, int whence) override;
  ssize_t Write(int fd, const void* buffer, size_t count) override;
  int Ftruncate(int fd, off_t length) override;
  int Close(int fd) override;

 private:
  struct Descriptor {
    std::string path;
    uint64_t pos = 0;
    bool locked = false;
  };

  // The next byte of the fault script, or -1 when it is used up.
  int NextFault();
  Descriptor& Known(int fd);

  std::map<std::string, MemQueueFile> files_;
  std::map<int, Descriptor> fds_;
  int next_fd_ = 1000;
  std::string faults_;
  size_t fault_pos_ = 0;
};

}  // namespace fuzz
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FUZZ_COMMON_MEM_QUEUE_FILE_OPS_H_
