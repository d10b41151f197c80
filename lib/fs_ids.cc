#include "yulotifyd/fs_ids.h"

#include <errno.h>
#include <sys/fsuid.h>

#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// An id no user or group has: setfsuid/setfsgid refuse it and only return
// the current value.
constexpr uid_t kInvalidUid = static_cast<uid_t>(-1);
constexpr gid_t kInvalidGid = static_cast<gid_t>(-1);

// Sets the file-system ids and checks that they took.
bool SetFsUid(uid_t uid) {
  setfsuid(uid);
  return ScopedFsIds::CurrentFsUid() == uid;
}

bool SetFsGid(gid_t gid) {
  setfsgid(gid);
  return ScopedFsIds::CurrentFsGid() == gid;
}

}  // namespace

uid_t ScopedFsIds::CurrentFsUid() {
  return static_cast<uid_t>(setfsuid(kInvalidUid));
}

gid_t ScopedFsIds::CurrentFsGid() {
  return static_cast<gid_t>(setfsgid(kInvalidGid));
}

ScopedFsIds::ScopedFsIds(uid_t uid, gid_t gid)
    : old_uid_(CurrentFsUid()), old_gid_(CurrentFsGid()) {
  if (SetFsGid(gid) && SetFsUid(uid)) {
    ok_ = true;
    return;
  }
  // Neither call sets errno; without the capability it is a permission
  // matter.
  const int saved = EPERM;
  Restore();
  errno = saved;
}

ScopedFsIds::~ScopedFsIds() { Restore(); }

bool ScopedFsIds::Restore() {
  if (restored_) return true;
  const bool uid_back = SetFsUid(old_uid_);
  const bool gid_back = SetFsGid(old_gid_);
  if (!uid_back || !gid_back) {
    YULO_LOG_ALWAYS("cannot restore file-system ids uid=%u gid=%u",
                    static_cast<unsigned>(old_uid_),
                    static_cast<unsigned>(old_gid_));
    return false;
  }
  restored_ = true;
  return true;
}

}  // namespace YULOTIFYD
}  // namespace YULO
