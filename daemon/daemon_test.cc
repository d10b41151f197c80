// The daemon core driven one main-loop round at a time (Step), over a real
// control socket and real configuration watches in a scratch directory,
// with a made-up appliance, fake volume managers and a clock the tests
// move. Nothing here needs root.
#include "daemon/daemon.h"

#include <errno.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <map>
#include <string>
#include <vector>

#include "daemon/testing/control_client.h"
#include "daemon/testing/fake_clock.h"
#include "daemon/testing/fake_platform.h"
#include "daemon/testing/fake_volume.h"
#include "base/testing/temp_dir.h"
#include "output/queue_file_status.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ConnectAndSend;
using testing::FakeClock;
using testing::FakePlatform;
using testing::FakeVolumes;
using testing::FrameCommand;
using testing::LinesWithMessage;
using testing::ReadToEnd;
using testing::ReplyOf;
using testing::TempDir;
using testing::SendRequest;
using testing::StatusObjectOf;
using testing::TakeLogLines;
using Journal = std::vector<std::string>;

class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The service manager is not told anything from a test.
    unsetenv("NOTIFY_SOCKET");
    TakeLogLines();
    for (const char* dir : {"conf/system.d", "conf/app.d", "conf/user.d", "etc",
                            "samba", "queues", "vol1/Public", "vol2/Media"}) {
      dir_.MakeDir(dir);
    }
    dir_.Write("etc/volumes.json", "{}");
    dir_.Write("samba/smb.conf", "[global]\n");
    platform_.AddVolume(1, dir_.File("vol1"));
    platform_.AddShare("Public", dir_.File("vol1/Public"));
    platform_.AddShare("Media", dir_.File("vol2/Media"));
    AddQueue("system.d/10-indexer.json", "indexer", "Public");
  }

  void TearDown() override {
    if (daemon_ != nullptr && !cleaned_) daemon_->Cleanup();
    LOG_LEVEL = 3;
  }

  void AddQueue(const std::string& file, const std::string& queue,
                const std::string& share) {
    dir_.Write("conf/" + file,
               R"({"queue": ")" + dir_.File("queues/" + queue + ".queue") +
                   R"(", "monitors": [{"share": ")" + share + R"("}]})");
  }

  DaemonOptions Options() {
    DaemonOptions options;
    options.socket_path = dir_.File("control.sock");
    // The test's own group, so that the test may connect as whoever runs
    // it.
    struct group* own = getgrgid(getegid());
    options.socket_group = own != nullptr ? own->gr_name : "";
    options.run_status_path = dir_.File("etc/yulotifyd.run");
    options.lock_path = dir_.File("yulotifyd.lock");
    options.conf_root = dir_.File("conf");
    // The machine's own mounts are none of these tests' business.
    options.mount_table_path = "";
    options.volume_table_path = dir_.File("etc/volumes.json");
    options.smb_conf_path = dir_.File("samba/smb.conf");
    options.platform = &platform_;
    options.clock = &clock_;
    options.volume_factory = fakes_.Factory();
    return options;
  }

  bool Start() {
    daemon_ = std::make_unique<Daemon>(Options());
    return daemon_->Start();
  }

  void Cleanup() {
    daemon_->Cleanup();
    cleaned_ = true;
  }

  // One round of the main loop that waits for nothing.
  void Step() { ASSERT_TRUE(daemon_->Step(milliseconds(0))); }

  // Connects to the control socket and sends the command `text`.
  int Send(const std::string& text) {
    const int fd =
        ConnectAndSend(dir_.File("control.sock"), FrameCommand(text));
    EXPECT_GE(fd, 0);
    return fd;
  }

  // The reply to a command sent with Send, once served; with `status`, the
  // object that follows it.
  int32_t Reply(int fd, Json::Value* status = nullptr) {
    const std::string answer = ReadToEnd(fd);
    close(fd);
    if (status != nullptr) {
      EXPECT_TRUE(StatusObjectOf(answer, status));
    }
    return ReplyOf(answer);
  }

  // Sends `text`, serves it with one round, returns the reply.
  int32_t Command(const std::string& text, Json::Value* status = nullptr) {
    const int fd = Send(text);
    Step();
    return Reply(fd, status);
  }

  Json::Value Status() {
    Json::Value status;
    EXPECT_EQ(0, Command(R"({"type":"status","data":{}})", &status));
    return status;
  }

  // Follows what changed: the change is noticed, then falls due once the
  // settling time has passed.
  void Follow() {
    Step();
    clock_.Advance(milliseconds(SourceWatch::kSettleMillis));
    Step();
  }

  std::string RunStatusText() { return dir_.Read("etc/yulotifyd.run"); }

  TempDir dir_;
  FakePlatform platform_;
  FakeClock clock_;
  FakeVolumes fakes_;
  std::unique_ptr<Daemon> daemon_;
  bool cleaned_ = false;
};

