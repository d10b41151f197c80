// PlanVolumeChanges: what the daemon does when the mount table or the
// volume table changed.
//
// The daemon follows the volumes by itself: every volume of the volume table
// that is mounted gets a manager, and a manager whose volume is no longer
// mounted there goes. This is the decision alone, without side effects, so
// that it can be tested with made-up volumes; Daemon::FollowSources carries
// it out through the same operations the "mount_volume" and
// "umount_volume" commands use.
//
// Rules, for each volume id:
//   - watched, and mounted as it was when its manager was made: kept;
//   - watched, but no longer mounted (or no longer in the table, or mounted
//     elsewhere now): dropped, and remembered as gone;
//   - watched, and mounted again since (another mount at its mount point:
//     it went away and came back in between, and the kernel dropped the
//     watch with the old mount): dropped and remembered as gone, so that it
//     is added again below;
//   - released by the "umount_volume" command while mounted ("held"): left
//     unwatched while that same mount stays; once it is unmounted the hold
//     ends and the volume counts as gone;
//   - mounted and not watched: added, with a rescan when it is gone (what
//     changed on it while it was away is unknown), except USB volumes, which
//     are only watched when mounted at start.
//
// Mount points are compared normalised (NormalisePath).
//
// Thread-safety: a pure function.
#ifndef YULOTIFYD_DAEMON_VOLUME_PLAN_H_
#define YULOTIFYD_DAEMON_VOLUME_PLAN_H_

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "notify/mount_point.h"

namespace YULO {
namespace YULOTIFYD {

// A mount as seen at some moment; empty when it could not be examined.
using SeenMount = std::optional<MountIdentity>;

// A volume of the table that is mounted now.
struct MountedVolume {
  int32_t id = 0;
  int32_t kind = 0;
  std::string mount_point;
  SeenMount mount;  // what is mounted there now
};

// A volume that has a manager.
struct WatchedVolume {
  int32_t id = 0;
  std::string mount_point;
  SeenMount mount;  // what was mounted there when the manager was made
};

struct VolumePlan {
  enum class Why { kGone, kMoved, kRemounted };
  struct Drop {
    int32_t id = 0;
    std::string mount_point;  // the manager's
    Why why = Why::kGone;
  };
  struct Add {
    int32_t id = 0;
    std::string mount_point;
    bool rescan = false;  // gone while the daemon ran
  };
  struct Skip {
    int32_t id = 0;
    std::string mount_point;
  };

  std::vector<Drop> drops;  // in the order of the watched volumes
  std::vector<Add> adds;    // in the order of the mounted volumes
  std::vector<Skip> usb;    // USB volumes mounted while running: not watched
  std::vector<Skip> held;   // held volumes still mounted: not watched
  // The gone and held volumes once the plan is carried out.
  std::set<int32_t> gone;
  std::map<int32_t, SeenMount> holds;
};

// `mounted`: the table's mounted volumes, in table order; `watched`: the
// volumes with a manager; `holds`: volumes released by command, with the
// mount they were released on; `gone`: volumes gone while the daemon ran.
VolumePlan PlanVolumeChanges(const std::vector<MountedVolume>& mounted,
                             const std::vector<WatchedVolume>& watched,
                             const std::map<int32_t, SeenMount>& holds,
                             const std::set<int32_t>& gone);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_VOLUME_PLAN_H_
