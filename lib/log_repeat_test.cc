#include "log_repeat.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

using Limiter = LogRepeatLimiter;

TEST(LogRepeatLimiterTest, NumbersDoNotMakeANewKind) {
  EXPECT_EQ(Limiter::KindOf("domain_socket:251 Refused command from uid=#, "
                            "pid=#"),
            Limiter::KindOf("domain_socket:251 Refused command from "
                            "uid=65534, pid=4321"));
  EXPECT_NE(Limiter::KindOf("a:1 skipped x"), Limiter::KindOf("a:1 skipped y"));
}

TEST(LogRepeatLimiterTest, ABurstPassesThenTheRestIsCountedAndSummarised) {
  Limiter limiter;
  std::vector<std::string> summaries;
  int64_t now = 1000000;
  for (int i = 0; i < Limiter::kBurst; ++i) {
    EXPECT_TRUE(limiter.Admit("s:1 refused pid=" + std::to_string(i), now,
                              &summaries))
        << i;
  }
  for (int i = 0; i < 7; ++i) {
    EXPECT_FALSE(limiter.Admit("s:1 refused pid=9" + std::to_string(i), now + i,
                               &summaries));
  }
  // Another kind is not held back by the first.
  EXPECT_TRUE(limiter.Admit("s:2 something else", now, &summaries));
  EXPECT_TRUE(summaries.empty());

  // The window ends: the next line of any kind brings the summary first.
  now += Limiter::kWindowMillis;
  EXPECT_TRUE(limiter.Admit("s:2 something else", now, &summaries));
  ASSERT_EQ(1u, summaries.size());
  EXPECT_EQ("left out 7 more lines like this one within 10 seconds: "
            "s:1 refused pid=96",
            summaries[0]);
  // And the kind starts a new window.
  summaries.clear();
  EXPECT_TRUE(limiter.Admit("s:1 refused pid=1", now, &summaries));
  EXPECT_TRUE(summaries.empty());
}

TEST(LogRepeatLimiterTest, AnEvictedKindStillOwesItsSummary) {
  Limiter limiter;
  std::vector<std::string> summaries;
  for (int i = 0; i <= Limiter::kBurst; ++i) {
    limiter.Admit("flood", 0, &summaries);
  }
  // Fill every other slot with later kinds; the flood is seen least
  // recently and makes room.
  for (size_t k = 0; k < Limiter::kKinds; ++k) {
    limiter.Admit("kind " + std::string(k + 1, 'x'), 1, &summaries);
  }
  ASSERT_EQ(1u, summaries.size());
  EXPECT_EQ("left out 1 more lines like this one within 10 seconds: flood",
            summaries[0]);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
