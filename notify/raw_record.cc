#include "notify/raw_record.h"

#include <cstring>

namespace YULO {
namespace YULOTIFYD {

size_t WriteRawRecord(uint8_t* dst, size_t room, uint32_t mask, uint32_t cookie,
                      std::string_view name) {
  const size_t size = RawRecordSize(name);
  if (size > room) return 0;
  const uint32_t len = static_cast<uint32_t>(name.size() + 1);
  std::memcpy(dst, &mask, 4);
  std::memcpy(dst + 4, &cookie, 4);
  std::memcpy(dst + 8, &len, 4);
  if (!name.empty()) std::memcpy(dst + 12, name.data(), name.size());
  dst[12 + name.size()] = 0;
  return size;
}

}  // namespace YULOTIFYD
}  // namespace YULO
