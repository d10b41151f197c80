// PlatformApi: the appliance platform library as the daemon core sees it.
//
// Every question the daemon core asks about volumes, shares and files goes
// through this interface instead of calling libyuloplatform directly, so
// that tests can answer with a made-up appliance (testing/fake_platform.h)
// and need neither a volume table nor smb.conf nor root. The operations keep
// the library's calling conventions and results; each is documented in
// yulo_platform.h under the name of the call it wraps.
//
// Thread-safety: SystemPlatform() keeps no state and may be used from any
// thread; other implementations say what they allow.
#ifndef YULOTIFYD_DAEMON_PLATFORM_API_H_
#define YULOTIFYD_DAEMON_PLATFORM_API_H_

#include <string>
#include <utility>
#include <vector>

#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

class PlatformApi {
 public:
  virtual ~PlatformApi() = default;

  // YULOMountVolAllEnum(0, 0, 0): the mounted volumes as a list that the
  // caller hands back to FreeMountedVolumes; null when the table cannot be
  // read or nothing is mounted.
  virtual YULO_VOLUME_INFO* EnumMountedVolumes() = 0;
  // YULOMountVolInfoFree of a list from EnumMountedVolumes (null allowed).
  virtual void FreeMountedVolumes(YULO_VOLUME_INFO* list) = 0;
  // YULOMountVolInfoGet: 0, or negative (-2: the table cannot be read).
  virtual int GetMountedVolume(const char* mount_point,
                               YULO_VOLUME_INFO* info) = 0;
  // YULOSharePathGet: 0 with the share's path in `buf`, non-zero otherwise.
  virtual int GetSharePath(const char* name, char* buf, int size) = 0;
  // VolumePathParse: > 0 with the id of the volume holding `path`.
  virtual int ParseVolumePath(const char* path, int* vol_id) = 0;
  // YULOFileExist: 1 when `path` exists.
  virtual int FileExists(const char* path) = 0;

  // The share resolver the monitor queues are loaded with (see
  // MonitorQueue::ShareResolver).
  virtual bool ResolveSharePath(const std::string& share_name,
                                std::string* path) = 0;
  // ReadAllShares of the volume layer: every share as (name, path), in the
  // configuration's order; 0, kSharesNoMemory or kSharesUnreadable.
  virtual int ReadAllShares(
      int flags, std::vector<std::pair<std::string, std::string>>* out) = 0;
};

// The platform library itself. Lives for the whole program.
PlatformApi& SystemPlatform();

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_PLATFORM_API_H_
