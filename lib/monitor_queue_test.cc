#include "yulotifyd/monitor_queue.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/testing/temp_dir.h"
#include "yulo_build_config.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

namespace fs = std::filesystem;

using Config = MonitorQueue::MonitorQueueConfig;

MonitorQueue::ShareResolver MapResolver(
    std::map<std::string, std::string> shares) {
  return [shares](const std::string& name, std::string* path) {
    auto it = shares.find(name);
    if (it == shares.end()) return false;
    *path = it->second;
    return true;
  };
}

std::vector<std::string> QueuePaths(const std::vector<MonitorQueue>& queues) {
  std::vector<std::string> paths;
  for (const MonitorQueue& q : queues) paths.push_back(q.GetQueuePath());
  return paths;
}

class MonitorQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Files and directories made here must not be writable by others,
    // whatever umask the tests were started with: such files are refused.
    old_umask_ = umask(022);
    scratch_ = std::make_unique<testing::TempDir>("monitor-queue");
    root_ = scratch_->path();
  }

  void TearDown() override {
    scratch_.reset();
    umask(old_umask_);
  }

  std::string ConfDir(MONITOR_QUEUE_TYPE type) {
    const std::string dir = MonitorQueue::GetConfDir(type, root_);
    fs::create_directories(dir);
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
  std::unique_ptr<testing::TempDir> scratch_;
  std::string root_;
  MonitorQueue::ShareResolver resolve_ = MapResolver({
      {"Multimedia", "/vol1/Multimedia"},
      {"Public", "/vol1/Public"},
      {"Backup", "/vol2/Backup"},
      {"Trailing", "/vol3//Trailing/"},
      {"s", "/vol1/s"},
  });
};

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

TEST(MonitorQueueResolveTest, EmptyOrNulNameIsUnknown) {
  std::string path = "unchanged";
  EXPECT_FALSE(MonitorQueue::ResolveSharePath("", &path));
  EXPECT_FALSE(
      MonitorQueue::ResolveSharePath(std::string("Pub\0lic", 7), &path));
  EXPECT_EQ(path, "unchanged");
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
// LoadFile: monitors

TEST_F(MonitorQueueTest, FullExampleLoads) {
  const MonitorQueue q = LoadText(R"({
    "queue": "/var/lib/indexer/events.queue",
    "monitors": [
      {"share": "Multimedia", "dir": "/photos", "recursive": false,
       "events": 960},
      {"share": "Public", "events": ["modify", "close_write"]}
    ]})");
  EXPECT_EQ(q.GetQueuePath(), "/var/lib/indexer/events.queue");
  ASSERT_EQ(q.GetConfigs().size(), 2u);
  const Config& a = q.GetConfigs()[0];
  EXPECT_EQ(a.share, "Multimedia");
  EXPECT_EQ(a.share_path, "/vol1/Multimedia");
  EXPECT_EQ(a.dir, "/photos");
  EXPECT_EQ(a.directory, "/vol1/Multimedia/photos");
  EXPECT_FALSE(a.recursive);
  EXPECT_EQ(a.events, 960u);
  const Config& b = q.GetConfigs()[1];
  EXPECT_EQ(b.share, "Public");
  EXPECT_EQ(b.share_path, "/vol1/Public");
  EXPECT_EQ(b.events, QUEUE_EVENT_MODIFY | QUEUE_EVENT_CLOSE_WRITE);
}

TEST_F(MonitorQueueTest, Defaults) {
  const MonitorQueue q =
      LoadText(R"({"queue": "/q", "monitors": [{"share": "Public"}]})");
  ASSERT_EQ(q.GetConfigs().size(), 1u);
  const Config& c = q.GetConfigs()[0];
  EXPECT_EQ(c.dir, "/");
  EXPECT_EQ(c.directory, "/vol1/Public");
  EXPECT_TRUE(c.recursive);
  EXPECT_EQ(c.events, 1023u);

  // No "monitors" at all, or an empty list: the queue loads, monitors none.
  EXPECT_TRUE(LoadText(R"({"queue": "/q"})").GetConfigs().empty());
  EXPECT_TRUE(
      LoadText(R"({"queue": "/q", "monitors": []})").GetConfigs().empty());
}

TEST_F(MonitorQueueTest, SharePathIsNormalised) {
  const MonitorQueue q = LoadText(
      R"({"queue": "/q", "monitors": [{"share": "Trailing", "dir": "a/"}]})");
  ASSERT_EQ(q.GetConfigs().size(), 1u);
  EXPECT_EQ(q.GetConfigs()[0].share_path, "/vol3/Trailing");
  EXPECT_EQ(q.GetConfigs()[0].directory, "/vol3/Trailing/a");
}

