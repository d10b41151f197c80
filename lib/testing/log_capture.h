// Captures the log lines of a test program. Linking log_capture.cc into a
// program installs, before main, a log sink (SetLogSink) that keeps every
// line in memory instead of sending it to the system log.
//
// Thread-safety: all functions may be called from any thread.
#ifndef YULOTIFYD_LIB_TESTING_LOG_CAPTURE_H_
#define YULOTIFYD_LIB_TESTING_LOG_CAPTURE_H_

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

struct CapturedLine {
  int priority;
  std::string text;
};

// The lines captured since the last call, oldest first; clears them.
std::vector<CapturedLine> TakeCapturedLines();

// Only the texts of TakeCapturedLines().
std::vector<std::string> TakeLogLines();

// Of `lines`, those whose text after the "<source>:<line> " prefix equals
// `message`, and whose source is `source`.
std::vector<std::string> LinesWithMessage(
    const std::vector<std::string>& lines, const std::string& message,
    const std::string& source = "event_processor");

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_LIB_TESTING_LOG_CAPTURE_H_
