#include "forward/sink_line.h"

#include <json/json.h>

#include "yulotifyd/json_util.h"
#include "yulotifyd/monitor_queue.h"
#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr size_t kMaxHostBytes = 255;

bool PlainAscii(const std::string& text) {
  for (const char c : text) {
    if (c <= 0x20 || c >= 0x7f || c == '"' || c == '\\') return false;
  }
  return true;
}

// "/vol1" for "/vol1/a/b" and "/vol1"; "/" otherwise.
std::string TopDirectory(const std::string& path) {
  if (path.size() < 2 || path[0] != '/') return "/";
  const size_t end = path.find('/', 1);
  const std::string top = path.substr(0, end);
  if (top == "/." || top == "/.." || !PlainAscii(top.substr(1))) return "/";
  return top;
}

}  // namespace

LineFacts InspectLine(const std::string& line) {
  LineFacts facts;
  if (line.find_first_of(std::string("\n\0", 2)) != std::string::npos) {
    return facts;
  }
  Json::Value object;
  if (!fromString(line, object) || !object.isObject()) return facts;
  // Blanks after the closing brace would put the host member outside it.
  if (line.empty() || line.back() != '}') return facts;
  facts.valid = true;
  facts.has_host = object.isMember(kHostMember);
  const Json::Value& path = object["path"];
  if (path.isString()) facts.root = TopDirectory(path.asString());
  return facts;
}

std::string CleanHostName(const std::string& host) {
  std::string clean = host.substr(0, kMaxHostBytes);
  for (char& c : clean) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                    (c >= '0' && c <= '9') || c == '.' || c == '-' ||
                    c == '_';
    if (!ok) c = '_';
  }
  return clean;
}

std::string WithHostMember(const std::string& line, const std::string& host) {
  // The object is empty when only blanks lie between its braces.
  const size_t last = line.find_last_not_of(" \t\r", line.size() - 2);
  const bool empty = last == std::string::npos || line[last] == '{';
  std::string out = line.substr(0, line.size() - 1);
  out += empty ? "\"" : ",\"";
  out += kHostMember;
  out += "\":\"";
  out += host;
  out += "\"}";
  return out;
}

std::string ResetMarkerLine() {
  Json::Value marker(Json::objectValue);
  marker["event"] = QUEUE_EVENT_RESET;
  marker["is_dir"] = false;
  marker["path"] = "";
  return toString(marker);
}

std::string RescanLine(const std::string& root, const std::string& host) {
  Json::Value rescan(Json::objectValue);
  rescan["event"] = QUEUE_EVENT_RESCAN;
  rescan["is_dir"] = true;
  rescan["path"] = root;
  const std::string text = toString(rescan);
  return host.empty() ? text : WithHostMember(text, host);
}

bool IsResetMarker(const std::string& line) {
  Json::Value head;
  if (!fromString(line, head) || !head.isObject()) return false;
  const Json::Value& event = head["event"];
  // Read as the daemon reads it: any number that converts to 1024.
  if (!event.isNumeric() && !event.isBool()) return false;
  return event.isConvertibleTo(Json::uintValue) &&
         event.asUInt() == QUEUE_EVENT_RESET;
}

bool NeedsReset(off_t file_bytes, size_t line_bytes) {
  return file_bytes > QueueConsumer::kQueueFileResetBytes ||
         file_bytes + static_cast<off_t>(line_bytes) >
             QueueConsumer::kMaxQueueFileBytes;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
