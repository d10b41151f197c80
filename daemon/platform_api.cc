#include "daemon/platform_api.h"

#include "platform/share_path.h"
#include "volume/share_list.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Straight calls into libyuloplatform (and the helpers built on it).
class LibraryPlatform : public PlatformApi {
 public:
  YULO_VOLUME_INFO* EnumMountedVolumes() override {
    return YULOMountVolAllEnum(0, 0, 0);
  }
  void FreeMountedVolumes(YULO_VOLUME_INFO* list) override {
    YULOMountVolInfoFree(list);
  }
  int GetMountedVolume(const char* mount_point,
                       YULO_VOLUME_INFO* info) override {
    return YULOMountVolInfoGet(mount_point, info);
  }
  int GetSharePath(const char* name, char* buf, int size) override {
    return YULOSharePathGet(name, buf, size);
  }
  int ParseVolumePath(const char* path, int* vol_id) override {
    return VolumePathParse(path, vol_id);
  }
  int FileExists(const char* path) override { return YULOFileExist(path); }
  bool ResolveSharePath(const std::string& share_name,
                        std::string* path) override {
    return ResolvePlatformSharePath(share_name, path);
  }
  int ReadAllShares(
      int flags,
      std::vector<std::pair<std::string, std::string>>* out) override {
    return ::YULO::YULOTIFYD::ReadAllShares(flags, out);
  }
};

}  // namespace

PlatformApi& SystemPlatform() {
  // Never destroyed: volume threads may still ask while the process exits.
  static LibraryPlatform* const platform = new LibraryPlatform;
  return *platform;
}

}  // namespace YULOTIFYD
}  // namespace YULO
