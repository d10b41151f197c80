#include "volume/volume_manager.h"

#include <cstring>
#include <memory>

#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

constexpr int kShareEnumFlags = 0xA09;
constexpr int kPathBufferSize = 4096;

}  // namespace

VolumeMgr::VolumeMgr(const YULO_VOLUME_INFO* info, VolumeContext* context)
    : context_(context), queue_mutex_(), mutex_ready_(false) {
  if (!Init(info)) {
    if (mutex_ready_) pthread_mutex_destroy(&queue_mutex_);
    throw -1;
  }
}

VolumeMgr::~VolumeMgr() {
  if (mutex_ready_) pthread_mutex_destroy(&queue_mutex_);
}

bool VolumeMgr::Init(const YULO_VOLUME_INFO* info) {
  mount_point_ = info->mount_point;
  if (pthread_mutex_init(&queue_mutex_, nullptr) != 0) {
    YULO_LOG_ALWAYS("pthread_mutex_init failed");
    return false;
  }
  mutex_ready_ = true;
  ListShares(mount_point_);
  // This build has no event receiver yet: the kernel watches and the
  // per-volume threads come with the event pipeline. Without a receiver the
  // volume cannot be watched, so the manager is not created.
  YULO_LOG_ALWAYS("Failed to run EventReceiver");
  return false;
}

void VolumeMgr::ListShares(std::string prefix) {
  // The trailing "/" keeps /vol1 from claiming the shares of /vol10.
  if (prefix.empty() || prefix.back() != '/') prefix += '/';
  PYULO_SZ_LIST list = YULOSzListAlloc(1024);
  if (list == nullptr) {
    YULO_LOG_ALWAYS("ListShare malloc fail");
    return;
  }
  if (YULOShareEnum(&list, kShareEnumFlags) < 0) {
    YULOSzListFree(list);
    return;
  }
  for (int i = 0; i < YULOSzListCount(list); ++i) {
    const char* name = YULOSzListGet(list, i);
    if (name == nullptr) continue;
    char path[kPathBufferSize];
    std::memset(path, 0, sizeof(path));
    if (YULOSharePathGet(name, path, sizeof(path)) != 0) continue;
    if (std::strncmp(path, prefix.c_str(), prefix.size()) == 0) {
      share_paths_.push_back(path);
    }
  }
  YULOSzListFree(list);
}

bool VolumeMgr::PushEvent(uint32_t, const std::string&, const std::string&) {
  // Reached only on a constructed manager, which this build never has.
  return false;
}

void VolumeMgr::MountShare(const std::string& share_name) {
  share_paths_.push_back(mount_point_ + "/" + share_name);
}

void VolumeMgr::UmountShare(const std::string& share_name) {
  const std::string path = mount_point_ + "/" + share_name;
  for (auto it = share_paths_.begin(); it != share_paths_.end(); ++it) {
    if (*it == path) {
      share_paths_.erase(it);
      break;
    }
  }
}

void VolumeMgr::ReloadWatches() {
  // No receiver: acknowledge at once so a reload never waits for us.
  context_->PostReloadSemaphore();
}

void VolumeMgr::NotifyProcessor() {}

}  // namespace YULOTIFYD
}  // namespace YULO
