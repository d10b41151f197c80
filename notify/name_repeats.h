// NameRepeats: which names a stretch of events touched more than once.
//
// fanotify merges unread events on one name and keeps the merged event at
// the place of the first, so when one name is created, deleted or moved
// several times before the backend reads, the records of a read may no
// longer say what became of it. Only names touched twice or more can be
// affected; NameRepeats tells them apart from the rest at the cost of one
// hash and one probe per touch, without keeping any name: a flat table of
// 64-bit keys (NameKey), bounded to kMaxNames names. A key collision can
// only make a name look repeated, which costs a check, never a miss.
//
// Ownership: owns its table. Thread-safety: none.
#ifndef YULOTIFYD_NOTIFY_NAME_REPEATS_H_
#define YULOTIFYD_NOTIFY_NAME_REPEATS_H_

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

// A key for (file system, directory handle, name); never 0.
uint64_t NameKey(uint64_t fsid, int32_t handle_type, const uint8_t* handle,
                 size_t handle_bytes, std::string_view name);

class NameRepeats {
 public:
  // Names held at most; Full() is true from then on until Clear().
  static constexpr size_t kMaxNames = 8192;

  NameRepeats();

  // Records a touch of the name with `key`. True when it was touched before
  // since the last Clear.
  bool Touch(uint64_t key);
  bool Full() const { return used_.size() >= kMaxNames; }
  bool empty() const { return used_.empty(); }
  size_t size() const { return used_.size(); }
  // Forgets every name; costs the number of names held, not the table size.
  void Clear();

 private:
  static constexpr size_t kSlots = 2 * kMaxNames;  // a power of two
  std::vector<uint64_t> slots_;                    // 0 = free
  std::vector<uint32_t> used_;                     // indices of taken slots
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_NAME_REPEATS_H_
