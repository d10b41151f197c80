#include "notify/fanotify_translator.h"

#include <sys/fanotify.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "base/errno_text.h"
#include "notify/notify_event.h"
#include "notify/raw_record.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Bits that fanotify and the appliance define alike: access, modify,
// attrib, close-write, close-nowrite, open, create, delete.
constexpr uint32_t kSharedBits = 0x33f;
constexpr uint32_t kMoveBits = YULO_MOVE_FROM | YULO_MOVE_TO;
// The order in which the bits of a merged event are written out.
constexpr uint32_t kSplitOrder[] = {
    YULO_CREATE, YULO_MOVE_TO,     YULO_OPEN,          YULO_ACCESS,
    YULO_MODIFY, YULO_ATTRIB,      YULO_CLOSE_WRITE,   YULO_CLOSE_NOWRITE,
    YULO_MOVE_FROM, YULO_DELETE};

// A merged event that went away and came back under its name: the going
// changes first, then the coming ones, then what happened to the object
// that is there now.
constexpr uint32_t kBackAgainOrder[] = {
    YULO_MOVE_FROM, YULO_DELETE,      YULO_CREATE,        YULO_MOVE_TO,
    YULO_OPEN,      YULO_ACCESS,      YULO_MODIFY,        YULO_ATTRIB,
    YULO_CLOSE_WRITE, YULO_CLOSE_NOWRITE};
constexpr uint32_t kComingBits = YULO_CREATE | YULO_MOVE_TO;
constexpr uint32_t kGoingBits = YULO_DELETE | YULO_MOVE_FROM;

static_assert(FAN_ACCESS == YULO_ACCESS && FAN_MODIFY == YULO_MODIFY &&
                  FAN_ATTRIB == YULO_ATTRIB &&
                  FAN_CLOSE_WRITE == YULO_CLOSE_WRITE &&
                  FAN_CLOSE_NOWRITE == YULO_CLOSE_NOWRITE &&
                  FAN_OPEN == YULO_OPEN && FAN_CREATE == YULO_CREATE &&
                  FAN_DELETE == YULO_DELETE,
              "shared event bits differ");

// Layout of a fid info record: header (4), fsid (8), then a struct
// file_handle: handle_bytes (4), handle_type (4), the handle, and for the
// *_NAME types a NUL-terminated name.
constexpr size_t kFidFsidOffset = 4;
constexpr size_t kFidHandleOffset = 12;
constexpr size_t kFidHandleBytesOffset = 20;

bool ParseFidInfo(const uint8_t* info, size_t len, bool with_name,
                  DirHandle* dir, std::string_view* name) {
  if (len < kFidHandleBytesOffset) return false;
  int32_t fsid_val[2];
  std::memcpy(fsid_val, info + kFidFsidOffset, sizeof(fsid_val));
  uint32_t handle_bytes;
  int32_t handle_type;
  std::memcpy(&handle_bytes, info + kFidHandleOffset, 4);
  std::memcpy(&handle_type, info + kFidHandleOffset + 4, 4);
  if (handle_bytes > len - kFidHandleBytesOffset) return false;
  dir->fsid = static_cast<uint32_t>(fsid_val[0]) |
              (static_cast<uint64_t>(static_cast<uint32_t>(fsid_val[1])) << 32);
  dir->type = handle_type;
  dir->bytes = info + kFidHandleBytesOffset;
  dir->size = handle_bytes;
  *name = std::string_view();
  if (with_name) {
    const char* start =
        reinterpret_cast<const char*>(dir->bytes) + handle_bytes;
    const size_t room = len - kFidHandleBytesOffset - handle_bytes;
    *name = std::string_view(start, strnlen(start, room));
  }
  return true;
}

}  // namespace

uint64_t FanotifyMarkMask(uint32_t yulo_mask, bool rename_events) {
  uint64_t mask = (yulo_mask & kSharedBits) | FAN_ONDIR;
  mask |= rename_events ? FAN_RENAME : (FAN_MOVED_FROM | FAN_MOVED_TO);
  return mask;
}

