#include "yulotifyd/monitor_queue.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "yulo_build_config.h"
#include "yulo_platform.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// A monitor-queue file is a few hundred bytes; anything this big is a
// mistake (or something we should not be slurping into memory).
constexpr size_t kMaxConfFileSize = 1024 * 1024;

// Buffer handed to YULOSharePathGet.
constexpr int kSharePathBufSize = 4096;

constexpr const char kConfSuffix[] = ".json";

// How the reason for refusing an unsafe configuration file begins.
constexpr const char kUnsafePrefix[] = "unsafe: ";

struct EventName {
  const char* name;
  uint32_t code;
};

constexpr EventName kEventNames[] = {
    {"access", QUEUE_EVENT_ACCESS},
    {"modify", QUEUE_EVENT_MODIFY},
    {"attrib", QUEUE_EVENT_ATTRIB},
    {"close_write", QUEUE_EVENT_CLOSE_WRITE},
    {"close_nowrite", QUEUE_EVENT_CLOSE_NOWRITE},
    {"open", QUEUE_EVENT_OPEN},
    {"create", QUEUE_EVENT_CREATE},
    {"delete", QUEUE_EVENT_DELETE},
    {"move", QUEUE_EVENT_MOVE},
    {"rescan", QUEUE_EVENT_RESCAN},
};

// Kernel (inotify) bits the watcher has to ask for so that a queue event
// code can be produced. A created entry may also arrive by being moved in,
// a deleted one by being moved out; a rescan is triggered when a watched
// directory itself goes away.
uint32_t KernelBitsFor(uint32_t events) {
  uint32_t bits = events & (QUEUE_EVENT_ACCESS | QUEUE_EVENT_MODIFY |
                            QUEUE_EVENT_ATTRIB | QUEUE_EVENT_CLOSE_WRITE |
                            QUEUE_EVENT_CLOSE_NOWRITE | QUEUE_EVENT_OPEN);
  static_assert(QUEUE_EVENT_ACCESS == IN_ACCESS &&
                    QUEUE_EVENT_MODIFY == IN_MODIFY &&
                    QUEUE_EVENT_ATTRIB == IN_ATTRIB &&
                    QUEUE_EVENT_CLOSE_WRITE == IN_CLOSE_WRITE &&
                    QUEUE_EVENT_CLOSE_NOWRITE == IN_CLOSE_NOWRITE &&
                    QUEUE_EVENT_OPEN == IN_OPEN,
                "the low queue codes are the inotify bits themselves");
  if (events & QUEUE_EVENT_CREATE) bits |= IN_CREATE | IN_MOVED_TO;
  if (events & QUEUE_EVENT_DELETE) bits |= IN_DELETE | IN_MOVED_FROM;
  if (events & QUEUE_EVENT_MOVE) bits |= IN_MOVED_FROM | IN_MOVED_TO;
  if (events & QUEUE_EVENT_RESCAN) bits |= IN_DELETE_SELF;
  return bits;
}

bool HasNul(const std::string& s) {
  return s.find('\0') != std::string::npos;
}

// Turns an absolute path into its canonical spelling: repeated "/" collapsed,
// "." components dropped, no trailing "/" ("/" for the root itself). Fails on
// a relative path and on any ".." component: we never resolve those, since
// what ".." means depends on symlinks we are not going to chase.
bool NormalizeAbsolutePath(std::string_view in, std::string* out) {
  if (in.empty() || in[0] != '/') return false;
  std::string result;
  result.reserve(in.size());
  size_t pos = 0;
  while (pos < in.size()) {
    while (pos < in.size() && in[pos] == '/') ++pos;
    if (pos >= in.size()) break;
    size_t end = in.find('/', pos);
    if (end == std::string_view::npos) end = in.size();
    const std::string_view part = in.substr(pos, end - pos);
    pos = end;
    if (part == ".") continue;
    if (part == "..") return false;
    result += '/';
    result.append(part.data(), part.size());
  }
  if (result.empty()) result = "/";
  *out = std::move(result);
  return true;
}