TEST_F(DaemonTest, StartsWatchingTheMountedVolumes) {
  platform_.AddVolume(2, dir_.File("vol2"));
  LOG_LEVEL = 6;
  ASSERT_TRUE(Start());
  EXPECT_EQ((Journal{"1 made", "2 made"}), fakes_.TakeJournal());
  EXPECT_FALSE(fakes_.rescan_at_start[1]);
  EXPECT_EQ(R"({"status":"running"})"
            "\n",
            RunStatusText());
  EXPECT_EQ(0, access(dir_.File("control.sock").c_str(), F_OK));
  const std::vector<std::string> lines = TakeLogLines();
  for (const char* step :
       {"LoadMonitorQueue done ...", "LoadDaemonRunStatus done ...",
        "Domain socket setup done ...", "inotify setup done ...",
        "Volume manager setup done ..."}) {
    EXPECT_EQ(1u, LinesWithMessage(lines, step, "daemon").size()) << step;
  }
  EXPECT_EQ(RUN_STATUS_INIT, daemon_->GetRunStatus());
  EXPECT_EQ(1u, daemon_->GetMonitorQueues().size());
}

TEST_F(DaemonTest, CleanStopDrainsEverythingAndWritesStop) {
  platform_.AddVolume(2, dir_.File("vol2"));
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  Cleanup();
  EXPECT_EQ((Journal{"1 BeginDrain", "2 BeginDrain", "1 FinishReceiving",
                     "2 FinishReceiving", "1 FinishDrain", "2 FinishDrain",
                     "1 deleted", "2 deleted"}),
            fakes_.TakeJournal());
  EXPECT_EQ(R"({"status":"stop"})"
            "\n",
            RunStatusText());
  EXPECT_NE(0, access(dir_.File("control.sock").c_str(), F_OK));
}

TEST_F(DaemonTest, StopWithLinesUnwrittenKeepsRunning) {
  ASSERT_TRUE(Start());
  fakes_.undrained.insert(1);
  Cleanup();
  EXPECT_EQ(R"({"status":"running"})"
            "\n",
            RunStatusText());
}

TEST_F(DaemonTest, NoMonitorQueueStopsQuietly) {
  ASSERT_EQ(0, unlink(dir_.File("conf/system.d/10-indexer.json").c_str()));
  LOG_LEVEL = 6;
  EXPECT_FALSE(Start());
  Cleanup();
  EXPECT_EQ(1u, LinesWithMessage(TakeLogLines(),
                                 "no run status or no monitor config(0), stop",
                                 "daemon")
                    .size());
  EXPECT_EQ(0, fakes_.made);
  // The start failed before readiness: "stop".
  EXPECT_EQ(R"({"status":"stop"})"
            "\n",
            RunStatusText());
  EXPECT_NE(0, access(dir_.File("control.sock").c_str(), F_OK));
}

TEST_F(DaemonTest, NoVolumeMountedStops) {
  platform_.RemoveVolume(1);
  EXPECT_FALSE(Start());
  Cleanup();
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, LinesWithMessage(lines, "YULOMountVolAllEnum failed",
                                 "volume_registry")
                    .size());
  EXPECT_EQ(1u,
            LinesWithMessage(lines, "SetupVolumeMgr failed", "daemon").size());
  EXPECT_EQ(R"({"status":"stop"})"
            "\n",
            RunStatusText());
}

TEST_F(DaemonTest, UncleanPreviousRunIsAnsweredWithRecovery) {
  dir_.Write("etc/yulotifyd.run", R"({"status":"running"})");
  ASSERT_TRUE(Start());
  EXPECT_EQ(RUN_STATUS_RECOVERY, daemon_->GetRunStatus());
  EXPECT_EQ("recovery", Status()["run_status_at_start"].asString());
}

