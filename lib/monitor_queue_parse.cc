// What a monitor-queue configuration file says: its queue file and its
// monitors, each checked member by member.
#include <json/json.h>

#include <cstdint>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "lib/exclude_match.h"
#include "lib/monitor_queue_internal.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace monitor_queue_internal {

namespace {

// More would say the patterns belong in a consumer's own filter; it also
// bounds what one monitor costs per event.
constexpr Json::ArrayIndex kMaxExcludePatterns = 64;

// Parses an "events" member: a number (bits above the known codes dropped)
// or a list of event names.
bool ParseEvents(const Json::Value& value, uint32_t* events,
                 std::string* problem) {
  if (value.isArray()) {
    uint32_t mask = 0;
    for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
      const Json::Value& item = value[i];
      if (!item.isString()) {
        *problem = "\"events\" list holds something other than a name";
        return false;
      }
      const std::string name = item.asString();
      const QueueEventName* found = nullptr;
      for (const QueueEventName& e : kQueueEventNames) {
        if (name == e.name) {
          found = &e;
          break;
        }
      }
      if (found == nullptr) {
        *problem = "unknown event name \"" + name + "\"";
        return false;
      }
      mask |= found->code;
    }
    *events = mask;
    return true;
  }
  if (value.isNumeric() && !value.isBool()) {
    if (value.isUInt64()) {
      *events =
          static_cast<uint32_t>(value.asLargestUInt() & QUEUE_EVENT_ALL);
      return true;
    }
    if (value.isInt64() || value.asDouble() < 0) {
      *problem = "\"events\" is negative";
    } else {
      *problem = "\"events\" is not a whole number or is too large";
    }
    return false;
  }
  *problem = "\"events\" is neither a number nor a list of names";
  return false;
}

// Reads one entry of "monitors". Returns false, having logged why (or, when
// `problem_out` is given, stored why instead), when the monitor is to be
// dropped.
//
// `user`, for a file of user.d, is that file: its owner may only watch
// directories they may list, and never gets the events that tell who reads
// what (kOwnerOnlyEvents). Asking for them leaves them out, with `note` set
// to say so; a monitor left with no event is dropped.
bool ParseMonitor(const Json::Value& m, Json::ArrayIndex index,
                  const std::string& file,
                  const MonitorQueue::ShareResolver& resolve,
                  const ConfFile* user,
                  MonitorQueue::MonitorQueueConfig* out, std::string* note,
                  std::string* problem_out = nullptr) {
  const unsigned number = static_cast<unsigned>(index);
  auto drop = [&](const std::string& problem) {
    if (problem_out != nullptr) {
      *problem_out = problem;
    } else {
      YULO_LOG_WARNING_AS(kLogSource,
                         "monitor queue file %s: monitors[%u] skipped: %s",
                         file.c_str(), number, problem.c_str());
    }
    return false;
  };

  if (!m.isObject()) return drop("not an object");

  // A monitor names a share, or a directory by its absolute path.
  const bool by_path = m.isMember("path");
  if (by_path && m.isMember("share")) {
    return drop("both \"share\" and \"path\"; give one");
  }
  std::string share;
  std::string given_path;
  if (by_path) {
    const Json::Value& path_value = m["path"];
    if (!path_value.isString()) return drop("\"path\" is not a string");
    given_path = path_value.asString();
    if (HasNul(given_path)) {
      return drop("\"path\" contains a NUL character");
    }
    if (given_path.empty() || given_path[0] != '/') {
      return drop("\"path\" is not an absolute path");
    }
  } else {
    if (!m.isMember("share")) return drop("no \"share\" or \"path\" member");
    const Json::Value& share_value = m["share"];
    if (!share_value.isString()) return drop("\"share\" is not a string");
    share = share_value.asString();
    if (share.empty()) return drop("\"share\" is empty");
    if (HasNul(share)) return drop("\"share\" contains a NUL character");
  }

  std::string dir = "/";
  if (m.isMember("dir")) {
    const Json::Value& v = m["dir"];
    if (!v.isString()) return drop("\"dir\" is not a string");
    dir = v.asString();
    if (HasNul(dir)) return drop("\"dir\" contains a NUL character");
    std::string ignored;
    if (!NormalizeAbsolutePath("/" + dir, &ignored)) {
      return drop("\"dir\" \"" + dir + "\" contains a \"..\" component");
    }
  }

  bool recursive = true;
  if (m.isMember("recursive")) {
    const Json::Value& v = m["recursive"];
    if (!v.isBool()) return drop("\"recursive\" is not true or false");
    recursive = v.asBool();
  }

  uint32_t events = QUEUE_EVENT_ALL;
  if (user != nullptr) events &= ~kOwnerOnlyEvents;
  if (m.isMember("events")) {
    std::string problem;
    if (!ParseEvents(m["events"], &events, &problem)) return drop(problem);
    if (user != nullptr && (events & kOwnerOnlyEvents) != 0) {
      events &= ~kOwnerOnlyEvents;
      if (events == 0) {
        return drop("asks only for access, open or close_nowrite, which "
                    "subscriptions in user.d do not get");
      }
      *note = "access, open and close_nowrite left out: subscriptions in "
              "user.d do not get them";
    }
  }

  std::vector<std::string> exclude;
  if (m.isMember("exclude")) {
    const Json::Value& v = m["exclude"];
    if (!v.isArray()) return drop("\"exclude\" is not a list");
    if (v.size() > kMaxExcludePatterns) {
      return drop("\"exclude\" holds more than " +
                  std::to_string(kMaxExcludePatterns) + " patterns");
    }
    for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
      if (!v[i].isString()) {
        return drop("\"exclude\" list holds something other than a "
                    "pattern");
      }
      std::string pattern = v[i].asString();
      std::string problem;
      if (!ValidExcludePattern(pattern, &problem)) return drop(problem);
      exclude.push_back(std::move(pattern));
    }
  }

  std::string share_path;
  std::string normalized_share_path;
  if (by_path) {
    if (!NormalizeAbsolutePath(given_path, &normalized_share_path)) {
      return drop("\"path\" \"" + given_path +
                  "\" contains a \"..\" component");
    }
  } else {
    if (!resolve(share, &share_path)) {
      return drop("unknown share \"" + share + "\"");
    }
    if (!NormalizeAbsolutePath(share_path, &normalized_share_path)) {
      return drop("share \"" + share + "\" resolves to \"" + share_path +
                  "\", not a plain absolute path");
    }
  }

  MonitorQueue::MonitorQueueConfig config = MonitorQueue::MakeConfig(
      share, normalized_share_path, dir, recursive, events);
  std::string why;
  if (user != nullptr && !config.directory.empty() &&
      !OwnerMayList(config.directory, user->owner_uid, user->owner_gid,
                    &why)) {
    return drop("its owner, uid " + std::to_string(user->owner_uid) +
                ", cannot list " + config.directory + ": " + why);
  }
  config.exclude = std::move(exclude);
  *out = std::move(config);
  return true;
}

