// Logging of yulotify-forward: one line per message on stderr, which the
// service manager puts in the journal. Callable from any thread (one
// fprintf per line).
#ifndef YULOTIFYD_FORWARD_LOG_H_
#define YULOTIFYD_FORWARD_LOG_H_

#include <stdarg.h>
#include <stdio.h>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

inline void ForwardLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline void ForwardLog(const char* fmt, ...) {
  char buf[1024];
  va_list args;
  va_start(args, fmt);
  vsnprintf(buf, sizeof(buf), fmt, args);
  va_end(args);
  fprintf(stderr, "yulotify-forward: %s\n", buf);
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_LOG_H_
