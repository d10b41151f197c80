#include "tools/conf_check.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "base/errno_text.h"
#include "base/path.h"
#include "yulotifyd/fs_ids.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

namespace {

std::string Uid(uid_t uid) { return "uid " + std::to_string(uid); }

// The queue-file checks once running with the owner's ids. faccessat with
// AT_EACCESS asks the kernel with the thread's file-system ids (and ACLs),
// as the daemon's open would be judged.
std::string QueueFileProblemAs(const std::string& path, uid_t uid) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (S_ISLNK(st.st_mode)) {
      return path + " is a symbolic link, which the daemon never writes "
                    "through";
    }
    if (!S_ISREG(st.st_mode)) return path + " is not a regular file";
    if (faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) != 0) {
      return Uid(uid) + " may not write " + path + ": " + ErrnoText(errno);
    }
    return "";
  }
  // ENOTDIR: its directory is not one, which the lines below say.
  if (errno != ENOENT && errno != ENOTDIR) {
    return "cannot look up " + path + " as " + Uid(uid) + ": " +
           ErrnoText(errno);
  }
  // Missing: the daemon creates it with its first line, if it can.
  const std::string dir = ParentDir(path);
  if (stat(dir.c_str(), &st) != 0) {
    if (errno == ENOENT) return "its directory " + dir + " does not exist";
    return "cannot look up its directory " + dir + " as " + Uid(uid) + ": " +
           ErrnoText(errno);
  }
  if (!S_ISDIR(st.st_mode)) return dir + " is not a directory";
  if (faccessat(AT_FDCWD, dir.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    return Uid(uid) + " may not create it in " + dir + ": " +
           ErrnoText(errno);
  }
  return "";
}

}  // namespace

std::string SystemCheckProbe::DirectoryProblem(const std::string& dir) {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    if (errno == ENOENT) return "directory " + dir + " does not exist";
    return "cannot look up directory " + dir + ": " + ErrnoText(errno);
  }
  if (!S_ISDIR(st.st_mode)) return dir + " is not a directory";
  return "";
}

std::string SystemCheckProbe::QueueFileProblem(const std::string& path,
                                               uid_t uid, gid_t gid) {
  std::optional<ScopedFsIds> ids;
  if (ScopedFsIds::CurrentFsUid() != uid ||
      ScopedFsIds::CurrentFsGid() != gid) {
    ids.emplace(uid, gid);
    if (!ids->ok()) {
      return "cannot check it with the rights of " + Uid(uid) + ": " +
             ErrnoText(errno) + " (run the check as root)";
    }
  }
  std::string problem = QueueFileProblemAs(path, uid);
  if (ids && !ids->Restore()) {
    // Nothing below may run with the owner's ids in place of ours.
    return "cannot restore the caller's own file-system ids";
  }
  return problem;
}

std::string EventsProblem(uint32_t events) {
  events &= QUEUE_EVENT_ALL;
  if (events == 0) {
    return "asks for no event: it never gets a line but the rescans every "
           "queue gets after a loss";
  }
  const uint32_t halves = QUEUE_EVENT_CREATE | QUEUE_EVENT_DELETE;
  if ((events & QUEUE_EVENT_MOVE) == 0 || (events & halves) == halves) {
    return "";
  }
  if (events == QUEUE_EVENT_MOVE) {
    return "asks for move alone, which never produces a line: a rename "
           "comes as a move line only to a monitor that asks for create "
           "and delete too";
  }
  return "asks for move without both create and delete: it never gets a "
         "move line (a rename comes as a move line only to a monitor that "
         "asks for create and delete too)";
}

FileCheck CheckFile(const MonitorQueue::FileReport& file, CheckProbe* probe) {
  FileCheck check;
  check.monitor_warnings.resize(file.monitors.size());
  if (!file.loaded) return check;
  const std::string queue_problem =
      probe->QueueFileProblem(file.queue_path, file.owner_uid,
                              file.owner_gid);
  if (!queue_problem.empty()) {
    check.warnings.push_back("queue file: " + queue_problem);
  }
  for (size_t i = 0; i < file.monitors.size(); ++i) {
    const MonitorQueue::MonitorReport& m = file.monitors[i];
    if (!m.loaded) continue;
    std::vector<std::string>& warnings = check.monitor_warnings[i];
    // A loaded monitor's reason says what was left out of what it asked.
    if (!m.reason.empty()) warnings.push_back(m.reason);
    if (m.config.directory.empty()) {
      warnings.push_back("matches nothing: " + m.config.share_path +
                         " is not an absolute path");
    } else {
      const std::string problem = probe->DirectoryProblem(m.config.directory);
      if (!problem.empty()) warnings.push_back(problem);
    }
    const std::string events = EventsProblem(m.config.events);
    if (!events.empty()) warnings.push_back(events);
  }
  return check;
}

CheckTotals Tally(const std::vector<MonitorQueue::DirReport>& dirs,
                  const std::vector<MonitorQueue::FileReport>& files,
                  const std::vector<FileCheck>& checks) {
  CheckTotals totals;
  for (const auto& d : dirs) {
    if (!d.error.empty()) ++totals.warnings;
  }
  for (size_t i = 0; i < files.size(); ++i) {
    ++totals.files;
    if (!files[i].loaded) {
      ++totals.files_skipped;
      continue;
    }
    ++totals.queues;
    for (const auto& m : files[i].monitors) {
      if (!m.loaded) ++totals.monitors_skipped;
    }
    if (i < checks.size()) {
      totals.warnings += static_cast<int>(checks[i].warnings.size());
      for (const auto& w : checks[i].monitor_warnings) {
        totals.warnings += static_cast<int>(w.size());
      }
    }
  }
  return totals;
}

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
