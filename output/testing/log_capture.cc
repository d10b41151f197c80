#include "output/testing/log_capture.h"

#include <stdarg.h>
#include <stdio.h>

#include <cctype>
#include <mutex>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

namespace {

std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}

std::vector<std::string>& Lines() {
  static std::vector<std::string> lines;
  return lines;
}

void Capture(const char* format, va_list args) {
  char buf[8192];
  vsnprintf(buf, sizeof(buf), format, args);
  std::lock_guard<std::mutex> guard(Lock());
  Lines().push_back(buf);
}

}  // namespace

std::vector<std::string> TakeLogLines() {
  std::lock_guard<std::mutex> guard(Lock());
  std::vector<std::string> lines;
  lines.swap(Lines());
  return lines;
}

std::vector<std::string> LinesWithMessage(
    const std::vector<std::string>& lines, const std::string& message,
    const std::string& source) {
  std::vector<std::string> found;
  const std::string prefix = source + ":";
  for (const std::string& line : lines) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    size_t pos = prefix.size();
    const size_t digits = pos;
    while (pos < line.size() &&
           std::isdigit(static_cast<unsigned char>(line[pos]))) {
      ++pos;
    }
    if (pos == digits || pos >= line.size() || line[pos] != ' ') continue;
    if (line.compare(pos + 1, std::string::npos, message) == 0) {
      found.push_back(line);
    }
  }
  return found;
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

// The program's own definitions win over the C library's for every caller,
// the companion library's shared object included.
extern "C" {

void syslog(int /*priority*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  YULO::YULOTIFYD::testing::Capture(format, args);
  va_end(args);
}

void vsyslog(int /*priority*/, const char* format, va_list args) {
  YULO::YULOTIFYD::testing::Capture(format, args);
}

void __syslog_chk(int /*priority*/, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  YULO::YULOTIFYD::testing::Capture(format, args);
  va_end(args);
}

void __vsyslog_chk(int /*priority*/, int /*flag*/, const char* format,
                   va_list args) {
  YULO::YULOTIFYD::testing::Capture(format, args);
}

}  // extern "C"
