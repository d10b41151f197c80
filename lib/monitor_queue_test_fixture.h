// What the MonitorQueue tests share: a share resolver over a map, and the
// fixture that writes configuration files into a scratch configuration root.
//
// Thread-safety: test code; one fixture per test, used on its thread (the
// reload test's threads only read `resolve_` and `root_`).
#ifndef YULOTIFYD_LIB_MONITOR_QUEUE_TEST_FIXTURE_H_
#define YULOTIFYD_LIB_MONITOR_QUEUE_TEST_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// A resolver that knows exactly the shares of `shares` (name -> path).
inline MonitorQueue::ShareResolver MapResolver(
    std::map<std::string, std::string> shares) {
  return [shares](const std::string& name, std::string* path) {
    auto it = shares.find(name);
    if (it == shares.end()) return false;
    *path = it->second;
    return true;
  };
}

// The queue paths of `queues`, in order.
inline std::vector<std::string> QueuePaths(
    const std::vector<MonitorQueue>& queues) {
  std::vector<std::string> paths;
  for (const MonitorQueue& q : queues) paths.push_back(q.GetQueuePath());
  return paths;
}

// Each test gets its own configuration root, `root_`, and a resolver that
// knows a few shares on /vol1, /vol2 and /vol3.
class MonitorQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Files and directories made here must not be writable by others,
    // whatever umask the tests were started with: such files are refused.
    old_umask_ = umask(022);
    scratch_ = std::make_unique<TempDir>("monitor-queue");
    root_ = scratch_->path();
  }

  void TearDown() override {
    scratch_.reset();
    umask(old_umask_);
  }

  std::string ConfDir(MONITOR_QUEUE_TYPE type) {
    const std::string dir = MonitorQueue::GetConfDir(type, root_);
    std::filesystem::create_directories(dir);
    return dir;
  }

  static void WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    ASSERT_TRUE(out.good()) << path;
  }

  // Writes `text` as `name` in the directory of `type`; returns its path.
  std::string WriteConf(MONITOR_QUEUE_TYPE type, const std::string& name,
                        const std::string& text) {
    const std::string path = ConfDir(type) + "/" + name;
    WriteText(path, text);
    return path;
  }

  // A file holding just a queue path and no monitors.
  std::string WriteQueueOnly(MONITOR_QUEUE_TYPE type, const std::string& name,
                             const std::string& queue) {
    return WriteConf(type, name, "{\"queue\": \"" + queue + "\"}");
  }

  // LoadFile on `text`, which must succeed.
  MonitorQueue LoadText(const std::string& text) {
    const std::string path = root_ + "/one.json";
    WriteText(path, text);
    MonitorQueue q;
    std::string reason;
    EXPECT_TRUE(MonitorQueue::LoadFile(path, resolve_, &q, &reason))
        << text << " -> " << reason;
    return q;
  }

  // LoadFile on `text`, which must fail; returns the reason.
  std::string RejectText(const std::string& text) {
    const std::string path = root_ + "/bad.json";
    WriteText(path, text);
    MonitorQueue q("/untouched", {});
    std::string reason;
    EXPECT_FALSE(MonitorQueue::LoadFile(path, resolve_, &q, &reason)) << text;
    EXPECT_FALSE(reason.empty()) << text;
    EXPECT_EQ(q.GetQueuePath(), "/untouched") << text;
    return reason;
  }

  mode_t old_umask_ = 022;
  std::unique_ptr<TempDir> scratch_;
  std::string root_;
  MonitorQueue::ShareResolver resolve_ = MapResolver({
      {"Multimedia", "/vol1/Multimedia"},
      {"Public", "/vol1/Public"},
      {"Backup", "/vol2/Backup"},
      {"Trailing", "/vol3//Trailing/"},
      {"s", "/vol1/s"},
  });
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_LIB_MONITOR_QUEUE_TEST_FIXTURE_H_
