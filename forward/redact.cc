#include "forward/redact.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

std::string WithoutUserInfo(const std::string& text) {
  std::string out;
  size_t pos = 0;
  for (;;) {
    const size_t scheme_end = text.find("://", pos);
    if (scheme_end == std::string::npos) break;
    const size_t authority = scheme_end + 3;
    out.append(text, pos, authority - pos);
    // A server URL ends at a blank, a quote or a ',' (the separator of a
    // server list); its user information is everything up to the last '@'
    // before that, since a password that is not percent-encoded may hold
    // '@', '/' or '?' (server URLs have no path that could hold one).
    size_t end = text.find_first_of(", \t\r\n\"'", authority);
    if (end == std::string::npos) end = text.size();
    const size_t at =
        end > authority ? text.rfind('@', end - 1) : std::string::npos;
    if (at != std::string::npos && at >= authority) {
      out.append(text, at + 1, end - at - 1);
    } else {
      out.append(text, authority, end - authority);
    }
    pos = end;
  }
  out.append(text, pos, std::string::npos);
  return out;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
