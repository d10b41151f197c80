#include "forward/startup.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "base/errno_text.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "forward/spool.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr const char kWhereQueuesLive[] =
    "keep queue files to be forwarded in /var, /srv or a data volume "
    "(see docs/forwarding.md)";

const std::string* HiddenHolder(const std::string& path,
                                const std::vector<std::string>& hidden) {
  for (const std::string& dir : hidden) {
    if (PathAtOrBelow(dir, path)) return &dir;
  }
  return nullptr;
}

bool LookUp(const struct passwd* pw, RunAs* out) {
  if (pw == nullptr) return false;
  out->uid = pw->pw_uid;
  out->gid = pw->pw_gid;
  out->name = pw->pw_name;
  return true;
}

}  // namespace

PlaceCheck CheckQueuePlace(const std::string& queue,
                           const std::vector<std::string>& hidden_dirs,
                           std::string* error) {
  const std::string path = NormalisePath(queue);
  const std::string dir = ParentDir(path);
  const std::string* holder = HiddenHolder(path, hidden_dirs);
  std::string real_dir;
  if (holder == nullptr) {
    std::unique_ptr<char, decltype(&free)> real(realpath(dir.c_str(), nullptr),
                                                &free);
    if (real == nullptr) {
      *error = "cannot see " + dir + ", the directory of the queue file " +
               queue + ": " + ErrnoText(errno);
      return PlaceCheck::kNotFound;
    }
    real_dir = real.get();
    holder = HiddenHolder(real_dir, hidden_dirs);
  }
  if (holder != nullptr) {
    const std::string as =
        real_dir.empty() || real_dir == dir ? "" : " (as " + real_dir + ")";
    *error = "the queue file " + queue + " is under " + *holder + as +
             ", which this forwarder cannot see (its unit gives it a private "
             "or empty " + *holder + "): " + kWhereQueuesLive;
    return PlaceCheck::kHidden;
  }
  return PlaceCheck::kOk;
}

