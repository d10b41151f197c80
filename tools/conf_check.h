// The rules of `yulotifyctl check`: what, in a monitor-queue configuration
// that the daemon would load (MonitorQueue::Describe), still keeps a
// subscription from getting its lines.
//
// Describe already says which files and monitors the daemon would skip and
// why (bad JSON, unsafe ownership or modes, unknown shares, patterns that do
// not compile, directories a user.d owner cannot list). On top of that, a
// loaded monitor is warned about when
//   * its directory does not exist, or is not a directory;
//   * it matches nothing (its share resolved to a relative path);
//   * its events can never produce a line: none at all, or "move" alone (a
//     rename reaches a monitor as a move line only when it wants both
//     halves, "create" and "delete"; with one of them it gets that half, and
//     "move" without both adds nothing, so it is warned about too);
//   * something it asked for was left out (user.d's owner-only events);
// and a loaded file when its queue file could not be written by the
// subscription's owner: the file is a symbolic link or not a regular file,
// the owner may not write it, or, when it does not exist yet, its directory
// is missing or the owner may not create files there.
//
// The checks that touch the file system go through CheckProbe, so that the
// rules can be tested without root or a real tree.
//
// Thread-safety: none needed; single-threaded tool code.
#ifndef YULOTIFYD_TOOLS_CONF_CHECK_H_
#define YULOTIFYD_TOOLS_CONF_CHECK_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

class CheckProbe {
 public:
  virtual ~CheckProbe() = default;
  // "" when `dir` is an existing directory (symbolic links followed), else
  // why not, as a phrase naming it.
  virtual std::string DirectoryProblem(const std::string& dir) = 0;
  // "" when a queue file at `path` could be written with file-system ids
  // `uid` and `gid` (no supplementary groups), as the daemon writes it:
  // opened read-write, never through a symbolic link, or created when
  // missing. Else why not, as a phrase.
  virtual std::string QueueFileProblem(const std::string& path, uid_t uid,
                                       gid_t gid) = 0;
};

// The probe on the real file system. Checking as another user takes
// CAP_SETUID and CAP_SETGID (root); without them the check itself is the
// problem reported. The caller's supplementary groups count in the kernel's
// checks: a root caller should drop them first (the daemon has none).
class SystemCheckProbe : public CheckProbe {
 public:
  std::string DirectoryProblem(const std::string& dir) override;
  std::string QueueFileProblem(const std::string& path, uid_t uid,
                               gid_t gid) override;
};

// "" when a monitor with this events mask can produce a line, else the
// warning.
std::string EventsProblem(uint32_t events);

// What is wrong with one configuration file beyond what Describe says.
struct FileCheck {
  std::vector<std::string> warnings;  // about the file and its queue file
  // One entry per entry of FileReport::monitors, same order; empty for a
  // monitor that is skipped (its reason says it all).
  std::vector<std::vector<std::string>> monitor_warnings;
};

FileCheck CheckFile(const MonitorQueue::FileReport& file, CheckProbe* probe);

// Counts over a whole configuration; the check passes when all but
// `files` and `queues` are 0.
struct CheckTotals {
  int files = 0;             // configuration files found
  int queues = 0;            // loaded
  int files_skipped = 0;
  int monitors_skipped = 0;
  int warnings = 0;          // including unreadable configuration dirs
  bool Passed() const {
    return files_skipped == 0 && monitors_skipped == 0 && warnings == 0;
  }
};

CheckTotals Tally(const std::vector<MonitorQueue::DirReport>& dirs,
                  const std::vector<MonitorQueue::FileReport>& files,
                  const std::vector<FileCheck>& checks);

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_TOOLS_CONF_CHECK_H_