FanotifyTranslator::FanotifyTranslator(DirResolver* resolver)
    : resolver_(resolver) {}

uint32_t FanotifyTranslator::NextCookie() {
  // The low 31 bits count; the top bit keeps kernel cookies apart from those
  // of injected renames, which never have it, so that halves of different
  // origins can never pair. Never 0.
  static_assert(kDerivedRescanCookie == kCookieSpaceBit,
                "move cookies have low bits too, so never equal it");
  last_cookie_ = (last_cookie_ + 1) & ~kCookieSpaceBit;
  if (last_cookie_ == 0) last_cookie_ = 1;
  return last_cookie_ | kCookieSpaceBit;
}

bool FanotifyTranslator::ResolvePath(const FidInfo& info, std::string* path,
                                     size_t* dir_len) {
  const std::string* dir =
      cache_.Find(info.dir.fsid, info.dir.type, info.dir.bytes, info.dir.size);
  if (dir != nullptr && dir->empty()) {
    ++dropped_events_;  // known to lie outside what is watched
    return false;
  }
  if (dir == nullptr) {
    ++resolver_calls_;
    const int err = resolver_->ResolveDir(info.dir, &dir_scratch_);
    if (err != 0) {
      // Outside what is watched (the rest of a btrfs file system whose
      // subvolume is watched) stays so until a directory is renamed, which
      // empties the cache: an empty path remembers it, so that the next
      // events there cost no system call.
      if (err == EXDEV) {
        cache_.Insert(info.dir.fsid, info.dir.type, info.dir.bytes,
                      info.dir.size, std::string());
      }
      ++dropped_events_;
      if (LogGateOpen(LogGate::kDebug)) {
        const std::string name(info.name);
        LogWrite(__FILE__, __LINE__,
                 "yulotify(%d): directory of the event cannot be resolved, "
                 "skip event (%s): %s (%d)\n",
                 __LINE__, name.c_str(), ErrnoText(err).c_str(), err);
      }
      return false;
    }
    cache_.Insert(info.dir.fsid, info.dir.type, info.dir.bytes, info.dir.size,
                  dir_scratch_);
    // Only fresh answers can carry a name newer than the event: cached ones
    // were given before the last directory rename that was read.
    if (named_dirs_.size() < kMaxNamedDirs) {
      named_dirs_.push_back(dir_scratch_);
    } else {
      named_overflow_ = true;
      overflow_since_dry_ = true;
    }
    dir = &dir_scratch_;
  }
  path->assign(*dir);
  if (dir_len != nullptr) *dir_len = path->size();
  if (!info.name.empty() && info.name != ".") {
    if (path->empty() || path->back() != '/') path->push_back('/');
    path->append(info.name.data(), info.name.size());
  }
  return true;
}

bool FanotifyTranslator::ArrivedWhole(const DirHandle& dir,
                                      const struct stat& entry) {
  // An empty directory needs nothing; neither does one that filled up
  // within its own file system after its create: those entries have events
  // of their own, queued after this one.
  if (!S_ISDIR(entry.st_mode) || entry.st_size <= 0) return false;
  struct stat parent;
  ++stat_calls_;
  if (resolver_->StatDir(dir, &parent) != 0) return false;
  return parent.st_dev != entry.st_dev;
}

