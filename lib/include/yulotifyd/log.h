// Process-wide logging of yulotifyd and its companion library.
//
// Every line goes to syslog at priority LOG_ERR, whatever it means (or to
// the sink SetLogSink installs), and
// begins with "<source>:<line> " where <source> is the emitting source file's
// base name without its extension ("daemon", "volume_manager", ...). The
// verbosity is LOG_LEVEL, a syslog severity: 7 debug, 6 info, 3 error.
// Each message has one of three gates:
//   YULO_LOG_ALWAYS  failures; written whatever LOG_LEVEL is
//   YULO_LOG_INFO    progress; written when LOG_LEVEL is 6 or 7
//   YULO_LOG_DEBUG   tracing; written only when LOG_LEVEL is 7
// "%m" in a format is errno's text, as in syslog(3); errno is preserved from
// the call site even if evaluating the gate or the arguments changes it.
// The formatted message is escaped: its control characters, DEL and bytes
// that are not well-formed UTF-8 come out as "\xNN", so a file name with a
// line feed or an escape sequence stays on its one line, inert. Lines that
// repeat are thinned out on their way to syslog: of lines alike but for
// their numbers, at most 100 go out within 10 seconds, then one line says
// how many were left out.
//
// Thread-safety: all functions may be called from any thread. LOG_LEVEL is
// read without a lock by every thread and written by the daemon's main thread.
#ifndef YULOTIFYD_LOG_H_
#define YULOTIFYD_LOG_H_

#include <atomic>
#include <cstdint>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

// The current verbosity; 3 (error) until someone changes it.
YULOTIFYD_EXPORT extern std::atomic<int32_t> LOG_LEVEL;

enum class LogGate { kAlways, kInfo, kDebug };

// True when a message of this gate is to be written at the current level.
YULOTIFYD_EXPORT bool LogGateOpen(LogGate gate);

// Writes one line at LOG_ERR: "<stem of file>:<line> " + the formatted text.
// `file` may be a full path (__FILE__); only its base name is printed.
YULOTIFYD_EXPORT void LogWrite(const char* file, int line, const char* fmt,
                               ...)
    __attribute__((format(printf, 3, 4)));

// Where the lines LogWrite formats go: `priority` is always LOG_ERR and
// `line` the whole formatted line. Called on the logging thread; a sink
// must be safe to call from any thread at once.
using LogSink = void (*)(int priority, const char* line);

// Sends every later line to `sink` instead of syslog (every line: the
// thinning out of repeats is syslog's alone); nullptr sends them to syslog
// again. Returns the sink it replaces (nullptr: syslog). Tests
// capture the log this way; a program may send the lines elsewhere.
YULOTIFYD_EXPORT LogSink SetLogSink(LogSink sink);

}  // namespace YULOTIFYD
}  // namespace YULO

#define YULO_LOG_GATED(gate, ...)                                   \
  do {                                                              \
    if (::YULO::YULOTIFYD::LogGateOpen(gate))                       \
      ::YULO::YULOTIFYD::LogWrite(__FILE__, __LINE__, __VA_ARGS__); \
  } while (0)

// The same with an explicit source name, for code that lives in another file
// than the one whose name its lines have always carried.
#define YULO_LOG_GATED_AS(source, gate, ...)                      \
  do {                                                            \
    if (::YULO::YULOTIFYD::LogGateOpen(gate))                     \
      ::YULO::YULOTIFYD::LogWrite(source, __LINE__, __VA_ARGS__); \
  } while (0)

#define YULO_LOG_ALWAYS(...) \
  YULO_LOG_GATED(::YULO::YULOTIFYD::LogGate::kAlways, __VA_ARGS__)
#define YULO_LOG_INFO(...) \
  YULO_LOG_GATED(::YULO::YULOTIFYD::LogGate::kInfo, __VA_ARGS__)
#define YULO_LOG_DEBUG(...) \
  YULO_LOG_GATED(::YULO::YULOTIFYD::LogGate::kDebug, __VA_ARGS__)

// The three gates with an explicit source name (see YULO_LOG_GATED_AS).
#define YULO_LOG_ALWAYS_AS(source, ...) \
  YULO_LOG_GATED_AS(source, ::YULO::YULOTIFYD::LogGate::kAlways, __VA_ARGS__)
#define YULO_LOG_INFO_AS(source, ...) \
  YULO_LOG_GATED_AS(source, ::YULO::YULOTIFYD::LogGate::kInfo, __VA_ARGS__)
#define YULO_LOG_DEBUG_AS(source, ...) \
  YULO_LOG_GATED_AS(source, ::YULO::YULOTIFYD::LogGate::kDebug, __VA_ARGS__)

#endif  // YULOTIFYD_LOG_H_
