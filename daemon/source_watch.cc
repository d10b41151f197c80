#include "daemon/source_watch.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "notify/mount_point.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// A file of the watched name appeared, was rewritten, or went.
constexpr uint32_t kFileEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

// Room for many records of the longest name.
constexpr size_t kReadBufferSize = 16 * (sizeof(struct inotify_event) + NAME_MAX + 1);

}  // namespace

bool SourceWatch::Open(const Paths& paths) {
  if (!paths.mount_table.empty()) {
    mount_table_.Reset(RetryOnEintr([&] {
      return ::open(paths.mount_table.c_str(), O_RDONLY | O_CLOEXEC);
    }));
    if (!mount_table_.Valid()) {
      YULO_LOG_ALWAYS("mount table watch failed, path=%s, reason=%m",
                      paths.mount_table.c_str());
    }
  }
  if (!paths.volume_table.empty() || !paths.share_conf.empty()) {
    inotify_.Reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify_.Valid()) {
      YULO_LOG_ALWAYS("inotify failed, reason=%m");
    } else {
      if (!paths.volume_table.empty()) WatchFile(paths.volume_table, kVolumes);
      if (!paths.share_conf.empty()) WatchFile(paths.share_conf, kShares);
      if (files_.empty()) inotify_.Reset();
    }
  }
  return mount_table_.Valid() || inotify_.Valid();
}

void SourceWatch::Close() {
  mount_table_.Reset();
  inotify_.Reset();
  files_.clear();
  pending_ = 0;
}

void SourceWatch::WatchFile(const std::string& path, unsigned change) {
  const std::string normal = NormalisePath(path);
  const size_t slash = normal.rfind('/');
  const std::string dir =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : normal.substr(0, slash));
  const std::string name =
      slash == std::string::npos ? normal : normal.substr(slash + 1);
  // Two files in one directory share its watch descriptor.
  const int wd = ::inotify_add_watch(inotify_.Get(), dir.c_str(),
                                     kFileEvents | IN_ONLYDIR);
  if (wd < 0) {
    YULO_LOG_ALWAYS("inotify add watch failed, path=%s, reason=%m",
                    dir.c_str());
    return;
  }
  files_.push_back(FileWatch{wd, name, change});
}

void SourceWatch::AddToSets(fd_set* readable, fd_set* exceptional,
                            int* width) const {
  // The mount table is always readable; only its exceptional condition
  // means a change.
  if (mount_table_.Valid()) {
    FD_SET(mount_table_.Get(), exceptional);
    *width = std::max(*width, mount_table_.Get() + 1);
  }
  if (inotify_.Valid()) {
    FD_SET(inotify_.Get(), readable);
    *width = std::max(*width, inotify_.Get() + 1);
  }
}

void SourceWatch::Handle(const fd_set& readable, const fd_set& exceptional,
                         int64_t now_ms) {
  if (mount_table_.Valid() && FD_ISSET(mount_table_.Get(), &exceptional)) {
    YULO_LOG_DEBUG("Mount table changed");
    Note(kVolumes, now_ms);
  }
  if (inotify_.Valid() && FD_ISSET(inotify_.Get(), &readable)) {
    ReadInotify(now_ms);
  }
}

void SourceWatch::ReadInotify(int64_t now_ms) {
  alignas(struct inotify_event) char buffer[kReadBufferSize];
  for (;;) {
    const ssize_t n = RetryOnEintr(
        [&] { return ::read(inotify_.Get(), buffer, sizeof(buffer)); });
    if (n <= 0) return;  // drained (EAGAIN), or nothing to be done about it
    size_t offset = 0;
    while (offset + sizeof(struct inotify_event) <= static_cast<size_t>(n)) {
      struct inotify_event header;
      std::memcpy(&header, buffer + offset, sizeof(header));
      const size_t end = offset + sizeof(header) + header.len;
      if (end > static_cast<size_t>(n)) break;
      const char* name = buffer + offset + sizeof(header);
      const std::string entry(name, strnlen(name, header.len));
      offset = end;
      if (header.mask & IN_Q_OVERFLOW) {
        // Records were lost: anything may have changed.
        Note(kVolumes | kShares, now_ms);
        continue;
      }
      if (header.mask & IN_ISDIR) continue;
      for (const FileWatch& file : files_) {
        if (file.wd == header.wd && file.name == entry) {
          YULO_LOG_DEBUG("%s changed", entry.c_str());
          Note(file.change, now_ms);
        }
      }
    }
  }
}

void SourceWatch::Note(unsigned changes, int64_t now_ms) {
  if (changes == 0) return;
  if (pending_ == 0) first_ms_ = now_ms;
  pending_ |= changes;
  due_ms_ = std::min(now_ms + kSettleMillis, first_ms_ + kLongestSettleMillis);
}

int64_t SourceWatch::MillisUntilDue(int64_t now_ms) const {
  if (pending_ == 0) return -1;
  return std::max<int64_t>(0, due_ms_ - now_ms);
}

unsigned SourceWatch::TakeDue(int64_t now_ms) {
  if (pending_ == 0 || now_ms < due_ms_) return 0;
  const unsigned due = pending_;
  pending_ = 0;
  return due;
}

}  // namespace YULOTIFYD
}  // namespace YULO
