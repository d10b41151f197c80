#include "forward/forward_clock.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <thread>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

// SIGUSR1 stands for the stop signals: blocked in this thread for the
// test, as main blocks SIGTERM and SIGINT, and whatever is left pending
// taken before the old mask comes back.
class SignalClockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sigemptyset(&stop_set_);
    sigaddset(&stop_set_, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &stop_set_, &old_mask_), 0);
  }
  void TearDown() override {
    const struct timespec none = {0, 0};
    while (sigtimedwait(&stop_set_, nullptr, &none) > 0) {
    }
    pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
  }

  sigset_t stop_set_;
  sigset_t old_mask_;
};

TEST_F(SignalClockTest, APendingStopSignalIsAStopAndStaysOne) {
  SignalClock clock(stop_set_);
  EXPECT_FALSE(clock.StopRequested());
  EXPECT_FALSE(clock.WaitForStop(0));
  ASSERT_EQ(raise(SIGUSR1), 0);
  EXPECT_TRUE(clock.StopRequested());
  // Taken by the wait, which returns at once; still a stop afterwards.
  EXPECT_TRUE(clock.WaitForStop(60 * 1000));
  EXPECT_TRUE(clock.StopRequested());
}

TEST_F(SignalClockTest, AStopSignalEndsAWait) {
  SignalClock clock(stop_set_);
  const pthread_t waiter = pthread_self();
  std::thread stopper([waiter] { pthread_kill(waiter, SIGUSR1); });
  EXPECT_TRUE(clock.WaitForStop(60 * 1000));
  stopper.join();
  EXPECT_TRUE(clock.StopRequested());
}

TEST_F(SignalClockTest, TimeNeverGoesBack) {
  SignalClock clock(stop_set_);
  const int64_t before = clock.NowMillis();
  EXPECT_FALSE(clock.WaitForStop(2));
  EXPECT_GE(clock.NowMillis(), before);
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
