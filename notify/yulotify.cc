#include "notify/yulotify.h"

#include <errno.h>

#include <cstring>
#include <utility>

#include "base/errno_text.h"
#include "notify/yulotify_log.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

void LogKernelCallError(int line, const char* call, int err) {
  LogWrite(kYulotifyLogSource, line, "yulotify(%d): %s: %s (%d)", line, call,
           ErrnoText(err).c_str(), err);
}

namespace {

// Drops the trailing slashes of a record's name. The name is kept whole
// when it is empty, made only of slashes, or when its last character other
// than "/" is its first one (a one-character relative name keeps them;
// kernel names begin with "/", so no real event is affected).
std::string_view StripTrailingSlashes(std::string_view name) {
  const size_t last = name.find_last_not_of('/');
  if (last == std::string_view::npos || last == 0) return name;
  return name.substr(0, last + 1);
}

}  // namespace

YULotify::YULotify(uint32_t mask) : mount_env_(&SystemMountEnv()) {
  fd_ = OpenKernelBackend(&backend_);
  const int err = errno;
  Init();
  if (fd_ < 0) {
    LogKernelCallError(kLineNotifyInit, "yulo_notify_init", err);
    return;
  }
  mask_ = mask;
  if (LogGateOpen(LogGate::kDebug)) {
    LogWrite(__FILE__, __LINE__, "yulotify(%d): notification backend %s",
             __LINE__, backend_->Name());
  }
}

YULotify::YULotify(uint32_t mask, std::unique_ptr<NotifyBackend> backend,
                   const MountEnv* mount_env)
    : backend_(std::move(backend)),
      mount_env_(mount_env != nullptr ? mount_env : &SystemMountEnv()) {
  if (backend_) {
    fd_ = backend_->Init();
  } else {
    fd_ = -1;
    errno = ENOSYS;
  }
  const int err = errno;
  Init();
  if (fd_ < 0) {
    LogKernelCallError(kLineNotifyInit, "yulo_notify_init", err);
    return;
  }
  mask_ = mask;
}

// Sets up what only a working instance needs; leaves an inert object (no
// buffer, zero mask, counter and timeout) when the init call failed.
void YULotify::Init() {
  if (fd_ < 0) {
    fd_ = -1;
    return;
  }
  next_id_ = 0;
  read_timeout_.tv_sec = 1;
  read_timeout_.tv_usec = 0;
  buffer_capacity_ = kReadBufferSize;
  buffer_.reset(new uint8_t[kReadBufferSize]);
}

YULotify::~YULotify() {
  backend_.reset();  // closes the descriptor
  fd_ = -1;
}

int YULotify::AddKernelWatch(int fd, const std::string& mount_point,
                             uint32_t mask) {
  if (!backend_ || backend_->AddWatch(fd, mount_point, mask) != 0) {
    const int err = backend_ ? errno : EBADF;
    LogKernelCallError(kLineAddWatchFailed, "yulo_notify_add_watch", err);
    return -1;
  }
  if (LogGateOpen(LogGate::kDebug)) {
    LogWrite(kYulotifyLogSource, kLineWatchAdded,
             "yulotify(%d): add mount point %s to watch\n", kLineWatchAdded,
             mount_point.c_str());
  }
  return 0;
}

int YULotify::RemoveKernelWatch(int fd, const std::string& mount_point,
                                uint32_t mask) {
  if (!backend_ || backend_->RemoveWatch(fd, mount_point, mask) != 0) {
    return -1;  // ignored by every caller
  }
  if (LogGateOpen(LogGate::kDebug)) {
    LogWrite(kYulotifyLogSource, kLineWatchRemoved,
             "yulotify(%d): remove mount point %s from watch\n",
             kLineWatchRemoved, mount_point.c_str());
  }
  return 0;
}

