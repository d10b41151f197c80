// The text of a log line, for log.cc and its unit test; not installed.
//
// Thread-safety: reentrant, no state.
#ifndef YULOTIFYD_LIB_LOG_FORMAT_H_
#define YULOTIFYD_LIB_LOG_FORMAT_H_

#include <cstdarg>
#include <string>

namespace YULO {
namespace YULOTIFYD {

// The text LogWrite hands to syslog, without writing it. `saved_errno` is
// what "%m" expands to. The formatted message is escaped (EscapeText in
// base/text_escape.h): a line feed, an escape sequence or a broken UTF-8
// byte from a file name comes out as "\xNN".
std::string FormatLogLine(const char* file, int line, int saved_errno,
                          const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));

// "dir/volume_manager.cc" -> "volume_manager".
std::string SourceStem(const char* file);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_LIB_LOG_FORMAT_H_
