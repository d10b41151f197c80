#include "daemon/daemon.h"

#include <errno.h>
#include <grp.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "base/errno_text.h"
#include "daemon/queue_union.h"
#include "volume/volume_manager.h"
#include "yulotifyd/log.h"
#include "yulotifyd/thread.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Set once by KillHandler, read by MainLoop. A lock-free one-byte atomic is
// async-signal-safe.
std::atomic<bool> g_stop_flag{false};
static_assert(sizeof(g_stop_flag) == 1, "the stop flag is one byte");

// Set by HangupHandler, taken by Step: reload the monitor queues.
std::atomic<bool> g_reload_flag{false};

// The signal KillHandler took and has not been reported yet; 0 when none.
std::atomic<int> g_kill_signal{0};
static_assert(std::atomic<int>::is_always_lock_free,
              "the handler may only touch lock-free atomics");

// Writes the kill handler's line on the main thread. syslog and malloc are
// not async-signal-safe, so the handler only records the signal; since the
// termination signals are delivered only inside MainLoop's pselect, the line
// is written as soon as that returns.
void ReportKillSignal() {
  const int signo = g_kill_signal.exchange(0);
  if (signo != 0) YULO_LOG_ALWAYS("In kill handler(%d)", signo);
}

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

Daemon::Daemon(DaemonOptions options)
    : options_(std::move(options)),
      platform_(options_.platform != nullptr ? options_.platform
                                             : &SystemPlatform()),
      clock_(options_.clock != nullptr ? options_.clock : &SystemClock()),
      control_(options_.socket_path, options_.socket_group, this),
      config_(options_.conf_root),
      run_status_file_(options_.run_status_path, platform_),
      reload_sem(nullptr),
      reload_mutex_(PTHREAD_MUTEX_INITIALIZER),
      monitor_queue_lock(),
      monitor_queue_lock_ready_(false),
      shown_(0, 0, 0),
      volumes_(platform_,
               options_.volume_factory ? options_.volume_factory
                                       : VolumeFactory(&MakeVolumeMgr),
               this) {}

// Cleanup deletes the volume managers. Any still registered (a Daemon that
// was never cleaned up) are stopped before the mutex they post under goes.
Daemon::~Daemon() {
  volumes_.StopAll();
  pthread_mutex_destroy(&reload_mutex_);
}

void Daemon::KillHandler(int signo) {
  g_kill_signal.store(signo);
  g_stop_flag.store(true);
}

void Daemon::HangupHandler(int /*signo*/) { g_reload_flag.store(true); }