bool ChooseUser(const std::string& queue, const std::string& user, RunAs* out,
                std::string* error) {
  if (!user.empty()) {
    if (!LookUp(getpwnam(user.c_str()), out)) {
      *error = "user " + user + " is unknown";
      return false;
    }
    out->why = "named in the configuration";
    return true;
  }
  const std::string dir = ParentDir(NormalisePath(queue));
  struct stat st;
  uid_t owner = 0;
  // Where others than the owner may put files, none of them owns the path:
  // any of them could put a link there for whoever the forwarder becomes.
  // The directory itself, through a link if its path ends in one.
  const bool dir_seen = stat(dir.c_str(), &st) == 0;
  if (dir_seen && (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    *error = dir + ", the directory of the queue file, is writable by others "
             "than its owner, who could put anything in place of the queue "
             "file: name the user to run as (user=), or keep the queue file "
             "in a directory only its owner can change";
    return false;
  }
  if (dir_seen && st.st_uid != 0) {
    owner = st.st_uid;
    out->why = "owner of " + dir;
  } else if (lstat(queue.c_str(), &st) == 0 && st.st_uid != 0) {
    owner = st.st_uid;
    out->why = "owner of " + queue;
  } else {
    out->why = "owner of " + queue;
  }
  if (!LookUp(getpwuid(owner), out)) {
    *error = "user " + std::to_string(owner) + ", " + out->why +
             ", has no account to run as";
    return false;
  }
  return true;
}

IdentityChoice ChooseIdentity(const std::string& queue,
                              const std::vector<std::string>& hidden_dirs,
                              const std::string& user, RunAs* who) {
  std::string error;
  switch (CheckQueuePlace(queue, hidden_dirs, &error)) {
    case PlaceCheck::kOk:
      break;
    case PlaceCheck::kHidden:
      YULO_LOG_ALWAYS("%s", error.c_str());
      return IdentityChoice::kUsageError;
    case PlaceCheck::kNotFound:
      YULO_LOG_ALWAYS("%s", error.c_str());
      return IdentityChoice::kFailed;
  }
  if (geteuid() != 0) {
    const struct passwd* pw = getpwuid(geteuid());
    if (!user.empty() && (pw == nullptr || user != pw->pw_name)) {
      YULO_LOG_ALWAYS("cannot run as %s: only root can change user",
                      user.c_str());
      return IdentityChoice::kUsageError;
    }
    return IdentityChoice::kStay;
  }
  if (!ChooseUser(queue, user, who, &error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return IdentityChoice::kUsageError;
  }
  return who->uid == 0 ? IdentityChoice::kStay : IdentityChoice::kSwitch;
}

bool PrepareSpoolDir(const std::string& dir, const std::string& queue,
                     const RunAs& who, std::string* spool_dir, bool* moved,
                     std::string* error) {
  *moved = false;
  if (!Spool::MakeDirs(dir, error)) return false;
  // The user passes through `dir` to their own directory; nobody lists it.
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    *error = "cannot stat " + dir + ": " + ErrnoText(errno);
    return false;
  }
  if ((st.st_mode & 0111) != 0111 &&
      chmod(dir.c_str(), (st.st_mode & 07777) | 0111) != 0) {
    *error = "cannot chmod " + dir + ": " + ErrnoText(errno);
    return false;
  }
  const std::string mine = JoinPath(dir, who.name);
  if (mkdir(mine.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = "cannot create " + mine + ": " + ErrnoText(errno);
    return false;
  }
  const UniqueFd fd(RetryOnEintr([&] {
    return open(mine.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }));
  if (!fd.Valid() || fstat(fd.Get(), &st) != 0) {
    *error = "cannot open " + mine + ": " + ErrnoText(errno);
    return false;
  }
  if ((st.st_uid != who.uid || st.st_gid != who.gid) &&
      fchown(fd.Get(), who.uid, who.gid) != 0) {
    *error = "cannot give " + mine + " to " + who.name + ": " +
             ErrnoText(errno);
    return false;
  }
  if ((st.st_mode & 07777) != 0700 && fchmod(fd.Get(), 0700) != 0) {
    *error = "cannot chmod " + mine + ": " + ErrnoText(errno);
    return false;
  }
  // The .spool file first: should the move stop half-way, the next start
  // moves the .state file too.
  const std::string name = Spool::NameFor(queue);
  for (const char* suffix : {".spool", ".state"}) {
    const std::string from = JoinPath(dir, name + suffix);
    const std::string to = JoinPath(mine, name + suffix);
    struct stat old_st;
    if (lstat(from.c_str(), &old_st) != 0 || !S_ISREG(old_st.st_mode)) continue;
    if (lstat(to.c_str(), &st) == 0) {
      *error = "both " + from + " and " + to + " exist: move one of them away";
      return false;
    }
    if (rename(from.c_str(), to.c_str()) != 0) {
      *error = "cannot move " + from + " to " + mine + ": " + ErrnoText(errno);
      return false;
    }
    const UniqueFd file(RetryOnEintr([&] {
      return open(to.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    }));
    if (!file.Valid() || fchown(file.Get(), who.uid, who.gid) != 0) {
      *error = "cannot give " + to + " to " + who.name + ": " +
               ErrnoText(errno);
      return false;
    }
    *moved = true;
  }
  *spool_dir = mine;
  return true;
}

bool SwitchUser(const RunAs& who, std::string* error) {
  if (initgroups(who.name.c_str(), who.gid) != 0) {
    *error = "cannot take the groups of " + who.name + ": " + ErrnoText(errno);
    return false;
  }
  if (setgid(who.gid) != 0) {
    *error = "cannot become group " + std::to_string(who.gid) + ": " +
             ErrnoText(errno);
    return false;
  }
  if (setuid(who.uid) != 0) {
    *error = "cannot become user " + who.name + ": " + ErrnoText(errno);
    return false;
  }
  if (who.uid != 0 && (setuid(0) == 0 || geteuid() != who.uid)) {
    *error = "still able to become root after switching to " + who.name;
    return false;
  }
  return true;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
