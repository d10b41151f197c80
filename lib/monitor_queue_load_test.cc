// MonitorQueue: the configuration directories, which files LoadAll reads and
// in which order, the reasons LoadFile refuses a whole file, and reloading
// while others read.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "lib/monitor_queue_test_fixture.h"
#include "yulotifyd/log.h"
#include "yulotifyd/fs_ids.h"
#include "yulo_build_config.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

namespace fs = std::filesystem;

using Config = MonitorQueue::MonitorQueueConfig;
using testing::MapResolver;
using testing::MonitorQueueTest;
using testing::QueuePaths;

// ---------------------------------------------------------------------------
// Configuration directories

TEST(MonitorQueueConfDirTest, OneDirectoryPerType) {
  EXPECT_EQ(MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_SYSTEM, "/etc/y"),
            "/etc/y/system.d");
  EXPECT_EQ(MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_APP, "/etc/y"),
            "/etc/y/app.d");
  EXPECT_EQ(MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_USER, "/etc/y"),
            "/etc/y/user.d");
  EXPECT_EQ(MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_APP, "/etc/y/"),
            "/etc/y/app.d");
}

TEST(MonitorQueueConfDirTest, DefaultRootIsCompiledIn) {
  EXPECT_EQ(MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_SYSTEM),
            std::string(YULOTIFYD_CONF_DIR) + "/system.d");
  EXPECT_EQ(MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_APP),
            std::string(YULOTIFYD_CONF_DIR) + "/app.d");
  EXPECT_EQ(MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_USER),
            std::string(YULOTIFYD_CONF_DIR) + "/user.d");
}

TEST(MonitorQueueConfDirTest, UnknownTypeGivesEmptyString) {
  const auto bogus = static_cast<MONITOR_QUEUE_TYPE>(3);
  EXPECT_EQ(MonitorQueue::GetConfDir(bogus, "/etc/y"), "");
  EXPECT_EQ(MonitorQueue::GetConfDir(bogus), "");
}

// ---------------------------------------------------------------------------
// LoadAll: which files, in which order

TEST_F(MonitorQueueTest, LoadsTypesInOrderAndFilesByteWise) {
  // Written out of order on purpose; readdir order is not sorted anyway.
  WriteQueueOnly(MONITOR_QUEUE_TYPE_USER, "a.json", "/q/user/a");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_APP, "z.json", "/q/app/z");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_APP, "A.json", "/q/app/A");
  for (const char* name :
       {"b.json", "\xc3\xa9.json", "a.json", "B.json", "9.json", "_x.json",
        "10.json"}) {
    WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, name,
                   std::string("/q/system/") + name);
  }

  std::vector<MonitorQueue> queues;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 10);
  const std::vector<std::string> expected = {
      "/q/system/10.json", "/q/system/9.json", "/q/system/B.json",
      "/q/system/_x.json", "/q/system/a.json", "/q/system/b.json",
      "/q/system/\xc3\xa9.json",
      "/q/app/A",          "/q/app/z",         "/q/user/a",
  };
  EXPECT_EQ(QueuePaths(queues), expected);
}

TEST_F(MonitorQueueTest, OnlyRegularJsonFilesCount) {
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "good.json", "/q/good");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, ".json", "/q/dotjson");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "good.json.swp", "/q/swp");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, ".good.json.swp", "/q/hidden");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "good.json~", "/q/backup");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "upper.JSON", "/q/upper");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "readme.txt", "/q/txt");
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "json", "/q/bare");
  const std::string dir = ConfDir(MONITOR_QUEUE_TYPE_SYSTEM);
  // A directory with a .json name, and a file inside a subdirectory.
  fs::create_directories(dir + "/dir.json");
  fs::create_directories(dir + "/nested");
  WriteText(dir + "/dir.json/inner.json", "{\"queue\": \"/q/inner\"}");
  WriteText(dir + "/nested/deep.json", "{\"queue\": \"/q/deep\"}");
  // A FIFO must neither count nor block the scan.
  ASSERT_EQ(mkfifo((dir + "/fifo.json").c_str(), 0600), 0);
  // A symlink counts as what it points to; a dangling one is skipped.
  WriteText(root_ + "/target", "{\"queue\": \"/q/linked\"}");
  ASSERT_EQ(symlink((root_ + "/target").c_str(),
                    (dir + "/link.json").c_str()),
            0);
  ASSERT_EQ(symlink((root_ + "/missing").c_str(),
                    (dir + "/dangling.json").c_str()),
            0);

  std::vector<MonitorQueue> queues;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 3);
  EXPECT_EQ(QueuePaths(queues),
            (std::vector<std::string>{"/q/dotjson", "/q/good", "/q/linked"}));
}