int Daemon::Run() {
  umask(0);
  // Queue files of subscriptions not owned by root are written with their
  // owners' file-system ids, and supplementary groups would count in those
  // permission checks too: the daemon keeps none.
  if (setgroups(0, nullptr) != 0) {
    YULO_LOG_ALWAYS("setgroups failed, reason=%m");
  }
  // The queue-file writer's lock back-off draws from rand().
  std::srand(static_cast<unsigned>(std::time(nullptr)));

  struct sigaction action = {};
  action.sa_handler = &Daemon::KillHandler;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: the handler must interrupt the main loop's wait.
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  // SIGHUP, the usual "read your configuration again", reloads the
  // monitor queues; it must never end the daemon without its teardown.
  struct sigaction hangup = {};
  hangup.sa_handler = &Daemon::HangupHandler;
  sigemptyset(&hangup.sa_mask);
  sigaction(SIGHUP, &hangup, nullptr);
  signal(SIGPIPE, SIG_IGN);
  // Keep these signals blocked outside the main loop's wait. Worker
  // threads, created later, inherit the blocked mask, so the handlers only
  // ever run inside pselect and a request is never lost between the flag
  // test and the wait.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigaddset(&term, SIGINT);
  sigaddset(&term, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  YULO_LOG_INFO("Signal handler set ...");

  if (Start()) {
    sd_notifyf(0, "READY=1");
    NotifyWatching();
    MainLoop();
    NotifyState("stopping: writing what was read");
  }
  Cleanup();
  return refused_ ? 1 : 0;
}

bool Daemon::TakeInstanceLock() {
  if (options_.lock_path.empty()) return true;
  pid_t holder = 0;
  switch (instance_lock_.Take(options_.lock_path, &holder)) {
    case InstanceLock::Result::kTaken:
      return true;
    case InstanceLock::Result::kHeld:
      YULO_LOG_ALWAYS("Another yulotifyd is running (pid %ld, lock %s), "
                      "not starting",
                      static_cast<long>(holder), options_.lock_path.c_str());
      std::fprintf(stderr,
                   "yulotifyd: another yulotifyd is running (pid %ld, lock "
                   "%s); not starting\n",
                   static_cast<long>(holder), options_.lock_path.c_str());
      break;
    case InstanceLock::Result::kFailed: {
      const std::string reason = ErrnoText(errno);
      YULO_LOG_ALWAYS("Cannot take the instance lock %s, not starting: %s",
                      options_.lock_path.c_str(), reason.c_str());
      std::fprintf(stderr,
                   "yulotifyd: cannot take the instance lock %s (%s); not "
                   "starting\n",
                   options_.lock_path.c_str(), reason.c_str());
      break;
    }
  }
  NotifyState("another yulotifyd is running");
  return false;
}

bool Daemon::Start() {
  // Before anything else: a second daemon must not touch the socket, the
  // run-status file or any queue file of the one that runs.
  if (!TakeInstanceLock()) {
    refused_ = true;
    return false;
  }
  started_ = clock_->Now();
  if (pthread_rwlock_init(&monitor_queue_lock, nullptr) != 0) {
    YULO_LOG_ALWAYS("Init RWLock for MonitorQueue failed");
    return false;
  }
  monitor_queue_lock_ready_ = true;
  if (!Thread::InitThreadLock()) {
    YULO_LOG_ALWAYS("Init Thread Lock failed");
    return false;
  }
  LoadMonitorQueue();
  YULO_LOG_INFO("LoadMonitorQueue done ...");
  LoadDaemonRunStatus();
  YULO_LOG_INFO("LoadDaemonRunStatus done ...");
  if (GetRunStatus() == RUN_STATUS_UNSET || monitor_queues.empty()) {
    YULO_LOG_INFO("no run status or no monitor config(%zd), stop",
                  static_cast<ssize_t>(monitor_queues.size()));
    // Said where "systemctl status" and the default journal show it, not
    // only at info level.
    if (monitor_queues.empty()) {
      YULO_LOG_NOTICE("Stopping: no monitor queue configured");
      NotifyState("no monitor queue configured");
    }
    return false;
  }
  if (!SetupDomainSocket()) {
    YULO_LOG_ALWAYS("SetupDomainSocket failed");
    return false;
  }
  YULO_LOG_INFO("Domain socket setup done ...");
  if (!SetupInotify()) {
    YULO_LOG_ALWAYS("SetupInotify failed");
    return false;
  }
  YULO_LOG_INFO("inotify setup done ...");
  SetupFollow();
  if (!SetupVolumeMgr()) {
    YULO_LOG_ALWAYS("SetupVolumeMgr failed");
    NotifyState("no volume mounted");
    return false;
  }
  YULO_LOG_INFO("Volume manager setup done ...");
  // From here on, any end but a complete clean stop leaves "running"
  // behind, which the next start reads as an unclean stop and answers
  // with a rescan of every volume.
  run_status_file_.MarkRunning();
  shown_ = CurrentWatching();
  return true;
}

void Daemon::MainLoop() {
  while (Step(std::chrono::seconds(kSelectTimeoutSeconds))) {
  }
}

bool Daemon::Step(std::chrono::milliseconds max_wait) {
  if (g_stop_flag.load()) return false;
  YULO_LOG_DEBUG("Daemon alive ...");
  // The mask in force while waiting: the blocked set minus the termination
  // signals, so they are delivered exactly there.
  sigset_t wait_mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &wait_mask);
  sigdelset(&wait_mask, SIGTERM);
  sigdelset(&wait_mask, SIGINT);
  sigdelset(&wait_mask, SIGHUP);
  fd_set readable, writable, exceptional;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  FD_ZERO(&exceptional);
  FD_SET(config_.fd(), &readable);
  int width = config_.fd() + 1;
  control_.AddToSets(&readable, &writable, &width);
  sources_.AddToSets(&readable, &exceptional, &width);
  struct timespec timeout = FollowTimeout(max_wait);
  // Time-outs, interruptions and errors alike just end the round.
  const int ready =
      pselect(width, &readable, &writable, &exceptional, &timeout, &wait_mask);
  ReportKillSignal();
  if (g_stop_flag.load()) return false;
  if (g_reload_flag.exchange(false)) {
    YULO_LOG_NOTICE("SIGHUP: reloading monitor queues");
    ReloadMonitorQueues();
  }
  if (ready > 0) {
    // A configuration change only notes a reload; it runs once the changes
    // were gathered and the previous reload is far enough back.
    if (FD_ISSET(config_.fd(), &readable)) HandleInotify();
    HandleDomainSocket(readable, writable);
    sources_.Handle(readable, exceptional, clock_->NowMillis());
  }
  // Control clients that ran out of time, ready or not.
  control_.ExpireClients();
  FollowSources();
  if (config_.TakeDue(clock_->NowMillis())) ReloadMonitorQueues();
  // What the service manager shows follows what is watched.
  const Watching watching = CurrentWatching();
  if (watching != shown_) {
    NotifyWatching();
    shown_ = watching;
  }
  return true;
}