// `reports`, when given, receives one entry per monitor and nothing is
// logged. `unsafe`, when given, is set when the file was refused as unsafe.
bool LoadFileUnguarded(
    const std::string& file, const MonitorQueue::ShareResolver& resolve,
    MonitorQueue* out, std::string* reason,
    std::vector<MonitorQueue::MonitorReport>* reports,
    bool* unsafe, _tag_monitor_queue_type_ type) {
  if (!resolve) {
    *reason = "no share resolver";
    return false;
  }
  ConfFile conf;
  const bool read = ReadConfFile(file, &conf, reason);
  if (unsafe != nullptr) *unsafe = conf.unsafe;
  if (!read) return false;
  const std::string& text = conf.text;

  Json::Value root;
  if (!fromString(text, root)) {
    *reason = "not valid JSON";
    return false;
  }
  if (!root.isObject()) {
    *reason = "not a JSON object";
    return false;
  }
  if (!root.isMember("queue")) {
    *reason = "no \"queue\" member";
    return false;
  }
  const Json::Value& queue_value = root["queue"];
  if (!queue_value.isString()) {
    *reason = "\"queue\" is not a string";
    return false;
  }
  std::string queue_path = queue_value.asString();
  if (queue_path.empty() || queue_path[0] != '/') {
    *reason = "\"queue\" is not an absolute path";
    return false;
  }
  if (HasNul(queue_path)) {
    *reason = "\"queue\" contains a NUL character";
    return false;
  }

  std::vector<MonitorQueue::MonitorQueueConfig> configs;
  if (root.isMember("monitors")) {
    const Json::Value& monitors = root["monitors"];
    if (!monitors.isArray()) {
      *reason = "\"monitors\" is not a list";
      return false;
    }
    configs.reserve(monitors.size());
    for (Json::ArrayIndex i = 0; i < monitors.size(); ++i) {
      MonitorQueue::MonitorQueueConfig config;
      MonitorQueue::MonitorReport report;
      report.index = static_cast<unsigned>(i);
      std::string note;
      const bool loaded =
          ParseMonitor(monitors[i], i, file, resolve,
                       type == MONITOR_QUEUE_TYPE_USER ? &conf : nullptr,
                       &config, &note,
                       reports != nullptr ? &report.reason : nullptr);
      if (reports != nullptr) {
        report.loaded = loaded;
        if (loaded) {
          report.config = config;
          report.reason = note;
        }
        reports->push_back(std::move(report));
      } else if (loaded && !note.empty()) {
        YULO_LOG_ALWAYS_AS(kLogSource, "monitor queue file %s: monitors[%u]: %s",
                           file.c_str(), static_cast<unsigned>(i),
                           note.c_str());
      }
      if (loaded) configs.push_back(std::move(config));
    }
  }

  if (out != nullptr) {
    *out = MonitorQueue(std::move(queue_path), std::move(configs),
                        conf.owner_uid, conf.owner_gid);
  }
  return true;
}

}  // namespace

// LoadFileUnguarded, costing at most the file whatever it holds: JsonCpp
// throws on deep nesting and on conversions we did not guard.
bool LoadFileGuarded(
    const std::string& file, const MonitorQueue::ShareResolver& resolve,
    MonitorQueue* out, std::string* reason,
    std::vector<MonitorQueue::MonitorReport>* reports, bool* unsafe,
    _tag_monitor_queue_type_ type) {
  try {
    return LoadFileUnguarded(file, resolve, out, reason, reports, unsafe,
                             type);
  } catch (const std::exception& e) {
    *reason = std::string("unexpected error: ") + e.what();
  } catch (...) {
    *reason = "unexpected error";
  }
  return false;
}

}  // namespace monitor_queue_internal
}  // namespace YULOTIFYD
}  // namespace YULO
