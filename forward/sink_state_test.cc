#include "forward/sink_state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

TEST(SinkStateTest, MissingFileIsAFreshState) {
  testing::TempDir dir;
  SinkState s;
  s.committed = 9;
  std::string error;
  ASSERT_TRUE(LoadSinkState(dir.File("none"), &s, &error)) << error;
  EXPECT_EQ(s.committed, 0u);
  EXPECT_FALSE(s.pending.active);
}

TEST(SinkStateTest, SavedStateComesBackWholeAndPrivate) {
  testing::TempDir dir;
  SinkState s;
  s.stream = "FLEET";
  s.stream_created = "2026-11-25T10:00:00Z";
  s.committed = 18446744073709551615ull;
  s.pending.active = true;
  s.pending.last_seq = 77;
  s.pending.reset = true;
  s.pending.dev = 2049;
  s.pending.ino = 123456789;
  s.pending.offset = 104857600;
  s.pending.length = 4096;
  s.pending.mtime_ns = 1764064800123456789;
  s.pending.ctime_ns = -1;
  AddRoot(&s.pending.roots, "nas-a", "/vol1");
  AddRoot(&s.roots, "nas-a", "/vol1");
  AddRoot(&s.roots, "nas-b", "/vol2");
  const std::string path = dir.File("q.sink-state");
  std::string error;
  ASSERT_TRUE(SaveSinkState(path, s, &error)) << error;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  SinkState back;
  ASSERT_TRUE(LoadSinkState(path, &back, &error)) << error;
  EXPECT_EQ(back.stream, s.stream);
  EXPECT_EQ(back.stream_created, s.stream_created);
  EXPECT_EQ(back.committed, s.committed);
  EXPECT_TRUE(back.pending.active);
  EXPECT_EQ(back.pending.last_seq, 77u);
  EXPECT_TRUE(back.pending.reset);
  EXPECT_EQ(back.pending.dev, 2049u);
  EXPECT_EQ(back.pending.ino, 123456789u);
  EXPECT_EQ(back.pending.offset, 104857600);
  EXPECT_EQ(back.pending.length, 4096u);
  EXPECT_EQ(back.pending.mtime_ns, 1764064800123456789);
  EXPECT_EQ(back.pending.ctime_ns, -1);
  EXPECT_EQ(back.pending.roots, s.pending.roots);
  EXPECT_EQ(back.roots, s.roots);

  // Settled: no pending record is left in the file.
  s.pending = PendingWrite();
  ASSERT_TRUE(SaveSinkState(path, s, &error)) << error;
  ASSERT_TRUE(LoadSinkState(path, &back, &error)) << error;
  EXPECT_FALSE(back.pending.active);
}

TEST(SinkStateTest, ForeignFileIsRefused) {
  testing::TempDir dir;
  SinkState s;
  std::string error;
  EXPECT_FALSE(LoadSinkState(dir.Write("a", "{\"committed\":1}"), &s, &error));
  EXPECT_NE(error.find("not a state file"), std::string::npos) << error;
  EXPECT_FALSE(LoadSinkState(
      dir.Write("b", "{\"stream\":\"S\",\"stream_created\":\"x\","
                     "\"committed\":-3}"),
      &s, &error));
}

TEST(SinkStateTest, RootsAreSummedUpPastTheirBound) {
  HostRoots roots;
  EXPECT_TRUE(AddRoot(&roots, "h", "/vol1"));
  EXPECT_FALSE(AddRoot(&roots, "h", "/vol1"));
  for (size_t i = 1; i < kMaxRootsPerHost; ++i) {
    EXPECT_TRUE(AddRoot(&roots, "h", "/v" + std::to_string(i)));
  }
  EXPECT_EQ(roots["h"].size(), kMaxRootsPerHost);
  EXPECT_TRUE(AddRoot(&roots, "h", "/one-more"));
  EXPECT_EQ(roots["h"], std::set<std::string>{"/"});
  EXPECT_FALSE(AddRoot(&roots, "h", "/anything"));
  // Past the bound of hosts, the others share the empty name.
  HostRoots many;
  for (size_t i = 0; i < kMaxHosts; ++i) {
    AddRoot(&many, "h" + std::to_string(i), "/vol1");
  }
  EXPECT_TRUE(AddRoot(&many, "late", "/vol1"));
  EXPECT_EQ(many.count("late"), 0u);
  EXPECT_EQ(many[""], std::set<std::string>{"/vol1"});
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
