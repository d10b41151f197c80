#include "notify/testing/scratch_mounts.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/errno_text.h"
#include "base/file_io.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

std::string EnterPrivateMountNamespace() {
  static std::string result = [] {
    if (::unshare(CLONE_NEWNS) != 0) {
      return "unshare(CLONE_NEWNS): " + ErrnoText(errno);
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      return "mount(/, MS_REC|MS_PRIVATE): " + ErrnoText(errno);
    }
    return std::string();
  }();
  return result;
}

std::string RequireRoot() {
  if (::geteuid() == 0) return std::string();
  return "these tests mount tmpfs file systems and mark them with fanotify: "
         "run them as root (CAP_SYS_ADMIN, CAP_DAC_READ_SEARCH)";
}

UniqueFd LockFileExclusive(const std::string& path) {
  UniqueFd fd(RetryOnEintr([&] {
    return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  }));
  if (!fd.Valid()) return fd;
  if (RetryOnEintr([&] { return ::flock(fd.Get(), LOCK_EX); }) != 0) {
    return UniqueFd();
  }
  return fd;
}

ScratchMounts::ScratchMounts() {
  char pattern[] = "/tmp/yulonotify.XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    error_ = std::string("mkdtemp: ") + ErrnoText(errno);
    return;
  }
  root_ = pattern;
}

ScratchMounts::~ScratchMounts() {
  for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) {
    ::umount2(it->c_str(), MNT_DETACH);
    ::rmdir(it->c_str());
  }
  if (!root_.empty()) ::rmdir(root_.c_str());
}

std::string ScratchMounts::MountTmpfs(const std::string& name,
                                      const std::string& options) {
  if (root_.empty()) return std::string();
  const std::string path = root_ + "/" + name;
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    error_ = "mkdir " + path + ": " + ErrnoText(errno);
    return std::string();
  }
  if (::mount("tmpfs", path.c_str(), "tmpfs", 0,
              options.empty() ? nullptr : options.c_str()) != 0) {
    error_ = "mount tmpfs on " + path + ": " + ErrnoText(errno);
    ::rmdir(path.c_str());
    return std::string();
  }
  mounts_.push_back(path);
  return path;
}

SysctlOverride::SysctlOverride(const std::string& path,
                               const std::string& value)
    : path_(path) {
  ReadWholeFile(path, kNoReadLimit, &old_);
  while (!old_.empty() && (old_.back() == '\n' || old_.back() == ' ')) {
    old_.pop_back();
  }
  if (old_.empty()) {
    error_ = "cannot read " + path + ": " + ErrnoText(errno);
    return;
  }
  if (!WriteWholeFile(path, value, 0644)) {
    error_ = "cannot write " + path + ": " + ErrnoText(errno);
    return;
  }
  ok_ = true;
}

SysctlOverride::~SysctlOverride() {
  if (ok_) WriteWholeFile(path_, old_, 0644);
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
