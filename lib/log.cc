#include "yulotifyd/log.h"

#include <errno.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/text_escape.h"
#include "log_repeat.h"
#include "log_format.h"

namespace YULO {
namespace YULOTIFYD {

std::atomic<int32_t> LOG_LEVEL{3};

namespace {

std::atomic<LogSink> g_sink{nullptr};

// The system log is shared by the whole machine: a line that repeats (the
// same failure again and again, a client that keeps sending bad commands)
// is thinned out before it gets there. A sink installed with SetLogSink
// gets every line.
std::mutex g_repeat_lock;
LogRepeatLimiter g_repeats;

void WriteToSyslog(int priority, const std::string& line) {
  std::vector<std::string> summaries;
  bool admit;
  {
    std::lock_guard<std::mutex> guard(g_repeat_lock);
    admit = g_repeats.Admit(line, MonotonicMillis(), &summaries);
  }
  for (const std::string& summary : summaries) {
    syslog(LOG_NOTICE, "log:%d %s", __LINE__, summary.c_str());
  }
  if (admit) syslog(priority, "%s", line.c_str());
}

void WriteLine(int priority, const char* file, int line, const char* fmt,
               va_list args) {
  const int saved_errno = errno;
  const std::string text = FormatLogLine(file, line, saved_errno, fmt, args);
  // No openlog: the identity is the program's name, the facility the
  // default one.
  const LogSink sink = g_sink.load(std::memory_order_acquire);
  if (sink != nullptr) {
    sink(priority, text.c_str());
  } else {
    WriteToSyslog(priority, text);
  }
  errno = saved_errno;
}

}  // namespace

LogSink SetLogSink(LogSink sink) { return g_sink.exchange(sink); }

bool LogGateOpen(LogGate gate) {
  const int32_t level = LOG_LEVEL.load(std::memory_order_relaxed);
  switch (gate) {
    case LogGate::kAlways:
      return true;
    case LogGate::kInfo:
      return level == 6 || level == 7;
    case LogGate::kDebug:
      return level == 7;
  }
  return true;
}

std::string SourceStem(const char* file) {
  if (file == nullptr) return std::string();
  const char* base = std::strrchr(file, '/');
  base = base == nullptr ? file : base + 1;
  const char* dot = std::strchr(base, '.');
  return dot == nullptr ? std::string(base) : std::string(base, dot - base);
}

std::string FormatLogLine(const char* file, int line, int saved_errno,
                          const char* fmt, va_list args) {
  std::string text = SourceStem(file);
  char prefix[32];
  std::snprintf(prefix, sizeof(prefix), ":%d ", line);
  text += prefix;

  // glibc's printf expands %m from errno, so restore the caller's errno
  // right before each formatting pass.
  char small[512];
  va_list copy;
  va_copy(copy, args);
  errno = saved_errno;
  const int n = std::vsnprintf(small, sizeof(small), fmt, copy);
  va_end(copy);
  if (n < 0) return text;
  std::vector<char> big;
  std::string_view message(small, static_cast<size_t>(n));
  if (static_cast<size_t>(n) >= sizeof(small)) {
    big.resize(static_cast<size_t>(n) + 1);
    errno = saved_errno;
    std::vsnprintf(big.data(), big.size(), fmt, args);
    message = std::string_view(big.data(), static_cast<size_t>(n));
  }
  // File names, subscription texts and command arguments end up in
  // messages: escaped here, one place for every line, so that none of them
  // can start a forged line or reach a terminal as control sequences. The
  // prefix above is plain text. One line feed that ends a message (the
  // kernel layer's lines carry one) ends the line; it forges nothing.
  const bool ends_line = !message.empty() && message.back() == '\n';
  if (ends_line) message.remove_suffix(1);
  if (NeedsEscape(message)) {
    text += EscapeText(message);
  } else {
    text.append(message);
  }
  if (ends_line) text += '\n';
  return text;
}

int GatePriority(LogGate gate) {
  switch (gate) {
    case LogGate::kAlways:
      return LOG_ERR;
    case LogGate::kInfo:
      return LOG_INFO;
    case LogGate::kDebug:
      return LOG_DEBUG;
  }
  return LOG_ERR;
}

void LogWriteAt(int priority, const char* file, int line, const char* fmt,
                ...) {
  va_list args;
  va_start(args, fmt);
  WriteLine(priority, file, line, fmt, args);
  va_end(args);
}

void LogWrite(const char* file, int line, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  WriteLine(LOG_ERR, file, line, fmt, args);
  va_end(args);
}

}  // namespace YULOTIFYD
}  // namespace YULO
