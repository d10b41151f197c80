// Daemon: the yulotifyd process object.
//
// Run() takes the instance lock (one daemon at a time), performs the
// start-up sequence, reports readiness to the service manager, serves the
// configuration watch and the control socket on the main thread until
// SIGTERM or SIGINT (SIGHUP reloads the monitor queues), and tears
// everything down in a fixed order.
// The main loop also follows the mount table, the volume table and the share
// configuration (SourceWatch): volumes get and lose their managers, and the
// monitor queues are reloaded when shares change, with no command needed.
//
// The Daemon owns and wires together its parts, each in its own file: the
// control socket (ControlServer, whose commands the Daemon carries out as
// its ControlHandler), the configuration watch (ConfigWatch), the registry
// of volume managers (VolumeRegistry) and the run-status file
// (RunStatusFile). It keeps the monitor queues and the reload barrier
// itself. The platform library, the clock and the making of volume managers
// come in through DaemonOptions, so that tests can start a Daemon without
// root (Start), drive its main loop one round at a time (Step) and stop it
// (Cleanup), with a made-up appliance and time they step themselves.
//
// The main thread alone touches the control socket, the configuration watch
// and the registry; volume managers reach back through the VolumeContext
// interface (monitor-queue copies, run status, reload acknowledgement).
//
// Thread-safety: everything runs on the main thread except the VolumeContext
// operations, which worker threads call.
#ifndef YULOTIFYD_DAEMON_DAEMON_H_
#define YULOTIFYD_DAEMON_DAEMON_H_

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <sys/select.h>
#include <time.h>

#include <json/json.h>

#include <chrono>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "daemon/clock.h"
#include "daemon/config_watch.h"
#include "daemon/control_server.h"
#include "daemon/instance_lock.h"
#include "daemon/platform_api.h"
#include "daemon/run_status_file.h"
#include "daemon/source_watch.h"
#include "daemon/volume_plan.h"
#include "daemon/volume_registry.h"
#include "volume/managed_volume.h"
#include "volume/volume_context.h"
#include "yulo_build_config.h"
#include "yulo_platform.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

// Where the daemon keeps its files, and what it runs on. The shipped binary
// always uses the defaults; tests may point a Daemon elsewhere.
struct DaemonOptions {
  std::string socket_path = YULOTIFYD_SOCKET_PATH;
  // Besides root, members of this group may use the control socket; empty or
  // unknown: nobody but root.
  std::string socket_group = YULOTIFYD_SOCKET_GROUP;
  std::string run_status_path = YULOTIFYD_RUN_STATUS_PATH;
  // Locked while the daemon runs, so that a second one refuses to start;
  // "" takes no lock (tests that run several daemons side by side).
  std::string lock_path = YULOTIFYD_LOCK_PATH;
  std::string conf_root = YULOTIFYD_CONF_DIR;
  // What the main loop follows (the platform library reads the compiled-in
  // paths whatever these say); "" leaves a source out.
  std::string mount_table_path = "/proc/self/mountinfo";
  std::string volume_table_path = YULO_VOLUME_TABLE_PATH;
  std::string smb_conf_path = YULO_SMB_CONF_PATH;
  // The platform library and the clock; null: SystemPlatform() and
  // SystemClock(). Not owned; they must outlive the Daemon.
  PlatformApi* platform = nullptr;
  const MonotonicClock* clock = nullptr;
  // How volume managers are made; empty: MakeVolumeMgr.
  VolumeFactory volume_factory;
};

class Daemon : public VolumeContext, private ControlHandler {
 public:
  static constexpr int kSelectTimeoutSeconds = 30;

  explicit Daemon(DaemonOptions options = DaemonOptions());
  ~Daemon() override;

  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Start-up, main loop and teardown, with the process-wide settings the
  // daemon needs (umask, groups, random seed, signal handling). Returns the
  // process's exit status: 0, or 1 when another daemon is running.
  int Run();

  // The start-up sequence without the process-wide settings: the instance
  // lock, locks, monitor queues, run status, control socket, configuration
  // watch, following, volume managers, "running". True when the daemon is
  // ready to serve; either way Cleanup must follow. When another daemon
  // holds the instance lock, Start touches nothing and refused() is true.
  // REQUIRES: called once.
  bool Start();
  // Start found another daemon running; Cleanup then leaves everything be.
  bool refused() const { return refused_; }
  // One round of the main loop: waits at most `max_wait` (less when
  // followed changes or a reload fall due earlier) for the configuration
  // watch, the control socket or a followed source, serves what is ready,
  // then carries out the followed changes and the reload that are due. Returns false, having served
  // nothing, once a stop was requested. REQUIRES: Start returned true.
  bool Step(std::chrono::milliseconds max_wait);
  // The teardown: closes the socket and the watches, stops every volume,
  // writes the run status, removes the socket file. Called exactly once,
  // after Start.
  void Cleanup();

  // VolumeContext.
  std::vector<MonitorQueue> GetMonitorQueues() override;
  int32_t GetRunStatus() const override { return run_status_file_.status(); }
  void PostReloadSemaphore() override;

  // The handler installed for SIGTERM and SIGINT.
  static void KillHandler(int signo);
  // The handler installed for SIGHUP: the main loop reloads the monitor
  // queues.
  static void HangupHandler(int signo);

