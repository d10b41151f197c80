// Following the mount table, the volume table and the share configuration.
//
// On a stock machine no service sends "mount_volume", "umount_volume",
// "mount_share" or "umount_share": the daemon watches the sources of truth
// itself (SourceWatch) and, once a burst of changes has settled, compares
// what should be watched with what is and acts through the same operations
// those commands use. The commands still work, for appliances whose own
// services drive them.
#include <time.h>

#include <algorithm>
#include <cstring>

#include "daemon/daemon.h"
#include "notify/mount_point.h"
#include "volume/share_list.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// The current shares, name -> path; empty when the configuration cannot be
// read (then no share resolves either).
std::map<std::string, std::string> ReadShareMap(PlatformApi* platform) {
  std::vector<std::pair<std::string, std::string>> shares;
  std::map<std::string, std::string> out;
  if (platform->ReadAllShares(kShareEnumFlags, &shares) != 0) {
    return out;
  }
  for (auto& share : shares) out[share.first] = share.second;
  return out;
}

const char* DropReason(VolumePlan::Why why) {
  switch (why) {
    case VolumePlan::Why::kMoved:
      return "moved";
    case VolumePlan::Why::kRemounted:
      return "mounted again";
    case VolumePlan::Why::kGone:
      break;
  }
  return "gone";
}

}  // namespace

void Daemon::SetupFollow() {
  SourceWatch::Paths paths;
  paths.mount_table = options_.mount_table_path;
  paths.volume_table = options_.volume_table_path;
  paths.share_conf = options_.smb_conf_path;
  // Whatever cannot be watched was logged; the daemon then relies on the
  // control commands for it.
  sources_.Open(paths);
  // The monitor queues were resolved against these shares a moment ago.
  shares_ = ReadShareMap(platform_);
}

struct timespec Daemon::FollowTimeout(std::chrono::milliseconds longest) const {
  int64_t millis = std::max<int64_t>(0, longest.count());
  const int64_t now = clock_->NowMillis();
  for (const int64_t due :
       {sources_.MillisUntilDue(now), config_.MillisUntilDue(now),
        control_.MillisUntilDeadline()}) {
    if (due >= 0) millis = std::min(millis, due);
  }
  struct timespec timeout;
  timeout.tv_sec = static_cast<time_t>(millis / 1000);
  timeout.tv_nsec = static_cast<long>(millis % 1000) * 1000000L;
  return timeout;
}

void Daemon::FollowSources() {
  const unsigned due = sources_.TakeDue(clock_->NowMillis());
  if (due == 0) return;
  YULO_LOG_DEBUG("Following changes, volumes=%d, shares=%d",
                 (due & SourceWatch::kVolumes) ? 1 : 0,
                 (due & SourceWatch::kShares) ? 1 : 0);
  VolumePlan plan;
  const bool volumes = (due & SourceWatch::kVolumes) && PlanVolumes(&plan);
  // Volumes that went away go first, so that a reload for the shares does
  // not wait on them; new volumes come last, so that their managers start
  // with the new shares.
  if (volumes) DropVolumes(plan);
  if (due & SourceWatch::kShares) FollowShares();
  if (volumes) AddVolumes(plan);
  // What made the kernel refuse a watch (a file system it cannot report on
  // mounted at a share, say) may have gone with the mounts. AddVolumes has
  // had every volume try when it added or dropped one.
  if (volumes && plan.adds.empty() && plan.drops.empty()) {
    RetryRefusedWatches(VolumesWithRefusedWatches());
  }
}

bool Daemon::PlanVolumes(VolumePlan* plan) {
  YULO_VOLUME_INFO* list = platform_->EnumMountedVolumes();
  if (list == nullptr) {
    // No list is both "nothing mounted" and "no table": a table that cannot
    // be read (being rewritten in place, say) must not drop every volume.
    YULO_VOLUME_INFO probe;
    std::memset(&probe, 0, sizeof(probe));
    if (platform_->GetMountedVolume("/", &probe) == -2) {
      YULO_LOG_INFO("Volume table unreadable, volumes left as they are");
      return false;
    }
  }
  std::vector<MountedVolume> mounted;
  for (YULO_VOLUME_INFO* info = list; info != nullptr; info = info->next) {
    MountedVolume volume;
    volume.id = info->vol_id;
    volume.kind = info->vol_kind;
    volume.mount_point = info->mount_point;
    volume.mount = SeeMount(info->mount_point);
    mounted.push_back(volume);
  }
  platform_->FreeMountedVolumes(list);

  *plan = volumes_.Plan(mounted);
  return true;
}

void Daemon::DropVolumes(const VolumePlan& plan) {
  for (const VolumePlan::Drop& drop : plan.drops) {
    YULO_LOG_INFO("Volume %s, dropping its manager, id=%d, mount point=%s",
                  DropReason(drop.why), drop.id, drop.mount_point.c_str());
    // Exactly what "umount_volume" does.
    volumes_.Drop(drop);
  }
  volumes_.KeepPlanned(plan);
}

void Daemon::AddVolumes(const VolumePlan& plan) {
  for (const VolumePlan::Skip& skip : plan.held) {
    YULO_LOG_DEBUG("Volume released by umount_volume, not watched, id=%d, "
                   "mount point=%s",
                   skip.id, skip.mount_point.c_str());
  }
  for (const VolumePlan::Skip& skip : plan.usb) {
    YULO_LOG_DEBUG("Usb volume mounted while running, not watched, id=%d, "
                   "mount point=%s",
                   skip.id, skip.mount_point.c_str());
  }
  for (const VolumePlan::Add& add : plan.adds) {
    if (add.rescan) {
      YULO_LOG_INFO("Volume back, watching it with a rescan, id=%d, "
                    "mount point=%s",
                    add.id, add.mount_point.c_str());
    } else {
      YULO_LOG_INFO("Volume mounted, watching it, id=%d, mount point=%s",
                    add.id, add.mount_point.c_str());
    }
    // Exactly what "mount_volume" does; it rescans a volume that is gone.
    MountVolume(add.mount_point);
  }
  // Which volume holds a share depends on what is mounted (a volume inside
  // another takes its shares): the managers list theirs again, and their
  // receivers watch what is theirs now.
  if (!plan.drops.empty() || !plan.adds.empty()) {
    for (auto& entry : volumes_.volumes()) entry.second->RelistShares();
    UpdateWatches();
  }
}

void Daemon::FollowShares() {
  std::map<std::string, std::string> shares = ReadShareMap(platform_);
  if (shares == shares_) {
    YULO_LOG_DEBUG("Shares unchanged");
    return;
  }
  shares_.swap(shares);
  // Share paths are resolved when the monitor queues are loaded: a share
  // added, removed or moved needs a reload, as a configuration change does.
  YULO_LOG_INFO("Shares changed, reloading monitor queues");
  ReloadMonitorQueues();
  for (auto& entry : volumes_.volumes()) entry.second->RelistShares();
}

void Daemon::HoldVolume(const std::string& mount_point) {
  volumes_.Hold(mount_point);
}

}  // namespace YULOTIFYD
}  // namespace YULO
