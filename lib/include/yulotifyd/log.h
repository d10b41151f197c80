// Process-wide logging of yulotifyd and its companion library.
//
// Every line goes to syslog (or to the sink SetLogSink installs) and
// begins with "<source>:<line> " where <source> is the emitting source file's
// base name without its extension ("daemon", "volume_manager", ...). The
// verbosity is LOG_LEVEL, a syslog severity: 7 debug, 6 info, 3 error.
// Each message has one of three gates, and a syslog priority that says
// what it means, so that `journalctl -p warning` shows what needs a look:
//   YULO_LOG_ALWAYS   failures; written whatever LOG_LEVEL is; LOG_ERR
//   YULO_LOG_WARNING  losses made good (a rescan instead of lines) and
//                     degraded states; written whatever LOG_LEVEL is;
//                     LOG_WARNING
//   YULO_LOG_NOTICE   what an administrator should learn of even when all
//                     is well (why the daemon stopped, a failure that
//                     ended); written whatever LOG_LEVEL is; LOG_NOTICE
//   YULO_LOG_INFO     progress; written when LOG_LEVEL is 6 or 7; LOG_INFO
//   YULO_LOG_DEBUG    tracing; written only when LOG_LEVEL is 7; LOG_DEBUG
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

#include <syslog.h>

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

// The priority of a line of `gate` that names none: LOG_ERR, LOG_INFO,
// LOG_DEBUG.
YULOTIFYD_EXPORT int GatePriority(LogGate gate);

// Writes one line at syslog priority `priority` (LOG_ERR ... LOG_DEBUG):
// "<stem of file>:<line> " + the formatted text. `file` may be a full path
// (__FILE__); only its base name is printed.
YULOTIFYD_EXPORT void LogWriteAt(int priority, const char* file, int line,
                                 const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// LogWriteAt(LOG_ERR, ...).
YULOTIFYD_EXPORT void LogWrite(const char* file, int line, const char* fmt,
                               ...)
    __attribute__((format(printf, 3, 4)));

// Where the lines go: `priority` the line's syslog priority and `line` the
// whole formatted line. Called on the logging thread; a sink must be safe
// to call from any thread at once.
using LogSink = void (*)(int priority, const char* line);

// Sends every later line to `sink` instead of syslog (every line: the
// thinning out of repeats is syslog's alone); nullptr sends them to syslog
// again. Returns the sink it replaces (nullptr: syslog). Tests
// capture the log this way; a program may send the lines elsewhere.
YULOTIFYD_EXPORT LogSink SetLogSink(LogSink sink);

}  // namespace YULOTIFYD
}  // namespace YULO

// A line of `gate` at `priority`, from `source` (a file name: __FILE__, or
// the name whose lines the code has always carried).
#define YULO_LOG_AT(source, gate, priority, ...)                          \
  do {                                                                    \
    if (::YULO::YULOTIFYD::LogGateOpen(gate))                             \
      ::YULO::YULOTIFYD::LogWriteAt(priority, source, __LINE__, __VA_ARGS__); \
  } while (0)

#define YULO_LOG_GATED(gate, ...) \
  YULO_LOG_AT(__FILE__, gate, ::YULO::YULOTIFYD::GatePriority(gate), __VA_ARGS__)

// The same with an explicit source name, for code that lives in another file
// than the one whose name its lines have always carried.
#define YULO_LOG_GATED_AS(source, gate, ...) \
  YULO_LOG_AT(source, gate, ::YULO::YULOTIFYD::GatePriority(gate), __VA_ARGS__)

#define YULO_LOG_ALWAYS(...) \
  YULO_LOG_GATED(::YULO::YULOTIFYD::LogGate::kAlways, __VA_ARGS__)
#define YULO_LOG_WARNING(...)                                             \
  YULO_LOG_AT(__FILE__, ::YULO::YULOTIFYD::LogGate::kAlways, LOG_WARNING, \
              __VA_ARGS__)
#define YULO_LOG_NOTICE(...)                                             \
  YULO_LOG_AT(__FILE__, ::YULO::YULOTIFYD::LogGate::kAlways, LOG_NOTICE, \
              __VA_ARGS__)
#define YULO_LOG_INFO(...) \
  YULO_LOG_GATED(::YULO::YULOTIFYD::LogGate::kInfo, __VA_ARGS__)
#define YULO_LOG_DEBUG(...) \
  YULO_LOG_GATED(::YULO::YULOTIFYD::LogGate::kDebug, __VA_ARGS__)

// The gates with an explicit source name (see YULO_LOG_GATED_AS).
#define YULO_LOG_ALWAYS_AS(source, ...) \
  YULO_LOG_GATED_AS(source, ::YULO::YULOTIFYD::LogGate::kAlways, __VA_ARGS__)
#define YULO_LOG_WARNING_AS(source, ...)                                \
  YULO_LOG_AT(source, ::YULO::YULOTIFYD::LogGate::kAlways, LOG_WARNING, \
              __VA_ARGS__)
#define YULO_LOG_NOTICE_AS(source, ...)                                \
  YULO_LOG_AT(source, ::YULO::YULOTIFYD::LogGate::kAlways, LOG_NOTICE, \
              __VA_ARGS__)
#define YULO_LOG_INFO_AS(source, ...) \
  YULO_LOG_GATED_AS(source, ::YULO::YULOTIFYD::LogGate::kInfo, __VA_ARGS__)
#define YULO_LOG_DEBUG_AS(source, ...) \
  YULO_LOG_GATED_AS(source, ::YULO::YULOTIFYD::LogGate::kDebug, __VA_ARGS__)

#endif  // YULOTIFYD_LOG_H_
