#include "base/errno_text.h"

#include <string.h>

namespace YULO {
namespace YULOTIFYD {

namespace {

// strerror_r comes in a GNU flavour (returns the text) and an XSI one
// (returns 0 and fills the buffer); these two overloads accept either.
[[maybe_unused]] const char* StrErrorResult(const char* text, const char*) {
  return text;
}
[[maybe_unused]] const char* StrErrorResult(int rc, const char* buf) {
  return rc == 0 ? buf : "unknown error";
}

}  // namespace

std::string ErrnoText(int err) {
  char buf[256];
  buf[0] = '\0';
  return StrErrorResult(strerror_r(err, buf, sizeof(buf)), buf);
}

}  // namespace YULOTIFYD
}  // namespace YULO