int YULotify::AddWatch(const std::string& path) {
  const auto known = watched_paths_.find(path);
  if (known != watched_paths_.end()) return known->second;

  const std::string mount = GetMountPoint(path);
  if (LogGateOpen(LogGate::kDebug)) {
    LogWrite(kYulotifyLogSource, kLineFindMountPoint,
             "find mount point, path=%s, mount_point=%s", path.c_str(),
             mount.c_str());
  }
  const auto counted = mount_points_.find(mount);
  if (counted != mount_points_.end()) {
    ++counted->second;
  } else {
    if (AddKernelWatch(fd_, mount, mask_) != 0) return -1;
    mount_points_.emplace(mount, 1);
  }
  const int32_t id = next_id_++;
  watched_paths_.emplace(path, id);
  return id;
}

void YULotify::RemoveWatch(int id) {
  auto entry = watched_paths_.begin();
  while (entry != watched_paths_.end() && entry->second != id) ++entry;
  if (entry == watched_paths_.end()) return;

  const std::string mount = GetMountPoint(entry->first);
  const auto counted = mount_points_.find(mount);
  if (counted != mount_points_.end()) {
    if (counted->second < 2) {
      RemoveKernelWatch(fd_, mount, mask_);
      mount_points_.erase(counted);
    } else {
      --counted->second;
    }
  }
  watched_paths_.erase(entry);
}

void YULotify::RemoveAllWatches() {
  for (const auto& mount : mount_points_) {
    RemoveKernelWatch(fd_, mount.first, mask_);
  }
  mount_points_.clear();
  watched_paths_.clear();
  buffer_offset_ = 0;
  buffer_pending_ = 0;
}

bool YULotify::SetEventMask(uint32_t mask) {
  if (fd_ < 0 || !backend_ || mask == mask_) return true;
  bool ok = true;
  for (const auto& mount : mount_points_) {
    if (backend_->ChangeWatchMask(fd_, mount.first, mask_, mask) != 0) {
      LogKernelCallError(kLineChangeMaskFailed, "yulo_notify_change_mask",
                         errno);
      ok = false;
      continue;
    }
    if (LogGateOpen(LogGate::kDebug)) {
      LogWrite(kYulotifyLogSource, kLineMaskChanged,
               "yulotify(%d): event mask of mount point %s changed from "
               "0x%x to 0x%x\n",
               kLineMaskChanged, mount.first.c_str(),
               static_cast<unsigned>(mask_), static_cast<unsigned>(mask));
    }
  }
  // A watch whose change failed may still carry the old bits; later adds
  // ask for both, so that no wanted bit is ever missing.
  mask_ = ok ? mask : (mask_ | mask);
  return ok;
}

int YULotify::LookupWatch(std::string_view name, std::string& watch,
                          std::string& relative, int& id) const {
  if (watched_paths_.empty()) return -1;
  const std::string_view stripped = StripTrailingSlashes(name);
  // A watched path K covers the name when the name begins with K and goes
  // on with "/" or ends there. The covering paths are prefixes of the name
  // ending at such a boundary, and a shorter one sorts before a longer one,
  // so trying the boundaries from the left finds the first match of the
  // byte-wise key order (the outer of nested watches) in a few lookups.
  for (size_t end = 0; end <= stripped.size(); ++end) {
    if (end < stripped.size() && stripped[end] != '/') continue;
    const auto it = watched_paths_.find(stripped.substr(0, end));
    if (it == watched_paths_.end()) continue;
    watch = it->first;
    if (end < stripped.size()) {
      relative.assign(stripped.data() + end, stripped.size() - end);
    } else {
      relative.assign("/");
    }
    id = it->second;
    return 0;
  }
  return -1;
}

