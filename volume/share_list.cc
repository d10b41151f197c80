#include "volume/share_list.h"

#include <cstring>

#include "yulo_platform.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Room for any path the share configuration may hold.
constexpr int kPathBufferSize = 4096;

// The list is allocated with room for about this many bytes of names.
constexpr int kShareListBytes = 1024;

}  // namespace

int ReadAllShares(int flags,
                  std::vector<std::pair<std::string, std::string>>* out) {
  PYULO_SZ_LIST list = YULOSzListAlloc(kShareListBytes);
  if (list == nullptr) return kSharesNoMemory;
  if (YULOShareEnum(&list, flags) < 0) {
    YULOSzListFree(list);
    return kSharesUnreadable;
  }
  for (int i = 0; i < YULOSzListCount(list); ++i) {
    const char* name = YULOSzListGet(list, i);
    if (name == nullptr) continue;
    char path[kPathBufferSize];
    std::memset(path, 0, sizeof(path));
    if (YULOSharePathGet(name, path, sizeof(path)) != 0) continue;
    out->emplace_back(name, path);
  }
  YULOSzListFree(list);
  return 0;
}

}  // namespace YULOTIFYD
}  // namespace YULO
