// diag.cc: where the platform library reports problems in its input files.
//
// The library sits below libyulotifyd and cannot use its logger, so it
// writes plain syslog lines in the same "<file>:<line> <message>" shape.
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include "platform_internal.h"

namespace yulo_platform {

void Complain(Complaints* out, const char* stem, int line, const char* fmt,
              ...) {
  char message[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(message, sizeof(message), fmt, ap);
  va_end(ap);
  if (out == nullptr) {
    syslog(LOG_ERR, "%s:%d %s", stem, line, message);
    return;
  }
  char prefix[128];
  snprintf(prefix, sizeof(prefix), "%s:%d ", stem, line);
  out->push_back(std::string(prefix) + message);
}

}  // namespace yulo_platform