TEST_F(MonitorQueueTest, MissingDirectoriesAreEmpty) {
  std::vector<MonitorQueue> queues;
  queues.emplace_back("/stale", std::vector<Config>{});
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_ + "/nowhere", resolve_), 0);
  EXPECT_TRUE(queues.empty());

  // Only user.d exists.
  WriteQueueOnly(MONITOR_QUEUE_TYPE_USER, "u.json", "/q/u");
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 1);
  EXPECT_EQ(QueuePaths(queues), std::vector<std::string>{"/q/u"});
}

TEST_F(MonitorQueueTest, LoadAllReplacesPreviousContents) {
  WriteQueueOnly(MONITOR_QUEUE_TYPE_APP, "a.json", "/q/a");
  std::vector<MonitorQueue> queues;
  queues.emplace_back("/old1", std::vector<Config>{});
  queues.emplace_back("/old2", std::vector<Config>{});
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 1);
  EXPECT_EQ(QueuePaths(queues), std::vector<std::string>{"/q/a"});
}

TEST_F(MonitorQueueTest, BadFilesAreSkippedOthersLoad) {
  const MONITOR_QUEUE_TYPE t = MONITOR_QUEUE_TYPE_SYSTEM;
  WriteConf(t, "01-invalid.json", "{\"queue\": \"/q/x\",");
  WriteConf(t, "02-array.json", "[{\"queue\": \"/q/x\"}]");
  WriteConf(t, "03-noqueue.json", "{\"monitors\": []}");
  WriteConf(t, "04-relative.json", "{\"queue\": \"q/x\"}");
  WriteConf(t, "05-empty.json", "");
  WriteConf(t, "06-good.json",
            "{\"queue\": \"/q/good\", \"monitors\": [{\"share\": \"s\"}]}");
  WriteConf(t, "07-queueobj.json", "{\"queue\": {\"path\": \"/q/x\"}}");
  WriteConf(t, "08-monitorsobj.json",
            "{\"queue\": \"/q/x\", \"monitors\": {\"share\": \"s\"}}");
  WriteConf(t, "09-trailing.json", "{\"queue\": \"/q/x\"} {}");

  std::vector<MonitorQueue> queues;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 1);
  ASSERT_EQ(queues.size(), 1u);
  EXPECT_EQ(queues[0].GetQueuePath(), "/q/good");
  ASSERT_EQ(queues[0].GetConfigs().size(), 1u);
}

// ---------------------------------------------------------------------------
// user.d: what a user's subscription may see

// The lines logged while it is installed (SetLogSink).
std::vector<std::string>& SunkLines() {
  static std::vector<std::string> lines;
  return lines;
}
void SinkLine(int, const char* line) { SunkLines().push_back(line); }

// The monitors of `file` as Describe reports them.
std::vector<MonitorQueue::MonitorReport> MonitorsOf(
    const std::vector<MonitorQueue::FileReport>& files,
    const std::string& file) {
  for (const auto& f : files) {
    if (f.file == file) return f.monitors;
  }
  ADD_FAILURE() << file << " not described";
  return {};
}