TEST_F(DaemonTest, StatusTellsWhatIsWatched) {
  platform_.AddVolume(2, dir_.File("vol2"));
  // Both volumes write one queue file: it is shown once, summed, in the
  // worse state.
  QueueFileStatus one;
  one.path = "/q/shared.queue";
  one.lines_written = 3;
  one.lines_kept = 1;
  QueueFileStatus two = one;
  two.lines_written = 4;
  two.lines_kept = 0;
  two.state = QueueFileState::kBusy;
  two.last_error = "locked";
  two.last_error_time = 77;
  fakes_.queue_files[1] = {one};
  fakes_.queue_files[2] = {two};
  dir_.Write("etc/yulotifyd.run", R"({"status":"stop"})");
  ASSERT_TRUE(Start());
  clock_.Advance(seconds(42));
  const Json::Value status = Status();
  EXPECT_EQ(42u, status["uptime_seconds"].asUInt64());
  EXPECT_EQ(getpid(), status["pid"].asInt());
  EXPECT_EQ("stop", status["run_status_at_start"].asString());
  EXPECT_EQ(1u, status["monitor_queues"].asUInt());
  ASSERT_EQ(2u, status["volumes"].size());
  EXPECT_EQ(1, status["volumes"][0]["id"].asInt());
  EXPECT_EQ(dir_.File("vol1"), status["volumes"][0]["mount_point"].asString());
  EXPECT_EQ(dir_.File("vol2"), status["volumes"][1]["mount_point"].asString());
  EXPECT_EQ("none", status["backend"]["name"].asString());
  ASSERT_EQ(1u, status["queue_files"].size());
  const Json::Value& file = status["queue_files"][0];
  EXPECT_EQ("/q/shared.queue", file["path"].asString());
  EXPECT_EQ(7u, file["lines_written"].asUInt64());
  EXPECT_EQ(1u, file["lines_kept"].asUInt64());
  EXPECT_EQ("busy", file["state"].asString());
  EXPECT_EQ("locked", file["last_error"].asString());
  EXPECT_EQ(77, file["last_error_time"].asInt64());
}

TEST_F(DaemonTest, StatusShowsWhatWaitsInEachQueueFile) {
  platform_.AddVolume(2, dir_.File("vol2"));
  const std::string queue = dir_.Write("waiting.queue", std::string(1000, 'x'));
  const std::string empty = dir_.Write("empty.queue", "");
  const time_t now = time(nullptr);
  // Two volumes write the waiting file; the older of their first appends
  // counts.
  QueueFileStatus one;
  one.path = queue;
  one.oldest_line_time = now - 30;
  QueueFileStatus two = one;
  two.oldest_line_time = now - 100;
  QueueFileStatus none;
  none.path = empty;
  none.oldest_line_time = now - 500;
  fakes_.queue_files[1] = {one, none};
  fakes_.queue_files[2] = {two};
  ASSERT_TRUE(Start());
  const Json::Value status = Status();
  ASSERT_EQ(2u, status["queue_files"].size());
  std::map<std::string, Json::Value> files;
  for (const Json::Value& f : status["queue_files"]) {
    files[f["path"].asString()] = f;
  }
  EXPECT_EQ(1000, files[queue]["bytes"].asInt64());
  EXPECT_DOUBLE_EQ(1000.0 / 104857600.0, files[queue]["limit_used"].asDouble());
  EXPECT_GE(files[queue]["oldest_line_age"].asInt64(), 100);
  EXPECT_LT(files[queue]["oldest_line_age"].asInt64(), 200);
  // Taken by its consumer: nothing waits, however old the last append.
  EXPECT_EQ(0, files[empty]["bytes"].asInt64());
  EXPECT_EQ(0, files[empty]["oldest_line_age"].asInt64());
}

TEST_F(DaemonTest, EachRoundIsTracedAtDebugLevel) {
  ASSERT_TRUE(Start());
  TakeLogLines();
  LOG_LEVEL = 7;
  Step();
  Step();
  EXPECT_EQ(
      2u,
      LinesWithMessage(TakeLogLines(), "Daemon alive ...", "daemon").size());
}

