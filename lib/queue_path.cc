#include "yulotifyd/queue_path.h"

#include <cstddef>
#include <cstdint>

namespace YULO {
namespace YULOTIFYD {

std::string DecodeQueuePath(const std::string& parsed) {
  const unsigned char* s =
      reinterpret_cast<const unsigned char*>(parsed.data());
  const size_t n = parsed.size();
  std::string out;
  out.reserve(n);
  size_t i = 0;
  while (i < n) {
    // U+DC80..U+DCFF as JsonCpp stores it: ED B2 80 .. ED B3 BF.
    if (i + 2 < n && s[i] == 0xED && (s[i + 1] == 0xB2 || s[i + 1] == 0xB3) &&
        s[i + 2] >= 0x80 && s[i + 2] <= 0xBF) {
      const uint32_t cp =
          0xD000u | ((s[i + 1] & 0x3Fu) << 6) | (s[i + 2] & 0x3Fu);
      out += static_cast<char>(cp - 0xDC00u);
      i += 3;
      continue;
    }
    out += static_cast<char>(s[i]);
    ++i;
  }
  return out;
}

}  // namespace YULOTIFYD
}  // namespace YULO
