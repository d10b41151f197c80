// Where monitor queues are configured and how the daemon loads them: the
// three configuration directories, LoadAll, LoadFile, and Describe, which
// says what LoadAll would do without logging.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "base/errno_text.h"
#include "lib/monitor_queue_internal.h"
#include "yulo_build_config.h"

namespace YULO {
namespace YULOTIFYD {

using monitor_queue_internal::kLogSource;
using monitor_queue_internal::LoadFileGuarded;

namespace {

constexpr const char kConfSuffix[] = ".json";

bool EndsWithConfSuffix(const char* name) {
  const size_t len = std::strlen(name);
  const size_t suffix_len = sizeof(kConfSuffix) - 1;
  return len >= suffix_len &&
         std::memcmp(name + len - suffix_len, kConfSuffix, suffix_len) == 0;
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
      YULO_LOG_DEBUG_AS(kLogSource,
                        "monitor queue directory %s does not exist",
                        dir.c_str());
    } else {
      YULO_LOG_ALWAYS_AS(kLogSource,
                         "cannot read monitor queue directory %s: %m",
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
        YULO_LOG_ALWAYS_AS(kLogSource,
                           "error reading monitor queue directory %s: %m",
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
        YULO_LOG_ALWAYS_AS(kLogSource,
                           "skipped monitor queue file %s/%s: cannot stat: %m",
                           dir.c_str(), entry->d_name);
      }
      continue;
    }
    if (!S_ISREG(st.st_mode)) {
      YULO_LOG_DEBUG_AS(kLogSource, "ignoring %s/%s: not a regular file",
                        dir.c_str(), entry->d_name);
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
      if (LoadFileGuarded(file, resolve, &queue, &reason, nullptr, &unsafe,
                          type)) {
        YULO_LOG_DEBUG_AS(
            kLogSource,
            "loaded monitor queue file %s: queue %s, %zu monitors, owner "
            "uid %u gid %u",
            file.c_str(), queue.GetQueuePath().c_str(),
            queue.GetConfigs().size(),
            static_cast<unsigned>(queue.GetOwnerUid()),
            static_cast<unsigned>(queue.GetOwnerGid()));
        loaded.push_back(std::move(queue));
      } else if (unsafe) {
        YULO_LOG_WARNING_AS(kLogSource, "Unsafe monitor queue file: %s",
                           file.c_str());
        YULO_LOG_DEBUG_AS(kLogSource, "monitor queue file %s: %s",
                          file.c_str(), reason.c_str());
      } else {
        YULO_LOG_WARNING_AS(kLogSource, "skipped monitor queue file %s: %s",
                           file.c_str(), reason.c_str());
      }
    }
  }
  // Built aside and swapped in, so `queues` is never seen half filled by
  // anyone holding the same lock as our caller.
  queues.swap(loaded);
  YULO_LOG_INFO_AS(kLogSource, "loaded %zu monitor queues from %s",
                   queues.size(), conf_root.c_str());
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
                                      &report.monitors, nullptr, type);
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

}  // namespace YULOTIFYD
}  // namespace YULO
