// FanotifyTranslator, the checks behind its rescan records: late directory
// names and names touched more than once (see fanotify_translator.h).
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "base/path.h"
#include "notify/fanotify_translator.h"
#include "notify/notify_event.h"
#include "notify/raw_record.h"

namespace YULO {
namespace YULOTIFYD {

bool FanotifyTranslator::NamedEarly(const std::string& path) const {
  if (named_overflow_) return true;
  for (const std::string& dir : named_dirs_) {
    if (PathAtOrBelow(path, dir)) return true;
  }
  return false;
}

void FanotifyTranslator::QueueFoundEmpty() {
  named_dirs_.clear();
  named_overflow_ = false;
  dry_pending_ = false;
}

void FanotifyTranslator::QueueRanDry() {
  dry_pending_ = true;
  dry_mark_ = named_dirs_.size();
  overflow_since_dry_ = false;
}

void FanotifyTranslator::ReadTranslated() {
  if (!dry_pending_) return;
  dry_pending_ = false;
  named_dirs_.erase(named_dirs_.begin(),
                    named_dirs_.begin() + static_cast<std::ptrdiff_t>(
                                              dry_mark_));
  named_overflow_ = overflow_since_dry_;
}

void FanotifyTranslator::NoteTouch(const FidInfo& info, bool exists,
                                   bool is_dir) {
  if (repeats_.Full() || doubts_.size() >= kMaxDoubts) {
    // Too much to keep until the queue is quiet: check now, even if the
    // file system may be ahead of the records (a rescan too many at worst).
    std::vector<const Doubt*> dirs;
    int64_t oldest = 0;
    FindContradictions(0, INT64_MAX, &dirs, &oldest);
    ConcludeRepeats(dirs, true);
  }
  const uint64_t key = NameKey(info.dir.fsid, info.dir.type, info.dir.bytes,
                               info.dir.size, info.name);
  if (!repeats_.Touch(key)) return;  // first touch: nothing to keep
  Doubt& doubt = doubts_[key];
  if (doubt.handle.empty()) {
    doubt.fsid = info.dir.fsid;
    doubt.type = info.dir.type;
    doubt.handle.assign(reinterpret_cast<const char*>(info.dir.bytes),
                        info.dir.size);
    doubt.name.assign(info.name.data(), info.name.size());
  }
  doubt.exists = exists;
  doubt.is_dir = is_dir;
  doubt.contradicted_since_ms = 0;  // a new outcome, not judged yet
}

bool FanotifyTranslator::FindContradictions(int64_t now_ms, int64_t settled_ms,
                                            std::vector<const Doubt*>* dirs,
                                            int64_t* oldest) {
  bool any = false;
  *oldest = 0;
  for (auto& entry : doubts_) {
    Doubt& doubt = entry.second;
    DirHandle dir;
    dir.fsid = doubt.fsid;
    dir.type = doubt.type;
    dir.bytes = reinterpret_cast<const uint8_t*>(doubt.handle.data());
    dir.size = static_cast<uint32_t>(doubt.handle.size());
    struct stat st;
    ++stat_calls_;
    const int err = resolver_->StatName(dir, doubt.name, &st);
    bool wrong;
    if (err == 0) {
      wrong = !doubt.exists || S_ISDIR(st.st_mode) != doubt.is_dir;
    } else if (err == ENOENT) {
      wrong = doubt.exists;
    } else {
      // The directory is gone or out of reach: its own delete or move
      // covers the names in it.
      wrong = false;
    }
    if (!wrong) {
      doubt.contradicted_since_ms = 0;
      continue;
    }
    any = true;
    if (doubt.contradicted_since_ms == 0) doubt.contradicted_since_ms = now_ms;
    if (doubt.contradicted_since_ms > settled_ms) {
      if (*oldest == 0 || doubt.contradicted_since_ms < *oldest) {
        *oldest = doubt.contradicted_since_ms;
      }
      continue;
    }
    bool known = false;
    for (const Doubt* other : *dirs) {
      if (other->fsid == doubt.fsid && other->type == doubt.type &&
          other->handle == doubt.handle) {
        known = true;
        break;
      }
    }
    if (!known) dirs->push_back(&doubt);
  }
  return any;
}

std::string FanotifyTranslator::DoubtDirKey(const Doubt& doubt) {
  std::string key;
  MakeDirKey(doubt.fsid, doubt.type,
             reinterpret_cast<const uint8_t*>(doubt.handle.data()),
             doubt.handle.size(), &key);
  return key;
}

void FanotifyTranslator::ConcludeRepeats(const std::vector<const Doubt*>& dirs,
                                         bool all) {
  std::vector<std::string> done;  // handles of the rescanned directories
  for (const Doubt* doubt : dirs) {
    FidInfo info;
    info.present = true;
    info.dir.fsid = doubt->fsid;
    info.dir.type = doubt->type;
    info.dir.bytes = reinterpret_cast<const uint8_t*>(doubt->handle.data());
    info.dir.size = static_cast<uint32_t>(doubt->handle.size());
    // The directory's path now: the rescan is about what is there now.
    std::string dir_path;
    if (ResolvePath(info, &dir_path)) AddPendingRescan(dir_path);
    if (!all) done.push_back(DoubtDirKey(*doubt));
  }
  if (all) {
    doubts_.clear();
  } else {
    for (auto it = doubts_.begin(); it != doubts_.end();) {
      const std::string key = DoubtDirKey(it->second);
      bool rescanned = false;
      for (const std::string& d : done) rescanned = rescanned || d == key;
      it = rescanned ? doubts_.erase(it) : std::next(it);
    }
  }
  // The table must know every doubt kept, so it is emptied only with them.
  if (doubts_.empty()) {
    repeats_.Clear();
    recheck_at_ms_ = 0;
  }
}

void FanotifyTranslator::CheckRepeats(
    int64_t now_ms, const std::function<bool()>& queue_still_empty,
    bool at_once) {
  if (doubts_.empty()) {
    repeats_.Clear();  // nothing touched twice: nothing to check
    recheck_at_ms_ = 0;
    return;
  }
  std::vector<const Doubt*> dirs;
  int64_t oldest = 0;
  const bool any = FindContradictions(
      now_ms, at_once ? INT64_MAX : now_ms - kSettleMs, &dirs, &oldest);
  // Changes made after the read show in the file system before their
  // events are read; only a queue that is still empty makes the lookups
  // the state the records describe.
  if (!queue_still_empty()) return;
  if (!any) {
    // Records and file system agree: a clean start for the next stretch.
    doubts_.clear();
    repeats_.Clear();
    recheck_at_ms_ = 0;
    return;
  }
  recheck_at_ms_ = oldest != 0 ? oldest + kSettleMs : 0;
  if (!dirs.empty()) ConcludeRepeats(dirs, false);
}

void FanotifyTranslator::AddPendingRescan(const std::string& dir_path) {
  if (pending_begin_ == pending_.size()) {
    pending_.clear();
    pending_begin_ = 0;
  }
  const size_t at = pending_.size();
  pending_.resize(at + RawRecordSize(dir_path));
  WriteRawRecord(pending_.data() + at, pending_.size() - at, kRescanRecordMask,
                 kDerivedRescanCookie, dir_path);
  ++rescan_records_;
}

size_t FanotifyTranslator::TakePending(uint8_t* out, size_t room) {
  size_t written = 0;
  while (pending_begin_ < pending_.size()) {
    RawNotifyRecord header;
    std::memcpy(&header, pending_.data() + pending_begin_, sizeof(header));
    const size_t size = header.size();
    if (size > room - written) break;
    std::memcpy(out + written, pending_.data() + pending_begin_, size);
    written += size;
    pending_begin_ += size;
  }
  if (pending_begin_ == pending_.size()) {
    pending_.clear();
    pending_begin_ = 0;
  }
  return written;
}

}  // namespace YULOTIFYD
}  // namespace YULO
