// Monitor-queue files: loading, and every query on the loaded queues.
//
// The files are written by other services and, in user.d, by users. The
// target writes up to three fuzzed files into system.d, app.d and user.d of
// a scratch configuration root, loads them with LoadAll and describes them
// with Describe (both walk the same directories), loads each with LoadFile,
// then asks every query of MonitorQueue about each line of the last part.
// Shares resolve through a fake: most names become "/volN/<name>", names
// starting with "NoSuch" are unknown, and "rel:<text>" resolves to <text>
// as it stands, so that relative or ".."-laden share paths are tried too.
//
// Checks: LoadAll and Describe agree on which files load and on their
// monitors; every monitor's directory is empty (matches nothing) or a clean
// absolute path (no "//", no "." or ".." component, no trailing "/"); a
// queue wants the events of each of its monitors on the monitor's own
// directory and, with those events, on an entry directly inside it.
// MakeConfig with the query lines as share path and dir obeys the same.
//
// Input: parts cut at the separator line: up to three files, then query
// lines.
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz/common/fuzz_support.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

constexpr size_t kFiles = 3;
const char* const kDirs[kFiles] = {"system.d", "app.d", "user.d"};
const char* const kNames[kFiles] = {"10-indexer.json", "20-thumbs.json",
                                    "zz-user.json"};

bool Resolve(const std::string& share, std::string* path) {
  if (share.compare(0, 6, "NoSuch") == 0) return false;
  if (share.compare(0, 4, "rel:") == 0) {
    *path = share.substr(4);
    return true;
  }
  *path = "/vol" + std::to_string(share.size() % 3 + 1) + "/" + share;
  return true;
}

bool IsCleanAbsolute(const std::string& dir) {
  if (dir == "/") return true;
  if (dir.empty() || dir[0] != '/' || dir.back() == '/') return false;
  return dir.find("//") == std::string::npos &&
         (dir + "/").find("/./") == std::string::npos &&
         (dir + "/").find("/../") == std::string::npos;
}

void CheckConfig(MonitorQueue& queue,
                 const MonitorQueue::MonitorQueueConfig& config) {
  if (config.directory.empty()) return;
  FUZZ_CHECK(IsCleanAbsolute(config.directory),
             "monitor directory " + config.directory);
  if (config.events == 0) return;
  FUZZ_CHECK(queue.IsMonitoring(config.directory, config.events),
             "queue does not want its own directory " + config.directory);
  const std::string inside =
      (config.directory == "/" ? "" : config.directory) + "/entry";
  FUZZ_CHECK(queue.IsMonitoring(inside, config.events),
             "queue does not want " + inside);
}

void Query(std::vector<MonitorQueue>& queues, const std::string& path) {
  MonitorQueue::IsDirMonitoring(queues, path);
  for (MonitorQueue& queue : queues) {
    queue.IsDirMonitoring(path);
    queue.GetUnionMask(path);
    for (uint32_t code = 1; code <= QUEUE_EVENT_RESET; code <<= 1) {
      queue.IsMonitoring(path, code);
    }
    queue.IsMonitoring(path, QUEUE_EVENT_ALL);
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace YULO::YULOTIFYD;
  const std::vector<std::string_view> parts =
      fuzz::SplitParts(fuzz::AsText(data, size), kFiles + 1);
  const std::string root = fuzz::ScratchRoot() + "/conf";
  fuzz::MakeDirOrDie(root);
  std::vector<std::string> files;
  for (size_t i = 0; i < kFiles; ++i) {
    const std::string dir = root + "/" + kDirs[i];
    fuzz::MakeDirOrDie(dir);
    files.push_back(dir + "/" + kNames[i]);
    // An empty part stands for no file at all.
    if (parts[i].empty()) {
      unlink(files.back().c_str());
    } else {
      fuzz::WriteFileOrDie(files.back(), parts[i]);
    }
  }

  std::vector<MonitorQueue> queues;
  const int loaded = MonitorQueue::LoadAll(queues, root, Resolve);
  FUZZ_CHECK(loaded == static_cast<int>(queues.size()), "LoadAll count");

  std::vector<MonitorQueue::DirReport> dirs;
  const std::vector<MonitorQueue::FileReport> reports =
      MonitorQueue::Describe(root, Resolve, &dirs);
  size_t next = 0;
  for (const MonitorQueue::FileReport& report : reports) {
    MonitorQueue single;
    std::string reason;
    const bool ok = MonitorQueue::LoadFile(report.file, Resolve, &single,
                                           &reason);
    FUZZ_CHECK(ok == report.loaded, "LoadFile and Describe disagree on " +
                                        report.file + ": " + reason);
    if (!report.loaded) continue;
    FUZZ_CHECK(next < queues.size(), "Describe loads more than LoadAll");
    const MonitorQueue& queue = queues[next++];
    FUZZ_CHECK(queue.GetQueuePath() == report.queue_path, "queue path");
    size_t monitors = 0;
    for (const auto& monitor : report.monitors) {
      if (!monitor.loaded) continue;
      FUZZ_CHECK(monitors < queue.GetConfigs().size() &&
                     queue.GetConfigs()[monitors].directory ==
                         monitor.config.directory,
                 "Describe and LoadAll disagree on a monitor");
      ++monitors;
    }
    FUZZ_CHECK(monitors == queue.GetConfigs().size(), "monitor count");
  }
  FUZZ_CHECK(next == queues.size(), "LoadAll loads more than Describe");

  for (MonitorQueue& queue : queues) {
    FUZZ_CHECK(!queue.GetQueuePath().empty() && queue.GetQueuePath()[0] == '/',
               "queue path " + queue.GetQueuePath());
    for (const auto& config : queue.GetConfigs()) CheckConfig(queue, config);
  }
  MonitorQueue::GetShareSet(queues);

  const std::vector<std::string_view> lines = fuzz::SplitLines(parts[kFiles]);
  for (size_t i = 0; i < lines.size() && i < 64; ++i) {
    const std::string line(lines[i]);
    Query(queues, line);
    // The line as a share path with the next one as the dir below it.
    const std::string dir = i + 1 < lines.size() ? std::string(lines[i + 1])
                                                 : std::string("/");
    MonitorQueue made("/q", {MonitorQueue::MakeConfig(
                                "share", line, dir, (i & 1) == 0,
                                QUEUE_EVENT_ALL)});
    CheckConfig(made, made.GetConfigs()[0]);
  }
  testing::TakeLogLines();
  return 0;
}
