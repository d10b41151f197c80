// The run-status file: how the previous run ended, and "stop" on the way out.
#include <json/json.h>

#include "daemon/daemon.h"
#include "yulo_platform.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

void Daemon::LoadDaemonRunStatus() {
  const std::string& path = options_.run_status_path;
  if (YULOFileExist(path.c_str()) != 1) {
    run_status = RUN_STATUS_INIT;
    return;
  }
  Json::Value root;
  if (!fromFile(path, root)) {
    YULO_LOG_ALWAYS("run config read fail");
    run_status = RUN_STATUS_RECOVERY;
    return;
  }
  if (!root.isObject() || !root.isMember("status")) {
    YULO_LOG_ALWAYS("run config error, json=%s", toString(root).c_str());
    run_status = RUN_STATUS_RECOVERY;
    return;
  }
  // A "status" that is not a string reads as the empty string: any state we
  // do not recognise means the last run did not end cleanly.
  const Json::Value& status = root["status"];
  const std::string text = status.isString() ? status.asString() : "";
  if (text == "init") {
    run_status = RUN_STATUS_INIT;
  } else if (text == "stop") {
    run_status = RUN_STATUS_STOPPED;
  } else {
    run_status = RUN_STATUS_RECOVERY;
  }
}

bool Daemon::WriteDaemonRunStatus(const char* status) {
  Json::Value root(Json::objectValue);
  root["status"] = status;
  // toFile writes a temporary file beside it and renames it over the old
  // one, so a crash at any moment leaves either the old or the new status.
  if (toFile(root, options_.run_status_path, 0644)) return true;
  YULO_LOG_ALWAYS("Failed to write run status %s, path=%s, reason=%m", status,
                  options_.run_status_path.c_str());
  return false;
}

void Daemon::SaveDaemonRunStatus() {
  // A daemon that stopped before reading the file leaves it as it was.
  if (run_status == RUN_STATUS_UNSET) return;
  // A stop that left something unwritten keeps "running": the next start
  // then rescans.
  if (marked_running_ && !all_drained_) return;
  WriteDaemonRunStatus("stop");
}

}  // namespace YULOTIFYD
}  // namespace YULO
