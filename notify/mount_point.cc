#include "notify/mount_point.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/mount_field.h"
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
    return ReadWholeFile("/proc/mounts", kNoReadLimit, text) == 0;
  }
};

// Asks statx for the never-reused mount id (Linux 6.8); older headers do
// not name the bit.
#ifndef STATX_MNT_ID_UNIQUE
constexpr unsigned int STATX_MNT_ID_UNIQUE = 0x4000U;
#endif

void LogStatFailure(int line, const std::string& path, int err) {
  LogWrite(kYulotifyLogSource, line, "yulotify(%d): stat('%s'): %s (%d)\n",
           line, path.c_str(), ErrnoText(err).c_str(), err);
}

}  // namespace

const MountEnv& SystemMountEnv() {
  static const SystemEnv env;
  return env;
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
      const std::string_view field =
          MountTableField(text.substr(start, end - start), 1);
      if (!field.empty() && DecodeMountField(field, BadEscape::kCut) == last) {
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
