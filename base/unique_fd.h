// UniqueFd: sole owner of one file descriptor, closed when the owner goes.
//
// Ownership: move-only; the moved-from object holds no descriptor. close() is
// never retried on EINTR (Linux releases the descriptor even then).
// Thread-safety: none; one owner, one thread at a time.
//
// Also here: RetryOnEintr, which repeats a system call interrupted by a
// signal. Every layer of the project owns its descriptors with these two.
#ifndef YULOTIFYD_BASE_UNIQUE_FD_H_
#define YULOTIFYD_BASE_UNIQUE_FD_H_

#include <errno.h>

namespace YULO {
namespace YULOTIFYD {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }

  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int Get() const { return fd_; }
  bool Valid() const { return fd_ >= 0; }

  // Gives the descriptor up without closing it.
  int Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  // Closes the held descriptor (if any) and takes `fd`. errno is preserved.
  void Reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Calls `call` until it fails with something other than EINTR or succeeds.
template <typename Call>
auto RetryOnEintr(Call call) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_UNIQUE_FD_H_
