// What yulotify-forward settles before it takes a line: whether it can see
// the queue file's place at all, which user it runs as, and the spool
// directory that user writes.
//
// Run as root (as its unit starts it), the forwarder does not keep root for
// a queue file that is not root's: it becomes the user named by `user=`,
// or else the owner of the queue file's directory when that is not root
// (whoever owns the directory decides what the path names, so running as
// them grants nothing they do not have), or else the queue file's owner.
// It then reads and cuts the queue file with that user's rights only, so a
// link planted in place of the queue file reaches nothing that user could
// not read or change anyway. Its spool then lives in a directory of that
// user's, SPOOL/USER, which root makes before it lets go.
//
// Thread-safety: call before any thread starts; SwitchUser changes the
// whole process.
#ifndef YULOTIFYD_FORWARD_STARTUP_H_
#define YULOTIFYD_FORWARD_STARTUP_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

enum class PlaceCheck {
  kOk,
  kHidden,    // under a hidden directory: a configuration error
  kNotFound,  // its directory is not there (yet): may come with a mount
};

// Checks that `queue` (absolute, no "..") lies under none of `hidden_dirs`,
// neither as written nor once its directory's symbolic links are resolved,
// and that its directory exists. `error` says why not, and where queue
// files to be forwarded may live.
PlaceCheck CheckQueuePlace(const std::string& queue,
                           const std::vector<std::string>& hidden_dirs,
                           std::string* error);

struct RunAs {
  uid_t uid = 0;
  gid_t gid = 0;
  std::string name;
  std::string why;  // "named in the configuration", "owner of DIR"...
};

// The user to run as for `queue` (see above); `user` is the configured one
// or empty. False when `user` is unknown, the owner has no account, or
// (with no `user`) the queue file's directory is writable by its group or
// others, who could then choose the queue file's owner or plant a link.
bool ChooseUser(const std::string& queue, const std::string& user, RunAs* out,
                std::string* error);

enum class IdentityChoice {
  kStay,        // run as who runs now
  kSwitch,      // started as root: become `who` (SwitchUser)
  kUsageError,  // a hidden place, or a user that cannot be chosen
  kFailed,      // the queue file's directory is not there
};

// What both forwarding programs settle first: CheckQueuePlace, then, when
// started as root, ChooseUser. Not root, a configured `user` other than
// the one running is a usage error. Each refusal is logged.
IdentityChoice ChooseIdentity(const std::string& queue,
                              const std::vector<std::string>& hidden_dirs,
                              const std::string& user, RunAs* who);

// As root: makes `dir` (searchable by all, so that the user reaches their
// own directory in it) and in it `who.name` (mode 0700, owned by `who`),
// and sets `spool_dir` to the latter. A link in place of the latter is
// refused. A spool of `queue` left in `dir` itself by a forwarder that ran
// as root is moved into the user's directory and given to them (`moved`
// says so), so that its lines still go; false when both places hold one.
bool PrepareSpoolDir(const std::string& dir, const std::string& queue,
                     const RunAs& who, std::string* spool_dir, bool* moved,
                     std::string* error);

// Becomes `who` for good: supplementary groups, group, user. False, and
// the process must stop, when any step fails or root could be regained.
bool SwitchUser(const RunAs& who, std::string* error);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_STARTUP_H_
