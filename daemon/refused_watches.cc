// Watches the kernel refused: a volume whose mark cannot be placed (a file
// system the kernel cannot report on, say) is shown as failed everywhere,
// and tried again whenever something may have changed the kernel's answer:
// a mount-table change, a reload, a "mount_volume" command. A watch placed
// at last gets its volume a rescan, since what changed on it before was
// never read.
#include "daemon/daemon.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

std::vector<ManagedVolume*> Daemon::VolumesWithRefusedWatches() {
  std::vector<ManagedVolume*> failed;
  for (auto& entry : volumes_.volumes()) {
    if (entry.second->WatchFailed()) failed.push_back(entry.second.get());
  }
  return failed;
}

void Daemon::RetryRefusedWatches(const std::vector<ManagedVolume*>& volumes) {
  if (volumes.empty()) return;
  // The receiver adds only the watches it misses; waited for, as a reload
  // waits, so that once this returns the status tells the outcome.
  CreateReloadSemaphore();
  for (ManagedVolume* volume : volumes) {
    YULO_LOG_INFO("Trying the refused watches of volume %s again",
                  volume->GetMountPoint().c_str());
    volume->ReloadWatches();
  }
  AwaitReloadAcks(volumes.size());
  DestroyReloadSemaphore();
}

}  // namespace YULOTIFYD
}  // namespace YULO
