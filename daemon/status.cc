// What the daemon tells about itself: the "status" command's object and the
// service manager's STATUS= lines.
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <map>
#include <string>

#include "daemon/daemon.h"
#include "output/queue_file_status.h"
#include "output/queue_file.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

const char* RunStatusName(int32_t status) {
  switch (status) {
    case RUN_STATUS_INIT:
      return "init";
    case RUN_STATUS_RECOVERY:
      return "recovery";
    case RUN_STATUS_STOPPED:
      return "stop";
    default:
      return "unset";
  }
}

std::string LogLevelName(int32_t level) {
  switch (level) {
    case 7:
      return "debug";
    case 6:
      return "info";
    case 3:
      return "error";
    default:
      return std::to_string(level);
  }
}

// The states of a queue file, worst last: several volumes may write one
// file, and the file is shown in the worst state any of them sees.
int Severity(QueueFileState state) {
  switch (state) {
    case QueueFileState::kOk:
      return 0;
    case QueueFileState::kReset:
      return 1;
    case QueueFileState::kBusy:
      return 2;
    case QueueFileState::kFailing:
      return 3;
  }
  return 3;
}

const char* StateName(QueueFileState state) {
  switch (state) {
    case QueueFileState::kOk:
      return "ok";
    case QueueFileState::kReset:
      return "reset";
    case QueueFileState::kBusy:
      return "busy";
    case QueueFileState::kFailing:
      return "failing";
  }
  return "failing";
}

Json::Value Count(uint64_t n) { return Json::Value(static_cast<Json::UInt64>(n)); }

// What waits in a queue file for its consumer: "bytes" (as lstat finds it
// now, 0 for anything but a regular file), "limit_used" (the share of the
// size past which the file is reset) and "oldest_line_age" (seconds since
// the oldest line the file holds was appended; 0 when it is empty). When
// the file held lines before any append of ours, the time of our first
// append, or else its modification time, stands in for that line's: a
// lower bound of its age.
void AddBacklog(const QueueFileStatus& f, time_t now, Json::Value* file) {
  struct stat st;
  off_t bytes = 0;
  time_t oldest = f.oldest_line_time;
  if (lstat(f.path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
    bytes = st.st_size;
    if (oldest == 0) oldest = st.st_mtime;
  }
  (*file)["bytes"] = Json::Value(static_cast<Json::Int64>(bytes));
  (*file)["limit_used"] =
      static_cast<double>(bytes) / static_cast<double>(kQueueFileMaxSize);
  const time_t age = bytes > 0 && oldest != 0 && now > oldest ? now - oldest
                                                              : 0;
  (*file)["oldest_line_age"] = Json::Value(static_cast<Json::Int64>(age));
}

// "watch_state" ("ok", or "failed" while the kernel refuses the watch of
// a share the volume should watch), "watch_error" (the first refusal's
// reason, "" when ok) and "refused_shares" (the shares refused).
void AddWatchState(const VolumeStatus& v, Json::Value* volume) {
  const bool failed = !v.refused_watches.empty();
  (*volume)["watch_state"] = failed ? "failed" : "ok";
  (*volume)["watch_error"] = failed ? v.refused_watches[0].reason : "";
  Json::Value refused(Json::arrayValue);
  for (const RefusedWatch& watch : v.refused_watches) {
    refused.append(watch.share);
  }
  (*volume)["refused_shares"] = refused;
}

}  // namespace

