#include "daemon/config_watch.h"

#include <errno.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/path.h"
#include "base/unique_fd.h"
#include "yulotifyd/log.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Whether an inotify record names a monitor-queue configuration file: a
// file (not a directory) whose name ends in ".json", as LoadAll reads them.
bool IsConfFileRecord(const struct inotify_event& header, const char* name) {
  static constexpr char kSuffix[] = ".json";
  constexpr size_t kSuffixLength = sizeof(kSuffix) - 1;
  if (header.mask & IN_ISDIR) return false;
  const size_t length = strnlen(name, header.len);
  return length >= kSuffixLength &&
         std::memcmp(name + length - kSuffixLength, kSuffix, kSuffixLength) ==
             0;
}

// Calls fn(header, name) for each whole record of an inotify read of `size`
// bytes; an incomplete last record is left out.
template <typename Fn>
void ForEachRecord(const char* data, size_t size, Fn fn) {
  size_t offset = 0;
  while (offset + sizeof(struct inotify_event) <= size) {
    struct inotify_event header;
    std::memcpy(&header, data + offset, sizeof(header));
    const size_t name_at = offset + sizeof(header);
    if (name_at + header.len > size) break;
    fn(header, data + name_at);
    offset = name_at + header.len;
  }
}

}  // namespace

ConfigWatch::ConfigWatch(std::string conf_root)
    : conf_root_(std::move(conf_root)), buffer_(kBufferSize) {}

ConfigWatch::~ConfigWatch() { Close(); }

bool ConfigWatch::Open() {
  fd_.Reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!fd_.Valid()) {
    YULO_LOG_ALWAYS("inotify failed, reason=%m");
    return false;
  }
  // The root first, so that a directory made between the two steps is seen
  // either by its own watch or as an entry made in the root.
  root_wd_ = inotify_add_watch(
      fd_.Get(), conf_root_.c_str(),
      IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR);
  if (root_wd_ < 0) {
    YULO_LOG_INFO("Configuration root not watched, path=%s, reason=%m",
                  conf_root_.c_str());
  }
  for (int type = 0; type < kTypes; ++type) {
    const std::string dir = MonitorQueue::GetConfDir(
        static_cast<_tag_monitor_queue_type_>(MONITOR_QUEUE_TYPE_SYSTEM + type),
        conf_root_);
    const size_t slash = dir.rfind('/');
    dir_name_[type] = slash == std::string::npos ? dir : dir.substr(slash + 1);
    AddDirWatch(type, true);
  }
  // A directory that cannot be watched only loses its live reload.
  return true;
}

size_t ConfigWatch::watch_count() const {
  size_t count = 0;
  for (int wd : dir_wd_) count += wd >= 0 ? 1 : 0;
  return count;
}

void ConfigWatch::AddDirWatch(int type, bool at_start) {
  if (dir_wd_[type] >= 0) return;
  const std::string path = JoinPath(conf_root_, dir_name_[type]);
  // A configuration file written, replaced by rename, renamed away or
  // removed: each changes the configuration. Creating a directory or a
  // link does not (and is not even reported).
  const int wd = inotify_add_watch(
      fd_.Get(), path.c_str(),
      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR);
  if (wd < 0) {
    if (errno == ENOENT && root_wd_ >= 0) {
      // Watched for through the root: it is loaded when it appears.
      if (at_start) {
        YULO_LOG_INFO("Configuration directory not there yet, path=%s",
                      path.c_str());
      }
      return;
    }
    YULO_LOG_ALWAYS("inotify add watch failed, path=%s, reason=%m",
                    path.c_str());
    return;
  }
  if (!at_start) {
    YULO_LOG_INFO("Configuration directory watched, path=%s", path.c_str());
  }
  dir_wd_[type] = wd;
}

void ConfigWatch::Close() {
  if (!fd_.Valid()) return;
  for (int& wd : dir_wd_) {
    if (wd >= 0) inotify_rm_watch(fd_.Get(), wd);
    wd = -1;
  }
  if (root_wd_ >= 0) inotify_rm_watch(fd_.Get(), root_wd_);
  root_wd_ = -1;
  fd_.Reset();
}

