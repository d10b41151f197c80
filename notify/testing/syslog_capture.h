// Captures the lines the logging helper hands to syslog, for tests that
// check the layer's log lines (their fixed numbers are part of the log
// format). Linking syslog_capture.cc into a test program replaces syslog()
// for the whole program: lines are kept in memory instead of being sent.
//
// Thread-safety: all functions may be called from any thread.
#ifndef YULOTIFYD_NOTIFY_TESTING_SYSLOG_CAPTURE_H_
#define YULOTIFYD_NOTIFY_TESTING_SYSLOG_CAPTURE_H_

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
std::vector<CapturedLine> TakeSyslogLines();

// Only the texts of TakeSyslogLines().
std::vector<std::string> TakeSyslogTexts();

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_TESTING_SYSLOG_CAPTURE_H_
