// stop_drain_test.cc: the stop-and-drain handshake between a controlling
// thread and a worker.
#include "base/stop_drain.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace YULO {
namespace YULOTIFYD {
namespace {

using Clock = std::chrono::steady_clock;

TEST(StopDrainTest, NothingRunsWithoutARequest) {
  int runs = 0;
  StopDrain drain(
      [&runs](StopDrain::TimePoint) {
        ++runs;
        return false;
      },
      [] {});
  EXPECT_FALSE(drain.Finish());
  EXPECT_EQ(runs, 0);
  EXPECT_TRUE(drain.Drained());
}

TEST(StopDrainTest, TheRequestRaisesTheStopAndTheStepGetsItsDeadline) {
  Clock::time_point seen;
  int stops = 0;
  StopDrain drain(
      [&seen](StopDrain::TimePoint d) {
        seen = d;
        return true;
      },
      [&stops] { ++stops; });
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(7);
  drain.RequestStop(deadline);
  EXPECT_EQ(stops, 1);
  EXPECT_TRUE(drain.Finish());
  EXPECT_EQ(seen, deadline);
  EXPECT_TRUE(drain.Drained());
}

TEST(StopDrainTest, AStepThatRanOutOfTimeIsReported) {
  StopDrain drain([](StopDrain::TimePoint) { return false; }, [] {});
  drain.RequestStop(Clock::now());
  EXPECT_TRUE(drain.Finish());
  EXPECT_FALSE(drain.Drained());
}

// A worker on its own thread that leaves its loop when the stop flag is
// raised, as the daemon's workers do, sees the whole request; under TSan
// this also checks that the flag's ordering is all the plain fields need.
TEST(StopDrainTest, TheWorkerSeesTheRequestOnceItSeesTheStop) {
  std::atomic<bool> stop{false};
  Clock::time_point seen;
  StopDrain drain(
      [&seen](StopDrain::TimePoint d) {
        seen = d;
        return false;
      },
      [&stop] { stop.store(true); });
  bool finished = false;
  std::thread worker([&] {
    while (!stop.load()) std::this_thread::yield();
    finished = drain.Finish();
  });
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(3);
  drain.RequestStop(deadline);
  worker.join();
  EXPECT_TRUE(finished);
  EXPECT_EQ(seen, deadline);
  EXPECT_FALSE(drain.Drained());
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