int YULotify::DecodeEvent(const RawNotifyRecord& raw, NotifyEvent& out) const {
  if (raw.mask & YULO_Q_OVERFLOW) {
    out.mask = raw.mask;
    out.cookie = raw.cookie;
    out.root = -1;
    out.watch.clear();
    out.path.clear();
    return 0;
  }
  const std::string_view name(raw.name(), strnlen(raw.name(), raw.len));
  int id = 0;
  // LookupWatch leaves `out` as it was when nothing covers the name.
  if (LookupWatch(name, out.watch, out.path, id) != 0) {
    if (LogGateOpen(LogGate::kDebug)) {
      const std::string text(name);
      LogWrite(kYulotifyLogSource, kLineWatchGone,
               "yulotify(%d): watch is removed, skip event (%s)\n",
               kLineWatchGone, text.c_str());
    }
    return -1;
  }
  out.mask = raw.mask;
  out.cookie = raw.cookie;
  out.root = id;
  return 0;
}

ssize_t YULotify::ReadWithTimeout(int fd, const struct timeval& timeout,
                                  void* buffer, size_t capacity) {
  const struct timeval wait = timeout;  // the stored timeout stays as it is
  bool readable = false;
  const int r = backend_ ? backend_->WaitReadable(fd, wait, &readable)
                         : (errno = EBADF, -1);
  if (r < 0) {
    LogKernelCallError(kLineSelect, "select", errno);
    return -1;
  }
  if (r == 0) return 0;
  if (!readable) {
    LogKernelCallError(kLineFdIsSet, "FD_ISSET", errno);
    return -1;
  }
  const ssize_t n = backend_->Read(fd, buffer, capacity);
  if (n < 0) {
    LogKernelCallError(kLineRead, "read", errno);
    return -1;
  }
  return n;
}

bool YULotify::FinishPending() {
  return fd_ >= 0 && backend_->FinishPending();
}

bool YULotify::HasEvent() {
  if (fd_ < 0) return false;
  if (buffer_pending_ != 0) return true;
  const struct timeval zero = {0, 0};
  bool readable = false;
  if (backend_->WaitReadable(fd_, zero, &readable) < 1) return false;
  return readable;
}

int YULotify::FillBuffer() {
  if (buffer_pending_ != 0) return 0;
  const ssize_t n =
      ReadWithTimeout(fd_, read_timeout_, buffer_.get(), buffer_capacity_);
  if (n < 0) return -1;
  buffer_pending_ = static_cast<uint64_t>(n);
  buffer_offset_ = 0;
  return 0;
}

bool YULotify::ReadEvent(NotifyEvent& out) {
  if (buffer_pending_ == 0) {
    const ssize_t n =
        ReadWithTimeout(fd_, read_timeout_, buffer_.get(), buffer_capacity_);
    if (n < 0) return false;
    buffer_offset_ = 0;
    buffer_pending_ = static_cast<uint64_t>(n);
    if (n == 0) return false;
  }
  // Records from the kernel are whole. One that claims more bytes than are
  // left can only come from a broken source: drop the rest of the buffer
  // rather than read past it.
  if (buffer_pending_ < kRawRecordHeaderSize) {
    buffer_offset_ += buffer_pending_;
    buffer_pending_ = 0;
    return false;
  }
  const RawNotifyRecord& raw =
      *reinterpret_cast<const RawNotifyRecord*>(buffer_.get() + buffer_offset_);
  const uint64_t size = raw.size();
  if (size > buffer_pending_) {
    buffer_offset_ += buffer_pending_;
    buffer_pending_ = 0;
    return false;
  }
  buffer_offset_ += size;
  buffer_pending_ -= size;
  return DecodeEvent(raw, out) == 0;
}

std::string YULotify::GetMountPoint(const std::string& path) const {
  return ::YULO::YULOTIFYD::GetMountPoint(path, *mount_env_);
}

std::string YULotify::ParentDir(const std::string& path) {
  return ::YULO::YULOTIFYD::ParentDir(path);
}

void YULotify::SetReadTimeout(long seconds, long microseconds) {
  read_timeout_.tv_sec = seconds;
  read_timeout_.tv_usec = microseconds;
}

}  // namespace YULOTIFYD
}  // namespace YULO
