#include "yulotifyd/log.h"

#include <errno.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "log_format.h"

namespace YULO {
namespace YULOTIFYD {

std::atomic<int32_t> LOG_LEVEL{3};

namespace {

std::atomic<LogSink> g_sink{nullptr};

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
  if (static_cast<size_t>(n) < sizeof(small)) {
    text.append(small, n);
    return text;
  }
  std::vector<char> big(static_cast<size_t>(n) + 1);
  errno = saved_errno;
  std::vsnprintf(big.data(), big.size(), fmt, args);
  text.append(big.data(), n);
  return text;
}

void LogWrite(const char* file, int line, const char* fmt, ...) {
  const int saved_errno = errno;
  va_list args;
  va_start(args, fmt);
  const std::string text = FormatLogLine(file, line, saved_errno, fmt, args);
  va_end(args);
  // No openlog: the identity is the program's name, the facility the
  // default one, and every line uses LOG_ERR whatever its meaning.
  const LogSink sink = g_sink.load(std::memory_order_acquire);
  if (sink != nullptr) {
    sink(LOG_ERR, text.c_str());
  } else {
    syslog(LOG_ERR, "%s", text.c_str());
  }
  errno = saved_errno;
}

}  // namespace YULOTIFYD
}  // namespace YULO