TEST_F(MonitorQueueTest, UserSubscriptionsMayNotAskWhoReadsWhat) {
  const std::string share = root_ + "/share";
  ASSERT_TRUE(fs::create_directories(share));
  resolve_ = MapResolver({{"Public", share}});
  const std::string text = R"({"queue": "/q/u", "monitors": [
      {"share": "Public", "events": ["access", "create"]},
      {"share": "Public", "events": 1023},
      {"share": "Public", "events": ["open"]},
      {"share": "Public"},
      {"share": "Public", "events": ["create", "close_write"]}]})";
  const std::string user = WriteConf(MONITOR_QUEUE_TYPE_USER, "u.json", text);
  const std::string system =
      WriteConf(MONITOR_QUEUE_TYPE_SYSTEM, "s.json", text);

  const auto files = MonitorQueue::Describe(root_, resolve_, nullptr);
  const auto monitors = MonitorsOf(files, user);
  ASSERT_EQ(5u, monitors.size());
  const uint32_t kOthers = QUEUE_EVENT_ALL & ~(QUEUE_EVENT_ACCESS |
                                               QUEUE_EVENT_OPEN |
                                               QUEUE_EVENT_CLOSE_NOWRITE);
  const std::string left_out =
      "access, open and close_nowrite left out: subscriptions in user.d do "
      "not get them";
  ASSERT_TRUE(monitors[0].loaded) << monitors[0].reason;
  EXPECT_EQ(QUEUE_EVENT_CREATE, monitors[0].config.events);
  EXPECT_EQ(left_out, monitors[0].reason);
  ASSERT_TRUE(monitors[1].loaded) << monitors[1].reason;
  EXPECT_EQ(kOthers, monitors[1].config.events);
  EXPECT_EQ(left_out, monitors[1].reason);
  // Nothing left: dropped.
  EXPECT_FALSE(monitors[2].loaded);
  EXPECT_EQ("asks only for access, open or close_nowrite, which "
            "subscriptions in user.d do not get",
            monitors[2].reason);
  // Without "events": everything else, nothing to say.
  ASSERT_TRUE(monitors[3].loaded) << monitors[3].reason;
  EXPECT_EQ(kOthers, monitors[3].config.events);
  EXPECT_EQ("", monitors[3].reason);
  ASSERT_TRUE(monitors[4].loaded);
  EXPECT_EQ(QUEUE_EVENT_CREATE | QUEUE_EVENT_CLOSE_WRITE,
            monitors[4].config.events);
  EXPECT_EQ("", monitors[4].reason);
  // The same file in system.d asks for what it likes.
  for (const auto& m : MonitorsOf(files, system)) {
    EXPECT_TRUE(m.loaded) << m.index << ": " << m.reason;
    EXPECT_EQ("", m.reason);
  }

  // LoadAll does the same, with a line for each.
  SunkLines().clear();
  const LogSink before = SetLogSink(&SinkLine);
  std::vector<MonitorQueue> queues;
  const int loaded = MonitorQueue::LoadAll(queues, root_, resolve_);
  SetLogSink(before);
  ASSERT_EQ(2, loaded);
  EXPECT_EQ(5u, queues[0].GetConfigs().size());  // system.d first
  ASSERT_EQ(4u, queues[1].GetConfigs().size());
  EXPECT_EQ(QUEUE_EVENT_CREATE, queues[1].GetConfigs()[0].events);
  std::vector<std::string> lines;
  for (const std::string& line : SunkLines()) {
    if (line.find(user) != std::string::npos) {
      lines.push_back(line.substr(line.find(' ') + 1));
    }
  }
  EXPECT_EQ((std::vector<std::string>{
                "monitor queue file " + user + ": monitors[0]: " + left_out,
                "monitor queue file " + user + ": monitors[1]: " + left_out,
                "monitor queue file " + user +
                    ": monitors[2] skipped: asks only for access, open or "
                    "close_nowrite, which subscriptions in user.d do not get"}),
            lines);
}

