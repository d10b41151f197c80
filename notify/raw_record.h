// RawNotifyRecord: one kernel notification as it lies in the read buffer.
//
//   offset 0   u32 mask    event bits (NotifyEventType) and YULO_ISDIR
//   offset 4   u32 cookie  pairs the two halves of a move
//   offset 8   u32 len     number of name bytes that follow
//   offset 12  len bytes   full path of the object, NUL-terminated within len
//
// Host byte order, records packed back to back with no padding: the next
// record starts 12 + len bytes after this one. Because records may start at
// any byte, the struct is packed (alignment 1) and may be overlaid on any
// offset of a byte buffer.
//
// Thread-safety: the functions here touch only their arguments.
#ifndef YULOTIFYD_NOTIFY_RAW_RECORD_H_
#define YULOTIFYD_NOTIFY_RAW_RECORD_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace YULO {
namespace YULOTIFYD {

struct __attribute__((packed)) RawNotifyRecord {
  uint32_t mask;
  uint32_t cookie;
  uint32_t len;

  // The `len` name bytes that follow the header.
  const char* name() const {
    return reinterpret_cast<const char*>(this) + sizeof(*this);
  }
  // Total size of the record in the buffer.
  size_t size() const { return sizeof(*this) + len; }
};

static_assert(sizeof(RawNotifyRecord) == 12, "record header is 12 bytes");
static_assert(alignof(RawNotifyRecord) == 1, "records are not aligned");

constexpr size_t kRawRecordHeaderSize = sizeof(RawNotifyRecord);

// Bytes that WriteRawRecord needs for `name`: header, name and its NUL.
inline size_t RawRecordSize(std::string_view name) {
  return kRawRecordHeaderSize + name.size() + 1;
}

// Writes one record at `dst` with `name` NUL-terminated and len = name + 1.
// Returns the bytes written, or 0 (writing nothing) when they exceed `room`.
size_t WriteRawRecord(uint8_t* dst, size_t room, uint32_t mask, uint32_t cookie,
                      std::string_view name);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_RAW_RECORD_H_