TEST_F(DaemonTest, ShareCommandsReachTheShareVolume) {
  platform_.AddVolume(2, dir_.File("vol2"));
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  EXPECT_EQ(0,
            Command(R"({"type":"mount_share","data":{"share_name":"Media"}})"));
  EXPECT_EQ(
      0, Command(R"({"type":"umount_share","data":{"share_name":"Public"}})"));
  EXPECT_EQ(-1,
            Command(R"({"type":"mount_share","data":{"share_name":"None"}})"));
  EXPECT_EQ((Journal{"2 MountShare Media", "1 UmountShare Public"}),
            fakes_.TakeJournal());
}

TEST_F(DaemonTest, NotifyIsOfferedToEveryVolume) {
  platform_.AddVolume(2, dir_.File("vol2"));
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  EXPECT_EQ(0,
            Command(R"({"type":"notify","data":{"event":64,"path":"/x/y"}})"));
  EXPECT_EQ((Journal{"1 PushEvent 64 /x/y ", "2 PushEvent 64 /x/y "}),
            fakes_.TakeJournal());
}

TEST_F(DaemonTest, VolumeCommands) {
  platform_.AddVolume(2, dir_.File("vol2"));
  platform_.AddVolume(3, dir_.File("usb"), YULO_VOLUME_KIND_USB);
  platform_.RemoveVolume(2);
  platform_.RemoveVolume(3);
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  platform_.AddVolume(2, dir_.File("vol2"));
  platform_.AddVolume(3, dir_.File("usb"), YULO_VOLUME_KIND_USB);
  const std::string mount2 =
      R"({"type":"mount_volume","data":{"mount_point":")" + dir_.File("vol2") +
      R"("}})";
  EXPECT_EQ(0, Command(mount2));
  // Reported twice: nothing more happens.
  EXPECT_EQ(0, Command(mount2));
  EXPECT_EQ(0, Command(R"({"type":"mount_volume","data":{"mount_point":")" +
                       dir_.File("usb") + R"("}})"));
  EXPECT_EQ(0, Command(R"({"type":"umount_volume","data":{"mount_point":")" +
                       dir_.File("vol1") + R"(/"}})"));
  EXPECT_EQ(
      0, Command(R"({"type":"umount_volume","data":{"mount_point":"/none"}})"));
  EXPECT_EQ((Journal{"2 made", "1 Drain", "1 deleted"}), fakes_.TakeJournal());
  EXPECT_EQ(1u, LinesWithMessage(
                    TakeLogLines(),
                    "skipped mounting usb volume [" + dir_.File("usb") + "]",
                    "volume_registry")
                    .size());
  // Released by command while still mounted: a change of the volume table
  // does not bring it back...
  dir_.Write("etc/volumes.json", "{ }");
  Follow();
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  // ...but a command does.
  EXPECT_EQ(0, Command(R"({"type":"mount_volume","data":{"mount_point":")" +
                       dir_.File("vol1") + R"("}})"));
  EXPECT_EQ((Journal{"1 made"}), fakes_.TakeJournal());
}

TEST_F(DaemonTest, ASecondDaemonRefusesAndTouchesNothing) {
  ASSERT_TRUE(Start());
  const std::string running = dir_.Read("etc/yulotifyd.run");
  fakes_.TakeJournal();
  TakeLogLines();
  {
    Daemon second(Options());
    EXPECT_FALSE(second.Start());
    EXPECT_TRUE(second.refused());
    second.Cleanup();
  }
  EXPECT_EQ(1u, LinesWithMessage(TakeLogLines(),
                                 "Another yulotifyd is running (pid " +
                                     std::to_string(getpid()) + ", lock " +
                                     dir_.File("yulotifyd.lock") +
                                     "), not starting",
                                 "daemon")
                    .size());
  // No volume made or stopped, the run status and the socket as they were:
  // the first daemon still answers.
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  EXPECT_EQ(running, dir_.Read("etc/yulotifyd.run"));
  EXPECT_EQ(1u, Status()["monitor_queues"].asUInt());
  // Once the first is gone, a daemon starts again.
  Cleanup();
  daemon_.reset();
  Daemon third(Options());
  EXPECT_TRUE(third.Start());
  third.Cleanup();
}