// Labelled "root" in CMakeLists.txt: it switches to another user's ids.
TEST_F(MonitorQueueTest, UserSubscriptionNeedsItsOwnerToListTheDirectory) {
  ASSERT_EQ(0u, geteuid()) << "needs root to check as another user";
  constexpr uid_t kUser = 65534;
  constexpr gid_t kGroup = 65534;
  ASSERT_EQ(0, chmod(root_.c_str(), 0755));
  const std::string share = root_ + "/share";
  for (const auto& [dir, mode] :
       std::vector<std::pair<std::string, mode_t>>{{"", 0755},
                                                   {"/open", 0755},
                                                   {"/closed", 0700},
                                                   {"/search-only", 0711},
                                                   {"/open/sub", 0755}}) {
    fs::create_directories(share + dir);
    ASSERT_EQ(0, chmod((share + dir).c_str(), mode));
  }
  resolve_ = MapResolver({{"Public", share}});
  const std::string text = R"({"queue": "/q/u", "monitors": [
      {"share": "Public", "dir": "open", "events": 64},
      {"share": "Public", "dir": "closed", "events": 64},
      {"share": "Public", "dir": "search-only", "events": 64},
      {"share": "Public", "dir": "closed/sub", "events": 64},
      {"share": "Public", "dir": "missing", "events": 64},
      {"share": "Public", "dir": "open/sub", "events": 64}]})";
  const std::string user = WriteConf(MONITOR_QUEUE_TYPE_USER, "u.json", text);
  ASSERT_EQ(0, chown(user.c_str(), kUser, kGroup));
  // Files of system.d and app.d are trusted with any directory.
  const std::string app = WriteConf(MONITOR_QUEUE_TYPE_APP, "a.json", text);
  ASSERT_EQ(0, chown(app.c_str(), kUser, kGroup));

  const auto files = MonitorQueue::Describe(root_, resolve_, nullptr);
  const auto monitors = MonitorsOf(files, user);
  ASSERT_EQ(6u, monitors.size());
  EXPECT_TRUE(monitors[0].loaded) << monitors[0].reason;
  EXPECT_EQ("its owner, uid 65534, cannot list " + share +
                "/closed: Permission denied",
            monitors[1].reason);
  EXPECT_EQ("its owner, uid 65534, cannot list " + share +
                "/search-only: Permission denied",
            monitors[2].reason);
  EXPECT_EQ("its owner, uid 65534, cannot list " + share +
                "/closed/sub: Permission denied",
            monitors[3].reason);
  EXPECT_EQ("its owner, uid 65534, cannot list " + share +
                "/missing: No such file or directory",
            monitors[4].reason);
  EXPECT_TRUE(monitors[5].loaded) << monitors[5].reason;
  for (const auto& m : MonitorsOf(files, app)) {
    EXPECT_TRUE(m.loaded || m.index == 4) << m.index << ": " << m.reason;
  }
  // The checks leave the thread's own rights as they were.
  EXPECT_EQ(0u, ScopedFsIds::CurrentFsUid());
  EXPECT_EQ(0u, ScopedFsIds::CurrentFsGid());

  std::vector<MonitorQueue> queues;
  ASSERT_EQ(2, MonitorQueue::LoadAll(queues, root_, resolve_));
  ASSERT_EQ(2u, queues[1].GetConfigs().size());
  EXPECT_EQ(share + "/open", queues[1].GetConfigs()[0].directory);
  EXPECT_EQ(share + "/open/sub", queues[1].GetConfigs()[1].directory);
}

// ---------------------------------------------------------------------------
// LoadFile: file-level failures

TEST_F(MonitorQueueTest, FileLevelReasons) {
  EXPECT_NE(RejectText("{\"queue\": ").find("JSON"), std::string::npos);
  EXPECT_NE(RejectText("").find("JSON"), std::string::npos);
  EXPECT_NE(RejectText("[\"/q\"]").find("object"), std::string::npos);
  EXPECT_NE(RejectText("\"/q\"").find("object"), std::string::npos);
  EXPECT_NE(RejectText("null").find("object"), std::string::npos);
  EXPECT_NE(RejectText("{}").find("queue"), std::string::npos);
  EXPECT_NE(RejectText("{\"queue\": 5}").find("queue"), std::string::npos);
  EXPECT_NE(RejectText("{\"queue\": \"\"}").find("absolute"),
            std::string::npos);
  EXPECT_NE(RejectText("{\"queue\": \"rel/q\"}").find("absolute"),
            std::string::npos);
  EXPECT_NE(RejectText("{\"queue\": \"/q\\u0000x\"}").find("NUL"),
            std::string::npos);
  EXPECT_NE(RejectText("{\"queue\": \"/q\", \"monitors\": \"s\"}")
                .find("monitors"),
            std::string::npos);
}

