// Set-up shared by the real-kernel test programs, and small file helpers.
//
// Linking kernel_environment.cc into a test program registers a global test
// environment that, before any test runs: checks for root, moves the
// process into a private mount namespace (so the tests' tmpfs mounts never
// leak), and takes a lock that serialises the kernel test programs (the
// overflow test changes a process-wide fanotify limit for a moment). Any
// failure there fails the whole program with its reason; nothing is
// skipped silently.
#ifndef YULOTIFYD_NOTIFY_TESTING_KERNEL_ENVIRONMENT_H_
#define YULOTIFYD_NOTIFY_TESTING_KERNEL_ENVIRONMENT_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/file_io.h"
#include "notify/notify_event.h"
#include "notify/yulotify.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// Everything `notify` can read now. Kernel events are queued during the
// system call that causes them, so after that call returns they are there:
// no waiting is needed.
std::vector<NotifyEvent> Drain(YULotify& notify);

// OR of the masks of the events whose full path is `path`.
uint32_t MaskOf(const std::vector<NotifyEvent>& events,
                const std::string& path);

// (mask, path below the watched path) of each event, in order: compare
// against a list written out in the test.
using Change = std::pair<uint32_t, std::string>;
std::vector<Change> Changes(const std::vector<NotifyEvent>& events);

// The events as readable text, for failure messages.
std::string Describe(const std::vector<NotifyEvent>& events);

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_TESTING_KERNEL_ENVIRONMENT_H_