TEST_F(MonitorQueueTest, UnknownShareDropsOnlyThatMonitor) {
  const MonitorQueue q = LoadText(R"({"queue": "/q", "monitors": [
      {"share": "NoSuchShare"}, {"share": "Backup", "dir": "/db"}]})");
  EXPECT_EQ(q.GetQueuePath(), "/q");
  ASSERT_EQ(q.GetConfigs().size(), 1u);
  EXPECT_EQ(q.GetConfigs()[0].share, "Backup");
  EXPECT_EQ(q.GetConfigs()[0].directory, "/vol2/Backup/db");

  // Every share unknown: still a queue, with nothing to deliver.
  const MonitorQueue none =
      LoadText(R"({"queue": "/q2", "monitors": [{"share": "Nope"}]})");
  EXPECT_EQ(none.GetQueuePath(), "/q2");
  EXPECT_TRUE(none.GetConfigs().empty());
}

uint32_t EventsOf(const MonitorQueue& q) {
  EXPECT_EQ(q.GetConfigs().size(), 1u);
  return q.GetConfigs().empty() ? 0xdeadbeef : q.GetConfigs()[0].events;
}

TEST_F(MonitorQueueTest, EventsAsNumber) {
  auto with = [&](const std::string& events) {
    return EventsOf(LoadText(R"({"queue": "/q", "monitors": [{"share": "s",
                                 "events": )" + events + "}]}"));
  };
  EXPECT_EQ(with("960"), 960u);
  EXPECT_EQ(with("1"), 1u);
  EXPECT_EQ(with("0"), 0u);
  EXPECT_EQ(with("1023"), 1023u);
  EXPECT_EQ(with("1024"), 0u);        // reset is not something to ask for
  EXPECT_EQ(with("4095"), 1023u);     // unknown bits dropped
  EXPECT_EQ(with("1025"), 1u);
  EXPECT_EQ(with("4294967298"), 2u);  // beyond 32 bits
  EXPECT_EQ(with("18446744073709551615"), 1023u);
  EXPECT_EQ(with("64.0"), 64u);
}

TEST_F(MonitorQueueTest, EventsAsNames) {
  auto with = [&](const std::string& events) {
    return EventsOf(LoadText(R"({"queue": "/q", "monitors": [{"share": "s",
                                 "events": )" + events + "}]}"));
  };
  EXPECT_EQ(with(R"(["access"])"), 1u);
  EXPECT_EQ(with(R"(["modify"])"), 2u);
  EXPECT_EQ(with(R"(["attrib"])"), 4u);
  EXPECT_EQ(with(R"(["close_write"])"), 8u);
  EXPECT_EQ(with(R"(["close_nowrite"])"), 16u);
  EXPECT_EQ(with(R"(["open"])"), 32u);
  EXPECT_EQ(with(R"(["create"])"), 64u);
  EXPECT_EQ(with(R"(["delete"])"), 128u);
  EXPECT_EQ(with(R"(["move"])"), 256u);
  EXPECT_EQ(with(R"(["rescan"])"), 512u);
  EXPECT_EQ(with(R"(["create", "delete", "move", "rescan"])"), 960u);
  EXPECT_EQ(with(R"(["modify", "modify"])"), 2u);
  EXPECT_EQ(with(R"([])"), 0u);
  EXPECT_EQ(with(R"(["access", "modify", "attrib", "close_write",
                     "close_nowrite", "open", "create", "delete", "move",
                     "rescan"])"),
            1023u);
}

// Monitors that are malformed are dropped one by one; the valid last one
// survives each time.
TEST_F(MonitorQueueTest, MalformedMonitorsAreDropped) {
  const std::vector<std::string> bad = {
      R"("Public")",
      R"(42)",
      R"(null)",
      R"([{"share": "s"}])",
      R"({})",
      R"({"dir": "/x"})",
      R"({"share": {"name": "s"}})",
      R"({"share": 7})",
      R"({"share": ["s"]})",
      R"({"share": ""})",
      R"({"share": "s\u0000x"})",
      R"({"share": "s", "dir": {"path": "/x"}})",
      R"({"share": "s", "dir": 5})",
      R"({"share": "s", "dir": null})",
      R"({"share": "s", "dir": ".."})",
      R"({"share": "s", "dir": "/a/../b"})",
      R"({"share": "s", "dir": "/a/.."})",
      R"({"share": "s", "recursive": "true"})",
      R"({"share": "s", "recursive": 1})",
      R"({"share": "s", "recursive": null})",
      R"({"share": "s", "events": -1})",
      R"({"share": "s", "events": -0.5})",
      R"({"share": "s", "events": 1.5})",
      R"({"share": "s", "events": 1e30})",
      R"({"share": "s", "events": "modify"})",
      R"({"share": "s", "events": true})",
      R"({"share": "s", "events": null})",
      R"({"share": "s", "events": {"modify": true}})",
      R"({"share": "s", "events": ["write"]})",
      R"({"share": "s", "events": ["modify", "Modify"]})",
      R"({"share": "s", "events": ["modify", 2]})",
      R"({"share": "s", "events": [["modify"]]})",
  };
  for (const std::string& monitor : bad) {
    const MonitorQueue q = LoadText(R"({"queue": "/q", "monitors": [)" +
                                    monitor +
                                    R"(, {"share": "Backup", "events": 2}]})");
    ASSERT_EQ(q.GetConfigs().size(), 1u) << monitor;
    EXPECT_EQ(q.GetConfigs()[0].share, "Backup") << monitor;
    EXPECT_EQ(q.GetConfigs()[0].events, 2u) << monitor;
  }
}