  // Serves one accepted control connection `conn`: reads one request,
  // carries it out, sends the reply and closes `conn`. Returns the reply (0
  // or -1). The main loop calls it for every connection it accepts; it is
  // public so that a client can be served over any connected stream socket
  // (a socketpair in tests and the fuzzer) without a listening socket.
  int32_t HandleConnection(int conn);

 private:
  void MainLoop();
  // Takes the instance lock; false (logged, and said on stderr) when
  // another daemon holds it or it cannot be taken.
  bool TakeInstanceLock();

  // Run status and monitor queues.
  void LoadMonitorQueue();
  void LoadDaemonRunStatus();
  void SaveDaemonRunStatus();
  // Drains and deletes every volume manager, side by side.
  void StopVolumeMgrs();
  bool SetupInotify();
  void HandleInotify();
  // Has every volume write what happened before under the old monitor
  // queues, reloads them, and waits until every receiver has brought its
  // watches in line with them. Configuration changes lead here through
  // ConfigWatch's pacing (at most about one a second); share changes
  // through SourceWatch's settling.
  void ReloadMonitorQueues();
  void CreateReloadSemaphore();
  // Waits for `count` posts of the reload semaphore: one per volume
  // manager asked.
  void AwaitReloadAcks(size_t count);
  // Has every receiver bring its watches in line with the monitor queues
  // and the volumes, and waits until all have.
  void UpdateWatches();
  void DestroyReloadSemaphore();

  // Control socket.
  bool SetupDomainSocket();
  // Serves the control clients that select found ready.
  void HandleDomainSocket(const fd_set& readable, const fd_set& writable);

  // ControlHandler: the commands.
  Json::Value DescribeStatus() override;
  void InjectEvent(uint32_t event, const std::string& path,
                   const std::string& path_old) override;
  bool SwitchShare(const std::string& share_name, bool mounted) override;
  void ReportVolumeMounted(const std::string& mount_point) override;
  void ReportVolumeUnmounted(const std::string& mount_point) override;

  // Status ("status" command, STATUS= lines).
  // What the daemon watches and counts, as the "status" reply's object.
  Json::Value BuildStatus();
  // Tells the service manager the daemon's state in one line (STATUS=).
  static void NotifyState(const std::string& text);
  // "watching N volumes, M monitor queues", or "degraded: K of N volumes
  // not watched ..." while the kernel refuses watches of K volumes.
  void NotifyWatching();
  // What NotifyWatching tells: volumes, volumes with refused watches,
  // monitor queues.
  using Watching = std::tuple<size_t, size_t, size_t>;
  Watching CurrentWatching();

  // Watches the kernel refused (refused_watches.cc).
  // The volumes whose receivers miss a watch the kernel refused.
  std::vector<ManagedVolume*> VolumesWithRefusedWatches();
  // Has each of `volumes` try its missing watches again and waits until
  // each has. A watch placed now gets its volume a rescan.
  void RetryRefusedWatches(const std::vector<ManagedVolume*>& volumes);

  // Volume manager registry. Mount points are compared normalised.
  bool SetupVolumeMgr();
  ManagedVolume* GetVolumeMgrByShare(const std::string& share_name);
  void MountVolume(const std::string& mount_point);
  void UmountVolume(const std::string& mount_point);

  // Following the mount table, the volume table and the shares (follow.cc).
  void SetupFollow();
  // How long the main loop may wait: until followed changes, a
  // configuration reload or a control client's deadline fall due, at most
  // `longest`.
  struct timespec FollowTimeout(std::chrono::milliseconds longest) const;
  // Carries out the followed changes that are due, if any.
  void FollowSources();
  bool PlanVolumes(VolumePlan* plan);
  void DropVolumes(const VolumePlan& plan);
  void AddVolumes(const VolumePlan& plan);
  void FollowShares();
  // The "umount_volume" command for a volume that is still mounted: it
  // stays unwatched until it is unmounted or reported mounted again.
  void HoldVolume(const std::string& mount_point);

  const DaemonOptions options_;
  PlatformApi* const platform_;
  const MonotonicClock* const clock_;

  InstanceLock instance_lock_;
  bool refused_ = false;
  ControlServer control_;
  ConfigWatch config_;
  RunStatusFile run_status_file_;
  std::vector<MonitorQueue> monitor_queues;
  // While a reload writes what was queued before it: the old and the new
  // queues united (see queue_union.h), which GetMonitorQueues returns then.
  // Guarded by monitor_queue_lock.
  std::vector<MonitorQueue> transition_queues_;
  bool in_transition_ = false;
  // When Start ran, for the uptime.
  std::chrono::steady_clock::time_point started_;
  // The reload barrier; set only while HandleInotify waits for the
  // receivers. Worker threads post it under reload_mutex_, which keeps a late
  // post from touching a semaphore that is being destroyed.
  sem_t* reload_sem;
  pthread_mutex_t reload_mutex_;
  pthread_rwlock_t monitor_queue_lock;
  bool monitor_queue_lock_ready_;
  // What was last told to the service manager.
  Watching shown_;

  SourceWatch sources_;
  // The shares (name -> path) the monitor queues were last resolved with.
  std::map<std::string, std::string> shares_;
  // Last, so that it goes first: managers call back into the members above.
  VolumeRegistry volumes_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_DAEMON_H_