void Daemon::Cleanup() {
  // Refused: nothing of this process was set up, and what is there belongs
  // to the daemon that runs.
  if (refused_) return;
  YULO_LOG_DEBUG("Cleaning resource");
  control_.Close();
  config_.Close();
  StopVolumeMgrs();
  SaveDaemonRunStatus();
  signal(SIGTERM, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
  // The termination signals stay blocked: one that arrives from here on is
  // left pending instead of killing the process halfway through its exit.
  Thread::DestroyThreadLock();
  if (monitor_queue_lock_ready_) {
    pthread_rwlock_destroy(&monitor_queue_lock);
    monitor_queue_lock_ready_ = false;
  }
  control_.RemoveSocketFile();
}

// Run status and monitor queues.

void Daemon::LoadMonitorQueue() {
  RwLockGuard guard(&monitor_queue_lock, /*write=*/true);
  MonitorQueue::LoadAll(
      monitor_queues, options_.conf_root,
      [this](const std::string& share_name, std::string* path) {
        return platform_->ResolveSharePath(share_name, path);
      });
}

std::vector<MonitorQueue> Daemon::GetMonitorQueues() {
  RwLockGuard guard(&monitor_queue_lock, /*write=*/false);
  return in_transition_ ? transition_queues_ : monitor_queues;
}

void Daemon::LoadDaemonRunStatus() { run_status_file_.Load(); }

void Daemon::SaveDaemonRunStatus() {
  run_status_file_.SaveStop(volumes_.all_drained());
}

bool Daemon::SetupInotify() { return config_.Open(); }

void Daemon::HandleInotify() { config_.Handle(clock_->NowMillis()); }

void Daemon::ReloadMonitorQueues() {
  NotifyState("reloading");
  // Every receiver queues what the kernel holds: changes read so far, which
  // may have happened under either configuration.
  CreateReloadSemaphore();
  for (auto& entry : volumes_.volumes()) entry.second->DrainKernel();
  AwaitReloadAcks(volumes_.size());
  DestroyReloadSemaphore();
  const std::vector<MonitorQueue> before = GetMonitorQueues();
  LoadMonitorQueue();
  // Every processor writes them to each queue that wants them under the old
  // or the new configuration: a reload that stops wanting an event type
  // never drops one the old configuration still owed to a queue, and a
  // subscription gets what happened right after it was written.
  {
    RwLockGuard guard(&monitor_queue_lock, /*write=*/true);
    transition_queues_ = UniteQueueLists(before, monitor_queues);
    in_transition_ = true;
  }
  for (auto& entry : volumes_.volumes()) entry.second->ProcessQueued();
  {
    RwLockGuard guard(&monitor_queue_lock, /*write=*/true);
    in_transition_ = false;
    transition_queues_.clear();
  }
  UpdateWatches();
  NotifyWatching();
  // Whatever asked for it, the next reload for a configuration change
  // keeps its distance from this one.
  config_.Reloaded(clock_->NowMillis());
}

void Daemon::UpdateWatches() {
  // The receivers change their kernel watches in place: new event bits and
  // shares first, what is no longer wanted last. Waited for, so that once
  // this returns every volume reports what the queues want, and no
  // acknowledgement is left over for the next barrier.
  CreateReloadSemaphore();
  for (auto& entry : volumes_.volumes()) entry.second->ReloadWatches();
  AwaitReloadAcks(volumes_.size());
  DestroyReloadSemaphore();
}

void Daemon::AwaitReloadAcks(size_t count) {
  for (size_t i = 0; i < count; ++i) {
    while (sem_wait(reload_sem) != 0 && errno == EINTR) {
    }
  }
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

// Control socket and its commands.

bool Daemon::SetupDomainSocket() { return control_.Open(); }

void Daemon::HandleDomainSocket(const fd_set& readable,
                                const fd_set& writable) {
  control_.Handle(readable, writable);
}

int32_t Daemon::HandleConnection(int conn) {
  return control_.ServeConnection(conn);
}

Json::Value Daemon::DescribeStatus() { return BuildStatus(); }

void Daemon::InjectEvent(uint32_t event, const std::string& path,
                         const std::string& path_old) {
  for (auto& entry : volumes_.volumes()) {
    entry.second->PushEvent(event, path, path_old);
  }
}

bool Daemon::SwitchShare(const std::string& share_name, bool mounted) {
  ManagedVolume* mgr = GetVolumeMgrByShare(share_name);
  if (mgr == nullptr) return false;
  if (mounted) {
    mgr->MountShare(share_name);
  } else {
    mgr->UmountShare(share_name);
  }
  return true;
}

void Daemon::ReportVolumeMounted(const std::string& mount_point) {
  // For a volume watched already the report is a cue to try the watches
  // the kernel refused again.
  ManagedVolume* known = volumes_.FindByMountPoint(mount_point);
  if (known != nullptr) {
    if (known->WatchFailed()) RetryRefusedWatches({known});
    return;
  }
  MountVolume(mount_point);
}

void Daemon::ReportVolumeUnmounted(const std::string& mount_point) {
  // The daemon follows the mount table too: without the hold, the next
  // change of it would watch a volume reported unmounted but still mounted
  // again.
  HoldVolume(mount_point);
  UmountVolume(mount_point);
}

// Volume manager registry.

bool Daemon::SetupVolumeMgr() { return volumes_.CreateAll(); }

ManagedVolume* Daemon::GetVolumeMgrByShare(const std::string& share_name) {
  return volumes_.FindByShare(share_name);
}

void Daemon::MountVolume(const std::string& mount_point) {
  volumes_.Mount(mount_point);
}

void Daemon::UmountVolume(const std::string& mount_point) {
  volumes_.Unmount(mount_point);
}

void Daemon::StopVolumeMgrs() { volumes_.StopAll(); }

}  // namespace YULOTIFYD
}  // namespace YULO
