// Opening a monitor-queue configuration file: the checks before anything in
// it is believed (a regular file, not too big, not changeable by anyone but
// its owner) and who owns it.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/unique_fd.h"
#include "lib/monitor_queue_internal.h"
#include "yulotifyd/fs_ids.h"

namespace YULO {
namespace YULOTIFYD {
namespace monitor_queue_internal {

namespace {

// A monitor-queue file is a few hundred bytes; anything this big is a
// mistake (or something we should not be slurping into memory).
constexpr size_t kMaxConfFileSize = 1024 * 1024;

// How the reason for refusing an unsafe configuration file begins.
constexpr const char kUnsafePrefix[] = "unsafe: ";

// The directory part of `file` ("." when it has none).
std::string DirName(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return file.substr(0, slash);
}

// A configuration file's owner decides with whose rights its queue file is
// written, so nobody but that owner may be able to change what the file
// says: neither through the file itself (writable by its group or by others)
// nor through its directory (writable by others without the sticky bit, so
// that anyone could put another file in its place). `file_st` is the file
// that was opened. Returns why the file is unsafe, or "" when it is not.
std::string UnsafeReason(const std::string& file, const struct stat& file_st) {
  char mode[8];
  if ((file_st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    std::snprintf(mode, sizeof(mode), "%04o",
                  static_cast<unsigned>(file_st.st_mode & 07777));
    return std::string("writable by its group or by others (mode ") + mode +
           ")";
  }
  const std::string dir = DirName(file);
  struct stat dir_st;
  if (stat(dir.c_str(), &dir_st) != 0) {
    return "cannot stat its directory " + dir + ": " + ErrnoText(errno);
  }
  if ((dir_st.st_mode & S_IWOTH) != 0 && (dir_st.st_mode & S_ISVTX) == 0) {
    std::snprintf(mode, sizeof(mode), "%04o",
                  static_cast<unsigned>(dir_st.st_mode & 07777));
    return "its directory " + dir +
           " is writable by others without the sticky bit (mode " + mode + ")";
  }
  return std::string();
}

// Who owns a configuration file: the owner of the file that was opened
// (`file_st`), except that a symbolic link made by anyone but root belongs
// to whoever made it, so that nobody gains the rights of a file's owner by
// linking to it.
void ConfOwner(const std::string& file, const struct stat& file_st,
               uid_t* uid, gid_t* gid) {
  struct stat link_st;
  if (lstat(file.c_str(), &link_st) == 0 && S_ISLNK(link_st.st_mode) &&
      link_st.st_uid != 0) {
    *uid = link_st.st_uid;
    *gid = link_st.st_gid;
    return;
  }
  *uid = file_st.st_uid;
  *gid = file_st.st_gid;
}

}  // namespace

bool ReadConfFile(const std::string& file, ConfFile* conf,
                  std::string* reason) {
  // O_NONBLOCK so that a FIFO put where a file belongs cannot hang us; it is
  // refused by the regular-file check right after.
  const UniqueFd fd(RetryOnEintr([&] {
    return open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  }));
  if (!fd.Valid()) {
    *reason = "cannot open: " + ErrnoText(errno);
    return false;
  }
  bool ok = true;
  struct stat st;
  if (fstat(fd.Get(), &st) != 0) {
    *reason = "cannot stat: " + ErrnoText(errno);
    ok = false;
  } else if (!S_ISREG(st.st_mode)) {
    *reason = "not a regular file";
    ok = false;
  } else if (static_cast<uint64_t>(st.st_size) > kMaxConfFileSize) {
    *reason = "larger than 1 MiB (" + std::to_string(st.st_size) + " bytes)";
    ok = false;
  } else {
    const std::string unsafe = UnsafeReason(file, st);
    if (!unsafe.empty()) {
      *reason = kUnsafePrefix + unsafe;
      conf->unsafe = true;
      ok = false;
    } else {
      ConfOwner(file, st, &conf->owner_uid, &conf->owner_gid);
    }
  }
  conf->text.clear();
  if (ok) {
    // The file may have grown since fstat.
    const int err = ReadToEnd(fd.Get(), kMaxConfFileSize, &conf->text);
    if (err == EFBIG) {
      *reason = "larger than 1 MiB";
      ok = false;
    } else if (err != 0) {
      *reason = "cannot read: " + ErrnoText(err);
      ok = false;
    }
  }
  return ok;
}

bool OwnerMayList(const std::string& dir, uid_t uid, gid_t gid,
                  std::string* reason) {
  if (uid == 0) return true;
  std::optional<ScopedFsIds> ids;
  if (ScopedFsIds::CurrentFsUid() != uid ||
      ScopedFsIds::CurrentFsGid() != gid) {
    ids.emplace(uid, gid);
    if (!ids->ok()) {
      *reason = "cannot check with the rights of uid " + std::to_string(uid) +
                ": " + ErrnoText(errno);
      return false;
    }
  }
  // Opening the directory for reading takes search on the way there and
  // read on it; looking up "." in it takes search on it. O_DIRECTORY: any
  // other kind of file is refused unopened (a FIFO cannot block us).
  int err = 0;
  {
    UniqueFd fd(RetryOnEintr([&] {
      return open(dir.c_str(),
                  O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    }));
    struct stat st;
    if (!fd.Valid() || fstatat(fd.Get(), ".", &st, 0) != 0) err = errno;
  }
  if (ids && !ids->Restore()) {
    *reason = "cannot restore the daemon's own rights";
    return false;
  }
  if (err != 0) {
    *reason = ErrnoText(err);
    return false;
  }
  return true;
}

}  // namespace monitor_queue_internal
}  // namespace YULOTIFYD
}  // namespace YULO
