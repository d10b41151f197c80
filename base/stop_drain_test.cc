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
  StopDrain drain([&runs](StopDrain::TimePoint) {
    ++runs;
    return false;
  });
  EXPECT_FALSE(drain.Finish());
  EXPECT_EQ(runs, 0);
  EXPECT_TRUE(drain.Drained());
}

TEST(StopDrainTest, TheStepGetsTheRequestedDeadline) {
  Clock::time_point seen;
  StopDrain drain([&seen](StopDrain::TimePoint d) {
    seen = d;
    return true;
  });
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(7);
  drain.Request(deadline);
  EXPECT_TRUE(drain.Finish());
  EXPECT_EQ(seen, deadline);
  EXPECT_TRUE(drain.Drained());
}

TEST(StopDrainTest, AStepThatRanOutOfTimeIsReported) {
  StopDrain drain([](StopDrain::TimePoint) { return false; });
  drain.Request(Clock::now());
  EXPECT_TRUE(drain.Finish());
  EXPECT_FALSE(drain.Drained());
}

// The request is made on one thread and read by the worker after it sees
// the stop flag, as the workers do; under TSan this also checks that the
// flag's ordering is all the plain fields need.
TEST(StopDrainTest, ARequestMadeBeforeTheStopReachesTheWorker) {
  Clock::time_point seen;
  StopDrain drain([&seen](StopDrain::TimePoint d) {
    seen = d;
    return false;
  });
  std::atomic<bool> stop{false};
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(3);
  bool finished = false;
  std::thread worker([&] {
    while (!stop.load()) std::this_thread::yield();
    finished = drain.Finish();
  });
  drain.Request(deadline);
  stop.store(true);
  worker.join();
  EXPECT_TRUE(finished);
  EXPECT_EQ(seen, deadline);
  EXPECT_FALSE(drain.Drained());
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