// Every member, every JSON type: LoadFile never throws and accepts exactly
// the well-typed values.
TEST_F(MonitorQueueTest, WrongTypesNeverCrash) {
  const std::vector<std::string> values = {
      "null", "true", "false", "0", "-1", "1.5", "\"s\"", "\"/q\"",
      "[]", "[1]", "[\"s\"]", "{}", "{\"a\": \"b\"}", "{\"share\": \"s\"}"};
  struct Slot {
    std::string before, after;
    // Monitors expected per value; -1 when the file must be refused.
    std::map<std::string, int> accepted;
    int otherwise;
  };
  const std::vector<Slot> slots = {
      {R"({"queue": )", R"(})", {{"\"/q\"", 0}}, -1},
      {R"({"queue": "/q", "monitors": )", R"(})",
       {{"[]", 0}, {"[1]", 0}, {"[\"s\"]", 0}},
       -1},
      {R"({"queue": "/q", "monitors": [)", R"(]})", {{"{\"share\": \"s\"}", 1}},
       0},
      {R"({"queue": "/q", "monitors": [{"share": )", R"(}]})",
       {{"\"s\"", 1}},
       0},
      {R"({"queue": "/q", "monitors": [{"share": "s", "dir": )", R"(}]})",
       {{"\"s\"", 1}, {"\"/q\"", 1}},
       0},
      {R"({"queue": "/q", "monitors": [{"share": "s", "recursive": )",
       R"(}]})",
       {{"true", 1}, {"false", 1}},
       0},
      {R"({"queue": "/q", "monitors": [{"share": "s", "events": )", R"(}]})",
       {{"0", 1}, {"[]", 1}},
       0},
  };
  const std::string path = root_ + "/types.json";
  for (const Slot& slot : slots) {
    for (const std::string& value : values) {
      const std::string text = slot.before + value + slot.after;
      WriteText(path, text);
      MonitorQueue q;
      std::string reason;
      bool ok = false;
      EXPECT_NO_THROW(ok = MonitorQueue::LoadFile(path, resolve_, &q, &reason))
          << text;
      auto it = slot.accepted.find(value);
      const int expected = it == slot.accepted.end() ? slot.otherwise
                                                     : it->second;
      if (expected < 0) {
        EXPECT_FALSE(ok) << text;
      } else {
        ASSERT_TRUE(ok) << text << " -> " << reason;
        EXPECT_EQ(static_cast<int>(q.GetConfigs().size()), expected) << text;
      }
    }
  }
}

TEST_F(MonitorQueueTest, UnknownMembersAreIgnored) {
  const MonitorQueue q = LoadText(R"({"queue": "/q", "comment": {"x": 1},
      "monitors": [{"share": "s", "note": [1, 2]}]})");
  EXPECT_EQ(q.GetConfigs().size(), 1u);
}

// ---------------------------------------------------------------------------
// MakeConfig

TEST(MonitorQueueMakeConfigTest, DirectoryIsNormalised) {
  auto dir = [](const std::string& share_path, const std::string& d) {
    return MonitorQueue::MakeConfig("x", share_path, d, true, 1).directory;
  };
  EXPECT_EQ(dir("/vol1/s", "/"), "/vol1/s");
  EXPECT_EQ(dir("/vol1/s", ""), "/vol1/s");
  EXPECT_EQ(dir("/vol1/s", "."), "/vol1/s");
  EXPECT_EQ(dir("/vol1/s", "/a"), "/vol1/s/a");
  EXPECT_EQ(dir("/vol1/s", "a"), "/vol1/s/a");
  EXPECT_EQ(dir("/vol1/s", "//a//./b/"), "/vol1/s/a/b");
  EXPECT_EQ(dir("/vol1/s", "/a/./"), "/vol1/s/a");
  EXPECT_EQ(dir("/vol1/s/", "/a"), "/vol1/s/a");
  EXPECT_EQ(dir("/vol1//s", "/a"), "/vol1/s/a");
  EXPECT_EQ(dir("/vol1/s", "/a..b/..."), "/vol1/s/a..b/...");
  EXPECT_EQ(dir("/", "/"), "/");
  EXPECT_EQ(dir("/", ""), "/");
  EXPECT_EQ(dir("/", "x/"), "/x");
  // Refused: left empty.
  EXPECT_EQ(dir("/vol1/s", ".."), "");
  EXPECT_EQ(dir("/vol1/s", "/a/../b"), "");
  EXPECT_EQ(dir("/vol1/../s", "/a"), "");
  EXPECT_EQ(dir("vol1/s", "/a"), "");
  EXPECT_EQ(dir("", "/a"), "");
}

