#include "forward/oversize.h"

#include <json/json.h>

#include "base/path.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

std::string Line(const std::string& dir) {
  Json::Value v(Json::objectValue);
  v["event"] = Json::UInt(QUEUE_EVENT_RESCAN);
  v["is_dir"] = true;
  v["path"] = dir;
  return toString(v);
}

}  // namespace

std::string RescanDirFor(const std::string& line) {
  Json::Value v;
  if (!fromString(line, v) || !v.isObject() || !v["path"].isString()) {
    return "/";
  }
  const std::string path = v["path"].asString();
  if (path.empty() || path[0] != '/') return "/";
  std::string dir = ParentDir(path);
  if (v["path_old"].isString()) {
    const std::string old = v["path_old"].asString();
    if (old.empty() || old[0] != '/') return "/";
    while (!PathAtOrBelow(dir, ParentDir(old))) dir = ParentDir(dir);
  }
  return dir;
}

bool RescanLineFor(const std::string& line, size_t max_bytes,
                   std::string* out) {
  std::string dir = RescanDirFor(line);
  for (;;) {
    *out = Line(dir);
    if (out->size() <= max_bytes) return true;
    if (dir == "/") return false;
    dir = ParentDir(dir);
  }
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