int ConfigWatch::TypeOfName(const char* name, size_t length) const {
  for (int type = 0; type < kTypes; ++type) {
    if (dir_name_[type].size() == length &&
        std::memcmp(dir_name_[type].data(), name, length) == 0) {
      return type;
    }
  }
  return -1;
}

bool ConfigWatch::HandleRecords(const char* data, size_t size) {
  bool reload = false;
  ForEachRecord(data, size, [&](const struct inotify_event& header,
                                const char* name) {
    if (header.mask & IN_Q_OVERFLOW) {
      // Nobody knows what changed: look for every directory again.
      for (int type = 0; type < kTypes; ++type) AddDirWatch(type, false);
      reload = true;
      return;
    }
    if (header.wd == root_wd_ && root_wd_ >= 0) {
      const int type = TypeOfName(name, strnlen(name, header.len));
      if (type < 0 || (header.mask & IN_ISDIR) == 0) return;
      if (header.mask & (IN_CREATE | IN_MOVED_TO)) {
        AddDirWatch(type, false);
      } else if ((header.mask & IN_MOVED_FROM) && dir_wd_[type] >= 0) {
        // The watch would follow the directory wherever it went.
        inotify_rm_watch(fd_.Get(), dir_wd_[type]);
        dir_wd_[type] = -1;
      }
      reload = true;
      return;
    }
    if (header.mask & IN_IGNORED) {
      // A watched directory was removed (or its watch taken away).
      for (int& wd : dir_wd_) {
        if (wd == header.wd) {
          wd = -1;
          reload = true;
        }
      }
      return;
    }
    if (IsConfFileRecord(header, name)) reload = true;
  });
  return reload;
}

bool ConfigWatch::ReadChanges() {
  YULO_LOG_DEBUG("HandleInotify");
  bool reload = false;
  // Drained to the end: a writer in a loop leaves many records, and each
  // wake-up of the main loop should cost one pass, not one per buffer.
  for (;;) {
    const ssize_t n = RetryOnEintr(
        [&] { return read(fd_.Get(), buffer_.data(), buffer_.size()); });
    if (n <= 0) break;  // drained (EAGAIN), or nothing to be done about it
    if (HandleRecords(buffer_.data(), static_cast<size_t>(n))) {
      reload = true;
    }
  }
  return reload;
}

void ConfigWatch::Handle(int64_t now_ms) {
  if (ReadChanges()) Note(now_ms);
}

void ConfigWatch::Note(int64_t now_ms) {
  if (wanted_) return;
  wanted_ = true;
  first_ms_ = now_ms;
}

int64_t ConfigWatch::MillisUntilDue(int64_t now_ms) const {
  if (!wanted_) return -1;
  int64_t due = first_ms_ + kGatherMillis;
  if (reloaded_) due = std::max(due, reloaded_ms_ + kReloadIntervalMillis);
  return std::max<int64_t>(0, due - now_ms);
}

bool ConfigWatch::TakeDue(int64_t now_ms) {
  if (MillisUntilDue(now_ms) != 0) return false;
  wanted_ = false;
  return true;
}

void ConfigWatch::Reloaded(int64_t now_ms) {
  reloaded_ = true;
  reloaded_ms_ = now_ms;
}

bool ConfigWatch::RecordsCallForReload(const char* data, size_t size) {
  // How many configuration files changed does not matter: one wake-up is at
  // most one full reload.
  bool reload = false;
  ForEachRecord(data, size, [&](const struct inotify_event& header,
                                const char* name) {
    // After an overflow nobody knows what changed.
    if ((header.mask & IN_Q_OVERFLOW) || IsConfFileRecord(header, name)) {
      reload = true;
    }
  });
  return reload;
}

}  // namespace YULOTIFYD
}  // namespace YULO
