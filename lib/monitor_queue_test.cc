#include "yulotifyd/monitor_queue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

using Config = MonitorQueue::MonitorQueueConfig;

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

TEST(MonitorQueueMatchTest, ExcludedNamesAndWhatTheyHoldAreNotMonitored) {
  MonitorQueue::MonitorQueueConfig noisy =
      MonitorQueue::MakeConfig("x", "/vol1/media", "/", true, QUEUE_EVENT_ALL);
  noisy.exclude = {"@eaDir", "*.part"};
  MonitorQueue q("/q", {noisy});
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/a.jpg", 64));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media", 512)) << "its own directory";
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/@eaDir", 64));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/2024/@eaDir/a.jpg/thumb", 64));
  EXPECT_FALSE(q.IsMonitoring("/vol1/media/film.mkv.part", 8));
  EXPECT_TRUE(q.IsMonitoring("/vol1/media/film.mkv", 8));

  // Another monitor of the same queue without the pattern still takes it.
  MonitorQueue::MonitorQueueConfig all =
      MonitorQueue::MakeConfig("x", "/vol1/media", "/2024", true,
                               QUEUE_EVENT_CREATE);
  MonitorQueue both("/q", {noisy, all});
  EXPECT_TRUE(both.IsMonitoring("/vol1/media/2024/@eaDir", 64));
  EXPECT_FALSE(both.IsMonitoring("/vol1/media/2024/@eaDir", 128));
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

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
