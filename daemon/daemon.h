// Daemon: the yulotifyd process object.
//
// Run() performs the start-up sequence, reports readiness to the service
// manager, serves the configuration watch and the control socket on the main
// thread until SIGTERM or SIGINT, and tears everything down in a fixed order.
// The main loop also follows the mount table, the volume table and the share
// configuration (SourceWatch): volumes get and lose their managers, and the
// monitor queues are reloaded when shares change, with no command needed.
// The main thread alone touches the control socket, the configuration watch
// and the registry of volume managers; volume managers reach back through the
// VolumeContext interface (monitor-queue copies, run status, reload
// acknowledgement).
//
// Thread-safety: everything runs on the main thread except the VolumeContext
// operations, which worker threads call.
#ifndef YULOTIFYD_DAEMON_DAEMON_H_
#define YULOTIFYD_DAEMON_DAEMON_H_

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <sys/types.h>

#include <json/json.h>

#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "daemon/source_watch.h"
#include "daemon/volume_plan.h"
#include "volume/volume_context.h"
#include "volume/volume_manager.h"
#include "yulo_build_config.h"
#include "yulo_platform.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

// Where the daemon keeps its files. The shipped binary always uses the
// compiled-in defaults; tests may point a Daemon elsewhere.
struct DaemonOptions {
  std::string socket_path = YULOTIFYD_SOCKET_PATH;
  // Besides root, members of this group may use the control socket; empty or
  // unknown: nobody but root.
  std::string socket_group = YULOTIFYD_SOCKET_GROUP;
  std::string run_status_path = YULOTIFYD_RUN_STATUS_PATH;
  std::string conf_root = YULOTIFYD_CONF_DIR;
  // What the main loop follows (the platform library reads the compiled-in
  // paths whatever these say).
  std::string mount_table_path = "/proc/self/mountinfo";
  std::string volume_table_path = YULO_VOLUME_TABLE_PATH;
  std::string smb_conf_path = YULO_SMB_CONF_PATH;
};

class Daemon : public VolumeContext {
 public:
  static constexpr size_t kInotifyBufferSize = 8704;
  static constexpr int kSelectTimeoutSeconds = 30;
  // How long a stopping volume may take to write what it has read before
  // the daemon gives up on it (and leaves the next start to rescan).
  static constexpr int kDrainSeconds = 10;

  explicit Daemon(DaemonOptions options = DaemonOptions());
  ~Daemon() override;

  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Start-up, main loop and teardown.
  void Run();

  // VolumeContext.
  std::vector<MonitorQueue> GetMonitorQueues() override;
  int32_t GetRunStatus() const override { return run_status; }
  void PostReloadSemaphore() override;

  // The handler installed for SIGTERM and SIGINT.
  static void KillHandler(int signo);

  // Serves one accepted control connection `conn`: reads one request,
  // carries it out, sends the reply and closes `conn`. Returns the reply (0
  // or -1). The main loop calls it for every connection it accepts; it is
  // public so that a client can be served over any connected stream socket
  // (a socketpair in tests and the fuzzer) without a listening socket.
  int32_t HandleConnection(int conn);

 private:
  void MainLoop();
  void Cleanup();

  // Run status and monitor queues.
  void LoadMonitorQueue();
  void LoadDaemonRunStatus();
  // Replaces the run-status file with {"status": `status`}.
  bool WriteDaemonRunStatus(const char* status);
  void SaveDaemonRunStatus();
  // Drains and deletes every volume manager, side by side.
  void StopVolumeMgrs();
  bool SetupInotify();
  void AddInotifyWatch(const std::string& path);
  void HandleInotify();
  // Has every processor take its queued events, reloads the monitor queues
  // and waits until every receiver has re-added its watches.
  void ReloadMonitorQueues();
  void CreateReloadSemaphore();
  void DestroyReloadSemaphore();

  // Control socket.
  bool SetupDomainSocket();
  void LookUpSocketGroup();
  void OpenSocketToGroup();
  bool MayControl(int conn);
  void HandleDomainSocket();
  static bool ReadSocket(int fd, uint64_t length, char* buffer);
  int32_t Dispatch(const std::string& type, const Json::Value& data);

  // Status ("status" command, STATUS= lines).
  // What the daemon watches and counts, as the "status" reply's object.
  Json::Value BuildStatus();
  // Tells the service manager the daemon's state in one line (STATUS=).
  static void NotifyState(const std::string& text);
  // "watching N volumes, M monitor queues".
  void NotifyWatching();

  // Volume manager registry. Mount points are compared normalised.
  bool SetupVolumeMgr();
  // Refuses (false) a volume id that has a manager already.
  bool CreateVolumeMgr(const YULO_VOLUME_INFO* info,
                       bool rescan_at_start = false);
  VolumeMgr* GetVolumeMgrByShare(const std::string& share_name);
  VolumeMgr* GetVolumeMgrByMountPoint(const std::string& mount_point);
  void MountVolume(const std::string& mount_point);
  void UmountVolume(const std::string& mount_point);

  // Following the mount table, the volume table and the shares (follow.cc).
  void SetupFollow();
  // How long the main loop may wait: until followed changes fall due, at
  // most kSelectTimeoutSeconds.
  struct timespec FollowTimeout() const;
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

  int sock_fd;
  // The control socket's group, when it has one (socket_group_found_).
  bool socket_group_found_;
  gid_t socket_gid_;
  int inotify_fd;
  std::vector<int> watch_descriptors;
  std::map<int32_t, VolumeMgr*> volume_mgrs;
  std::vector<MonitorQueue> monitor_queues;
  int32_t run_status;
  // When Run started, for the uptime.
  std::chrono::steady_clock::time_point started_;
  // The object a "status" command answers with after its 0, as text; empty
  // for every other command.
  std::string reply_payload_;
  // "running" was written at start: only a complete clean stop may replace
  // it with "stop".
  bool marked_running_;
  // False once any volume stopped before all it had read was written.
  bool all_drained_;
  std::vector<char> inotify_buffer;
  // The reload barrier; set only while HandleInotify waits for the
  // receivers. Worker threads post it under reload_mutex_, which keeps a late
  // post from touching a semaphore that is being destroyed.
  sem_t* reload_sem;
  pthread_mutex_t reload_mutex_;
  pthread_rwlock_t monitor_queue_lock;
  bool monitor_queue_lock_ready_;

  SourceWatch sources_;
  // The shares (name -> path) the monitor queues were last resolved with.
  std::map<std::string, std::string> shares_;
  // What was mounted at each watched volume's mount point when its manager
  // was made, by volume id.
  std::map<int32_t, SeenMount> watched_mounts_;
  // Volumes released by "umount_volume" while mounted, with that mount.
  std::map<int32_t, SeenMount> held_;
  // Volumes that went away while the daemon ran; each is rescanned when it
  // gets a manager again.
  std::set<int32_t> gone_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_DAEMON_H_
