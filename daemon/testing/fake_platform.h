// FakePlatform: a made-up appliance for the daemon core's tests: mounted
// volumes and shares kept in memory, files looked up on the real file
// system (run-status files live in the test's scratch directory).
//
// Thread-safety: none; volume threads never exist in these tests.
#ifndef YULOTIFYD_DAEMON_TESTING_FAKE_PLATFORM_H_
#define YULOTIFYD_DAEMON_TESTING_FAKE_PLATFORM_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "daemon/platform_api.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

class FakePlatform : public PlatformApi {
 public:
  FakePlatform() = default;
  ~FakePlatform() override = default;

  // A volume mounted at `mount_point` (listed in the order added).
  void AddVolume(int32_t id, const std::string& mount_point, int32_t kind = 0);
  void RemoveVolume(int32_t id);
  void AddShare(const std::string& name, const std::string& path);
  void RemoveShare(const std::string& name);
  // With true, the volume table cannot be read: no list, and
  // GetMountedVolume answers -2.
  void set_table_unreadable(bool unreadable) { unreadable_ = unreadable; }
  // Lists handed out by EnumMountedVolumes and not freed yet.
  int lists_outstanding() const { return lists_outstanding_; }

  YULO_VOLUME_INFO* EnumMountedVolumes() override;
  void FreeMountedVolumes(YULO_VOLUME_INFO* list) override;
  int GetMountedVolume(const char* mount_point,
                       YULO_VOLUME_INFO* info) override;
  int GetSharePath(const char* name, char* buf, int size) override;
  int ParseVolumePath(const char* path, int* vol_id) override;
  int FileExists(const char* path) override;
  bool ResolveSharePath(const std::string& share_name,
                        std::string* path) override;
  int ReadAllShares(
      int flags,
      std::vector<std::pair<std::string, std::string>>* out) override;

 private:
  std::vector<YULO_VOLUME_INFO> volumes_;
  std::vector<std::pair<std::string, std::string>> shares_;
  bool unreadable_ = false;
  int lists_outstanding_ = 0;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_TESTING_FAKE_PLATFORM_H_