TEST_F(MonitorQueueTest, MissingFileAndDirectoryAreRefused) {
  MonitorQueue q;
  std::string reason;
  EXPECT_FALSE(
      MonitorQueue::LoadFile(root_ + "/absent.json", resolve_, &q, &reason));
  EXPECT_NE(reason.find("open"), std::string::npos);
  reason.clear();
  EXPECT_FALSE(MonitorQueue::LoadFile(root_, resolve_, &q, &reason));
  EXPECT_FALSE(reason.empty());
}

TEST_F(MonitorQueueTest, OversizedFileIsRefused) {
  // Valid JSON, just padded past the limit.
  const std::string text =
      "{\"queue\": \"/q/big\"}" + std::string(1024 * 1024 + 1, ' ');
  EXPECT_NE(RejectText(text).find("1 MiB"), std::string::npos);
  // Just under the limit is fine.
  const std::string small = "{\"queue\": \"/q/ok\"}";
  EXPECT_EQ(LoadText(small + std::string(1024 * 1024 - small.size(), ' '))
                .GetQueuePath(),
            "/q/ok");
}

TEST_F(MonitorQueueTest, DeepNestingDoesNotCrash) {
  RejectText(std::string(200000, '[') + std::string(200000, ']'));
  RejectText("{\"queue\": \"/q\", \"x\": " + std::string(100000, '[') +
             std::string(100000, ']') + "}");
}

TEST_F(MonitorQueueTest, NullOutAndReasonAreAllowed) {
  const std::string good = root_ + "/good.json";
  WriteText(good, "{\"queue\": \"/q\"}");
  EXPECT_TRUE(MonitorQueue::LoadFile(good, resolve_, nullptr, nullptr));
  EXPECT_FALSE(MonitorQueue::LoadFile(root_ + "/absent.json", resolve_,
                                      nullptr, nullptr));
}

TEST_F(MonitorQueueTest, ResolverProblemsCostOnlyTheFile) {
  const std::string path = root_ + "/r.json";
  WriteText(path, "{\"queue\": \"/q\", \"monitors\": [{\"share\": \"s\"}]}");
  MonitorQueue q;
  std::string reason;

  MonitorQueue::ShareResolver throwing = [](const std::string&,
                                            std::string*) -> bool {
    throw std::runtime_error("resolver blew up");
  };
  EXPECT_FALSE(MonitorQueue::LoadFile(path, throwing, &q, &reason));
  EXPECT_NE(reason.find("resolver blew up"), std::string::npos);

  reason.clear();
  EXPECT_FALSE(MonitorQueue::LoadFile(path, MonitorQueue::ShareResolver(), &q,
                                      &reason));
  EXPECT_FALSE(reason.empty());

  // A resolver answering with a relative path drops the monitor only.
  MonitorQueue::ShareResolver relative = MapResolver({{"s", "vol1/s"}});
  ASSERT_TRUE(MonitorQueue::LoadFile(path, relative, &q, &reason));
  EXPECT_TRUE(q.GetConfigs().empty());
}

// ---------------------------------------------------------------------------
// Reloading while others read

