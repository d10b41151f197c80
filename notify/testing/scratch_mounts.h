// Scratch file systems for the real-kernel tests and the benchmark.
//
// EnterPrivateMountNamespace moves the process into a mount namespace of
// its own whose mounts do not propagate back, so tmpfs mounts made later
// vanish with the process even if it dies. ScratchMounts makes a directory
// under /tmp and mounts fresh tmpfs instances below it; its destructor
// unmounts them and removes the directories.
//
// SysctlOverride writes a value into a /proc/sys file and puts the old one
// back when it goes out of scope, also when a test fails.
//
// Thread-safety: call from the process's main thread before other threads
// start (unshare of the mount namespace affects the calling thread).
#ifndef YULOTIFYD_NOTIFY_TESTING_SCRATCH_MOUNTS_H_
#define YULOTIFYD_NOTIFY_TESTING_SCRATCH_MOUNTS_H_

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// "" when the process now has a private mount namespace (idempotent), else
// why not.
std::string EnterPrivateMountNamespace();

// "" when the process runs as root, else a message saying why it must.
std::string RequireRoot();

// Blocks until this process holds the exclusive lock at `path` (held until
// the returned descriptor closes); serialises test programs that change
// process-wide kernel settings. Invalid descriptor on failure.
UniqueFd LockFileExclusive(const std::string& path);

class ScratchMounts {
 public:
  ScratchMounts();
  ~ScratchMounts();

  ScratchMounts(const ScratchMounts&) = delete;
  ScratchMounts& operator=(const ScratchMounts&) = delete;

  // False (see error()) when the scratch directory could not be made.
  bool ok() const { return !root_.empty(); }
  const std::string& error() const { return error_; }
  const std::string& root() const { return root_; }

  // Mounts a new tmpfs on <root>/<name> (made here) with mount `options`
  // ("size=64m,nr_inodes=0", ...). Returns the mount point, or "" after
  // setting error().
  std::string MountTmpfs(const std::string& name,
                         const std::string& options = "");

 private:
  std::string root_;
  std::string error_;
  std::vector<std::string> mounts_;
};

class SysctlOverride {
 public:
  SysctlOverride(const std::string& path, const std::string& value);
  ~SysctlOverride();

  SysctlOverride(const SysctlOverride&) = delete;
  SysctlOverride& operator=(const SysctlOverride&) = delete;

  bool ok() const { return ok_; }
  const std::string& error() const { return error_; }
  const std::string& old_value() const { return old_; }

 private:
  std::string path_;
  std::string old_;
  std::string error_;
  bool ok_ = false;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_TESTING_SCRATCH_MOUNTS_H_
