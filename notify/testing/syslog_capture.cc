#include "notify/testing/syslog_capture.h"

#include <stdarg.h>
#include <stdio.h>

#include <mutex>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

namespace {

std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}

std::vector<CapturedLine>& Lines() {
  static std::vector<CapturedLine> lines;
  return lines;
}

void Capture(int priority, const char* format, va_list args) {
  char buf[8192];
  vsnprintf(buf, sizeof(buf), format, args);
  std::lock_guard<std::mutex> guard(Lock());
  Lines().push_back(CapturedLine{priority, buf});
}

}  // namespace

std::vector<CapturedLine> TakeSyslogLines() {
  std::lock_guard<std::mutex> guard(Lock());
  std::vector<CapturedLine> lines;
  lines.swap(Lines());
  return lines;
}

std::vector<std::string> TakeSyslogTexts() {
  std::vector<std::string> texts;
  for (auto& line : TakeSyslogLines()) texts.push_back(std::move(line.text));
  return texts;
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

// The program's own definitions win over the C library's for every caller,
// the logging helper's shared library included.
extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  YULO::YULOTIFYD::testing::Capture(priority, format, args);
  va_end(args);
}

void vsyslog(int priority, const char* format, va_list args) {
  YULO::YULOTIFYD::testing::Capture(priority, format, args);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  YULO::YULOTIFYD::testing::Capture(priority, format, args);
  va_end(args);
}

void __vsyslog_chk(int priority, int /*flag*/, const char* format,
                   va_list args) {
  YULO::YULOTIFYD::testing::Capture(priority, format, args);
}

}  // extern "C"
