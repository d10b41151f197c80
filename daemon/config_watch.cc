#include "daemon/config_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

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
  for (int type = MONITOR_QUEUE_TYPE_SYSTEM; type <= MONITOR_QUEUE_TYPE_USER;
       ++type) {
    AddWatch(MonitorQueue::GetConfDir(
        static_cast<_tag_monitor_queue_type_>(type), conf_root_));
  }
  // A directory that cannot be watched only loses its live reload.
  return true;
}

void ConfigWatch::AddWatch(const std::string& path) {
  // A configuration file written, replaced by rename, renamed away or
  // removed: each changes the configuration. Creating a directory or a
  // link does not (and is not even reported).
  const int wd = inotify_add_watch(
      fd_.Get(), path.c_str(),
      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE);
  if (wd < 0) {
    YULO_LOG_ALWAYS("inotify add watch failed, path=%s, reason=%m",
                    path.c_str());
    return;
  }
  watch_descriptors_.push_back(wd);
}

void ConfigWatch::Close() {
  if (!fd_.Valid()) return;
  for (int wd : watch_descriptors_) inotify_rm_watch(fd_.Get(), wd);
  watch_descriptors_.clear();
  fd_.Reset();
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
    if (RecordsCallForReload(buffer_.data(), static_cast<size_t>(n))) {
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
  size_t offset = 0;
  while (offset + sizeof(struct inotify_event) <= size) {
    struct inotify_event header;
    std::memcpy(&header, data + offset, sizeof(header));
    const size_t name_at = offset + sizeof(header);
    if (name_at + header.len > size) break;
    // After an overflow nobody knows what changed.
    if ((header.mask & IN_Q_OVERFLOW) ||
        IsConfFileRecord(header, data + name_at)) {
      reload = true;
    }
    offset = name_at + header.len;
  }
  return reload;
}

}  // namespace YULOTIFYD
}  // namespace YULO
