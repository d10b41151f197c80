#include "platform/share_path.h"

#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Room for any path the share table may hold.
constexpr int kSharePathBufSize = 4096;

}  // namespace

bool ResolvePlatformSharePath(const std::string& share_name,
                              std::string* path) {
  if (share_name.empty() || share_name.find('\0') != std::string::npos) {
    return false;
  }
  char buf[kSharePathBufSize];
  buf[0] = '\0';
  if (YULOSharePathGet(share_name.c_str(), buf, sizeof(buf)) != 0) {
    return false;
  }
  buf[sizeof(buf) - 1] = '\0';
  if (path != nullptr) *path = buf;
  return true;
}

}  // namespace YULOTIFYD
}  // namespace YULO
