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
  StopDrain drain;
  int runs = 0;
  EXPECT_FALSE(drain.Finish([&runs](StopDrain::TimePoint) {
    ++runs;
    return false;
  }));
  EXPECT_EQ(runs, 0);
  EXPECT_TRUE(drain.Drained());
}

TEST(StopDrainTest, TheStepGetsTheRequestedDeadline) {
  StopDrain drain;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(7);
  drain.Request(deadline);
  Clock::time_point seen;
  EXPECT_TRUE(drain.Finish([&seen](StopDrain::TimePoint d) {
    seen = d;
    return true;
  }));
  EXPECT_EQ(seen, deadline);
  EXPECT_TRUE(drain.Drained());
}

TEST(StopDrainTest, AStepThatRanOutOfTimeIsReported) {
  StopDrain drain;
  drain.Request(Clock::now());
  EXPECT_TRUE(drain.Finish([](StopDrain::TimePoint) { return false; }));
  EXPECT_FALSE(drain.Drained());
}

// The request is made on one thread and read by the worker after it sees
// the stop flag, as the workers do; under TSan this also checks that the
// flag's ordering is all the plain fields need.
TEST(StopDrainTest, ARequestMadeBeforeTheStopReachesTheWorker) {
  StopDrain drain;
  std::atomic<bool> stop{false};
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(3);
  Clock::time_point seen;
  bool finished = false;
  std::thread worker([&] {
    while (!stop.load()) std::this_thread::yield();
    finished = drain.Finish([&seen](StopDrain::TimePoint d) {
      seen = d;
      return false;
    });
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
