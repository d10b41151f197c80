// ScopedFsIds: runs file operations of the calling thread with other
// file-system ids.
//
// The kernel checks file permissions against a thread's file-system user
// and group ids (and its supplementary groups), not against its effective
// ids. Switching them with setfsuid/setfsgid affects the calling thread
// alone, which lets one thread of a root process create, open and write a
// file exactly as another user could, while the other threads keep root's
// rights. Switching the file-system user id away from 0 also drops the
// thread's file-system capabilities (CAP_DAC_OVERRIDE and the like) until it
// is switched back.
//
// Both calls report nothing useful by their return value, so every switch is
// checked by reading the ids back with a second call.
//
// Switching to ids other than one's own needs CAP_SETUID and CAP_SETGID.
//
// Thread-safety: an object belongs to the thread that made it and must be
// destroyed (or Restore()d) on that thread.
#ifndef YULOTIFYD_FS_IDS_H_
#define YULOTIFYD_FS_IDS_H_

#include <sys/types.h>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

class YULOTIFYD_EXPORT ScopedFsIds {
 public:
  // Switches the calling thread to file-system ids `uid` and `gid` (group
  // first). ok() tells whether both took effect; when not, the previous ids
  // are back in force already.
  ScopedFsIds(uid_t uid, gid_t gid);
  // Restores the previous ids if Restore() has not.
  ~ScopedFsIds();

  ScopedFsIds(const ScopedFsIds&) = delete;
  ScopedFsIds& operator=(const ScopedFsIds&) = delete;

  bool ok() const { return ok_; }

  // Puts the previous ids back (user first). Returns false if they could not
  // be restored; the thread must then not go on with file operations. Safe
  // to call more than once.
  bool Restore();

  // The calling thread's file-system ids.
  static uid_t CurrentFsUid();
  static gid_t CurrentFsGid();

 private:
  uid_t old_uid_;
  gid_t old_gid_;
  bool ok_ = false;
  bool restored_ = false;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FS_IDS_H_
