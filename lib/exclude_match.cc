#include "lib/exclude_match.h"

#include <fnmatch.h>

#include <cstring>

namespace YULO {
namespace YULOTIFYD {

namespace {

bool HasGlob(std::string_view s) {
  return s.find_first_of("*?[\\") != std::string_view::npos;
}

bool EndsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Whether `name` (one component, no "/") matches a pattern without "/".
bool MatchComponent(const std::string& pattern, std::string_view name) {
  const std::string_view p(pattern);
  if (!HasGlob(p)) return p == name;
  if (p.size() > 1 && p.front() == '*' && !HasGlob(p.substr(1))) {
    return EndsWith(name, p.substr(1));  // "*.part"
  }
  if (p.size() > 1 && p.back() == '*' &&
      !HasGlob(p.substr(0, p.size() - 1))) {
    return name.substr(0, p.size() - 1) == p.substr(0, p.size() - 1);
  }
  const std::string text(name);
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

}  // namespace

bool IsExcluded(const std::vector<std::string>& patterns,
                std::string_view relative) {
  if (relative.empty()) return false;
  for (const std::string& pattern : patterns) {
    if (pattern.find('/') == std::string::npos) {
      size_t begin = 0;
      for (;;) {
        const size_t end = relative.find('/', begin);
        const std::string_view name = relative.substr(
            begin, end == std::string_view::npos ? end : end - begin);
        if (MatchComponent(pattern, name)) return true;
        if (end == std::string_view::npos) break;
        begin = end + 1;
      }
      continue;
    }
    // The relative path and every directory on the way to it.
    for (size_t end = relative.find('/');; end = relative.find('/', end + 1)) {
      const std::string prefix(relative.substr(0, end));
      if (fnmatch(pattern.c_str(), prefix.c_str(), FNM_PATHNAME) == 0) {
        return true;
      }
      if (end == std::string_view::npos) break;
    }
  }
  return false;
}

bool ValidExcludePattern(const std::string& pattern, std::string* problem) {
  if (pattern.empty()) {
    *problem = "an exclude pattern is empty";
    return false;
  }
  if (pattern.find('\0') != std::string::npos) {
    *problem = "an exclude pattern contains a NUL character";
    return false;
  }
  if (pattern[0] == '/') {
    *problem = "exclude pattern \"" + pattern +
               "\" is absolute; patterns are relative to the monitor's "
               "directory";
    return false;
  }
  size_t begin = 0;
  for (;;) {
    const size_t end = pattern.find('/', begin);
    const std::string part = pattern.substr(
        begin, end == std::string::npos ? end : end - begin);
    if (part.empty() || part == "." || part == "..") {
      *problem = "exclude pattern \"" + pattern +
                 "\" has an empty, \".\" or \"..\" component";
      return false;
    }
    if (end == std::string::npos) break;
    begin = end + 1;
  }
  // An unclosed bracket would make fnmatch treat "[" as itself on some
  // inputs and not on others; refuse it so the pattern means one thing.
  bool open = false;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '\\') {
      ++i;
    } else if (!open && pattern[i] == '[') {
      open = true;
      if (i + 1 < pattern.size() && (pattern[i + 1] == '!' || pattern[i + 1] == '^')) ++i;
      if (i + 1 < pattern.size() && pattern[i + 1] == ']') ++i;
    } else if (open && pattern[i] == ']') {
      open = false;
    }
  }
  if (open) {
    *problem = "exclude pattern \"" + pattern + "\" has a \"[\" not closed";
    return false;
  }
  return true;
}

}  // namespace YULOTIFYD
}  // namespace YULO
