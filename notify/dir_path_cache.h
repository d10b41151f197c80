// DirPathCache: directory file handle -> the directory's full path.
//
// The fanotify backend learns of a change as (directory handle, name). It
// turns the handle into a path once and keeps the answer here, so that a
// burst of events in one directory costs no system call per event. Keys are
// the file system id, the handle type and the handle bytes. Lookups reuse
// one scratch key, so a hit allocates nothing.
//
// Keeping the answers right is the owner's job (FanotifyTranslator clears
// the cache whenever a directory is renamed or events were lost). The cache
// bounds itself: reaching `max_entries` empties it.
//
// Ownership: owns its entries. Pointers returned by Find stay valid until
// the next Insert or Clear.
// Thread-safety: none.
#ifndef YULOTIFYD_NOTIFY_DIR_PATH_CACHE_H_
#define YULOTIFYD_NOTIFY_DIR_PATH_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace YULO {
namespace YULOTIFYD {

// The bytes that identify a directory handle (file system id, handle type,
// handle bytes) into *key, replacing what it held: one key, equal for equal
// handles, for every map or comparison of directories by handle.
void MakeDirKey(uint64_t fsid, int32_t handle_type, const uint8_t* handle,
                size_t handle_bytes, std::string* key);

class DirPathCache {
 public:
  static constexpr size_t kDefaultMaxEntries = 1 << 16;

  explicit DirPathCache(size_t max_entries = kDefaultMaxEntries);

  // The cached path of the handle, or null.
  const std::string* Find(uint64_t fsid, int32_t handle_type,
                          const uint8_t* handle, size_t handle_bytes);

  void Insert(uint64_t fsid, int32_t handle_type, const uint8_t* handle,
              size_t handle_bytes, const std::string& path);

  void Clear() { map_.clear(); }
  size_t size() const { return map_.size(); }
  // How many times the cache emptied itself on reaching its bound.
  uint64_t overflows() const { return overflows_; }

 private:
  void MakeKey(uint64_t fsid, int32_t handle_type, const uint8_t* handle,
               size_t handle_bytes);

  size_t max_entries_;
  uint64_t overflows_ = 0;
  std::string key_;  // scratch, reused by every call
  std::unordered_map<std::string, std::string> map_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_DIR_PATH_CACHE_H_
