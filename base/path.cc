#include "base/path.h"

#include <algorithm>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

namespace {

// `path` without trailing "/", except that "/" (or "///") stays "/".
std::string_view StripTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

}  // namespace

std::string NormalisePath(std::string_view path) {
  if (path.empty()) return std::string();
  const bool absolute = path[0] == '/';
  std::vector<std::string_view> parts;
  size_t pos = 0;
  while (pos < path.size()) {
    const size_t end = std::min(path.find('/', pos), path.size());
    const std::string_view part = path.substr(pos, end - pos);
    if (!part.empty() && part != ".") parts.push_back(part);
    pos = end + 1;
  }
  std::string out;
  out.reserve(path.size());
  for (const std::string_view part : parts) {
    if (absolute || !out.empty()) out.push_back('/');
    out.append(part.data(), part.size());
  }
  if (out.empty()) out = absolute ? "/" : ".";
  return out;
}

bool PathRelativeTo(std::string_view dir, std::string_view path,
                    std::string_view* rest) {
  dir = StripTrailingSlashes(dir);
  path = StripTrailingSlashes(path);
  if (dir.empty() || path.empty()) return false;
  std::string_view after;
  if (dir == "/") {
    if (path[0] != '/') return false;
    after = path.substr(1);
  } else if (path == dir) {
    after = std::string_view();
  } else if (path.size() > dir.size() + 1 &&
             path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/') {
    after = path.substr(dir.size() + 1);
  } else {
    return false;
  }
  if (rest != nullptr) *rest = after;
  return true;
}

bool PathBelow(std::string_view dir, std::string_view path) {
  std::string_view rest;
  return PathRelativeTo(dir, path, &rest) && !rest.empty();
}

std::string ParentDir(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

std::string DirPrefix(const std::string& dir) {
  if (!dir.empty() && dir.back() == '/') return dir;
  return dir + "/";
}

std::string JoinPath(const std::string& dir, const std::string& name) {
  return DirPrefix(dir) + name;
}

bool HasDotDotComponent(std::string_view path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (path.substr(start, end - start) == "..") return true;
    start = end + 1;
  }
  return false;
}

}  // namespace YULOTIFYD
}  // namespace YULO