TEST_F(DaemonTest, ConfigurationChangeReloadsTheMonitorQueuesOnceGathered) {
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  AddQueue("user.d/20-sync.json", "sync", "Public");
  Step();
  // Gathered first: more changes may follow.
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  AddQueue("user.d/30-more.json", "more", "Public");
  clock_.Advance(milliseconds(ConfigWatch::kGatherMillis - 1));
  Step();
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  clock_.Advance(milliseconds(1));
  Step();
  // Both changes in one reload.
  EXPECT_EQ((Journal{"1 DrainKernel", "1 ProcessQueued", "1 ReloadWatches"}),
            fakes_.TakeJournal());
  EXPECT_EQ(3u, daemon_->GetMonitorQueues().size());
  // Other names change nothing.
  dir_.Write("conf/user.d/30-x.json.tmp", "{}");
  Step();
  clock_.Advance(seconds(2));
  Step();
  EXPECT_TRUE(fakes_.TakeJournal().empty());
}

TEST_F(DaemonTest, ChangesInALoopReloadAtMostOnceASecond) {
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  // A user rewrites a file of user.d every 10 ms for 3 seconds.
  int reloads = 0;
  for (int i = 0; i < 300; ++i) {
    AddQueue("user.d/20-sync.json", "sync" + std::to_string(i % 2), "Public");
    Step();
    for (const std::string& entry : fakes_.TakeJournal()) {
      if (entry == "1 DrainKernel") ++reloads;
    }
    clock_.Advance(milliseconds(10));
  }
  // The first after 200 ms, then one a second: 3 in 3 seconds.
  EXPECT_EQ(3, reloads);
  // The last change is not lost: it is loaded a second after the last
  // reload at the latest.
  clock_.Advance(milliseconds(ConfigWatch::kReloadIntervalMillis));
  Step();
  EXPECT_EQ((Journal{"1 DrainKernel", "1 ProcessQueued", "1 ReloadWatches"}),
            fakes_.TakeJournal());
}

TEST_F(DaemonTest, AStalledControlClientDoesNotHoldTheMainLoop) {
  ASSERT_TRUE(Start());
  // Half a length, then nothing, for as long as the test runs.
  const int stalled =
      ConnectAndSend(dir_.File("control.sock"), std::string("\x10\0", 2));
  ASSERT_GE(stalled, 0);
  const auto start = std::chrono::steady_clock::now();
  Step();
  // Other clients and configuration changes are served meanwhile.
  EXPECT_EQ(1, Status()["monitor_queues"].asInt());
  AddQueue("app.d/20-thumbs.json", "thumbs", "Media");
  Step();
  clock_.Advance(milliseconds(ConfigWatch::kGatherMillis));
  Step();
  EXPECT_EQ(2u, daemon_->GetMonitorQueues().size());
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            milliseconds(ControlServer::kRequestTimeoutMillis / 2));
  // The stalled one is answered -1 once its time ran out; the round that
  // does it waits no longer than that.
  ASSERT_TRUE(daemon_->Step(seconds(10)));
  EXPECT_EQ(-1, ReplyOf(ReadToEnd(stalled)));
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
  close(stalled);
}

TEST_F(DaemonTest, AReloadWritesWhatWasQueuedUnderBothConfigurations) {
  ASSERT_TRUE(Start());
  // The indexer moves from Public to Media.
  AddQueue("system.d/10-indexer.json", "indexer", "Media");
  Step();
  clock_.Advance(milliseconds(ConfigWatch::kGatherMillis));
  Step();
  ASSERT_EQ(1u, fakes_.queues_when_processing.size());
  const std::vector<MonitorQueue>& united = fakes_.queues_when_processing[0];
  ASSERT_EQ(1u, united.size());
  EXPECT_EQ(2u, united[0].GetConfigs().size());
  EXPECT_TRUE(MonitorQueue::IsDirMonitoring(united, dir_.File("vol1/Public")));
  EXPECT_TRUE(MonitorQueue::IsDirMonitoring(united, dir_.File("vol2/Media")));
  // Afterwards, the new configuration alone.
  const std::vector<MonitorQueue> now = daemon_->GetMonitorQueues();
  ASSERT_EQ(1u, now.size());
  EXPECT_FALSE(MonitorQueue::IsDirMonitoring(now, dir_.File("vol1/Public")));
}

