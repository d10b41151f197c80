#include "tools/peek_follow.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace ctl {
namespace {

using Lines = std::vector<std::string>;

TEST(PeekFollowTest, FirstRoundShowsEverything) {
  PeekFollow follow;
  const PeekFollow::Step step = follow.Next({"a", "b"});
  EXPECT_EQ(step.first_new, 0u);
  EXPECT_FALSE(step.started_over);
  EXPECT_EQ(follow.shown(), 2u);
}

TEST(PeekFollowTest, AppendedLinesAreTheNewOnes) {
  PeekFollow follow;
  follow.Next({"a", "b"});
  PeekFollow::Step step = follow.Next({"a", "b", "c"});
  EXPECT_EQ(step.first_new, 2u);
  EXPECT_FALSE(step.started_over);
  step = follow.Next({"a", "b", "c"});
  EXPECT_EQ(step.first_new, 3u);  // nothing new
  EXPECT_FALSE(step.started_over);
  step = follow.Next({"a", "b", "c", "d", "e"});
  EXPECT_EQ(step.first_new, 3u);
  EXPECT_EQ(follow.shown(), 5u);
}

TEST(PeekFollowTest, AnEmptiedFileStartsOver) {
  PeekFollow follow;
  follow.Next({"a", "b"});
  PeekFollow::Step step = follow.Next({});
  EXPECT_TRUE(step.started_over);
  EXPECT_EQ(step.first_new, 0u);
  EXPECT_EQ(follow.shown(), 0u);
  // Lines written after the cut are all new, even one equal to an old one.
  step = follow.Next({"a"});
  EXPECT_FALSE(step.started_over);
  EXPECT_EQ(step.first_new, 0u);
}

TEST(PeekFollowTest, ACutAndRefilledFileStartsOver) {
  PeekFollow follow;
  follow.Next({"a", "b"});
  // Taken by a consumer, then longer than before with other lines.
  const PeekFollow::Step step = follow.Next({"c", "d", "e"});
  EXPECT_TRUE(step.started_over);
  EXPECT_EQ(step.first_new, 0u);
  EXPECT_EQ(follow.shown(), 3u);
  EXPECT_EQ(follow.Next({"c", "d", "e", "f"}).first_new, 3u);
}

TEST(PeekFollowTest, AShorterFileStartsOver) {
  PeekFollow follow;
  follow.Next({"a", "b", "c"});
  const PeekFollow::Step step = follow.Next({"a", "b"});
  EXPECT_TRUE(step.started_over);
  EXPECT_EQ(step.first_new, 0u);
  EXPECT_EQ(follow.shown(), 2u);
}

}  // namespace
}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
