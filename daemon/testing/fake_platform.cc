#include "daemon/testing/fake_platform.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "volume/share_list.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

void FakePlatform::AddVolume(int32_t id, const std::string& mount_point,
                             int32_t kind) {
  YULO_VOLUME_INFO info;
  std::memset(&info, 0, sizeof(info));
  info.vol_id = id;
  info.vol_kind = kind;
  std::strncpy(info.mount_point, mount_point.c_str(),
               sizeof(info.mount_point) - 1);
  volumes_.push_back(info);
}

void FakePlatform::RemoveVolume(int32_t id) {
  volumes_.erase(std::remove_if(volumes_.begin(), volumes_.end(),
                                [id](const YULO_VOLUME_INFO& info) {
                                  return info.vol_id == id;
                                }),
                 volumes_.end());
}

void FakePlatform::AddShare(const std::string& name, const std::string& path) {
  shares_.emplace_back(name, path);
}

void FakePlatform::RemoveShare(const std::string& name) {
  shares_.erase(
      std::remove_if(shares_.begin(), shares_.end(),
                     [&name](const std::pair<std::string, std::string>& s) {
                       return s.first == name;
                     }),
      shares_.end());
}

YULO_VOLUME_INFO* FakePlatform::EnumMountedVolumes() {
  if (unreadable_ || volumes_.empty()) return nullptr;
  // One array, linked in table order; freed as a whole.
  YULO_VOLUME_INFO* list = new YULO_VOLUME_INFO[volumes_.size()];
  for (size_t i = 0; i < volumes_.size(); ++i) {
    list[i] = volumes_[i];
    list[i].next = i + 1 < volumes_.size() ? &list[i + 1] : nullptr;
  }
  ++lists_outstanding_;
  return list;
}

void FakePlatform::FreeMountedVolumes(YULO_VOLUME_INFO* list) {
  if (list == nullptr) return;
  --lists_outstanding_;
  delete[] list;
}

int FakePlatform::GetMountedVolume(const char* mount_point,
                                   YULO_VOLUME_INFO* info) {
  if (unreadable_) return -2;
  for (const YULO_VOLUME_INFO& volume : volumes_) {
    if (std::strcmp(volume.mount_point, mount_point) == 0) {
      *info = volume;
      info->next = nullptr;
      return 0;
    }
  }
  return -1;
}

int FakePlatform::GetSharePath(const char* name, char* buf, int size) {
  for (const auto& share : shares_) {
    if (share.first != name) continue;
    if (share.second.size() + 1 > static_cast<size_t>(size)) return 1;
    std::memcpy(buf, share.second.c_str(), share.second.size() + 1);
    return 0;
  }
  return 1;
}

int FakePlatform::ParseVolumePath(const char* path, int* vol_id) {
  // The deepest mount point that `path` lies on.
  const std::string wanted = path;
  size_t best = 0;
  bool found = false;
  for (const YULO_VOLUME_INFO& volume : volumes_) {
    const std::string mount = volume.mount_point;
    const bool on =
        wanted == mount || (wanted.compare(0, mount.size(), mount) == 0 &&
                            wanted.size() > mount.size() &&
                            (mount == "/" || wanted[mount.size()] == '/'));
    if (on && (!found || mount.size() > best)) {
      best = mount.size();
      *vol_id = volume.vol_id;
      found = true;
    }
  }
  return found ? 1 : 0;
}

int FakePlatform::FileExists(const char* path) {
  return access(path, F_OK) == 0 ? 1 : 0;
}

bool FakePlatform::ResolveSharePath(const std::string& share_name,
                                    std::string* path) {
  for (const auto& share : shares_) {
    if (share.first == share_name) {
      *path = share.second;
      return true;
    }
  }
  return false;
}

int FakePlatform::ReadAllShares(
    int /*flags*/, std::vector<std::pair<std::string, std::string>>* out) {
  if (unreadable_) return kSharesUnreadable;
  out->insert(out->end(), shares_.begin(), shares_.end());
  return 0;
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