Json::Value Daemon::BuildStatus() {
  Json::Value status(Json::objectValue);
  status["version"] = YULOTIFYD_VERSION;
  status["pid"] = static_cast<Json::Int>(getpid());
  status["uptime_seconds"] = Count(static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(
          clock_->Now() - started_)
          .count()));
  status["run_status_at_start"] = RunStatusName(GetRunStatus());
  status["log_level"] = LogLevelName(LOG_LEVEL.load());
  status["monitor_queues"] =
      static_cast<Json::UInt>(GetMonitorQueues().size());

  Json::Value backend(Json::objectValue);
  backend["name"] = "none";
  backend["paired_renames"] = false;
  Json::Value volumes(Json::arrayValue);
  std::map<std::string, QueueFileStatus> files;  // by path
  for (auto& entry : volumes_.volumes()) {
    const VolumeStatus v = entry.second->GetStatus();
    Json::Value volume(Json::objectValue);
    volume["id"] = static_cast<Json::Int>(v.id);
    volume["mount_point"] = v.mount_point;
    volume["watched_shares"] = Json::Value(Json::arrayValue);
    for (const std::string& share : v.watched_shares) {
      volume["watched_shares"].append(share);
    }
    AddWatchState(v, &volume);
    volume["backend"] = v.backend;
    volume["events_read"] = Count(v.events_read);
    volume["events_injected"] = Count(v.events_injected);
    volume["events_queued"] = Count(v.events_queued);
    volume["lines_written"] = Count(v.lines_written);
    volume["kernel_overflows"] = Count(v.kernel_overflows);
    volume["rescan_lines"] = Count(v.rescan_lines);
    volumes.append(volume);
    // Every volume has its own kernel instance of one kind; the first that
    // has one speaks for the daemon.
    if (backend["name"].asString() == "none" && v.backend != "none") {
      backend["name"] = v.backend;
      backend["paired_renames"] = v.paired_renames;
    }
    for (const QueueFileStatus& f : entry.second->GetQueueFileStatus()) {
      auto it = files.find(f.path);
      if (it == files.end()) {
        files.emplace(f.path, f);
        continue;
      }
      QueueFileStatus& sum = it->second;
      sum.lines_written += f.lines_written;
      sum.lines_kept += f.lines_kept;
      if (Severity(f.state) > Severity(sum.state)) sum.state = f.state;
      if (f.last_error_time > sum.last_error_time) {
        sum.last_error = f.last_error;
        sum.last_error_time = f.last_error_time;
      }
      if (f.oldest_line_time != 0 &&
          (sum.oldest_line_time == 0 ||
           f.oldest_line_time < sum.oldest_line_time)) {
        sum.oldest_line_time = f.oldest_line_time;
      }
    }
  }
  status["backend"] = backend;
  status["volumes"] = volumes;
  Json::Value queue_files(Json::arrayValue);
  for (const auto& entry : files) {
    const QueueFileStatus& f = entry.second;
    Json::Value file(Json::objectValue);
    file["path"] = f.path;
    file["lines_written"] = Count(f.lines_written);
    file["lines_kept"] = Count(f.lines_kept);
    file["state"] = StateName(f.state);
    file["last_error"] = f.last_error;
    file["last_error_time"] =
        Json::Value(static_cast<Json::Int64>(f.last_error_time));
    AddBacklog(f, time(nullptr), &file);
    queue_files.append(file);
  }
  status["queue_files"] = queue_files;
  return status;
}

void Daemon::NotifyState(const std::string& text) {
  sd_notifyf(0, "STATUS=%s", text.c_str());
}

Daemon::Watching Daemon::CurrentWatching() {
  return Watching(volumes_.size(), VolumesWithRefusedWatches().size(),
                  GetMonitorQueues().size());
}

void Daemon::NotifyWatching() {
  const Watching watching = CurrentWatching();
  const std::string volumes = std::to_string(std::get<0>(watching));
  const std::string failed = std::to_string(std::get<1>(watching));
  const std::string queues =
      std::to_string(std::get<2>(watching)) + " monitor queues";
  // A volume the kernel does not report on must not pass for watched where
  // "systemctl status" shows the daemon.
  if (std::get<1>(watching) != 0) {
    NotifyState("degraded: " + failed + " of " + volumes +
                " volumes not watched (see yulotifyctl status), " + queues);
  } else {
    NotifyState("watching " + volumes + " volumes, " + queues);
  }
}

}  // namespace YULOTIFYD
}  // namespace YULO
