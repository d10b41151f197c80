// VolumeMgr: one watched data volume: its share list, its event queue and,
// once the event pipeline is built in, its receiver and processor threads.
//
// Ownership: created and deleted by the daemon core on its main thread; holds
// a non-owning pointer to the VolumeContext, which outlives it.
// Thread-safety: the share list and the command entry points (MountShare,
// UmountShare, ReloadWatches, NotifyProcessor) belong to the main thread.
#ifndef YULOTIFYD_VOLUME_VOLUME_MANAGER_H_
#define YULOTIFYD_VOLUME_VOLUME_MANAGER_H_

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

#include "volume/volume_context.h"
#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

class VolumeMgr {
 public:
  // Sets the volume up from its information record. Throws the integer -1,
  // after logging why, when the volume cannot be watched.
  VolumeMgr(const YULO_VOLUME_INFO* info, VolumeContext* context);
  virtual ~VolumeMgr();

  VolumeMgr(const VolumeMgr&) = delete;
  VolumeMgr& operator=(const VolumeMgr&) = delete;

  // Injects an event reported by another service (queue event code `type`,
  // path, old path of a rename). True when a record was offered to the queue.
  bool PushEvent(uint32_t type, const std::string& path,
                 const std::string& path_old);
  void MountShare(const std::string& share_name);
  void UmountShare(const std::string& share_name);
  // Asks the receiver to re-add every watch for the current configuration.
  void ReloadWatches();
  // Has the processor take the events queued so far.
  void NotifyProcessor();

  const std::string& GetMountPoint() const { return mount_point_; }
  const std::vector<std::string>& GetSharePaths() const {
    return share_paths_;
  }

 private:
  bool Init(const YULO_VOLUME_INFO* info);
  void ListShares(std::string prefix);

  std::string mount_point_;
  std::vector<std::string> share_paths_;
  VolumeContext* context_;
  pthread_mutex_t queue_mutex_;
  bool mutex_ready_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_VOLUME_MANAGER_H_
