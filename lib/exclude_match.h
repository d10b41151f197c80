// Exclude patterns of a monitor: shell globs (fnmatch) that leave names out
// of what the monitor matches.
//
// A pattern without "/" is matched against each component of a path below
// the monitor's directory, so "@eaDir" leaves out every "@eaDir" directory
// and everything below it, and "*.part" every name ending in ".part". A
// pattern with "/" is matched against the relative path itself and each
// directory leading to it ("/" not matched by "*"), so "cache/*" leaves out
// what lies in the monitor's "cache" directory, and below. Either way an
// excluded directory excludes everything below it.
//
// These run for every event a monitor would otherwise take, so the common
// shapes ("name", "*.ext", "prefix*") are matched by plain comparison; any
// other pattern goes to fnmatch.
//
// Thread-safety: pure functions.
#ifndef YULOTIFYD_LIB_EXCLUDE_MATCH_H_
#define YULOTIFYD_LIB_EXCLUDE_MATCH_H_

#include <string>
#include <string_view>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

// Whether `relative` (a path below the monitor's directory, without a
// leading "/"; "" for the directory itself, which is never excluded) is
// left out by one of `patterns`.
bool IsExcluded(const std::vector<std::string>& patterns,
                std::string_view relative);

// Whether `pattern` is one a monitor takes: not empty, no NUL, not
// absolute, no "." or ".." component, no empty component, and brackets
// that close. False with `problem` set otherwise.
bool ValidExcludePattern(const std::string& pattern, std::string* problem);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_LIB_EXCLUDE_MATCH_H_