TEST(MonitorQueueMakeConfigTest, KeepsTheOtherFields) {
  const Config c =
      MonitorQueue::MakeConfig("Media", "/vol1/media/", "/a", false, 96);
  EXPECT_EQ(c.share, "Media");
  EXPECT_EQ(c.share_path, "/vol1/media");
  EXPECT_EQ(c.dir, "/a");
  EXPECT_EQ(c.directory, "/vol1/media/a");
  EXPECT_FALSE(c.recursive);
  EXPECT_EQ(c.events, 96u);
}

// ---------------------------------------------------------------------------
// IsMonitoring

MonitorQueue OneMonitor(const std::string& share_path, const std::string& dir,
                        bool recursive, uint32_t events = QUEUE_EVENT_ALL) {
  return MonitorQueue(
      "/q", {MonitorQueue::MakeConfig("x", share_path, dir, recursive,
                                      events)});
}

TEST(MonitorQueueMatchTest, RecursiveDirectory) {
  MonitorQueue q = OneMonitor("/vol1/media", "/photos", true);
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/photos", 2));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/photos/", 2));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/photos/a.jpg", 2));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/photos/2023/06/a.jpg", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/photos2", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/photos2/a.jpg", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/photo", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/other.jpg", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1", 2));
  EXPECT_FALSE(q.IsMonitoring("/", 2));
  EXPECT_FALSE(q.IsMonitoring("", 2));
  EXPECT_FALSE(q.IsMonitoring("vol1/media/photos/a.jpg", 2));
  EXPECT_FALSE(q.IsMonitoring("/x/vol1/media/photos/a.jpg", 2));
}

TEST(MonitorQueueMatchTest, NonRecursiveDirectory) {
  MonitorQueue q = OneMonitor("/vol1/media", "/photos", false);
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/photos", 2));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/photos/a.jpg", 2));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/photos/2023", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/photos/2023/a.jpg", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/photos2/a.jpg", 2));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media", 2));
}

TEST(MonitorQueueMatchTest, SiblingWithCommonPrefixIsNotBelow) {
  MonitorQueue q = OneMonitor("/vol1/media", "/", true);
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/x", 1));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media2/x", 1));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media2", 1));
  EXPECT_FALSE(q.IsMonitoring("/vol1/mediax", 1));
}

TEST(MonitorQueueMatchTest, ShareRootViaSlashAndViaEmpty) {
  for (const std::string dir : {"/", ""}) {
    MonitorQueue rec = OneMonitor("/vol1/media", dir, true);
    EXPECT_EQ(rec.GetConfigs()[0].directory, "/vol1/media");
    EXPECT_TRUE(rec.IsMonitoring("/vol1/media", 4)) << dir;
    EXPECT_TRUE(rec.IsMonitoring("/vol1/media/a", 4)) << dir;
    EXPECT_TRUE(rec.IsMonitoring("/vol1/media/a/b/c", 4)) << dir;
    EXPECT_FALSE(rec.IsMonitoring("/vol1", 4)) << dir;

    MonitorQueue flat = OneMonitor("/vol1/media", dir, false);
    EXPECT_TRUE(flat.IsMonitoring("/vol1/media", 4)) << dir;
    EXPECT_TRUE(flat.IsMonitoring("/vol1/media/a", 4)) << dir;
    EXPECT_FALSE(flat.IsMonitoring("/vol1/media/a/b", 4)) << dir;
  }
}

TEST(MonitorQueueMatchTest, FilesystemRootAsDirectory) {
  MonitorQueue rec = OneMonitor("/", "/", true);
  EXPECT_EQ(rec.GetConfigs()[0].directory, "/");
  EXPECT_TRUE(rec.IsMonitoring("/", 1));
  EXPECT_TRUE(rec.IsMonitoring("/a", 1));
  EXPECT_TRUE(rec.IsMonitoring("/a/b/c", 1));
  EXPECT_FALSE(rec.IsMonitoring("a", 1));
  EXPECT_FALSE(rec.IsMonitoring("", 1));

  MonitorQueue flat = OneMonitor("/", "", false);
  EXPECT_TRUE(flat.IsMonitoring("/", 1));
  EXPECT_TRUE(flat.IsMonitoring("/a", 1));
  EXPECT_FALSE(flat.IsMonitoring("/a/b", 1));
}

