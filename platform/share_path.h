// ResolvePlatformSharePath: the platform library's share table as a
// MonitorQueue::ShareResolver, for the programs that load monitor queues as
// the daemon does (the daemon itself, `yulotifyctl queues` and `check`).
//
// libyulotifyd resolves no share by itself: whoever loads monitor queues
// hands it a resolver. This one is a small static library beside
// libyuloplatform, linked into those programs and never into libyulotifyd,
// so that a queue consumer needs no platform library.
//
// Thread-safety: keeps no state; may be called from any thread.
#ifndef YULOTIFYD_PLATFORM_SHARE_PATH_H_
#define YULOTIFYD_PLATFORM_SHARE_PATH_H_

#include <string>

namespace YULO {
namespace YULOTIFYD {

// Stores in `path` (when not null) the absolute path of share `share_name`
// as YULOSharePathGet gives it. False, with `path` untouched, for an empty
// name, a name holding a NUL byte (it could not reach the C interface whole)
// and a share the platform does not know.
bool ResolvePlatformSharePath(const std::string& share_name,
                              std::string* path);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_PLATFORM_SHARE_PATH_H_
