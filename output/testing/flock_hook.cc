#include "output/testing/flock_hook.h"

#include <errno.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <deque>
#include <mutex>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

namespace {

std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}

std::vector<int>& Calls() {
  static std::vector<int> calls;
  return calls;
}

std::deque<int>& Failures() {
  static std::deque<int> failures;
  return failures;
}

}  // namespace

void FailNextLocks(const std::vector<int>& errnos) {
  std::lock_guard<std::mutex> guard(Lock());
  Failures().assign(errnos.begin(), errnos.end());
}

std::vector<int> TakeFlockCalls() {
  std::lock_guard<std::mutex> guard(Lock());
  std::vector<int> calls;
  calls.swap(Calls());
  Failures().clear();
  return calls;
}

// Records the call; returns the errno to fail with, or 0.
int Record(int operation) {
  std::lock_guard<std::mutex> guard(Lock());
  Calls().push_back(operation);
  if (operation == LOCK_UN || Failures().empty()) return 0;
  const int err = Failures().front();
  Failures().pop_front();
  return err;
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

extern "C" int flock(int fd, int operation) {
  const int err = YULO::YULOTIFYD::testing::Record(operation);
  if (err != 0) {
    errno = err;
    return -1;
  }
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}
