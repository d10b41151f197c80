#include "forward/spool.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class SpoolTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = scratch_.path() + "/spool"; }

  static std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  // Every line from the first unacknowledged one.
  static std::vector<SpooledLine> All(Spool* s) {
    std::vector<SpooledLine> all, batch;
    std::string error;
    s->Rewind();
    for (;;) {
      EXPECT_TRUE(s->ReadNext(2, 1 << 20, &batch, &error)) << error;
      if (batch.empty()) break;
      all.insert(all.end(), batch.begin(), batch.end());
    }
    s->Rewind();
    return all;
  }

  testing::TempDir scratch_{"spool"};
  std::string dir_;
  const std::string queue_ = "/srv/queues/idx.queue";
};

TEST_F(SpoolTest, NameIsReadableAndUniquePerPath) {
  const std::string a = Spool::NameFor("/srv/queues/idx.queue");
  EXPECT_EQ(a.rfind("srv_queues_idx.queue-", 0), 0u) << a;
  EXPECT_NE(a, Spool::NameFor("/srv/queues_idx.queue"));
}

TEST_F(SpoolTest, LinesGetSequenceNumbersInOrder) {
  Spool s;
  std::string error;
  ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
  ASSERT_TRUE(s.Append({"a", "b", "c"}, &error));
  ASSERT_TRUE(s.Append({"d"}, &error));
  const auto all = All(&s);
  ASSERT_EQ(all.size(), 4u);
  for (size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i].seq, i);
    EXPECT_EQ(all[i].text, std::string(1, static_cast<char>('a' + i)));
  }
  EXPECT_EQ(s.next_seq(), 4u);
  EXPECT_EQ(s.size_bytes(), 8u);
}

TEST_F(SpoolTest, AcknowledgedPositionSurvivesARestart) {
  std::string error;
  uint64_t epoch;
  {
    Spool s;
    ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
    epoch = s.epoch();
    ASSERT_TRUE(s.Append({"a", "b", "c", "d"}, &error));
    std::vector<SpooledLine> batch;
    ASSERT_TRUE(s.ReadNext(3, 1 << 20, &batch, &error));
    ASSERT_EQ(batch.size(), 3u);
    ASSERT_TRUE(s.Acknowledge(1, &error)) << error;  // a and b
    // Dropped without a clean stop: the state file is all there is.
  }
  Spool s;
  ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
  EXPECT_EQ(s.epoch(), epoch);
  const auto all = All(&s);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].seq, 2u);
  EXPECT_EQ(all[0].text, "c");
  EXPECT_EQ(all[1].seq, 3u);
  EXPECT_EQ(s.next_seq(), 4u);
}

TEST_F(SpoolTest, UnfinishedAppendIsDroppedOnOpen) {
  std::string error;
  std::string path;
  {
    Spool s;
    ASSERT_TRUE(s.Open(dir_, queue_, &error));
    ASSERT_TRUE(s.Append({"a"}, &error));
    path = s.spool_path();
  }
  std::ofstream(path, std::ios::app) << "half a li";
  Spool s;
  ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
  EXPECT_EQ(Read(path), "a\n");
  ASSERT_TRUE(s.Append({"b"}, &error));
  const auto all = All(&s);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1].seq, 1u);
  EXPECT_EQ(all[1].text, "b");
}

TEST_F(SpoolTest, CompactsWhenEverythingIsAcknowledgedAndNumbersGoOn) {
  Spool s;
  std::string error;
  ASSERT_TRUE(s.Open(dir_, queue_, &error));
  ASSERT_TRUE(s.Append({"a", "b"}, &error));
  std::vector<SpooledLine> batch;
  ASSERT_TRUE(s.ReadNext(10, 1 << 20, &batch, &error));
  ASSERT_TRUE(s.Acknowledge(1, &error)) << error;
  EXPECT_EQ(s.size_bytes(), 0u);
  EXPECT_EQ(Read(s.spool_path()), "");
  ASSERT_TRUE(s.Append({"c"}, &error));
  auto all = All(&s);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].seq, 2u);

}

TEST_F(SpoolTest, NumbersGoOnAfterCompactionAndRestart) {
  std::string error;
  {
    Spool s;
    ASSERT_TRUE(s.Open(dir_, queue_, &error));
    ASSERT_TRUE(s.Append({"a", "b"}, &error));
    std::vector<SpooledLine> batch;
    ASSERT_TRUE(s.ReadNext(10, 1 << 20, &batch, &error));
    ASSERT_TRUE(s.Acknowledge(1, &error)) << error;
    ASSERT_TRUE(s.Append({"c"}, &error));
  }
  Spool s;
  ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
  const auto all = All(&s);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].seq, 2u);
  EXPECT_EQ(all[0].text, "c");
}

