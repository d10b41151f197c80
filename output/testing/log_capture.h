// Captures the daemon's log lines in the output layer's tests. Linking
// log_capture.cc into a test program replaces syslog() for the whole program
// (the companion library's logging included): lines are kept in memory
// instead of being sent to the system log.
//
// Thread-safety: all functions may be called from any thread.
#ifndef YULOTIFYD_OUTPUT_TESTING_LOG_CAPTURE_H_
#define YULOTIFYD_OUTPUT_TESTING_LOG_CAPTURE_H_

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// The lines captured since the last call, oldest first; clears them.
std::vector<std::string> TakeLogLines();

// Of `lines`, those whose text after the "<source>:<line> " prefix equals
// `message`, and whose source is `source`.
std::vector<std::string> LinesWithMessage(
    const std::vector<std::string>& lines, const std::string& message,
    const std::string& source = "event_processor");

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_TESTING_LOG_CAPTURE_H_