TEST_F(DaemonTest, TheWaitEndsWhenAReloadFallsDue) {
  ASSERT_TRUE(Start());
  AddQueue("app.d/20-thumbs.json", "thumbs", "Media");
  Step();
  clock_.Advance(milliseconds(ConfigWatch::kGatherMillis));
  // Nothing is ready, but the reload is due: the round waits for nothing.
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(daemon_->Step(seconds(10)));
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(5));
  EXPECT_EQ(2u, daemon_->GetMonitorQueues().size());
}

TEST_F(DaemonTest, VolumeTableChangesAreFollowedOnceSettled) {
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  platform_.AddVolume(2, dir_.File("vol2"));
  dir_.Write("etc/volumes.json", "{ }");
  Step();
  clock_.Advance(milliseconds(SourceWatch::kSettleMillis - 1));
  Step();
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  clock_.Advance(milliseconds(1));
  Step();
  EXPECT_EQ((Journal{"2 made", "1 RelistShares", "2 RelistShares",
                     "1 ReloadWatches", "2 ReloadWatches"}),
            fakes_.TakeJournal());
}

TEST_F(DaemonTest, VolumeThatWentAwayComesBackWithARescan) {
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  platform_.RemoveVolume(1);
  dir_.Write("etc/volumes.json", "{ }");
  Follow();
  EXPECT_EQ((Journal{"1 Drain", "1 deleted"}), fakes_.TakeJournal());
  platform_.AddVolume(1, dir_.File("vol1"));
  dir_.Write("etc/volumes.json", "{}");
  Follow();
  EXPECT_EQ((Journal{"1 made with rescan", "1 RelistShares",
                     "1 ReloadWatches"}),
            fakes_.TakeJournal());
}

TEST_F(DaemonTest, UnreadableVolumeTableLeavesTheVolumes) {
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  platform_.set_table_unreadable(true);
  LOG_LEVEL = 6;
  dir_.Write("etc/volumes.json", "{");
  Follow();
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  EXPECT_EQ(
      1u, LinesWithMessage(TakeLogLines(),
                           "Volume table unreadable, volumes left as they are",
                           "follow")
              .size());
}

TEST_F(DaemonTest, ShareChangesReloadTheMonitorQueues) {
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  // Unchanged shares: nothing to do.
  dir_.Write("samba/smb.conf", "[global]\n\n");
  Follow();
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  platform_.AddShare("Docs", dir_.File("vol1/Docs"));
  dir_.Write("samba/smb.conf", "[global]\n[Docs]\n");
  Follow();
  EXPECT_EQ((Journal{"1 DrainKernel", "1 ProcessQueued", "1 ReloadWatches",
                     "1 RelistShares"}),
            fakes_.TakeJournal());
}

// A volume whose share the kernel refused to watch, as its receiver reports
// it.
std::vector<RefusedWatch> Refused(const std::string& share) {
  return {RefusedWatch{share, EOPNOTSUPP, "Operation not supported"}};
}

TEST_F(DaemonTest, StatusShowsAVolumeTheKernelRefusesAsFailed) {
  platform_.AddVolume(2, dir_.File("vol2"));
  fakes_.refused[1] = Refused(dir_.File("vol1/Public"));
  ASSERT_TRUE(Start());
  const Json::Value status = Status();
  ASSERT_EQ(2u, status["volumes"].size());
  const Json::Value& failed = status["volumes"][0];
  EXPECT_EQ("failed", failed["watch_state"].asString());
  EXPECT_EQ("Operation not supported", failed["watch_error"].asString());
  ASSERT_EQ(1u, failed["refused_shares"].size());
  EXPECT_EQ(dir_.File("vol1/Public"), failed["refused_shares"][0].asString());
  EXPECT_EQ(0u, failed["watched_shares"].size());
  const Json::Value& fine = status["volumes"][1];
  EXPECT_EQ("ok", fine["watch_state"].asString());
  EXPECT_EQ("", fine["watch_error"].asString());
  EXPECT_EQ(0u, fine["refused_shares"].size());
}