size_t FanotifyTranslator::TranslateOne(const uint8_t* event, uint64_t fan_mask,
                                        uint32_t metadata_len,
                                        uint32_t event_len, uint8_t* out,
                                        size_t room) {
  if (fan_mask & FAN_Q_OVERFLOW) {
    const size_t n = WriteRawRecord(out, room, YULO_Q_OVERFLOW, 0, "");
    if (n == 0) return kNoRoom;
    cache_.Clear();  // renames may have been lost with the other events
    // The rescan of the volume that answers an overflow covers every doubt.
    repeats_.Clear();
    doubts_.clear();
    return n;
  }

  FidInfo plain, from, to;
  for (size_t pos = metadata_len;
       pos + sizeof(fanotify_event_info_header) <= event_len;) {
    fanotify_event_info_header header;
    std::memcpy(&header, event + pos, sizeof(header));
    if (header.len < sizeof(header) || header.len > event_len - pos) break;
    FidInfo* slot = nullptr;
    bool with_name = true;
    switch (header.info_type) {
      case FAN_EVENT_INFO_TYPE_DFID_NAME:
        slot = &plain;
        break;
      case FAN_EVENT_INFO_TYPE_DFID:
        slot = &plain;
        with_name = false;
        break;
      case FAN_EVENT_INFO_TYPE_OLD_DFID_NAME:
        slot = &from;
        break;
      case FAN_EVENT_INFO_TYPE_NEW_DFID_NAME:
        slot = &to;
        break;
      default:
        break;
    }
    if (slot != nullptr && !slot->present) {
      slot->present = ParseFidInfo(event + pos, header.len, with_name,
                                   &slot->dir, &slot->name);
    }
    pos += header.len;
  }

  const bool is_dir = (fan_mask & FAN_ONDIR) != 0;
  const uint32_t dir_flag = is_dir ? static_cast<uint32_t>(YULO_ISDIR) : 0u;
  // A directory that moved takes every cached path below it along.
  const bool dir_moved =
      is_dir && (fan_mask & (FAN_RENAME | FAN_MOVED_FROM | FAN_MOVED_TO));

  size_t size = 0;
  if (fan_mask & FAN_RENAME) {
    const bool want_from = (event_mask_ & YULO_MOVE_FROM) && from.present &&
                           ResolvePath(from, &path_[0]);
    const bool want_to = (event_mask_ & YULO_MOVE_TO) && to.present &&
                         ResolvePath(to, &path_[1]);
    // Changes read before this rename but named after it happened carry
    // the new name already: the consumer is told to look again.
    const bool late = is_dir && want_to && NamedEarly(path_[1]);
    size = (want_from ? RawRecordSize(path_[0]) : 0) +
           (want_to ? RawRecordSize(path_[1]) : 0) +
           (late ? RawRecordSize(path_[1]) : 0);
    if (size > room) return kNoRoom;
    if (want_from || want_to) {
      const uint32_t cookie = NextCookie();
      size_t n = 0;
      if (want_from) {
        n = WriteRawRecord(out, room, YULO_MOVE_FROM | dir_flag, cookie,
                           path_[0]);
      }
      if (want_to) {
        n += WriteRawRecord(out + n, room - n, YULO_MOVE_TO | dir_flag, cookie,
                            path_[1]);
      }
      if (late) {
        WriteRawRecord(out + n, room - n, kRescanRecordMask, kDerivedRescanCookie,
                       path_[1]);
        ++rescan_records_;
      }
      if (want_from) NoteTouch(from, false, is_dir);
      if (want_to) NoteTouch(to, true, is_dir);
    }
  } else {
    uint32_t bits = static_cast<uint32_t>(fan_mask) & kSharedBits;
    if (fan_mask & FAN_MOVED_FROM) bits |= YULO_MOVE_FROM;
    if (fan_mask & FAN_MOVED_TO) bits |= YULO_MOVE_TO;
    bits &= event_mask_;
    size_t dir_len = 0;
    if (bits != 0 && plain.present && ResolvePath(plain, &path_[0], &dir_len)) {
      // fanotify merges events on one name that are still unread into a
      // single event. The appliance facility reports each change on its own,
      // so a merged event becomes one record per type bit, in the order the
      // changes happen to a file's life: appear, open, use, close, vanish.
      const uint32_t* order = kSplitOrder;
      bool exists = (bits & kComingBits) != 0;
      bool rescan = false;
      const bool named = !plain.name.empty() && plain.name != ".";
      struct stat st;
      int stat_err = -1;  // not looked up
      if ((bits & kComingBits) && (bits & kGoingBits) && named) {
        // Gone and come, or come and gone: the name says which was last.
        ++stat_calls_;
        stat_err = resolver_->StatName(plain.dir, plain.name, &st);
        if (stat_err == 0 && S_ISDIR(st.st_mode) == is_dir) {
          order = kBackAgainOrder;
        } else {
          exists = false;
          rescan = stat_err != ENOENT;  // another kind of object, no answer
        }
      }
      bool whole = false;
      if (is_dir && (bits & YULO_CREATE) && exists && named) {
        if (stat_err < 0) {
          ++stat_calls_;
          stat_err = resolver_->StatName(plain.dir, plain.name, &st);
        }
        whole = stat_err == 0 && ArrivedWhole(plain.dir, st);
      }
      // The directory's own rescan: it arrived whole, or earlier records
      // were named by its new name too early (once for both).
      const bool self_rescan =
          whole || (is_dir && (bits & YULO_MOVE_TO) && NamedEarly(path_[0]));
      size_t count = 0;
      for (uint32_t bit : kSplitOrder) count += (bits & bit) ? 1 : 0;
      size = count * RawRecordSize(path_[0]) +
             (rescan ? RawRecordSize(std::string_view(path_[0]).substr(
                                     0, dir_len))
                     : 0) +
             (self_rescan ? RawRecordSize(path_[0]) : 0);
      if (size > room) return kNoRoom;
      size_t n = 0;
      for (size_t i = 0; i < std::size(kSplitOrder); ++i) {
        const uint32_t bit = order[i];
        if ((bits & bit) == 0) continue;
        const uint32_t cookie = (bit & kMoveBits) ? NextCookie() : 0;
        n += WriteRawRecord(out + n, room - n, bit | dir_flag, cookie,
                            path_[0]);
      }
      if (rescan) {
        n += WriteRawRecord(out + n, room - n, kRescanRecordMask, kDerivedRescanCookie,
                            std::string_view(path_[0]).substr(0, dir_len));
        ++rescan_records_;
      }
      if (self_rescan) {
        WriteRawRecord(out + n, room - n, kRescanRecordMask, kDerivedRescanCookie,
                       path_[0]);
        ++rescan_records_;
        if (whole) ++arrivals_;
      }
      if ((bits & (kComingBits | kGoingBits)) && named) {
        NoteTouch(plain, exists, is_dir);
      }
    }
  }
  if (dir_moved) cache_.Clear();
  return size;
}

size_t FanotifyTranslator::Translate(const uint8_t* events, size_t length,
                                     uint8_t* out, size_t room,
                                     size_t* written) {
  size_t used = 0;
  size_t produced = 0;
  while (length - used >= FAN_EVENT_METADATA_LEN) {
    fanotify_event_metadata meta;
    std::memcpy(&meta, events + used, sizeof(meta));
    if (meta.vers != FANOTIFY_METADATA_VERSION ||
        meta.event_len < FAN_EVENT_METADATA_LEN ||
        meta.event_len > length - used ||
        meta.metadata_len < FAN_EVENT_METADATA_LEN ||
        meta.metadata_len > meta.event_len) {
      used = length;  // cannot find the next event: give the batch up
      break;
    }
    const size_t n =
        TranslateOne(events + used, meta.mask, meta.metadata_len,
                     meta.event_len, out + produced, room - produced);
    if (n == kNoRoom) break;
    produced += n;
    used += meta.event_len;
  }
  if (length - used < FAN_EVENT_METADATA_LEN) {
    used = length;  // a trailing fragment cannot be an event
  }
  *written = produced;
  return used;
}

}  // namespace YULOTIFYD
}  // namespace YULO
