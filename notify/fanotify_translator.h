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
//  - fanotify merges unread events on one name into one event with
//    several type bits; the appliance reports each change on its own, so
//    such an event becomes one record per type bit, in the order create,
//    move-to, open, access, modify, attrib, close-write, close-nowrite,
//    move-from, delete, all with the same path. When the event holds both
//    a coming (create, move-to) and a going (delete, move-from) change, that
//    order may be the wrong one, so the name is looked up in its directory
//    (DirResolver::StatName): it exists (as the kind the event names), so
//    it went first and came back: move-from and delete first, then create,
//    move-to and the rest; it does not: the fixed order. When the lookup
//    cannot tell (another kind of object there, an error) the fixed order is
//    written and then a rescan record (YULO_RESCAN | YULO_ISDIR, cookie
//    kDerivedRescanCookie) for the directory;
//  - bits the caller did not ask for (SetEventMask) produce no record.
//
// A directory that arrives whole. A directory normally fills up through
// changes of its own, each with its event after the directory's create. A
// btrfs snapshot (or a subvolume rolled back or restored from a send
// stream) holds its entries before its create event is even written, and
// they never get events. So the created directory of a create record is
// looked up (StatName): a directory that is the root of a file system of
// its own (st_dev unlike its parent's, StatDir) and is not empty (st_size
// above 0: btrfs counts its entries' names there) gets a rescan record
// (YULO_RESCAN | YULO_ISDIR, cookie kDerivedRescanCookie) for its own path
// after its create record, as a directory moved in from outside a queue's
// view gets from the processor: list it to learn what it holds.
//
// Two more rescan records correct what merging and late naming can hide:
//
//  - Late names. A directory is named when its event is read, not when the
//    change happened, so changes made in a directory before it was renamed
//    can come out under its new name. The paths the resolver gave since the
//    kernel queue was last found empty are kept (a read that ran the queue
//    dry forgets those given before it only once its own events, which
//    may hold the renames behind them, are translated: QueueRanDry), at most
//    kMaxNamedDirs of them; when a directory rename is read and one of them
//    lies at or below its new path (or more were given than are kept), a
//    rescan record for the new path follows the move records.
//  - Repeats. Names touched by two or more create, delete or move records
//    since the last check (NameRepeats) are checked against the file system
//    by CheckRepeats, which the reader calls when the kernel queue was found
//    empty. A name the records leave absent that exists, or present that
//    does not (or as another kind), contradicts them. The file system may
//    be ahead of the records, though: a change made after the read shows
//    at once, its event comes later (a program that writes a temporary
//    file and renames it over its target is seen between the two). So a
//    contradiction is acted on only when the queue is still empty after
//    the lookups and it has stood for kSettleMs with no record touching
//    the name again (RecheckAtMs tells the reader when to look again);
//    then its directory gets a rescan record. When more than
//    NameRepeats::kMaxNames names or kMaxDoubts repeated names pile up
//    first, the check runs at once and acts on every contradiction. Names
//    touched once cost a hash and a table probe, no system call.
//  Rescan records made outside Translate wait in a queue of their own
//  (TakePending).
//
// Directory handles become paths through a DirResolver, and the answers are
// kept in a DirPathCache. The cache is emptied whenever a directory is
// renamed or moved and whenever events were lost (overflow), so that no
// record carries a path that was already stale when its event happened. A
// deleted directory needs nothing: its handle can never come back. An event
// whose directory cannot be resolved (deleted meanwhile, unwatched file
// system) is dropped with a level-7 log line; never given a wrong path. A
// directory outside every watched mount point (EXDEV) is remembered as such
// in the cache, so that its further events are dropped without a call.
//
// Ownership: does not own the resolver, which must outlive it.
// Thread-safety: none.
#ifndef YULOTIFYD_NOTIFY_FANOTIFY_TRANSLATOR_H_
#define YULOTIFYD_NOTIFY_FANOTIFY_TRANSLATOR_H_

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "notify/dir_path_cache.h"
#include "notify/name_repeats.h"
#include "notify/notify_event.h"

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
  // its file system. Returns 0, or an errno value when it cannot be done:
  // EXDEV when the directory lies outside every watched mount point (it is
  // then taken to stay outside until a directory is renamed).
  virtual int ResolveDir(const DirHandle& dir, std::string* path) = 0;
  // Looks `name` (one path component) up in the directory, never following
  // a symbolic link: 0 with *st filled when an entry of that name exists,
  // ENOENT when none does, another errno value when it cannot be told (the
  // directory itself is gone or unreachable: never ENOENT for that).
  virtual int StatName(const DirHandle& dir, std::string_view name,
                       struct stat* st) = 0;
  // stat of the directory itself: 0, or an errno value (never ENOENT).
  virtual int StatDir(const DirHandle& dir, struct stat* st) = 0;
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

  // The reader found the kernel queue empty: every directory path given
  // before now was given before any rename still to be read happened.
  // REQUIRES: every event read before is translated.
  void QueueFoundEmpty();

  // The reader's last read ran the kernel queue dry, but its events are
  // not translated yet. A path given before that read may carry the new
  // name of a directory renamed before it, and that rename's event is in
  // the read: such paths are kept until the read is translated
  // (ReadTranslated), then forgotten. Paths given while it is translated
  // are kept on.
  void QueueRanDry();
  // Every event of the read that ran the queue dry is translated. No-op
  // when no such read is waiting.
  void ReadTranslated();

  // Checks the names touched more than once against the file system (see
  // the top of this file) at monotonic time `now_ms`. `queue_still_empty`
  // is asked once, after the lookups, when there is something to look up;
  // false keeps everything for the next check. Rescan records go to the
  // pending queue. With `at_once`, contradictions count as settled however
  // new (for a reader about to stop).
  void CheckRepeats(int64_t now_ms,
                    const std::function<bool()>& queue_still_empty,
                    bool at_once = false);
  // When a contradiction found by CheckRepeats will have stood long enough
  // to be acted on: the reader should check again then, events or not.
  // 0 when none is waiting.
  int64_t RecheckAtMs() const { return recheck_at_ms_; }

  // Moves the pending rescan records that fit, whole and in order, to
  // `out`; returns the bytes written.
  size_t TakePending(uint8_t* out, size_t room);
  bool HasPending() const { return pending_begin_ < pending_.size(); }

  const DirPathCache& cache() const { return cache_; }
  uint64_t resolver_calls() const { return resolver_calls_; }
  uint64_t dropped_events() const { return dropped_events_; }
  uint64_t stat_calls() const { return stat_calls_; }
  uint64_t rescan_records() const { return rescan_records_; }
  // Directories found to have arrived whole (see the top of this file).
  uint64_t arrivals() const { return arrivals_; }
  // Repeated names waiting for a check.
  size_t doubts() const { return doubts_.size(); }

  // Directory paths kept for the late-name rule.
  static constexpr size_t kMaxNamedDirs = 1024;
  // Repeated names kept before a check is forced.
  static constexpr size_t kMaxDoubts = 1024;
  // How long a contradiction must stand before its rescan is written.
  static constexpr int64_t kSettleMs = 300;

 private:
  struct FidInfo {
    bool present = false;
    DirHandle dir;
    std::string_view name;  // "" or "." for the directory itself
  };

  // A name touched more than once since the last check, and what the
  // records written so far leave there.
  struct Doubt {
    uint64_t fsid = 0;
    int32_t type = 0;
    std::string handle;  // the directory's handle bytes
    std::string name;
    bool exists = false;
    bool is_dir = false;
    // When a check first found the file system contradicting `exists`
    // (0: it did not, or the name was touched since).
    int64_t contradicted_since_ms = 0;
  };

  static constexpr size_t kNoRoom = static_cast<size_t>(-1);
  // The mask of every rescan record this translator makes.
  static constexpr uint32_t kRescanRecordMask = YULO_RESCAN | YULO_ISDIR;

  // Records of one event at `out`; bytes written (0 if none), or kNoRoom.
  size_t TranslateOne(const uint8_t* event, uint64_t fan_mask,
                      uint32_t metadata_len, uint32_t event_len, uint8_t* out,
                      size_t room);
  // Full path of the object `info` names into *path; false (after the
  // level-7 line) when its directory cannot be resolved. *dir_len, when
  // given, gets the length of the directory's part of it.
  bool ResolvePath(const FidInfo& info, std::string* path,
                   size_t* dir_len = nullptr);
  uint32_t NextCookie();
  // Whether a directory path given since the queue was last found empty
  // lies at or below `path`.
  bool NamedEarly(const std::string& path) const;
  // Records that the records just written leave `info`'s name existing or
  // not; runs a check at once when the bounds are reached.
  void NoteTouch(const FidInfo& info, bool exists, bool is_dir);
  // Looks every doubt up at `now_ms`; the directories of the names whose
  // contradiction has stood since `settled_ms` or longer go to *dirs (once
  // each, as handles in Doubt form). Returns whether any name contradicts
  // the records at all; *oldest gets the earliest start of those that are
  // not settled yet (0 when none).
  bool FindContradictions(int64_t now_ms, int64_t settled_ms,
                          std::vector<const Doubt*>* dirs, int64_t* oldest);
  // Rescan records for the directories of `dirs` into the pending queue,
  // then forgets the touched names: all of them when `all`, else those in
  // these directories.
  void ConcludeRepeats(const std::vector<const Doubt*>& dirs, bool all);
  // The key (MakeDirKey) of the directory of `doubt`.
  static std::string DoubtDirKey(const Doubt& doubt);
  void AddPendingRescan(const std::string& dir_path);
  // Whether the directory `name` of `dir`, created and still there as
  // `entry` says, arrived with its content (see the top of this file).
  bool ArrivedWhole(const DirHandle& dir, const struct stat& entry);

  DirResolver* resolver_;
  uint32_t event_mask_ = 0;
  uint32_t last_cookie_ = 0;
  uint64_t resolver_calls_ = 0;
  uint64_t dropped_events_ = 0;
  uint64_t stat_calls_ = 0;
  uint64_t rescan_records_ = 0;
  uint64_t arrivals_ = 0;
  DirPathCache cache_;
  std::string dir_scratch_;  // reused for resolver answers
  std::string path_[2];      // reused for the paths of one event
  // Directory paths the resolver gave since the queue was last found empty.
  std::vector<std::string> named_dirs_;
  bool named_overflow_ = false;  // more were given than named_dirs_ keeps
  // QueueRanDry's mark: how many of named_dirs_ came before the read, and
  // whether more than named_dirs_ keeps were given since.
  bool dry_pending_ = false;
  size_t dry_mark_ = 0;
  bool overflow_since_dry_ = false;
  NameRepeats repeats_;
  std::unordered_map<uint64_t, Doubt> doubts_;
  int64_t recheck_at_ms_ = 0;
  // Rescan records waiting for TakePending, from pending_begin_ on.
  std::vector<uint8_t> pending_;
  size_t pending_begin_ = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_FANOTIFY_TRANSLATOR_H_
