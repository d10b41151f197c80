#include "notify/mount_point.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "lib/errno_text.h"
#include "notify/unique_fd.h"
#include "notify/yulotify_log.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

class SystemEnv : public MountEnv {
 public:
  int Stat(const std::string& path, struct stat* st) const override {
    return ::stat(path.c_str(), st);
  }

  bool ReadMountTable(std::string* text) const override {
    UniqueFd fd(RetryOnEintr(
        [] { return ::open("/proc/mounts", O_RDONLY | O_CLOEXEC); }));
    if (!fd.Valid()) return false;
    text->clear();
    char chunk[16384];
    for (;;) {
      const ssize_t n =
          RetryOnEintr([&] { return ::read(fd.Get(), chunk, sizeof(chunk)); });
      if (n < 0) return false;
      if (n == 0) return true;
      text->append(chunk, static_cast<size_t>(n));
    }
  }
};

// Asks statx for the never-reused mount id (Linux 6.8); older headers do
// not name the bit.
#ifndef STATX_MNT_ID_UNIQUE
constexpr unsigned int STATX_MNT_ID_UNIQUE = 0x4000U;
#endif

bool IsOctalDigit(char c) { return c >= '0' && c <= '7'; }

void LogStatFailure(int line, const std::string& path, int err) {
  LogWrite(kYulotifyLogSource, line, "yulotify(%d): stat('%s'): %s (%d)\n",
           line, path.c_str(), ErrnoText(err).c_str(), err);
}

// The second blank- or tab-separated word of `line` (the mount point of a
// mount-table line); false when the line has fewer than two words.
bool SecondWord(std::string_view line, std::string_view* word) {
  size_t pos = 0;
  for (int i = 0; i < 2; ++i) {
    pos = line.find_first_not_of(" \t", pos);
    if (pos == std::string_view::npos) return false;
    const size_t end = std::min(line.find_first_of(" \t", pos), line.size());
    if (i == 1) {
      *word = line.substr(pos, end - pos);
      return true;
    }
    pos = end;
  }
  return false;
}

}  // namespace

const MountEnv& SystemMountEnv() {
  static const SystemEnv env;
  return env;
}

std::string ParentDir(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

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

std::string DirPrefix(const std::string& dir) {
  if (!dir.empty() && dir.back() == '/') return dir;
  return dir + "/";
}

std::string JoinPath(const std::string& dir, const std::string& name) {
  return DirPrefix(dir) + name;
}

bool GetMountIdentity(const std::string& path, MountIdentity* out) {
  struct statx stx;
  if (::statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT,
              STATX_MNT_ID | STATX_MNT_ID_UNIQUE, &stx) != 0) {
    return false;
  }
  MountIdentity identity;
  identity.unique = (stx.stx_mask & STATX_MNT_ID_UNIQUE) != 0;
  if (identity.unique || (stx.stx_mask & STATX_MNT_ID) != 0) {
    identity.mount_id = stx.stx_mnt_id;
  }
  identity.dev = makedev(stx.stx_dev_major, stx.stx_dev_minor);
  *out = identity;
  return true;
}

std::string DecodeMountField(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size();) {
    if (field[i] != '\\') {
      out.push_back(field[i++]);
      continue;
    }
    if (i + 3 >= field.size() || !IsOctalDigit(field[i + 1]) ||
        !IsOctalDigit(field[i + 2]) || !IsOctalDigit(field[i + 3])) {
      break;  // not an escape: the field ends here
    }
    const int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                      (field[i + 3] - '0');
    out.push_back(static_cast<char>(value & 0xff));
    i += 4;
  }
  return out;
}

std::string GetMountPoint(const std::string& path, const MountEnv& env) {
  struct stat st;
  if (env.Stat(path, &st) != 0) {
    LogStatFailure(kLineStatPath, path, errno);
    return std::string();
  }
  const dev_t dev = st.st_dev;
  std::string last = path;
  std::string cur = ParentDir(path);
  while (cur != last) {
    if (env.Stat(cur, &st) != 0) {
      LogStatFailure(kLineStatAncestor, cur, errno);
      return std::string();
    }
    if (st.st_dev != dev) break;
    last = cur;
    cur = ParentDir(cur);
  }

  // `last` is the highest directory of the path on its device: confirm it
  // against the mount table. An unreadable table matches nothing.
  std::string table;
  if (env.ReadMountTable(&table)) {
    const std::string_view text(table);
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string_view::npos) end = text.size();
      std::string_view field;
      if (SecondWord(text.substr(start, end - start), &field) &&
          DecodeMountField(field) == last) {
        return last;
      }
      start = end + 1;
    }
  }
  if (LogGateOpen(LogGate::kDebug)) {
    LogWrite(kYulotifyLogSource, kLineNoMountEntry,
             "yulotify(%d): cannot find mount point %s", kLineNoMountEntry,
             path.c_str());
  }
  return cur;
}

}  // namespace YULOTIFYD
}  // namespace YULO
