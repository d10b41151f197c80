// FanotifyTranslator: fanotify events in, appliance records out.
//
// The fanotify backend reads events of a group made with
// FAN_REPORT_DFID_NAME: each names the changed object by its directory's
// file handle plus a name. This class turns a buffer of such events into
// packed RawNotifyRecords (raw_record.h) carrying full paths, exactly as the
// appliance kernel writes them:
//
//  - bits 0x1..0x20, 0x100 and 0x200 keep their values (fanotify and the
//    appliance share them); FAN_ONDIR becomes YULO_ISDIR;
//  - FAN_Q_OVERFLOW becomes one YULO_Q_OVERFLOW record with an empty name;
//  - a FAN_RENAME event becomes two records sharing one cookie with the top
//    bit set (kCookieSpaceBit; cookies of injected renames never have it):
//    YULO_MOVE_FROM with the old full path, then YULO_MOVE_TO with the new
//    one; FAN_MOVED_FROM / FAN_MOVED_TO (kernels before 5.17) become
//    single halves, each with a cookie of its own, since fanotify gives
//    nothing to pair them by;
//  - fanotify merges unread events on one object into one event with
//    several type bits; the appliance reports each change on its own, so
//    such an event becomes one record per type bit, in the order create,
//    move-to, open, access, modify, attrib, close-write, close-nowrite,
//    move-from, delete, all with the same path;
//  - bits the caller did not ask for (SetEventMask) produce no record.
//
// Directory handles become paths through a DirResolver, and the answers are
// kept in a DirPathCache. The cache is emptied whenever a directory is
// renamed or moved and whenever events were lost (overflow), so that no
// record carries a path that was already stale when its event happened. A
// deleted directory needs nothing: its handle can never come back. An event
// whose directory cannot be resolved (deleted meanwhile, unwatched file
// system) is dropped with a level-7 log line; never given a wrong path.
//
// Ownership: does not own the resolver, which must outlive it.
// Thread-safety: none.
#ifndef YULOTIFYD_NOTIFY_FANOTIFY_TRANSLATOR_H_
#define YULOTIFYD_NOTIFY_FANOTIFY_TRANSLATOR_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "notify/dir_path_cache.h"

namespace YULO {
namespace YULOTIFYD {

// A directory as fanotify identifies it. `bytes` points into the event.
struct DirHandle {
  uint64_t fsid = 0;
  int32_t type = 0;
  const uint8_t* bytes = nullptr;
  uint32_t size = 0;
};

class DirResolver {
 public:
  virtual ~DirResolver() = default;
  // Sets *path to the directory's full path under the watched mount point of
  // its file system. Returns 0, or an errno value when it cannot be done.
  virtual int ResolveDir(const DirHandle& dir, std::string* path) = 0;
};

// The fanotify mask bits a caller's appliance mask needs from the kernel.
// Always includes FAN_ONDIR and the move events (FAN_RENAME when
// `rename_events`, else FAN_MOVED_FROM | FAN_MOVED_TO): the path cache must
// learn of directory renames even when no move record is wanted.
uint64_t FanotifyMarkMask(uint32_t yulo_mask, bool rename_events);

class FanotifyTranslator {
 public:
  // Set in every cookie this translator makes.
  static constexpr uint32_t kCookieSpaceBit = 0x80000000u;

  explicit FanotifyTranslator(DirResolver* resolver);

  FanotifyTranslator(const FanotifyTranslator&) = delete;
  FanotifyTranslator& operator=(const FanotifyTranslator&) = delete;

  // The appliance event bits that records are written for (default none).
  void SetEventMask(uint32_t yulo_mask) { event_mask_ = yulo_mask; }
  uint32_t event_mask() const { return event_mask_; }

  // Translates the whole events at the start of `events` into records at
  // `out`, stopping before the first event whose records do not fit in
  // `room`. Returns the event bytes consumed; *written gets the record
  // bytes. A malformed event ends the batch and is consumed with the rest.
  size_t Translate(const uint8_t* events, size_t length, uint8_t* out,
                   size_t room, size_t* written);

  // Forgets every cached directory path (the watched set changed).
  void ForgetPaths() { cache_.Clear(); }

  const DirPathCache& cache() const { return cache_; }
  uint64_t resolver_calls() const { return resolver_calls_; }
  uint64_t dropped_events() const { return dropped_events_; }

 private:
  struct FidInfo {
    bool present = false;
    DirHandle dir;
    std::string_view name;  // "" or "." for the directory itself
  };

  static constexpr size_t kNoRoom = static_cast<size_t>(-1);

  // Records of one event at `out`; bytes written (0 if none), or kNoRoom.
  size_t TranslateOne(const uint8_t* event, uint64_t fan_mask,
                      uint32_t metadata_len, uint32_t event_len, uint8_t* out,
                      size_t room);
  // Full path of the object `info` names into *path; false (after the
  // level-7 line) when its directory cannot be resolved.
  bool ResolvePath(const FidInfo& info, std::string* path);
  uint32_t NextCookie();

  DirResolver* resolver_;
  uint32_t event_mask_ = 0;
  uint32_t last_cookie_ = 0;
  uint64_t resolver_calls_ = 0;
  uint64_t dropped_events_ = 0;
  DirPathCache cache_;
  std::string dir_scratch_;  // reused for resolver answers
  std::string path_[2];      // reused for the paths of one event
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_FANOTIFY_TRANSLATOR_H_
