// Observes and scripts the output layer's flock() calls in its tests.
// Linking flock_hook.cc into a test program replaces flock() for the whole
// program: every call is recorded, and the test may make the next lock
// requests fail with chosen errno values; everything else goes to the
// kernel unchanged.
//
// Thread-safety: all functions may be called from any thread.
#ifndef YULOTIFYD_OUTPUT_TESTING_FLOCK_HOOK_H_
#define YULOTIFYD_OUTPUT_TESTING_FLOCK_HOOK_H_

#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// The next lock requests (any operation but LOCK_UN) fail, one per entry,
// with these errno values, without reaching the kernel.
void FailNextLocks(const std::vector<int>& errnos);

// The operations of the flock() calls since the last call, oldest first;
// clears them and any scripted failures left.
std::vector<int> TakeFlockCalls();

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_TESTING_FLOCK_HOOK_H_
