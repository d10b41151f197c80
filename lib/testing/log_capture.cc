#include "lib/testing/log_capture.h"

#include <cctype>
#include <mutex>

#include "yulotifyd/log.h"

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

void Capture(int priority, const char* line) {
  std::lock_guard<std::mutex> guard(Lock());
  Lines().push_back(CapturedLine{priority, line});
}

// Installed while the program starts, before any test can log.
const LogSink kPrevious = SetLogSink(&Capture);

}  // namespace

std::vector<CapturedLine> TakeCapturedLines() {
  std::lock_guard<std::mutex> guard(Lock());
  std::vector<CapturedLine> lines;
  lines.swap(Lines());
  return lines;
}

std::vector<std::string> TakeLogLines() {
  std::vector<std::string> texts;
  for (CapturedLine& line : TakeCapturedLines()) {
    texts.push_back(std::move(line.text));
  }
  return texts;
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