TEST(MonitorQueueMatchTest, EventCodeMustBeWanted) {
  MonitorQueue q = OneMonitor("/vol1/media", "/", true,
                              QUEUE_EVENT_CREATE | QUEUE_EVENT_DELETE);
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/a", QUEUE_EVENT_CREATE));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/a", QUEUE_EVENT_DELETE));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/a", QUEUE_EVENT_MODIFY));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/a", QUEUE_EVENT_MOVE));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/a", QUEUE_EVENT_RESET));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/a", 0));

  MonitorQueue none = OneMonitor("/vol1/media", "/", true, 0);
  for (uint32_t code = 1; code <= 1024; code <<= 1) {
    EXPECT_FALSE(none.IsMonitoring("/vol1/media/a", code)) << code;
  }
}

// Path and event code have to be wanted by the same monitor.
TEST(MonitorQueueMatchTest, PathAndCodeFromTheSameMonitor) {
  MonitorQueue q(
      "/q", {MonitorQueue::MakeConfig("a", "/vol1/a", "/", true,
                                      QUEUE_EVENT_MODIFY),
             MonitorQueue::MakeConfig("b", "/vol1/b", "/", true,
                                      QUEUE_EVENT_CREATE)});
  EXPECT_TRUE(q.IsMonitoring("/vol1/a/f", QUEUE_EVENT_MODIFY));
  EXPECT_TRUE(q.IsMonitoring("/vol1/b/f", QUEUE_EVENT_CREATE));
  EXPECT_FALSE(q.IsMonitoring("/vol1/a/f", QUEUE_EVENT_CREATE));
  EXPECT_FALSE(q.IsMonitoring("/vol1/b/f", QUEUE_EVENT_MODIFY));
}

TEST(MonitorQueueMatchTest, EmptyQueueAndRefusedMonitorMatchNothing) {
  MonitorQueue empty("/q", {});
  EXPECT_FALSE(empty.IsMonitoring("/vol1/a", QUEUE_EVENT_ALL));
  MonitorQueue dotdot = OneMonitor("/vol1/media", "/../etc", true);
  EXPECT_FALSE(dotdot.IsMonitoring("/vol1/etc", QUEUE_EVENT_ALL));
  EXPECT_FALSE(dotdot.IsMonitoring("/vol1/media/x", QUEUE_EVENT_ALL));
  EXPECT_FALSE(dotdot.IsMonitoring("/", QUEUE_EVENT_ALL));
  EXPECT_FALSE(MonitorQueue().IsMonitoring("/", QUEUE_EVENT_ALL));
  // Nor does such a monitor count as a share anywhere.
  MonitorQueue relative = OneMonitor("vol1/media", "/", true);
  EXPECT_FALSE(relative.IsMonitoring("/vol1/media/x", QUEUE_EVENT_ALL));
  EXPECT_FALSE(relative.IsDirMonitoring("/"));
  EXPECT_EQ(relative.GetUnionMask("/"), 0u);
  EXPECT_TRUE(MonitorQueue::GetShareSet({relative, dotdot}).empty());
}

// ---------------------------------------------------------------------------
// Share queries

TEST(MonitorQueueShareTest, IsDirMonitoringMember) {
  const MonitorQueue q = OneMonitor("/vol1/media", "/photos", true);
  EXPECT_TRUE(q.IsDirMonitoring("/vol1/media"));
  EXPECT_TRUE(q.IsDirMonitoring("/vol1/media/"));
  EXPECT_TRUE(q.IsDirMonitoring("/vol1"));
  EXPECT_TRUE(q.IsDirMonitoring("/vol1/"));
  EXPECT_TRUE(q.IsDirMonitoring("/"));
  EXPECT_FALSE(q.IsDirMonitoring("/vol1/med"));
  EXPECT_FALSE(q.IsDirMonitoring("/vol10"));
  EXPECT_FALSE(q.IsDirMonitoring("/vol2"));
  // Below the share, even inside the monitored directory: not a share there.
  EXPECT_FALSE(q.IsDirMonitoring("/vol1/media/photos"));
  EXPECT_FALSE(q.IsDirMonitoring(""));
  EXPECT_FALSE(MonitorQueue("/q", {}).IsDirMonitoring("/"));
}

TEST(MonitorQueueShareTest, IsDirMonitoringStatic) {
  const std::vector<MonitorQueue> queues = {
      MonitorQueue("/q0", {}),
      OneMonitor("/vol1/media", "/", true),
      OneMonitor("/vol2/backup", "/", false),
  };
  EXPECT_TRUE(MonitorQueue::IsDirMonitoring(queues, "/vol1"));
  EXPECT_TRUE(MonitorQueue::IsDirMonitoring(queues, "/vol2"));
  EXPECT_TRUE(MonitorQueue::IsDirMonitoring(queues, "/vol2/backup"));
  EXPECT_FALSE(MonitorQueue::IsDirMonitoring(queues, "/vol3"));
  EXPECT_FALSE(MonitorQueue::IsDirMonitoring(queues, "/vol2/back"));
  EXPECT_FALSE(MonitorQueue::IsDirMonitoring({}, "/"));
}