// One writer reloads a shared list alternately from two configuration roots
// under the write lock; readers copy it under the read lock and query their
// copies. Every copy must be exactly one of the two configurations.
TEST_F(MonitorQueueTest, ConcurrentReloadAndCopy) {
  const std::string root_a = root_ + "/a";
  const std::string root_b = root_ + "/b";
  std::vector<std::string> expect_a, expect_b;
  for (int i = 0; i < 3; ++i) {
    const std::string dir =
        MonitorQueue::GetConfDir(MONITOR_QUEUE_TYPE_APP, root_a);
    fs::create_directories(dir);
    const std::string queue = "/q/a" + std::to_string(i);
    WriteText(dir + "/" + std::to_string(i) + ".json",
              R"({"queue": ")" + queue +
                  R"(", "monitors": [{"share": "Multimedia", "events": 2}]})");
    expect_a.push_back(queue);
  }
  for (int i = 0; i < 5; ++i) {
    const std::string dir = MonitorQueue::GetConfDir(
        // Not user.d: its monitors need directories their owner may list,
        // and these do not exist.
        i < 2 ? MONITOR_QUEUE_TYPE_SYSTEM : MONITOR_QUEUE_TYPE_APP, root_b);
    fs::create_directories(dir);
    const std::string queue = "/q/b" + std::to_string(i);
    WriteText(dir + "/" + std::to_string(i) + ".json",
              R"({"queue": ")" + queue +
                  R"(", "monitors": [{"share": "Backup", "events": 64},
                                     {"share": "Public", "events": 64}]})");
    expect_b.push_back(queue);
  }

  pthread_rwlock_t lock;
  ASSERT_EQ(pthread_rwlock_init(&lock, nullptr), 0);
  std::vector<MonitorQueue> shared;
  ASSERT_EQ(MonitorQueue::LoadAll(shared, root_a, resolve_), 3);

  std::atomic<bool> done{false};
  std::atomic<int> writer_errors{0};
  constexpr int kReloads = 300;
  std::thread writer([&] {
    for (int i = 0; i < kReloads; ++i) {
      const bool use_b = (i % 2) == 0;
      pthread_rwlock_wrlock(&lock);
      const int n =
          MonitorQueue::LoadAll(shared, use_b ? root_b : root_a, resolve_);
      pthread_rwlock_unlock(&lock);
      if (n != (use_b ? 5 : 3)) writer_errors.fetch_add(1);
    }
    done.store(true);
  });

  std::atomic<int> reader_errors{0};
  std::atomic<int> copies_a{0}, copies_b{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      // Keep reading until the writer is done, and at least a few times.
      for (int iter = 0; !done.load() || iter < 20; ++iter) {
        pthread_rwlock_rdlock(&lock);
        std::vector<MonitorQueue> copy = shared;
        pthread_rwlock_unlock(&lock);

        const std::vector<std::string> paths = QueuePaths(copy);
        const bool is_a = paths == expect_a;
        const bool is_b = paths == expect_b;
        if (!is_a && !is_b) {
          reader_errors.fetch_add(1);
          continue;
        }
        (is_a ? copies_a : copies_b).fetch_add(1);
        // The queries must agree with the configuration seen.
        const std::set<std::string> shares = MonitorQueue::GetShareSet(copy);
        const std::set<std::string> want_shares =
            is_a ? std::set<std::string>{"/vol1/Multimedia"}
                 : std::set<std::string>{"/vol1/Public", "/vol2/Backup"};
        if (shares != want_shares) reader_errors.fetch_add(1);
        for (MonitorQueue& q : copy) {
          const size_t want_monitors = is_a ? 1 : 2;
          if (q.GetConfigs().size() != want_monitors) {
            reader_errors.fetch_add(1);
          }
          if (q.IsMonitoring("/vol1/Multimedia/f", QUEUE_EVENT_MODIFY) !=
              is_a) {
            reader_errors.fetch_add(1);
          }
          if (q.IsMonitoring("/vol2/Backup/f", QUEUE_EVENT_CREATE) != is_b) {
            reader_errors.fetch_add(1);
          }
          if (q.GetUnionMask("/vol1") != (is_a ? 0x2u : 0x180u)) {
            reader_errors.fetch_add(1);
          }
        }
        if (MonitorQueue::IsDirMonitoring(copy, "/vol2") != is_b) {
          reader_errors.fetch_add(1);
        }
      }
    });
  }

  writer.join();
  for (std::thread& t : readers) t.join();
  pthread_rwlock_destroy(&lock);

  EXPECT_EQ(writer_errors.load(), 0);
  EXPECT_EQ(reader_errors.load(), 0);
  EXPECT_GT(copies_a.load() + copies_b.load(), 0);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
