#include "base/mount_field.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

bool IsOctalDigit(char c) { return c >= '0' && c <= '7'; }

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

std::string_view MountTableField(std::string_view line, int index) {
  size_t pos = 0;
  for (int i = 0;; ++i) {
    while (pos < line.size() && IsBlank(line[pos])) ++pos;
    size_t end = pos;
    while (end < line.size() && !IsBlank(line[end])) ++end;
    if (pos == end) return std::string_view();
    if (i == index) return line.substr(pos, end - pos);
    pos = end;
  }
}

std::string DecodeMountField(std::string_view field, BadEscape bad) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size();) {
    if (field[i] != '\\') {
      out.push_back(field[i++]);
      continue;
    }
    const bool escape = i + 3 < field.size() && IsOctalDigit(field[i + 1]) &&
                        IsOctalDigit(field[i + 2]) &&
                        IsOctalDigit(field[i + 3]) &&
                        (bad == BadEscape::kCut || field[i + 1] <= '3');
    if (!escape) {
      if (bad == BadEscape::kCut) break;
      out.push_back(field[i++]);
      continue;
    }
    const int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                      (field[i + 3] - '0');
    out.push_back(static_cast<char>(value & 0xff));
    i += 4;
  }
  return out;
}

}  // namespace YULOTIFYD
}  // namespace YULO