TEST(MonitorQueueShareTest, ShareSets) {
  const std::vector<MonitorQueue> queues = {
      MonitorQueue("/q1",
                   {MonitorQueue::MakeConfig("m", "/vol1/media", "/a", true, 1),
                    MonitorQueue::MakeConfig("m", "/vol1/media", "/b", true, 2),
                    MonitorQueue::MakeConfig("p", "/vol1/public/", "/", true,
                                             1)}),
      MonitorQueue("/q2", {}),
      MonitorQueue("/q3",
                   {MonitorQueue::MakeConfig("b", "/vol2/backup", "/", true,
                                             1)}),
  };
  EXPECT_EQ(MonitorQueue::GetShareSet(queues),
            (std::set<std::string>{"/vol1/media", "/vol1/public",
                                   "/vol2/backup"}));
  EXPECT_TRUE(MonitorQueue::GetShareSet({}).empty());
  EXPECT_TRUE(MonitorQueue::GetShareSet({MonitorQueue("/q", {})}).empty());

  std::set<std::string> shares = {"/already/there"};
  queues[2].CollectShareSet(shares);
  EXPECT_EQ(shares,
            (std::set<std::string>{"/already/there", "/vol2/backup"}));
  queues[1].CollectShareSet(shares);
  EXPECT_EQ(shares.size(), 2u);
  queues[0].CollectShareSet(shares);
  EXPECT_EQ(shares.size(), 4u);
}

// ---------------------------------------------------------------------------
// GetUnionMask

TEST(MonitorQueueUnionMaskTest, EveryCodeMapsToItsKernelBits) {
  const std::map<uint32_t, uint32_t> expected = {
      {1, 0x1},          {2, 0x2},         {4, 0x4},
      {8, 0x8},          {16, 0x10},       {32, 0x20},
      {64, 0x100 | 0x80}, {128, 0x200 | 0x40}, {256, 0x40 | 0x80},
      {512, 0x400},      {1023, 0x7ff},    {0, 0},
  };
  for (const auto& [code, bits] : expected) {
    const MonitorQueue q = OneMonitor("/vol1/media", "/", true, code);
    EXPECT_EQ(q.GetUnionMask("/vol1"), bits) << "code " << code;
  }
}

TEST(MonitorQueueUnionMaskTest, OrOverMonitorsBelowTheMountPoint) {
  const MonitorQueue q(
      "/q", {MonitorQueue::MakeConfig("a", "/vol1/a", "/", true, 1),
             MonitorQueue::MakeConfig("b", "/vol1/b", "/x", false, 64),
             MonitorQueue::MakeConfig("c", "/vol10/c", "/", true, 2),
             MonitorQueue::MakeConfig("d", "/vol2/d", "/", true, 512)});
  EXPECT_EQ(q.GetUnionMask("/vol1"), 0x1u | 0x180u);
  EXPECT_EQ(q.GetUnionMask("/vol1/"), 0x1u | 0x180u);
  EXPECT_EQ(q.GetUnionMask("/vol1//"), 0x1u | 0x180u);
  EXPECT_EQ(q.GetUnionMask("/vol10"), 0x2u);
  EXPECT_EQ(q.GetUnionMask("/vol2"), 0x400u);
  EXPECT_EQ(q.GetUnionMask("/vol3"), 0u);
  EXPECT_EQ(q.GetUnionMask("/vol"), 0u);
  EXPECT_EQ(q.GetUnionMask("/"), 0x1u | 0x180u | 0x2u | 0x400u);
  EXPECT_EQ(q.GetUnionMask(""), 0u);
  // Strictly below: a share that is the mount point itself does not count.
  EXPECT_EQ(q.GetUnionMask("/vol1/a"), 0u);
}

TEST(MonitorQueueUnionMaskTest, SlashBoundary) {
  const MonitorQueue q = OneMonitor("/vol10/x", "/", true, 2);
  EXPECT_EQ(q.GetUnionMask("/vol1"), 0u);
  EXPECT_EQ(q.GetUnionMask("/vol1/"), 0u);
  EXPECT_EQ(q.GetUnionMask("/vol10"), 2u);
  EXPECT_EQ(MonitorQueue("/q", {}).GetUnionMask("/vol10"), 0u);
}

// ---------------------------------------------------------------------------
// Value semantics

