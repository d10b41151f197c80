#include "daemon/testing/fake_volume.h"

#include <utility>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

class FakeVolume : public ManagedVolume {
 public:
  FakeVolume(const YULO_VOLUME_INFO* info, VolumeContext* context,
             FakeVolumes* owner)
      : id_(info->vol_id),
        mount_point_(info->mount_point),
        context_(context),
        owner_(owner) {}
  ~FakeVolume() override { Note("deleted"); }

  int32_t GetVolumeId() const override { return id_; }
  const std::string& GetMountPoint() const override { return mount_point_; }
  bool PushEvent(uint32_t type, const std::string& path,
                 const std::string& path_old) override {
    Note("PushEvent " + std::to_string(type) + " " + path + " " + path_old);
    return true;
  }
  void MountShare(const std::string& share_name) override {
    Note("MountShare " + share_name);
  }
  void UmountShare(const std::string& share_name) override {
    Note("UmountShare " + share_name);
  }
  void ReloadWatches() override {
    Note("ReloadWatches");
    if (owner_->acknowledge_reloads) context_->PostReloadSemaphore();
  }
  void DrainKernel() override {
    Note("DrainKernel");
    if (owner_->acknowledge_reloads) context_->PostReloadSemaphore();
  }
  void ProcessQueued() override {
    Note("ProcessQueued");
    owner_->queues_when_processing.push_back(context_->GetMonitorQueues());
  }
  void RelistShares() override { Note("RelistShares"); }
  void BeginDrain(Deadline /*deadline*/) override { Note("BeginDrain"); }
  void FinishReceiving(Deadline /*deadline*/) override {
    Note("FinishReceiving");
  }
  bool FinishDrain() override {
    Note("FinishDrain");
    return owner_->undrained.count(id_) == 0;
  }
  bool Drain(Deadline /*deadline*/) override {
    Note("Drain");
    return owner_->undrained.count(id_) == 0;
  }
  VolumeStatus GetStatus() override {
    VolumeStatus status;
    status.id = id_;
    status.mount_point = mount_point_;
    status.backend = "none";
    const auto refused = owner_->refused.find(id_);
    if (refused != owner_->refused.end()) {
      status.refused_watches = refused->second;
    }
    return status;
  }
  bool WatchFailed() override {
    const auto refused = owner_->refused.find(id_);
    return refused != owner_->refused.end() && !refused->second.empty();
  }
  std::vector<QueueFileStatus> GetQueueFileStatus() override {
    const auto it = owner_->queue_files.find(id_);
    return it == owner_->queue_files.end() ? std::vector<QueueFileStatus>()
                                           : it->second;
  }

 private:
  void Note(const std::string& what) {
    owner_->journal_.push_back(std::to_string(id_) + " " + what);
  }

  const int32_t id_;
  const std::string mount_point_;
  VolumeContext* const context_;
  FakeVolumes* const owner_;
};

VolumeFactory FakeVolumes::Factory() {
  return [this](const YULO_VOLUME_INFO* info, VolumeContext* context,
                bool rescan) -> std::unique_ptr<ManagedVolume> {
    if (failing.count(info->vol_id) != 0) throw -1;
    ++made;
    rescan_at_start[info->vol_id] = rescan;
    journal_.push_back(std::to_string(info->vol_id) + " made" +
                       (rescan ? " with rescan" : ""));
    return std::make_unique<FakeVolume>(info, context, this);
  };
}

std::vector<std::string> FakeVolumes::TakeJournal() {
  std::vector<std::string> journal;
  journal.swap(journal_);
  return journal;
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
