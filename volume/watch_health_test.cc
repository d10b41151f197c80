#include "volume/watch_health.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

using Paths = std::vector<std::string>;

Paths RefusedShares(const WatchHealth& health) {
  Paths out;
  for (const RefusedWatch& r : health.Refusals()) out.push_back(r.share);
  return out;
}

TEST(WatchHealthTest, StartsHealthyAndEmpty) {
  WatchHealth health;
  EXPECT_FALSE(health.AnyRefused());
  EXPECT_TRUE(health.Watched().empty());
  EXPECT_TRUE(health.Refusals().empty());
}

TEST(WatchHealthTest, ARefusalIsNewOncePerErrno) {
  WatchHealth health;
  EXPECT_TRUE(health.Refused("/v/a", EXDEV, "Invalid cross-device link"));
  EXPECT_FALSE(health.Refused("/v/b", EXDEV, "Invalid cross-device link"));
  EXPECT_FALSE(health.Refused("/v/a", EXDEV, "Invalid cross-device link"));
  EXPECT_TRUE(health.Refused("/v/a", ENOSPC, "No space left on device"));
  EXPECT_TRUE(health.AnyRefused());
  const std::vector<RefusedWatch> refused = health.Refusals();
  ASSERT_EQ(refused.size(), 2u);
  EXPECT_EQ(refused[0].share, "/v/a");
  EXPECT_EQ(refused[0].err, ENOSPC);
  EXPECT_EQ(refused[0].reason, "No space left on device");
  EXPECT_EQ(refused[1].share, "/v/b");
}

TEST(WatchHealthTest, PlacedAfterARefusalTellsSo) {
  WatchHealth health;
  EXPECT_FALSE(health.Placed("/v/a"));
  health.Refused("/v/b", EXDEV, "x");
  EXPECT_TRUE(health.Placed("/v/b"));
  EXPECT_FALSE(health.Placed("/v/b"));
  EXPECT_FALSE(health.AnyRefused());
  EXPECT_EQ(health.Watched(), (Paths{"/v/a", "/v/b"}));
}

TEST(WatchHealthTest, ARefusedShareIsNotWatched) {
  WatchHealth health;
  health.Placed("/v/a");
  health.Refused("/v/a", EXDEV, "x");
  EXPECT_TRUE(health.Watched().empty());
  EXPECT_EQ(RefusedShares(health), (Paths{"/v/a"}));
}

TEST(WatchHealthTest, ForgettingEndsBothStates) {
  WatchHealth health;
  health.Placed("/v/a");
  health.Refused("/v/b", EXDEV, "x");
  health.Forget("/v/a");
  health.Forget("/v/b");
  EXPECT_TRUE(health.Watched().empty());
  EXPECT_FALSE(health.AnyRefused());
  // Forgotten: placing it later owes nothing.
  EXPECT_FALSE(health.Placed("/v/b"));
}

TEST(WatchHealthTest, KeepRefusalsOfDropsSharesNoLongerWanted) {
  WatchHealth health;
  health.Refused("/v/a", EXDEV, "x");
  health.Refused("/v/b", EXDEV, "x");
  health.Placed("/v/c");
  health.KeepRefusalsOf(std::set<std::string>{"/v/b", "/v/c"});
  EXPECT_EQ(RefusedShares(health), (Paths{"/v/b"}));
  EXPECT_EQ(health.Watched(), (Paths{"/v/c"}));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