TEST(MonitorQueueMayMonitorBelowTest, NearMeansAtBelowOrAbove) {
  MonitorQueue queue(
      "/tmp/q", {MonitorQueue::MakeConfig("M", "/vol1/M", "/photos", true, 64),
                 MonitorQueue::MakeConfig("B", "/vol2/B", "/", false, 64)});
  EXPECT_TRUE(queue.MayMonitorBelow("/vol1/M"));           // above the dir
  EXPECT_TRUE(queue.MayMonitorBelow("/vol1/M/photos"));    // the dir itself
  EXPECT_TRUE(queue.MayMonitorBelow("/vol1/M/photos/x"));  // below it
  EXPECT_TRUE(queue.MayMonitorBelow("/vol2/B"));
  EXPECT_TRUE(queue.MayMonitorBelow("/"));
  EXPECT_FALSE(queue.MayMonitorBelow("/vol1/Media"));
  EXPECT_FALSE(queue.MayMonitorBelow("/vol1/M/music"));
  EXPECT_FALSE(queue.MayMonitorBelow("/vol3"));
  // Whenever it says no, IsMonitoring says no below that path too.
  for (const std::string path :
       {"/vol1/Media/photos", "/vol1/M/music/a", "/vol3/B"}) {
    EXPECT_FALSE(queue.IsMonitoring(path, 64)) << path;
  }
  EXPECT_FALSE(MonitorQueue("/tmp/q", {}).MayMonitorBelow("/"));
}

TEST(MonitorQueueValueTest, CopiesAreIndependent) {
  MonitorQueue a = OneMonitor("/vol1/media", "/", true, 2);
  MonitorQueue b = a;
  a = MonitorQueue("/other", {});
  EXPECT_EQ(b.GetQueuePath(), "/q");
  ASSERT_EQ(b.GetConfigs().size(), 1u);
  EXPECT_TRUE(b.IsMonitoring("/vol1/media/f", 2));
  EXPECT_FALSE(a.IsMonitoring("/vol1/media/f", 2));
}

// ---------------------------------------------------------------------------
// Owners and unsafe files

// A user and group other than root, for files whose owner matters.
constexpr uid_t kOtherUid = 65534;
constexpr gid_t kOtherGid = 65534;

TEST(MonitorQueueOwnerTest, QueuesNotFromFilesBelongToRoot) {
  const MonitorQueue q("/q", {});
  EXPECT_EQ(q.GetOwnerUid(), 0u);
  EXPECT_EQ(q.GetOwnerGid(), 0u);
  EXPECT_EQ(MonitorQueue().GetOwnerUid(), 0u);
}

TEST(MonitorQueueOwnerTest, CopiesKeepTheOwner) {
  MonitorQueue a("/q", {}, 1234, 5678);
  const MonitorQueue b = a;
  std::vector<MonitorQueue> list = {a};
  const std::vector<MonitorQueue> snapshot = list;
  a = MonitorQueue("/other", {});
  EXPECT_EQ(b.GetOwnerUid(), 1234u);
  EXPECT_EQ(b.GetOwnerGid(), 5678u);
  EXPECT_EQ(snapshot[0].GetOwnerUid(), 1234u);
  EXPECT_EQ(snapshot[0].GetOwnerGid(), 5678u);
  EXPECT_EQ(a.GetOwnerUid(), 0u);
}

TEST_F(MonitorQueueTest, OwnerIsTheConfigurationFilesOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give files away";
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "root.json", "/q/root");
  const std::string user =
      WriteQueueOnly(MONITOR_QUEUE_TYPE_USER, "user.json", "/q/user");
  ASSERT_EQ(chown(user.c_str(), kOtherUid, kOtherGid + 1), 0);

  std::vector<MonitorQueue> queues;
  ASSERT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 2);
  EXPECT_EQ(queues[0].GetQueuePath(), "/q/root");
  EXPECT_EQ(queues[0].GetOwnerUid(), 0u);
  EXPECT_EQ(queues[0].GetOwnerGid(), 0u);
  EXPECT_EQ(queues[1].GetQueuePath(), "/q/user");
  EXPECT_EQ(queues[1].GetOwnerUid(), kOtherUid);
  EXPECT_EQ(queues[1].GetOwnerGid(), kOtherGid + 1);

  MonitorQueue q;
  std::string reason;
  ASSERT_TRUE(MonitorQueue::LoadFile(user, resolve_, &q, &reason)) << reason;
  EXPECT_EQ(q.GetOwnerUid(), kOtherUid);

  std::vector<MonitorQueue::DirReport> dirs;
  const auto files = MonitorQueue::Describe(root_, resolve_, &dirs);
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[1].owner_uid, kOtherUid);
  EXPECT_EQ(files[1].owner_gid, kOtherGid + 1);
}

