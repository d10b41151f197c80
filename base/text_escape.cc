#include "base/text_escape.h"

#include <cstddef>
#include <cstdint>

namespace YULO {
namespace YULOTIFYD {

namespace {

// The length of the well-formed UTF-8 sequence of printable text starting
// at text[at] (1 for a printable ASCII byte); 0 when the byte there must be
// escaped. Overlong forms, surrogates, code points above U+10FFFF and the C1
// controls count as not printable.
size_t PrintableLength(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) {
    return static_cast<uint8_t>(text[i]);
  };
  const uint8_t b0 = byte(at);
  if (b0 >= 0x20 && b0 < 0x7f) return 1;
  if (b0 < 0xc2 || b0 > 0xf4) return 0;  // controls, DEL, stray or overlong
  const size_t len = b0 < 0xe0 ? 2 : (b0 < 0xf0 ? 3 : 4);
  if (at + len > text.size()) return 0;
  for (size_t i = 1; i < len; ++i) {
    if ((byte(at + i) & 0xc0) != 0x80) return 0;
  }
  const uint8_t b1 = byte(at + 1);
  switch (b0) {
    case 0xc2:
      if (b1 < 0xa0) return 0;  // U+0080-U+009F: the C1 controls
      break;
    case 0xe0:
      if (b1 < 0xa0) return 0;  // overlong
      break;
    case 0xed:
      if (b1 >= 0xa0) return 0;  // UTF-16 surrogates
      break;
    case 0xf0:
      if (b1 < 0x90) return 0;  // overlong
      break;
    case 0xf4:
      if (b1 >= 0x90) return 0;  // above U+10FFFF
      break;
    default:
      break;
  }
  return len;
}

bool Kept(std::string_view keep, char c) {
  return keep.find(c) != std::string_view::npos;
}

}  // namespace

bool NeedsEscape(std::string_view text, std::string_view keep) {
  for (size_t at = 0; at < text.size();) {
    const size_t len = PrintableLength(text, at);
    if (len == 0) {
      if (!Kept(keep, text[at])) return true;
      ++at;
      continue;
    }
    at += len;
  }
  return false;
}

std::string EscapeText(std::string_view text, std::string_view keep) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const size_t len = PrintableLength(text, at);
    if (len > 0) {
      out.append(text.data() + at, len);
      at += len;
      continue;
    }
    const auto b = static_cast<uint8_t>(text[at]);
    ++at;
    if (Kept(keep, static_cast<char>(b))) {
      out += static_cast<char>(b);
      continue;
    }
    out += "\\x";
    out += kHex[b >> 4];
    out += kHex[b & 0xf];
  }
  return out;
}

}  // namespace YULOTIFYD
}  // namespace YULO
