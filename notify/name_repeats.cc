#include "notify/name_repeats.h"

#include <cstring>

namespace YULO {
namespace YULOTIFYD {

namespace {

constexpr uint64_t kFnvOffset = 0xcbf29ce484222325ull;
constexpr uint64_t kFnvPrime = 0x100000001b3ull;

uint64_t Mix(uint64_t hash, const void* data, size_t size) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < size; ++i) {
    hash ^= bytes[i];
    hash *= kFnvPrime;
  }
  return hash;
}

}  // namespace

uint64_t NameKey(uint64_t fsid, int32_t handle_type, const uint8_t* handle,
                 size_t handle_bytes, std::string_view name) {
  uint64_t hash = Mix(kFnvOffset, &fsid, sizeof(fsid));
  hash = Mix(hash, &handle_type, sizeof(handle_type));
  hash = Mix(hash, handle, handle_bytes);
  // The separator keeps ("ab", handle) apart from ("b", handle + "a").
  const uint8_t separator = 0;
  hash = Mix(hash, &separator, 1);
  hash = Mix(hash, name.data(), name.size());
  // Spread the low bits, which pick the slot.
  hash ^= hash >> 29;
  return hash == 0 ? 1 : hash;
}

NameRepeats::NameRepeats() : slots_(kSlots, 0) { used_.reserve(kMaxNames); }

bool NameRepeats::Touch(uint64_t key) {
  size_t slot = static_cast<size_t>(key) & (kSlots - 1);
  // At most half the slots are taken, so a free one is always found.
  while (slots_[slot] != 0) {
    if (slots_[slot] == key) return true;
    slot = (slot + 1) & (kSlots - 1);
  }
  if (Full()) return false;  // not recorded: the owner concludes first
  slots_[slot] = key;
  used_.push_back(static_cast<uint32_t>(slot));
  return false;
}

void NameRepeats::Clear() {
  for (uint32_t slot : used_) slots_[slot] = 0;
  used_.clear();
}

}  // namespace YULOTIFYD
}  // namespace YULO