TEST_F(MonitorQueueTest, SymbolicLinkMadeByAUserBelongsToThatUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give files away";
  const std::string dir = ConfDir(MONITOR_QUEUE_TYPE_USER);
  // A root-owned file, linked to by somebody else: that somebody's rights.
  WriteText(root_ + "/root-target", "{\"queue\": \"/q/by-link\"}");
  ASSERT_EQ(symlink((root_ + "/root-target").c_str(),
                    (dir + "/a-user-link.json").c_str()),
            0);
  ASSERT_EQ(lchown((dir + "/a-user-link.json").c_str(), kOtherUid, kOtherGid),
            0);
  // Somebody's file, linked to by root: still that somebody's rights.
  WriteText(root_ + "/user-target", "{\"queue\": \"/q/by-target\"}");
  ASSERT_EQ(chown((root_ + "/user-target").c_str(), kOtherUid, kOtherGid), 0);
  ASSERT_EQ(symlink((root_ + "/user-target").c_str(),
                    (dir + "/b-root-link.json").c_str()),
            0);

  std::vector<MonitorQueue> queues;
  ASSERT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 2);
  EXPECT_EQ(queues[0].GetQueuePath(), "/q/by-link");
  EXPECT_EQ(queues[0].GetOwnerUid(), kOtherUid);
  EXPECT_EQ(queues[0].GetOwnerGid(), kOtherGid);
  EXPECT_EQ(queues[1].GetQueuePath(), "/q/by-target");
  EXPECT_EQ(queues[1].GetOwnerUid(), kOtherUid);
}

TEST_F(MonitorQueueTest, FilesOthersCanChangeAreUnsafe) {
  const MONITOR_QUEUE_TYPE t = MONITOR_QUEUE_TYPE_SYSTEM;
  const std::string ok = WriteQueueOnly(t, "1-ok.json", "/q/ok");
  const std::string group = WriteQueueOnly(t, "2-group.json", "/q/group");
  const std::string other = WriteQueueOnly(t, "3-other.json", "/q/other");
  // Unsafe whatever it holds.
  const std::string junk = WriteConf(t, "4-junk.json", "not json");
  const std::string read_only = WriteQueueOnly(t, "5-ro.json", "/q/ro");
  ASSERT_EQ(chmod(ok.c_str(), 0644), 0);
  ASSERT_EQ(chmod(group.c_str(), 0664), 0);
  ASSERT_EQ(chmod(other.c_str(), 0606), 0);
  ASSERT_EQ(chmod(junk.c_str(), 0666), 0);
  ASSERT_EQ(chmod(read_only.c_str(), 0400), 0);

  std::vector<MonitorQueue> queues;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 2);
  EXPECT_EQ(QueuePaths(queues),
            (std::vector<std::string>{"/q/ok", "/q/ro"}));

  MonitorQueue q("/untouched", {});
  std::string reason;
  EXPECT_FALSE(MonitorQueue::LoadFile(group, resolve_, &q, &reason));
  EXPECT_EQ(reason, "unsafe: writable by its group or by others (mode 0664)");
  EXPECT_EQ(q.GetQueuePath(), "/untouched");
  EXPECT_FALSE(MonitorQueue::LoadFile(other, resolve_, &q, &reason));
  EXPECT_EQ(reason, "unsafe: writable by its group or by others (mode 0606)");
  EXPECT_FALSE(MonitorQueue::LoadFile(junk, resolve_, &q, &reason));
  EXPECT_EQ(reason.rfind("unsafe: ", 0), 0u) << reason;

  const auto files = MonitorQueue::Describe(root_, resolve_, nullptr);
  ASSERT_EQ(files.size(), 5u);
  EXPECT_TRUE(files[0].loaded);
  EXPECT_FALSE(files[1].loaded);
  EXPECT_EQ(files[1].reason,
            "unsafe: writable by its group or by others (mode 0664)");
  EXPECT_FALSE(files[3].loaded);
  EXPECT_EQ(files[3].reason.rfind("unsafe: ", 0), 0u) << files[3].reason;
}

TEST_F(MonitorQueueTest, DirectoryWritableByOthersNeedsTheStickyBit) {
  const std::string file =
      WriteQueueOnly(MONITOR_QUEUE_TYPE_USER, "u.json", "/q/u");
  const std::string dir = ConfDir(MONITOR_QUEUE_TYPE_USER);
  MonitorQueue q;
  std::string reason;

  ASSERT_EQ(chmod(dir.c_str(), 0777), 0);
  EXPECT_FALSE(MonitorQueue::LoadFile(file, resolve_, &q, &reason));
  EXPECT_EQ(reason, "unsafe: its directory " + dir +
                        " is writable by others without the sticky bit "
                        "(mode 0777)");
  std::vector<MonitorQueue> queues;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 0);

  // Like /tmp: everybody may add files, but only their owners may replace
  // them.
  ASSERT_EQ(chmod(dir.c_str(), 01777), 0);
  EXPECT_TRUE(MonitorQueue::LoadFile(file, resolve_, &q, &reason)) << reason;
  // Writable by the directory's group only: that is the owner's choice.
  ASSERT_EQ(chmod(dir.c_str(), 0775), 0);
  EXPECT_TRUE(MonitorQueue::LoadFile(file, resolve_, &q, &reason)) << reason;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 1);
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
        i < 2 ? MONITOR_QUEUE_TYPE_SYSTEM : MONITOR_QUEUE_TYPE_USER, root_b);
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
