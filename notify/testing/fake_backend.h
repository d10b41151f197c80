// Test doubles for the kernel notification layer: a scripted NotifyBackend
// that serves made-up records and records every call, a made-up directory
// tree and mount table for mount-point resolution, and record builders.
//
// Ownership: a FakeBackend shares its FakeKernel with the test, so the test
// can script it and inspect it after handing the backend to a YULotify.
// Thread-safety: none; tests use them from one thread.
#ifndef YULOTIFYD_NOTIFY_TESTING_FAKE_BACKEND_H_
#define YULOTIFYD_NOTIFY_TESTING_FAKE_BACKEND_H_

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "notify/mount_point.h"
#include "notify/notify_backend.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

struct FakeKernel {
  // What Init returns; when negative, Init fails with init_errno.
  int init_fd = 7;
  int init_errno = ENOSYS;

  // Outcome of the next add-watch calls: 0 succeeds, else fails with that
  // errno. Calls beyond the list succeed.
  std::deque<int> add_errnos;
  // errno of every remove-watch call; 0 makes them succeed.
  int remove_errno = 0;

  // Chunks handed out by successive reads.
  std::deque<std::string> reads;
  // errno of the next reads (0 = serve the next chunk).
  std::deque<int> read_errnos;
  // Chunks the backend holds back until FinishPending moves them to
  // `reads`.
  std::deque<std::string> held_back;

  // Outcome of the next waits. When empty, a wait reports readable if a
  // chunk or a scripted read error is left, else times out.
  struct Wait {
    int result;
    bool readable;
    int err;
  };
  std::deque<Wait> waits;

  // Every call in order: "init", "add <fd> <mount> <mask hex>",
  // "remove <fd> <mount> <mask hex>", "wait <fd> <sec>.<usec>",
  // "read <fd> <capacity>", "finish".
  std::vector<std::string> calls;
  int wait_calls = 0;
  int read_calls = 0;
  bool destroyed = false;

  // Calls whose text begins with `prefix`.
  int Count(std::string_view prefix) const;
};

class FakeBackend : public NotifyBackend {
 public:
  explicit FakeBackend(std::shared_ptr<FakeKernel> kernel,
                       const char* name = "fake");
  ~FakeBackend() override;

  const char* Name() const override { return name_; }
  int Init() override;
  int AddWatch(int fd, const std::string& mount_point, uint32_t mask) override;
  int RemoveWatch(int fd, const std::string& mount_point,
                  uint32_t mask) override;
  int WaitReadable(int fd, const struct timeval& timeout,
                   bool* readable) override;
  ssize_t Read(int fd, void* buffer, size_t capacity) override;
  bool FinishPending() override;

 private:
  std::shared_ptr<FakeKernel> kernel_;
  const char* name_;
};

// One raw record (header, name, NUL) as the kernel would write it.
std::string RawRecordBytes(uint32_t mask, uint32_t cookie,
                           std::string_view name);

// A directory tree (path -> device number) and a mount table text.
class FakeMountEnv : public MountEnv {
 public:
  // Makes `path` stat-able on device `dev`.
  void AddDir(const std::string& path, dev_t dev) { dirs_[path] = dev; }
  void RemoveDir(const std::string& path) { dirs_.erase(path); }
  void SetMountTable(std::string text) {
    table_ = std::move(text);
    table_readable_ = true;
  }
  void SetTableUnreadable() { table_readable_ = false; }

  // Trailing slashes are ignored, as the kernel does for directories.
  int Stat(const std::string& path, struct stat* st) const override;
  bool ReadMountTable(std::string* text) const override;

  mutable std::vector<std::string> stat_calls;

 private:
  std::map<std::string, dev_t> dirs_;
  std::string table_;
  bool table_readable_ = true;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_TESTING_FAKE_BACKEND_H_
