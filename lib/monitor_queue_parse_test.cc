// MonitorQueue::LoadFile: the monitors of a file, member by member, and
// which malformed ones are dropped.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lib/monitor_queue_test_fixture.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using Config = MonitorQueue::MonitorQueueConfig;
using testing::MonitorQueueTest;

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

TEST_F(MonitorQueueTest, ExcludePatternsAreKept) {
  const MonitorQueue q = LoadText(R"({"queue": "/q", "monitors": [
      {"share": "Public", "exclude": ["@eaDir", "*.part", "tmp/*"]},
      {"share": "Public", "dir": "/a"}]})");
  ASSERT_EQ(q.GetConfigs().size(), 2u);
  EXPECT_EQ(q.GetConfigs()[0].exclude,
            (std::vector<std::string>{"@eaDir", "*.part", "tmp/*"}));
  EXPECT_TRUE(q.GetConfigs()[1].exclude.empty());
}

TEST_F(MonitorQueueTest, BadExcludeDropsTheMonitor) {
  for (const char* bad : {R"("exclude": "*.part")", R"("exclude": [1])",
                          R"("exclude": [""])", R"("exclude": ["/abs"])",
                          R"("exclude": ["a/../b"])",
                          R"("exclude": ["[abc"])"}) {
    const MonitorQueue q = LoadText(
        std::string(R"({"queue": "/q", "monitors": [{"share": "Public", )") +
        bad + "}]}");
    EXPECT_TRUE(q.GetConfigs().empty()) << bad;
  }
  std::string many = R"({"queue": "/q", "monitors": [{"share": "Public",
      "exclude": [)";
  for (int i = 0; i < 65; ++i) many += (i ? ",\"p" : "\"p") + std::to_string(i) + "\"";
  EXPECT_TRUE(LoadText(many + "]}]}").GetConfigs().empty());
}

TEST_F(MonitorQueueTest, MonitorByPath) {
  const MonitorQueue q = LoadText(R"({"queue": "/q", "monitors": [
      {"path": "/srv//data/projects/", "dir": "/2024", "events": ["create"]},
      {"path": "/vol1/Public"}]})");
  ASSERT_EQ(q.GetConfigs().size(), 2u);
  const Config& a = q.GetConfigs()[0];
  EXPECT_EQ(a.share, "");
  EXPECT_EQ(a.share_path, "/srv/data/projects");
  EXPECT_EQ(a.directory, "/srv/data/projects/2024");
  EXPECT_EQ(a.events, QUEUE_EVENT_CREATE);
  EXPECT_EQ(q.GetConfigs()[1].directory, "/vol1/Public");

  for (const char* bad :
       {R"({"path": "relative/dir"})", R"({"path": ""})", R"({"path": 7})",
        R"({"path": "/srv/../etc"})",
        R"({"path": "/srv/data", "share": "Public"})", R"({"dir": "/x"})"}) {
    const MonitorQueue none = LoadText(
        std::string(R"({"queue": "/q", "monitors": [)") + bad + "]}");
    EXPECT_TRUE(none.GetConfigs().empty()) << bad;
  }
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

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