// The two moments a compaction can be cut short at (a crash after the
// state moved forward, or after the cut), rebuilt on disk: either way the
// next line gets a number no line had before.
TEST_F(SpoolTest, CompactionStoppedAtAnyPointNeverReusesANumber) {
  for (const bool cut : {false, true}) {
    SCOPED_TRACE(cut ? "stopped after the cut" : "stopped before the cut");
    testing::TempDir scratch("spool");
    const std::string dir = scratch.path() + "/spool";
    std::string error;
    std::string spool_path, state_path;
    uint64_t epoch;
    {
      Spool s;
      ASSERT_TRUE(s.Open(dir, queue_, &error)) << error;
      ASSERT_TRUE(s.Append({"a", "b", "c"}, &error));
      spool_path = s.spool_path();
      state_path = dir + "/" + Spool::NameFor(queue_) + ".state";
      epoch = s.epoch();
    }
    // What the first save of the compaction of a, b, c leaves: offset at
    // the end, next number 3.
    std::ofstream(state_path, std::ios::trunc)
        << "{\"acked_offset\":6,\"acked_seq\":3,\"epoch\":" << epoch << "}\n";
    if (cut) fs::resize_file(spool_path, 0);
    Spool s;
    ASSERT_TRUE(s.Open(dir, queue_, &error)) << error;
    EXPECT_TRUE(All(&s).empty());
    EXPECT_EQ(s.size_bytes(), 0u);  // the compaction is finished
    ASSERT_TRUE(s.Append({"d"}, &error));
    const auto all = All(&s);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].text, "d");
    EXPECT_EQ(all[0].seq, 3u);
    EXPECT_EQ(s.epoch(), epoch);
  }
}

TEST_F(SpoolTest, TheNewPositionIsSavedBeforeTheFileIsCut) {
  Spool s;
  std::string error;
  ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
  ASSERT_TRUE(s.Append({"a", "b"}, &error));
  std::vector<SpooledLine> batch;
  ASSERT_TRUE(s.ReadNext(10, 1 << 20, &batch, &error));
  // The state cannot be replaced (its temporary file is taken by a
  // directory): the file must not be cut, since the saved state would
  // still number the next line 0.
  const std::string tmp = dir_ + "/" + Spool::NameFor(queue_) + ".state.tmp";
  ASSERT_TRUE(fs::create_directory(tmp));
  EXPECT_FALSE(s.Acknowledge(1, &error));
  EXPECT_NE(error.find("cannot"), std::string::npos) << error;
  EXPECT_EQ(Read(s.spool_path()), "a\nb\n");
  EXPECT_TRUE(s.state_pending());
}

TEST_F(SpoolTest, AStateThatCannotBeSavedStopsTakingLinesUntilItCan) {
  std::string error;
  const std::string tmp = dir_ + "/" + Spool::NameFor(queue_) + ".state.tmp";
  {
    Spool s;
    ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
    ASSERT_TRUE(s.Append({"a", "b", "c"}, &error));
    std::vector<SpooledLine> batch;
    ASSERT_TRUE(s.ReadNext(2, 1 << 20, &batch, &error));
    ASSERT_TRUE(fs::create_directory(tmp));
    EXPECT_FALSE(s.Acknowledge(1, &error));
    // Refused, and nothing of it written.
    EXPECT_FALSE(s.Append({"d"}, &error));
    EXPECT_NE(error.find("cannot"), std::string::npos) << error;
    EXPECT_EQ(Read(s.spool_path()), "a\nb\nc\n");
    EXPECT_EQ(s.next_seq(), 3u);
    // Once the state can be saved again, lines are taken again.
    ASSERT_TRUE(fs::remove(tmp));
    ASSERT_TRUE(s.Append({"d"}, &error)) << error;
    EXPECT_FALSE(s.state_pending());
  }
  // The position saved on the way is the acknowledged one.
  Spool s;
  ASSERT_TRUE(s.Open(dir_, queue_, &error)) << error;
  const auto all = All(&s);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].seq, 2u);
  EXPECT_EQ(all[0].text, "c");
  EXPECT_EQ(all[1].seq, 3u);
  EXPECT_EQ(all[1].text, "d");
}

TEST_F(SpoolTest, SecondOpenOfTheSameSpoolIsRefused) {
  Spool a, b;
  std::string error;
  ASSERT_TRUE(a.Open(dir_, queue_, &error));
  EXPECT_FALSE(b.Open(dir_, queue_, &error));
  EXPECT_NE(error.find("in use"), std::string::npos) << error;
}

TEST_F(SpoolTest, DamagedStateIsRefusedRatherThanReusingIds) {
  std::string error;
  {
    Spool s;
    ASSERT_TRUE(s.Open(dir_, queue_, &error));
  }
  const std::string state = dir_ + "/" + Spool::NameFor(queue_) + ".state";
  std::ofstream(state, std::ios::trunc) << "{garbage";
  Spool s;
  EXPECT_FALSE(s.Open(dir_, queue_, &error));
  EXPECT_NE(error.find("damaged"), std::string::npos) << error;
}

TEST_F(SpoolTest, SizeTracksTheBound) {
  Spool s;
  std::string error;
  ASSERT_TRUE(s.Open(dir_, queue_, &error));
  ASSERT_TRUE(s.Append({std::string(99, 'x')}, &error));
  EXPECT_EQ(s.size_bytes(), 100u);
  EXPECT_EQ(s.unacked_bytes(), 100u);
  std::vector<SpooledLine> batch;
  ASSERT_TRUE(s.ReadNext(1, 10, &batch, &error));  // longer than max_bytes
  ASSERT_EQ(batch.size(), 1u);
  EXPECT_EQ(batch[0].text.size(), 99u);
  ASSERT_TRUE(s.Acknowledge(0, &error));
  EXPECT_EQ(s.unacked_bytes(), 0u);
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
