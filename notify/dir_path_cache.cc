#include "notify/dir_path_cache.h"

namespace YULO {
namespace YULOTIFYD {

DirPathCache::DirPathCache(size_t max_entries)
    : max_entries_(max_entries == 0 ? 1 : max_entries) {}

void MakeDirKey(uint64_t fsid, int32_t handle_type, const uint8_t* handle,
                size_t handle_bytes, std::string* key) {
  key->assign(reinterpret_cast<const char*>(&fsid), sizeof(fsid));
  key->append(reinterpret_cast<const char*>(&handle_type), sizeof(handle_type));
  key->append(reinterpret_cast<const char*>(handle), handle_bytes);
}

void DirPathCache::MakeKey(uint64_t fsid, int32_t handle_type,
                           const uint8_t* handle, size_t handle_bytes) {
  MakeDirKey(fsid, handle_type, handle, handle_bytes, &key_);
}

const std::string* DirPathCache::Find(uint64_t fsid, int32_t handle_type,
                                      const uint8_t* handle,
                                      size_t handle_bytes) {
  MakeKey(fsid, handle_type, handle, handle_bytes);
  const auto it = map_.find(key_);
  return it == map_.end() ? nullptr : &it->second;
}

void DirPathCache::Insert(uint64_t fsid, int32_t handle_type,
                          const uint8_t* handle, size_t handle_bytes,
                          const std::string& path) {
  if (map_.size() >= max_entries_) {
    map_.clear();
    ++overflows_;
  }
  MakeKey(fsid, handle_type, handle, handle_bytes);
  map_.insert_or_assign(key_, path);
}

}  // namespace YULOTIFYD
}  // namespace YULO