// Receives what the daemon tells the service manager, on a socket of the
// test's own that NOTIFY_SOCKET names while it lives.
class NotifyListener {
 public:
  explicit NotifyListener(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s",
                  path.c_str());
    EXPECT_EQ(0, bind(fd_, reinterpret_cast<struct sockaddr*>(&address),
                      sizeof(address)));
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  ~NotifyListener() {
    unsetenv("NOTIFY_SOCKET");
    close(fd_);
  }
  // Every message sent so far (sd_notify sends before it returns).
  std::vector<std::string> Take() {
    std::vector<std::string> messages;
    char buffer[1024];
    ssize_t n;
    while ((n = recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT)) >= 0) {
      messages.emplace_back(buffer, static_cast<size_t>(n));
    }
    return messages;
  }

 private:
  int fd_ = -1;
};

TEST_F(DaemonTest, TheServiceManagerIsToldOfVolumesNotWatched) {
  platform_.AddVolume(2, dir_.File("vol2"));
  ASSERT_TRUE(Start());
  NotifyListener listener(dir_.File("notify.sock"));
  Step();
  EXPECT_TRUE(listener.Take().empty());
  // A share mounted later that the kernel refuses.
  fakes_.refused[2] = Refused(dir_.File("vol2/Media"));
  Step();
  EXPECT_EQ((std::vector<std::string>{
                "STATUS=degraded: 1 of 2 volumes not watched (see "
                "yulotifyctl status), 1 monitor queues"}),
            listener.Take());
  Step();
  EXPECT_TRUE(listener.Take().empty());
  // Watched at last.
  fakes_.refused.clear();
  Step();
  EXPECT_EQ((std::vector<std::string>{
                "STATUS=watching 2 volumes, 1 monitor queues"}),
            listener.Take());
}

TEST_F(DaemonTest, MountVolumeTriesARefusedWatchAgain) {
  platform_.AddVolume(2, dir_.File("vol2"));
  fakes_.refused[1] = Refused(dir_.File("vol1/Public"));
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  const std::string mount = R"({"type":"mount_volume","data":{"mount_point":")";
  EXPECT_EQ(0, Command(mount + dir_.File("vol1") + R"(/"}})"));
  // Only the failed volume tries again; the watched one is left alone.
  EXPECT_EQ((Journal{"1 ReloadWatches"}), fakes_.TakeJournal());
  EXPECT_EQ(0, Command(mount + dir_.File("vol2") + R"("}})"));
  EXPECT_TRUE(fakes_.TakeJournal().empty());
  // Placed now: nothing more to try.
  fakes_.refused.clear();
  EXPECT_EQ(0, Command(mount + dir_.File("vol1") + R"("}})"));
  EXPECT_TRUE(fakes_.TakeJournal().empty());
}

TEST_F(DaemonTest, AMountTableChangeTriesRefusedWatchesAgain) {
  platform_.AddVolume(2, dir_.File("vol2"));
  fakes_.refused[2] = Refused(dir_.File("vol2/Media"));
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  // Nothing comes or goes: only the volume with a refused watch is asked.
  dir_.Write("etc/volumes.json", "{ }");
  Follow();
  EXPECT_EQ((Journal{"2 ReloadWatches"}), fakes_.TakeJournal());
  fakes_.refused.clear();
  dir_.Write("etc/volumes.json", "{}");
  Follow();
  EXPECT_TRUE(fakes_.TakeJournal().empty());
}

TEST_F(DaemonTest, AReloadTriesRefusedWatchesAgain) {
  fakes_.refused[1] = Refused(dir_.File("vol1/Public"));
  ASSERT_TRUE(Start());
  fakes_.TakeJournal();
  Daemon::HangupHandler(SIGHUP);
  Step();
  const Journal journal = fakes_.TakeJournal();
  EXPECT_EQ(1, std::count(journal.begin(), journal.end(), "1 ReloadWatches"));
}

TEST_F(DaemonTest, ConnectionServedWithoutStarting) {
  // As the fuzzer serves its inputs: no socket, no volume, no start.
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
  ASSERT_TRUE(
      SendRequest(pair[0], FrameCommand(R"({"type":"status","data":{}})")));
  Daemon daemon(Options());
  EXPECT_EQ(0, daemon.HandleConnection(pair[1]));
  Json::Value status;
  EXPECT_EQ(0, Reply(pair[0], &status));
  EXPECT_EQ(0u, status["monitor_queues"].asUInt());
  EXPECT_EQ(0u, status["volumes"].size());
  EXPECT_EQ("unset", status["run_status_at_start"].asString());
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
