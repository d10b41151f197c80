// mount_table.cc: which directories are mount points right now.
//
// A volume table entry only counts while its mount point is mounted, so a
// volume that is unplugged or failed to mount never reaches the daemon. The
// kernel's list (/proc/mounts) is read afresh on every question.
#include "platform_internal.h"

namespace yulo_platform {
namespace {

constexpr char kStem[] = "mount_table";

bool IsOctalDigit(char c) { return c >= '0' && c <= '7'; }

// Splits a mounts line at blanks; the kernel escapes blanks inside fields.
std::string_view Field(std::string_view line, int index) {
  size_t pos = 0;
  for (int i = 0;; ++i) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
    size_t end = pos;
    while (end < line.size() && line[end] != ' ' && line[end] != '\t') ++end;
    if (pos == end) return {};
    if (i == index) return line.substr(pos, end - pos);
    pos = end;
  }
}

}  // namespace

std::string DecodeMountField(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() &&
        IsOctalDigit(field[i + 1]) && IsOctalDigit(field[i + 2]) &&
        IsOctalDigit(field[i + 3]) && field[i + 1] <= '3') {
      out.push_back(static_cast<char>((field[i + 1] - '0') * 64 +
                                      (field[i + 2] - '0') * 8 +
                                      (field[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(field[i]);
    }
  }
  return out;
}

std::string NormalisePath(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out.push_back(c);
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

bool PathIsUnder(std::string_view path, std::string_view mount_point) {
  if (mount_point.empty() || path.empty()) return false;
  if (mount_point == "/") return path[0] == '/';
  if (path.compare(0, mount_point.size(), mount_point) != 0) return false;
  return path.size() == mount_point.size() || path[mount_point.size()] == '/';
}

int ReadMountPoints(const std::string& mounts_path,
                    std::unordered_set<std::string>* out,
                    Complaints* complaints) {
  out->clear();
  LineReader reader;
  int err = reader.Open(mounts_path);
  if (err != 0) {
    YULO_COMPLAIN(complaints, "cannot open %s: %s", mounts_path.c_str(),
                  ErrorText(err));
    return err;
  }
  std::string line;
  bool overlong;
  while (reader.Next(&line, &overlong)) {
    // A cut line would yield a wrong mount point; the kernel never writes
    // lines anywhere near the limit, so just leave it out.
    if (overlong) continue;
    std::string_view field = Field(line, 1);
    if (field.empty()) continue;
    out->insert(NormalisePath(DecodeMountField(field)));
  }
  if (reader.error() != 0) {
    YULO_COMPLAIN(complaints, "cannot read %s: %s", mounts_path.c_str(),
                  ErrorText(reader.error()));
    out->clear();
    return reader.error();
  }
  return 0;
}

}  // namespace yulo_platform
