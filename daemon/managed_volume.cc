#include "daemon/managed_volume.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// A VolumeMgr behind the interface; deleting it stops the volume's threads.
class VolumeMgrVolume : public ManagedVolume {
 public:
  VolumeMgrVolume(const YULO_VOLUME_INFO* info, VolumeContext* context,
                  bool rescan_at_start)
      : mgr_(info, context, rescan_at_start) {}

  int32_t GetVolumeId() const override { return mgr_.GetVolumeId(); }
  const std::string& GetMountPoint() const override {
    return mgr_.GetMountPoint();
  }
  bool PushEvent(uint32_t type, const std::string& path,
                 const std::string& path_old) override {
    return mgr_.PushEvent(type, path, path_old);
  }
  void MountShare(const std::string& share_name) override {
    mgr_.MountShare(share_name);
  }
  void UmountShare(const std::string& share_name) override {
    mgr_.UmountShare(share_name);
  }
  void ReloadWatches() override { mgr_.ReloadWatches(); }
  void DrainKernel() override { mgr_.DrainKernel(); }
  void ProcessQueued() override { mgr_.ProcessQueued(); }
  void RelistShares() override { mgr_.RelistShares(); }
  void BeginDrain(Deadline deadline) override { mgr_.BeginDrain(deadline); }
  void FinishReceiving(Deadline deadline) override {
    mgr_.FinishReceiving(deadline);
  }
  bool FinishDrain() override { return mgr_.FinishDrain(); }
  bool Drain(Deadline deadline) override { return mgr_.Drain(deadline); }
  VolumeStatus GetStatus() override { return mgr_.GetStatus(); }
  bool WatchFailed() override { return mgr_.WatchFailed(); }
  std::vector<QueueFileStatus> GetQueueFileStatus() override {
    return mgr_.GetQueueFileStatus();
  }

 private:
  VolumeMgr mgr_;
};

}  // namespace

std::unique_ptr<ManagedVolume> MakeVolumeMgr(const YULO_VOLUME_INFO* info,
                                             VolumeContext* context,
                                             bool rescan_at_start) {
  return std::make_unique<VolumeMgrVolume>(info, context, rescan_at_start);
}

}  // namespace YULOTIFYD
}  // namespace YULO
