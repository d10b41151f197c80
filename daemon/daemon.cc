#include "daemon/daemon.h"

#include <grp.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>

#include "base/clock.h"
#include "base/errno_text.h"
#include "yulotifyd/log.h"
#include "yulotifyd/thread.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// Set once by KillHandler, read by MainLoop. A lock-free one-byte atomic is
// async-signal-safe.
std::atomic<bool> g_stop_flag{false};
static_assert(sizeof(g_stop_flag) == 1, "the stop flag is one byte");

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

}  // namespace

Daemon::Daemon(DaemonOptions options)
    : options_(std::move(options)),
      sock_fd(-1),
      socket_group_found_(false),
      socket_gid_(0),
      inotify_fd(-1),
      run_status(RUN_STATUS_UNSET),
      marked_running_(false),
      all_drained_(true),
      inotify_buffer(kInotifyBufferSize),
      reload_sem(nullptr),
      reload_mutex_(PTHREAD_MUTEX_INITIALIZER),
      monitor_queue_lock(),
      monitor_queue_lock_ready_(false) {}

// Volume managers are deleted by Cleanup, never here.
Daemon::~Daemon() { pthread_mutex_destroy(&reload_mutex_); }

void Daemon::KillHandler(int signo) {
  g_kill_signal.store(signo);
  g_stop_flag.store(true);
}

void Daemon::Run() {
  started_ = std::chrono::steady_clock::now();
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
  signal(SIGPIPE, SIG_IGN);
  // Keep the termination signals blocked outside the main loop's wait. Worker
  // threads, created later, inherit the blocked mask, so the handler only
  // ever runs inside pselect and a stop request is never lost between the
  // flag test and the wait.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigaddset(&term, SIGINT);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  YULO_LOG_INFO("Signal handler set ...");

  bool ready = false;
  do {
    if (pthread_rwlock_init(&monitor_queue_lock, nullptr) != 0) {
      YULO_LOG_ALWAYS("Init RWLock for MonitorQueue failed");
      break;
    }
    monitor_queue_lock_ready_ = true;
    if (!Thread::InitThreadLock()) {
      YULO_LOG_ALWAYS("Init Thread Lock failed");
      break;
    }
    LoadMonitorQueue();
    YULO_LOG_INFO("LoadMonitorQueue done ...");
    LoadDaemonRunStatus();
    YULO_LOG_INFO("LoadDaemonRunStatus done ...");
    if (run_status == RUN_STATUS_UNSET || monitor_queues.empty()) {
      YULO_LOG_INFO("no run status or no monitor config(%zd), stop",
                    static_cast<ssize_t>(monitor_queues.size()));
      // Said where "systemctl status" shows it, not only at info level.
      if (monitor_queues.empty()) NotifyState("no monitor queue configured");
      break;
    }
    if (!SetupDomainSocket()) {
      YULO_LOG_ALWAYS("SetupDomainSocket failed");
      break;
    }
    YULO_LOG_INFO("Domain socket setup done ...");
    if (!SetupInotify()) {
      YULO_LOG_ALWAYS("SetupInotify failed");
      break;
    }
    YULO_LOG_INFO("inotify setup done ...");
    SetupFollow();
    if (!SetupVolumeMgr()) {
      YULO_LOG_ALWAYS("SetupVolumeMgr failed");
      NotifyState("no volume mounted");
      break;
    }
    YULO_LOG_INFO("Volume manager setup done ...");
    // From here on, any end but a complete clean stop leaves "running"
    // behind, which the next start reads as an unclean stop and answers
    // with a rescan of every volume.
    marked_running_ = WriteDaemonRunStatus("running");
    ready = true;
  } while (false);

  if (ready) {
    sd_notifyf(0, "READY=1");
    NotifyWatching();
    MainLoop();
    NotifyState("stopping: writing what was read");
  }
  Cleanup();
}

void Daemon::MainLoop() {
  const int width = std::max(sock_fd, inotify_fd) + 1;
  // The mask in force while waiting: the blocked set minus the termination
  // signals, so they are delivered exactly there.
  sigset_t wait_mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &wait_mask);
  sigdelset(&wait_mask, SIGTERM);
  sigdelset(&wait_mask, SIGINT);
  // Volumes and monitor queues as last told to the service manager.
  std::pair<size_t, size_t> shown(volume_mgrs.size(), monitor_queues.size());
  for (;;) {
    if (g_stop_flag.load()) return;
    YULO_LOG_DEBUG("Daemon alive ...");
    fd_set readable, exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&exceptional);
    FD_SET(inotify_fd, &readable);
    FD_SET(sock_fd, &readable);
    int turn_width = width;
    sources_.AddToSets(&readable, &exceptional, &turn_width);
    struct timespec timeout = FollowTimeout();
    // Time-outs, interruptions and errors alike just start another turn.
    const int ready = pselect(turn_width, &readable, nullptr, &exceptional,
                              &timeout, &wait_mask);
    ReportKillSignal();
    if (g_stop_flag.load()) return;
    if (ready > 0) {
      // The configuration watch goes first, so a command that arrives
      // together with a configuration change already sees the new
      // configuration.
      if (FD_ISSET(inotify_fd, &readable)) HandleInotify();
      if (FD_ISSET(sock_fd, &readable)) HandleDomainSocket();
      sources_.Handle(readable, exceptional, MonotonicMillis());
    }
    FollowSources();
    // What the service manager shows follows what is watched.
    const auto watching = std::make_pair(volume_mgrs.size(), monitor_queues.size());
    if (watching != shown) {
      NotifyWatching();
      shown = watching;
    }
  }
}

void Daemon::Cleanup() {
  YULO_LOG_DEBUG("Cleaning resource");
  if (sock_fd >= 0) {
    close(sock_fd);
    sock_fd = -1;
  }
  if (inotify_fd >= 0) {
    for (int wd : watch_descriptors) inotify_rm_watch(inotify_fd, wd);
    watch_descriptors.clear();
    close(inotify_fd);
    inotify_fd = -1;
  }
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
  unlink(options_.socket_path.c_str());
}

}  // namespace YULOTIFYD
}  // namespace YULO
