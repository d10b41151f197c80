// Monitor-queue loading, the configuration-directory watch and the reload
// barrier.
#include <errno.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "daemon/daemon.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Holds one side of a reader-writer lock for a scope.
class RwLockGuard {
 public:
  RwLockGuard(pthread_rwlock_t* lock, bool write) : lock_(lock) {
    if (write) {
      pthread_rwlock_wrlock(lock_);
    } else {
      pthread_rwlock_rdlock(lock_);
    }
  }
  ~RwLockGuard() { pthread_rwlock_unlock(lock_); }
  RwLockGuard(const RwLockGuard&) = delete;
  RwLockGuard& operator=(const RwLockGuard&) = delete;

 private:
  pthread_rwlock_t* lock_;
};

}  // namespace

void Daemon::LoadMonitorQueue() {
  RwLockGuard guard(&monitor_queue_lock, /*write=*/true);
  MonitorQueue::LoadAll(monitor_queues, options_.conf_root,
                        &MonitorQueue::ResolveSharePath);
}

std::vector<MonitorQueue> Daemon::GetMonitorQueues() {
  RwLockGuard guard(&monitor_queue_lock, /*write=*/false);
  return monitor_queues;
}

bool Daemon::SetupInotify() {
  inotify_fd = inotify_init1(IN_CLOEXEC);
  if (inotify_fd < 0) {
    YULO_LOG_ALWAYS("inotify failed, reason=%m");
    return false;
  }
  for (int type = MONITOR_QUEUE_TYPE_SYSTEM; type <= MONITOR_QUEUE_TYPE_USER;
       ++type) {
    AddInotifyWatch(MonitorQueue::GetConfDir(
        static_cast<_tag_monitor_queue_type_>(type), options_.conf_root));
  }
  // A directory that cannot be watched only loses its live reload.
  return true;
}

void Daemon::AddInotifyWatch(const std::string& path) {
  // A configuration file written, replaced by rename, renamed away or
  // removed: each changes the configuration. Creating a directory or a
  // link does not (and is not even reported).
  const int wd = inotify_add_watch(
      inotify_fd, path.c_str(),
      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE);
  if (wd < 0) {
    YULO_LOG_ALWAYS("inotify add watch failed, path=%s, reason=%m",
                    path.c_str());
    return;
  }
  watch_descriptors.push_back(wd);
}

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

void Daemon::HandleInotify() {
  std::fill(inotify_buffer.begin(), inotify_buffer.end(), 0);
  YULO_LOG_DEBUG("HandleInotify");
  const ssize_t n = read(inotify_fd, inotify_buffer.data(),
                         inotify_buffer.size());
  if (n <= 0) return;
  // How many configuration files changed does not matter: one wake-up is at
  // most one full reload.
  bool reload = false;
  size_t offset = 0;
  while (offset + sizeof(struct inotify_event) <= static_cast<size_t>(n)) {
    struct inotify_event header;
    std::memcpy(&header, inotify_buffer.data() + offset, sizeof(header));
    const size_t name_at = offset + sizeof(header);
    if (name_at + header.len > static_cast<size_t>(n)) break;
    // After an overflow nobody knows what changed.
    if ((header.mask & IN_Q_OVERFLOW) ||
        IsConfFileRecord(header, inotify_buffer.data() + name_at)) {
      reload = true;
    }
    offset = name_at + header.len;
  }
  if (reload) ReloadMonitorQueues();
}

void Daemon::ReloadMonitorQueues() {
  NotifyState("reloading");
  // Events queued under the old configuration are taken by the processors
  // before the new one is loaded.
  for (auto& entry : volume_mgrs) entry.second->NotifyProcessor();
  LoadMonitorQueue();
  CreateReloadSemaphore();
  for (auto& entry : volume_mgrs) entry.second->ReloadWatches();
  // One acknowledgement per manager, whatever their number.
  for (size_t i = 0; i < volume_mgrs.size(); ++i) {
    while (sem_wait(reload_sem) != 0 && errno == EINTR) {
    }
  }
  DestroyReloadSemaphore();
  NotifyWatching();
}

void Daemon::CreateReloadSemaphore() {
  pthread_mutex_lock(&reload_mutex_);
  if (reload_sem != nullptr) {
    pthread_mutex_unlock(&reload_mutex_);
    throw -1;  // reloads never nest
  }
  reload_sem = new sem_t;
  sem_init(reload_sem, 0, 0);
  pthread_mutex_unlock(&reload_mutex_);
}

void Daemon::DestroyReloadSemaphore() {
  pthread_mutex_lock(&reload_mutex_);
  if (reload_sem == nullptr) {
    pthread_mutex_unlock(&reload_mutex_);
    throw -1;
  }
  sem_destroy(reload_sem);
  delete reload_sem;
  reload_sem = nullptr;
  pthread_mutex_unlock(&reload_mutex_);
}

void Daemon::PostReloadSemaphore() {
  pthread_mutex_lock(&reload_mutex_);
  if (reload_sem != nullptr) sem_post(reload_sem);
  pthread_mutex_unlock(&reload_mutex_);
}

}  // namespace YULOTIFYD
}  // namespace YULO
