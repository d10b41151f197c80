// SyscallBackend: the appliance kernel's own notification calls.
//
//   yulo_notify_init          822  (1)                    -> descriptor
//   yulo_notify_add_watch     823  (fd, mount point, mask) -> 0
//   yulo_notify_remove_watch  824  (fd, mount point, mask) -> 0
//
// made through syscall(2) with the appliance's x86-64 numbers. The kernel
// writes RawNotifyRecords on the descriptor, so Read is a plain read. On a
// stock kernel Init fails with ENOSYS (OpenKernelBackend then falls back to
// fanotify).
//
// Ownership: owns the descriptor from Init and closes it on destruction.
// Thread-safety: none (see NotifyBackend).
#ifndef YULOTIFYD_NOTIFY_SYSCALL_BACKEND_H_
#define YULOTIFYD_NOTIFY_SYSCALL_BACKEND_H_

#include "base/unique_fd.h"
#include "notify/notify_backend.h"

namespace YULO {
namespace YULOTIFYD {

constexpr long kSysYuloNotifyInit = 822;
constexpr long kSysYuloNotifyAddWatch = 823;
constexpr long kSysYuloNotifyRemoveWatch = 824;

class SyscallBackend : public NotifyBackend {
 public:
  SyscallBackend() = default;

  const char* Name() const override { return "appliance"; }
  int Init() override;
  int AddWatch(int fd, const std::string& mount_point, uint32_t mask) override;
  int RemoveWatch(int fd, const std::string& mount_point,
                  uint32_t mask) override;
  int WaitReadable(int fd, const struct timeval& timeout,
                   bool* readable) override;
  ssize_t Read(int fd, void* buffer, size_t capacity) override;

 private:
  UniqueFd fd_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_SYSCALL_BACKEND_H_
