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

void Daemon::SaveDaemonRunStatus() {
  // A daemon that stopped before reading the file leaves it as it was.
  if (run_status == RUN_STATUS_UNSET) return;
  Json::Value root(Json::objectValue);
  root["status"] = "stop";
  toFile(root, options_.run_status_path, 0644);
}

}  // namespace YULOTIFYD
}  // namespace YULO
