#include "base/clock.h"

#include <gtest/gtest.h>
#include <time.h>

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(MonotonicMillisTest, FollowsTheMonotonicClock) {
  struct timespec before;
  clock_gettime(CLOCK_MONOTONIC, &before);
  const int64_t ms = MonotonicMillis();
  struct timespec after;
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_GE(ms, static_cast<int64_t>(before.tv_sec) * 1000 +
                    before.tv_nsec / 1000000);
  EXPECT_LE(ms, static_cast<int64_t>(after.tv_sec) * 1000 +
                    after.tv_nsec / 1000000);
}

TEST(MonotonicMillisTest, NeverGoesBack) {
  int64_t last = MonotonicMillis();
  for (int i = 0; i < 1000; ++i) {
    const int64_t now = MonotonicMillis();
    ASSERT_GE(now, last);
    last = now;
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
