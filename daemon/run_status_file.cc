#include "daemon/run_status_file.h"

#include <json/json.h>

#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {
// The source name these lines have always carried.
constexpr char kLogSource[] = "run_status";
}  // namespace

RunStatusFile::RunStatusFile(std::string path, PlatformApi* platform)
    : path_(std::move(path)), platform_(platform) {}

void RunStatusFile::Load() {
  if (platform_->FileExists(path_.c_str()) != 1) {
    status_ = RUN_STATUS_INIT;
    return;
  }
  Json::Value root;
  if (!fromFile(path_, root)) {
    YULO_LOG_ALWAYS_AS(kLogSource, "run config read fail");
    status_ = RUN_STATUS_RECOVERY;
    return;
  }
  if (!root.isObject() || !root.isMember("status")) {
    YULO_LOG_ALWAYS_AS(kLogSource, "run config error, json=%s",
                       toString(root).c_str());
    status_ = RUN_STATUS_RECOVERY;
    return;
  }
  // A "status" that is not a string reads as the empty string: any state we
  // do not recognise means the last run did not end cleanly.
  const Json::Value& status = root["status"];
  const std::string text = status.isString() ? status.asString() : "";
  if (text == "init") {
    status_ = RUN_STATUS_INIT;
  } else if (text == "stop") {
    status_ = RUN_STATUS_STOPPED;
  } else {
    status_ = RUN_STATUS_RECOVERY;
  }
}

bool RunStatusFile::Write(const char* status) {
  Json::Value root(Json::objectValue);
  root["status"] = status;
  // toFile writes a temporary file beside it and renames it over the old
  // one, so a crash at any moment leaves either the old or the new status.
  if (toFile(root, path_, 0644)) return true;
  YULO_LOG_ALWAYS_AS(kLogSource,
                     "Failed to write run status %s, path=%s, reason=%m",
                     status, path_.c_str());
  return false;
}

void RunStatusFile::MarkRunning() { marked_running_ = Write("running"); }

void RunStatusFile::SaveStop(bool all_written) {
  // A daemon that stopped before reading the file leaves it as it was.
  if (status_ == RUN_STATUS_UNSET) return;
  // A start that ended before it was ready has not queued the rescans that
  // an unclean stop of the previous run owes: the file keeps saying so, for
  // the next start to do it.
  if (!marked_running_ && status_ == RUN_STATUS_RECOVERY) {
    YULO_LOG_ALWAYS_AS(kLogSource,
                       "Start ended before ready, recovery still owed, "
                       "run status left as it was");
    return;
  }
  // A stop that left something unwritten keeps "running": the next start
  // then rescans.
  if (marked_running_ && !all_written) return;
  Write("stop");
}

}  // namespace YULOTIFYD
}  // namespace YULO
