// Path strings: normalising, joining, and whether one lies below another.
//
// One boundary rule holds for every "below" question in the project: `path`
// lies below `dir` when it starts with `dir` and the next byte is "/"
// ("/vol1/media2" is not below "/vol1/media"); "/" holds every absolute
// path. Trailing slashes of either argument do not count. Nothing here
// touches the file system: ".." and symbolic links are not resolved.
//
// Thread-safety: any thread; pure functions.
#ifndef YULOTIFYD_BASE_PATH_H_
#define YULOTIFYD_BASE_PATH_H_

#include <string>
#include <string_view>

namespace YULO {
namespace YULOTIFYD {

// Drops empty and "." components and trailing slashes: "/vol1//a/./" is
// "/vol1/a". "" stays "", "/" and "///" are "/", a relative path that
// normalises to nothing is ".".
std::string NormalisePath(std::string_view path);

// When `path` is `dir` or lies below it, sets *rest (if given) to the part
// after `dir` and its separating "/" ("" for `dir` itself) and returns
// true. An empty `dir` or `path` holds and lies below nothing.
bool PathRelativeTo(std::string_view dir, std::string_view path,
                    std::string_view* rest);

// `path` is `dir` or lies below it.
inline bool PathAtOrBelow(std::string_view dir, std::string_view path) {
  return PathRelativeTo(dir, path, nullptr);
}

// Whether one of the "/"-separated components of `path` is "..": "..",
// "/a/../b" and "a/.." have one, "/a..b" and "/..." do not.
bool HasDotDotComponent(std::string_view path);

// `path` lies below `dir` and is not `dir` itself.
bool PathBelow(std::string_view dir, std::string_view path);

// "/vol1/share/dir" -> "/vol1/share"; "/vol1" and "vol1" -> "/". Trailing
// slashes are not removed first: ParentDir("/vol1/share/") is "/vol1/share".
std::string ParentDir(const std::string& path);

// `dir` with exactly one trailing "/" added if it has none.
std::string DirPrefix(const std::string& dir);

// DirPrefix(dir) + name.
std::string JoinPath(const std::string& dir, const std::string& name);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_PATH_H_