// Whether `path` is `dir` itself or lies below it. Below means anywhere
// underneath when `recursive`, else only an entry directly inside `dir`.
// An empty `dir` matches nothing.
bool PathWithin(std::string_view dir, std::string_view path, bool recursive) {
  std::string_view rest;
  if (!PathRelativeTo(dir, path, &rest)) return false;
  return recursive || rest.find('/') == std::string_view::npos;
}

bool EndsWithConfSuffix(const char* name) {
  const size_t len = std::strlen(name);
  const size_t suffix_len = sizeof(kConfSuffix) - 1;
  return len >= suffix_len &&
         std::memcmp(name + len - suffix_len, kConfSuffix, suffix_len) == 0;
}

// The directory part of `file` ("." when it has none).
std::string DirName(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return file.substr(0, slash);
}

// A configuration file's owner decides with whose rights its queue file is
// written, so nobody but that owner may be able to change what the file
// says: neither through the file itself (writable by its group or by others)
// nor through its directory (writable by others without the sticky bit, so
// that anyone could put another file in its place). `file_st` is the file
// that was opened. Returns why the file is unsafe, or "" when it is not.
std::string UnsafeReason(const std::string& file, const struct stat& file_st) {
  char mode[8];
  if ((file_st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    std::snprintf(mode, sizeof(mode), "%04o",
                  static_cast<unsigned>(file_st.st_mode & 07777));
    return std::string("writable by its group or by others (mode ") + mode +
           ")";
  }
  const std::string dir = DirName(file);
  struct stat dir_st;
  if (stat(dir.c_str(), &dir_st) != 0) {
    return "cannot stat its directory " + dir + ": " + ErrnoText(errno);
  }
  if ((dir_st.st_mode & S_IWOTH) != 0 && (dir_st.st_mode & S_ISVTX) == 0) {
    std::snprintf(mode, sizeof(mode), "%04o",
                  static_cast<unsigned>(dir_st.st_mode & 07777));
    return "its directory " + dir +
           " is writable by others without the sticky bit (mode " + mode + ")";
  }
  return std::string();
}

// Who owns a configuration file: the owner of the file that was opened
// (`file_st`), except that a symbolic link made by anyone but root belongs
// to whoever made it, so that nobody gains the rights of a file's owner by
// linking to it.
void ConfOwner(const std::string& file, const struct stat& file_st,
               uid_t* uid, gid_t* gid) {
  struct stat link_st;
  if (lstat(file.c_str(), &link_st) == 0 && S_ISLNK(link_st.st_mode) &&
      link_st.st_uid != 0) {
    *uid = link_st.st_uid;
    *gid = link_st.st_gid;
    return;
  }
  *uid = file_st.st_uid;
  *gid = file_st.st_gid;
}

// What the checks before parsing found out about a configuration file.
struct ConfFile {
  std::string text;
  uid_t owner_uid = 0;
  gid_t owner_gid = 0;
  bool unsafe = false;  // refused by UnsafeReason
};

// Reads a configuration file of at most kMaxConfFileSize bytes, refusing
// one that is unsafe (see UnsafeReason) before reading it.
bool ReadConfFile(const std::string& file, ConfFile* conf,
                  std::string* reason) {
  // O_NONBLOCK so that a FIFO put where a file belongs cannot hang us; it is
  // refused by the regular-file check right after.
  const UniqueFd fd(RetryOnEintr([&] {
    return open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  }));
  if (!fd.Valid()) {
    *reason = "cannot open: " + ErrnoText(errno);
    return false;
  }
  bool ok = true;
  struct stat st;
  if (fstat(fd.Get(), &st) != 0) {
    *reason = "cannot stat: " + ErrnoText(errno);
    ok = false;
  } else if (!S_ISREG(st.st_mode)) {
    *reason = "not a regular file";
    ok = false;
  } else if (static_cast<uint64_t>(st.st_size) > kMaxConfFileSize) {
    *reason = "larger than 1 MiB (" + std::to_string(st.st_size) + " bytes)";
    ok = false;
  } else {
    const std::string unsafe = UnsafeReason(file, st);
    if (!unsafe.empty()) {
      *reason = kUnsafePrefix + unsafe;
      conf->unsafe = true;
      ok = false;
    } else {
      ConfOwner(file, st, &conf->owner_uid, &conf->owner_gid);
    }
  }
  conf->text.clear();
  if (ok) {
    // The file may have grown since fstat.
    const int err = ReadToEnd(fd.Get(), kMaxConfFileSize, &conf->text);
    if (err == EFBIG) {
      *reason = "larger than 1 MiB";
      ok = false;
    } else if (err != 0) {
      *reason = "cannot read: " + ErrnoText(err);
      ok = false;
    }
  }
  return ok;
}

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
      const EventName* found = nullptr;
      for (const EventName& e : kEventNames) {
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
bool ParseMonitor(const Json::Value& m, Json::ArrayIndex index,
                  const std::string& file,
                  const MonitorQueue::ShareResolver& resolve,
                  MonitorQueue::MonitorQueueConfig* out,
                  std::string* problem_out = nullptr) {
  const unsigned number = static_cast<unsigned>(index);
  auto drop = [&](const std::string& problem) {
    if (problem_out != nullptr) {
      *problem_out = problem;
    } else {
      YULO_LOG_ALWAYS("monitor queue file %s: monitors[%u] skipped: %s",
                      file.c_str(), number, problem.c_str());
    }
    return false;
  };

  if (!m.isObject()) return drop("not an object");

  if (!m.isMember("share")) return drop("no \"share\" member");
  const Json::Value& share_value = m["share"];
  if (!share_value.isString()) return drop("\"share\" is not a string");
  const std::string share = share_value.asString();
  if (share.empty()) return drop("\"share\" is empty");
  if (HasNul(share)) return drop("\"share\" contains a NUL character");

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
  if (m.isMember("events")) {
    std::string problem;
    if (!ParseEvents(m["events"], &events, &problem)) return drop(problem);
  }

  std::string share_path;
  if (!resolve(share, &share_path)) {
    return drop("unknown share \"" + share + "\"");
  }
  std::string normalized_share_path;
  if (!NormalizeAbsolutePath(share_path, &normalized_share_path)) {
    return drop("share \"" + share + "\" resolves to \"" + share_path +
                "\", not a plain absolute path");
  }

  *out = MonitorQueue::MakeConfig(share, normalized_share_path, dir,
                                  recursive, events);
  return true;
}

// `reports`, when given, receives one entry per monitor and nothing is
// logged. `unsafe`, when given, is set when the file was refused as unsafe.
bool LoadFileUnguarded(
    const std::string& file, const MonitorQueue::ShareResolver& resolve,
    MonitorQueue* out, std::string* reason,
    std::vector<MonitorQueue::MonitorReport>* reports = nullptr,
    bool* unsafe = nullptr) {
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
      const bool loaded =
          ParseMonitor(monitors[i], i, file, resolve, &config,
                       reports != nullptr ? &report.reason : nullptr);
      if (reports != nullptr) {
        report.loaded = loaded;
        if (loaded) report.config = config;
        reports->push_back(std::move(report));
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

// LoadFileUnguarded, costing at most the file whatever it holds: JsonCpp
// throws on deep nesting and on conversions we did not guard.
bool LoadFileGuarded(
    const std::string& file, const MonitorQueue::ShareResolver& resolve,
    MonitorQueue* out, std::string* reason,
    std::vector<MonitorQueue::MonitorReport>* reports, bool* unsafe) {
  try {
    return LoadFileUnguarded(file, resolve, out, reason, reports, unsafe);
  } catch (const std::exception& e) {
    *reason = std::string("unexpected error: ") + e.what();
  } catch (...) {
    *reason = "unexpected error";
  }
  return false;
}

// Names of the regular files ending in ".json" in `dir`, sorted byte-wise.
// Symlinks count as what they point to. With `report` given nothing is
// logged: the directory's state goes to `report` and the names that cannot
// be examined, with the reason, to `unusable`.
std::vector<std::string> ListConfFiles(
    const std::string& dir, MonitorQueue::DirReport* report = nullptr,
    std::vector<std::pair<std::string, std::string>>* unusable = nullptr) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (report != nullptr) {
    report->dir = dir;
    report->exists = d != nullptr || errno != ENOENT;
    if (d == nullptr && errno != ENOENT) report->error = ErrnoText(errno);
    if (d == nullptr) return names;
  }
  if (d == nullptr) {
    if (errno == ENOENT) {
      YULO_LOG_DEBUG("monitor queue directory %s does not exist",
                     dir.c_str());
    } else {
      YULO_LOG_ALWAYS("cannot read monitor queue directory %s: %m",
                      dir.c_str());
    }
    return names;
  }
  const int dfd = dirfd(d);
  for (;;) {
    errno = 0;
    const struct dirent* entry = readdir(d);
    if (entry == nullptr) {
      if (errno != 0 && report != nullptr) {
        report->error = ErrnoText(errno);
      } else if (errno != 0) {
        YULO_LOG_ALWAYS("error reading monitor queue directory %s: %m",
                        dir.c_str());
      }
      break;
    }
    if (!EndsWithConfSuffix(entry->d_name)) continue;
    struct stat st;
    if (fstatat(dfd, entry->d_name, &st, 0) != 0) {
      if (unusable != nullptr) {
        unusable->emplace_back(entry->d_name,
                               "cannot stat: " + ErrnoText(errno));
      } else if (report == nullptr) {
        YULO_LOG_ALWAYS("skipped monitor queue file %s/%s: cannot stat: %m",
                        dir.c_str(), entry->d_name);
      }
      continue;
    }
    if (!S_ISREG(st.st_mode)) {
      YULO_LOG_DEBUG("ignoring %s/%s: not a regular file", dir.c_str(),
                     entry->d_name);
      continue;
    }
    names.emplace_back(entry->d_name);
  }
  closedir(d);
  // std::string compares through char_traits<char>, i.e. as unsigned bytes.
  std::sort(names.begin(), names.end());
  if (unusable != nullptr) std::sort(unusable->begin(), unusable->end());
  return names;
}

}  // namespace

MonitorQueue::MonitorQueue(std::string queue_path,
                           std::vector<MonitorQueueConfig> configs,
                           uid_t owner_uid, gid_t owner_gid)
    : queue_path_(std::move(queue_path)),
      configs_(std::move(configs)),
      owner_uid_(owner_uid),
      owner_gid_(owner_gid) {}

MonitorQueue::MonitorQueueConfig MonitorQueue::MakeConfig(
    const std::string& share, const std::string& share_path,
    const std::string& dir, bool recursive, uint32_t events) {
  MonitorQueueConfig config;
  config.share = share;
  config.dir = dir;
  config.recursive = recursive;
  config.events = events;
  std::string normalized;
  if (!NormalizeAbsolutePath(share_path, &normalized)) {
    // Kept as given for the log lines; `directory` stays empty and the
    // monitor matches nothing.
    config.share_path = share_path;
    return config;
  }
  config.share_path = std::move(normalized);
  // `dir` is taken relative to the share root whether or not it starts
  // with "/". Left empty (matching nothing) on a ".." component.
  if (!NormalizeAbsolutePath(config.share_path + "/" + dir,
                             &config.directory)) {
    config.directory.clear();
  }
  return config;
}

std::string MonitorQueue::GetConfDir(_tag_monitor_queue_type_ type) {
  return GetConfDir(type, YULOTIFYD_CONF_DIR);
}

std::string MonitorQueue::GetConfDir(_tag_monitor_queue_type_ type,
                                     const std::string& conf_root) {
  const char* sub;
  switch (static_cast<int>(type)) {
    case MONITOR_QUEUE_TYPE_SYSTEM:
      sub = "system.d";
      break;
    case MONITOR_QUEUE_TYPE_APP:
      sub = "app.d";
      break;
    case MONITOR_QUEUE_TYPE_USER:
      sub = "user.d";
      break;
    default:
      return std::string();
  }
  std::string dir = conf_root;
  if (dir.empty() || dir.back() != '/') dir += '/';
  dir += sub;
  return dir;
}

bool MonitorQueue::ResolveSharePath(const std::string& share_name,
                                    std::string* path) {
  if (share_name.empty() || HasNul(share_name)) return false;
  char buf[kSharePathBufSize];
  buf[0] = '\0';
  if (YULOSharePathGet(share_name.c_str(), buf, sizeof(buf)) != 0) {
    return false;
  }
  buf[sizeof(buf) - 1] = '\0';
  if (path != nullptr) *path = buf;
  return true;
}

int MonitorQueue::LoadAll(std::vector<MonitorQueue>& queues) {
  return LoadAll(queues, YULOTIFYD_CONF_DIR, &MonitorQueue::ResolveSharePath);
}

int MonitorQueue::LoadAll(std::vector<MonitorQueue>& queues,
                          const std::string& conf_root,
                          const ShareResolver& resolve) {
  std::vector<MonitorQueue> loaded;
  static constexpr _tag_monitor_queue_type_ kTypes[] = {
      MONITOR_QUEUE_TYPE_SYSTEM, MONITOR_QUEUE_TYPE_APP,
      MONITOR_QUEUE_TYPE_USER};
  for (const _tag_monitor_queue_type_ type : kTypes) {
    const std::string dir = GetConfDir(type, conf_root);
    for (const std::string& name : ListConfFiles(dir)) {
      const std::string file = dir + "/" + name;
      MonitorQueue queue;
      std::string reason;
      bool unsafe = false;
      if (LoadFileGuarded(file, resolve, &queue, &reason, nullptr, &unsafe)) {
        YULO_LOG_DEBUG(
            "loaded monitor queue file %s: queue %s, %zu monitors, owner "
            "uid %u gid %u",
            file.c_str(), queue.GetQueuePath().c_str(),
            queue.GetConfigs().size(),
            static_cast<unsigned>(queue.GetOwnerUid()),
            static_cast<unsigned>(queue.GetOwnerGid()));
        loaded.push_back(std::move(queue));
      } else if (unsafe) {
        YULO_LOG_ALWAYS("Unsafe monitor queue file: %s", file.c_str());
        YULO_LOG_DEBUG("monitor queue file %s: %s", file.c_str(),
                       reason.c_str());
      } else {
        YULO_LOG_ALWAYS("skipped monitor queue file %s: %s", file.c_str(),
                        reason.c_str());
      }
    }
  }
  // Built aside and swapped in, so `queues` is never seen half filled by
  // anyone holding the same lock as our caller.
  queues.swap(loaded);
  YULO_LOG_INFO("loaded %zu monitor queues from %s", queues.size(),
                conf_root.c_str());
  return static_cast<int>(queues.size());
}

bool MonitorQueue::LoadFile(const std::string& file,
                            const ShareResolver& resolve, MonitorQueue* out,
                            std::string* reason) {
  std::string why;
  const bool ok =
      LoadFileGuarded(file, resolve, out, &why, nullptr, nullptr);
  if (!ok && reason != nullptr) *reason = why;
  return ok;
}

std::vector<MonitorQueue::FileReport> MonitorQueue::Describe(
    const std::string& conf_root, const ShareResolver& resolve,
    std::vector<DirReport>* dirs) {
  std::vector<FileReport> files;
  if (dirs != nullptr) dirs->clear();
  static constexpr _tag_monitor_queue_type_ kTypes[] = {
      MONITOR_QUEUE_TYPE_SYSTEM, MONITOR_QUEUE_TYPE_APP,
      MONITOR_QUEUE_TYPE_USER};
  for (const _tag_monitor_queue_type_ type : kTypes) {
    DirReport dir_report;
    dir_report.type = type;
    std::vector<std::pair<std::string, std::string>> unusable;
    const std::string dir = GetConfDir(type, conf_root);
    const std::vector<std::string> names =
        ListConfFiles(dir, &dir_report, &unusable);
    if (dirs != nullptr) dirs->push_back(dir_report);
    // In name order, the files LoadAll would skip before reading them
    // among the others.
    std::vector<FileReport> reports;
    for (const auto& entry : unusable) {
      FileReport report;
      report.file = dir + "/" + entry.first;
      report.type = type;
      report.reason = entry.second;
      reports.push_back(std::move(report));
    }
    for (const std::string& name : names) {
      FileReport report;
      report.file = dir + "/" + name;
      report.type = type;
      MonitorQueue queue;
      std::string why;
      report.loaded = LoadFileGuarded(report.file, resolve, &queue, &why,
                                      &report.monitors, nullptr);
      if (report.loaded) {
        report.queue_path = queue.GetQueuePath();
        report.owner_uid = queue.GetOwnerUid();
        report.owner_gid = queue.GetOwnerGid();
      } else {
        report.reason = why;
        report.monitors.clear();
      }
      reports.push_back(std::move(report));
    }
    std::sort(reports.begin(), reports.end(),
              [](const FileReport& a, const FileReport& b) {
                return a.file < b.file;
              });
    for (FileReport& report : reports) files.push_back(std::move(report));
  }
  return files;
}

std::set<std::string> MonitorQueue::GetShareSet(
    const std::vector<MonitorQueue>& queues) {
  std::set<std::string> shares;
  for (const MonitorQueue& queue : queues) queue.CollectShareSet(shares);
  return shares;
}

bool MonitorQueue::IsDirMonitoring(const std::vector<MonitorQueue>& queues,
                                   const std::string& path) {
  for (const MonitorQueue& queue : queues) {
    if (queue.IsDirMonitoring(path)) return true;
  }
  return false;
}

bool MonitorQueue::IsDirMonitoring(const std::string& path) const {
  for (const MonitorQueueConfig& config : configs_) {
    if (config.directory.empty()) continue;  // matches nothing
    if (PathAtOrBelow(path, config.share_path)) return true;
  }
  return false;
}

bool MonitorQueue::IsMonitoring(const std::string& path,
                                const uint32_t& mask) {
  for (const MonitorQueueConfig& config : configs_) {
    if ((config.events & mask) == 0) continue;
    if (PathWithin(config.directory, path, config.recursive)) return true;
  }
  return false;
}

bool MonitorQueue::MayMonitorBelow(const std::string& dir) const {
  for (const MonitorQueueConfig& config : configs_) {
    if (config.directory.empty()) continue;  // matches nothing
    if (PathAtOrBelow(dir, config.directory) ||
        PathAtOrBelow(config.directory, dir)) {
      return true;
    }
  }
  return false;
}

uint32_t MonitorQueue::GetUnionMask(const std::string& mount_point) const {
  uint32_t bits = 0;
  for (const MonitorQueueConfig& config : configs_) {
    if (config.directory.empty()) continue;
    // Strictly below the mount point; the mount point itself is not a share.
    if (!PathBelow(mount_point, config.share_path)) continue;
    bits |= KernelBitsFor(config.events);
  }
  return bits;
}

void MonitorQueue::CollectShareSet(std::set<std::string>& shares) const {
  for (const MonitorQueueConfig& config : configs_) {
    // A monitor that matches nothing (see MakeConfig) has no usable share.
    if (!config.directory.empty()) shares.insert(config.share_path);
  }
}

}  // namespace YULOTIFYD
}  // namespace YULO
