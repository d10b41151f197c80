#include "yulotifyd/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

class ThreadLockTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Thread::InitThreadLock()); }
  void TearDown() override { Thread::DestroyThreadLock(); }
};

// A worker that counts loop turns until stopped; `log` records the order of
// the end of Run and the start of the derived destructor's own work.
class CountingWorker : public Thread {
 public:
  explicit CountingWorker(std::vector<std::string>* log) : log_(log) {}
  ~CountingWorker() override {
    Stop();
    log_->push_back("derived destructor");
  }
  std::atomic<int> turns{0};
  std::atomic<bool> running{false};

 protected:
  void Run() override {
    running = true;
    while (!stop_flag) {
      ++turns;
      SleepUnlessStopped(1);
    }
    log_->push_back("run returned");
  }

 private:
  std::vector<std::string>* log_;
};

TEST(ThreadWithoutLockTest, StartRefusedAndObjectStillDestroyable) {
  std::vector<std::string> log;
  {
    CountingWorker worker(&log);
    EXPECT_FALSE(worker.Start());
    EXPECT_FALSE(worker.IsRunning());
  }
  // Run never ran, so only the destructor wrote.
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "derived destructor");
}

TEST_F(ThreadLockTest, InitTwiceFailsAndReinitAfterDestroyWorks) {
  EXPECT_FALSE(Thread::InitThreadLock());
  Thread::DestroyThreadLock();
  EXPECT_TRUE(Thread::InitThreadLock());
}

TEST_F(ThreadLockTest, StartRunsBodyOnAnotherThreadUntilStopped) {
  std::vector<std::string> log;
  CountingWorker worker(&log);
  ASSERT_TRUE(worker.Start());
  EXPECT_TRUE(worker.IsRunning());
  while (worker.turns.load() < 3) {
  }
  worker.Stop();
  EXPECT_FALSE(worker.IsRunning());
  const int turns = worker.turns.load();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "run returned");
  // Nothing runs after Stop returned.
  EXPECT_EQ(worker.turns.load(), turns);
}

TEST_F(ThreadLockTest, SecondStartIsRefused) {
  std::vector<std::string> log;
  CountingWorker worker(&log);
  ASSERT_TRUE(worker.Start());
  EXPECT_FALSE(worker.Start());
}

TEST_F(ThreadLockTest, DestroyingRunningObjectJoinsBeforeDerivedMembersGo) {
  std::vector<std::string> log;
  {
    auto* worker = new CountingWorker(&log);
    ASSERT_TRUE(worker->Start());
    while (!worker->running.load()) {
    }
    Thread* base = worker;
    delete base;  // through the base, as the volume manager does
  }
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], "run returned");
  EXPECT_EQ(log[1], "derived destructor");
}

// A worker with state that actions touch; it marks its critical section so a
// test can see whether an action ever overlapped it.
class StatefulWorker : public Thread {
 public:
  ~StatefulWorker() override { Stop(); }
  int value = 0;
  bool in_section = false;
  std::atomic<int> sections{0};

  static void AddTen(Thread* self, char* arg) {
    auto* w = static_cast<StatefulWorker*>(self);
    w->actions_seen_overlap |= w->in_section;
    w->value += 10;
    w->last_arg_was_null = (arg == nullptr);
    if (arg != nullptr) w->last_arg = arg;
    w->last_arg_ptr = arg;
  }
  bool actions_seen_overlap = false;
  bool last_arg_was_null = false;
  std::string last_arg;
  const char* last_arg_ptr = nullptr;

 protected:
  void Run() override {
    while (!stop_flag) {
      {
        StateGuard guard(this);
        in_section = true;
        for (int i = 0; i < 100; ++i) value += 1;
        value -= 100;
        in_section = false;
      }
      ++sections;
    }
  }
};

TEST_F(ThreadLockTest, DoActionRunsOnceWithNullArgument) {
  StatefulWorker worker;
  worker.DoAction(&StatefulWorker::AddTen, nullptr);
  EXPECT_EQ(worker.value, 10);
  EXPECT_TRUE(worker.last_arg_was_null);
}

TEST_F(ThreadLockTest, DoActionPassesPrivateCopyOfText) {
  StatefulWorker worker;
  const char* text = "share=/vol1/a";
  worker.DoAction(&StatefulWorker::AddTen, text);
  EXPECT_EQ(worker.value, 10);
  EXPECT_FALSE(worker.last_arg_was_null);
  EXPECT_EQ(worker.last_arg, text);
  EXPECT_NE(worker.last_arg_ptr, text);
}

TEST_F(ThreadLockTest, DoActionIsSerialisedWithWorkerState) {
  StatefulWorker worker;
  ASSERT_TRUE(worker.Start());
  constexpr int kActions = 500;
  for (int i = 0; i < kActions; ++i) {
    worker.DoAction(&StatefulWorker::AddTen, nullptr);
  }
  // Let the worker run a few more sections after the last action.
  const int seen = worker.sections.load();
  while (worker.sections.load() < seen + 3) {
  }
  worker.Stop();
  EXPECT_FALSE(worker.actions_seen_overlap);
  // Every action ran exactly once and no update was lost to a race.
  EXPECT_EQ(worker.value, 10 * kActions);
}

TEST_F(ThreadLockTest, SleepEndsWhenStopped) {
  class Sleeper : public Thread {
   public:
    ~Sleeper() override { Stop(); }
    std::atomic<bool> asleep{false};
    std::atomic<int> result{-1};

   protected:
    void Run() override {
      asleep = true;
      result = SleepUnlessStopped(3600 * 1000) ? 1 : 0;
    }
  };
  Sleeper sleeper;
  ASSERT_TRUE(sleeper.Start());
  while (!sleeper.asleep.load()) {
  }
  sleeper.Stop();  // would hang for an hour if the sleep ignored the stop
  EXPECT_EQ(sleeper.result.load(), 0);
}

TEST_F(ThreadLockTest, RequestStopWakesWithoutJoining) {
  class Sleeper : public Thread {
   public:
    ~Sleeper() override { Stop(); }
    std::atomic<bool> asleep{false};
    std::atomic<bool> go_on{false};
    std::atomic<int> result{-1};

   protected:
    void Run() override {
      asleep = true;
      result = SleepUnlessStopped(3600 * 1000) ? 1 : 0;
      while (!go_on.load()) {
      }
    }
  };
  Sleeper sleeper;
  ASSERT_TRUE(sleeper.Start());
  while (!sleeper.asleep.load()) {
  }
  sleeper.RequestStop();  // returns although the body is still running
  while (sleeper.result.load() < 0) {
  }
  EXPECT_EQ(sleeper.result.load(), 0);
  EXPECT_TRUE(sleeper.IsRunning());
  sleeper.go_on = true;
  sleeper.Stop();
  EXPECT_FALSE(sleeper.IsRunning());
}

TEST_F(ThreadLockTest, WakeEndsOneSleepAndIsNeverLost) {
  class Sleeper : public Thread {
   public:
    ~Sleeper() override { Stop(); }
    std::atomic<int> woken{0};

   protected:
    void Run() override {
      while (SleepUnlessStopped(3600 * 1000)) ++woken;
    }
  };
  Sleeper sleeper;
  sleeper.Wake();  // before the thread even sleeps: kept for the first sleep
  ASSERT_TRUE(sleeper.Start());
  while (sleeper.woken.load() < 1) {
  }
  sleeper.Wake();
  while (sleeper.woken.load() < 2) {
  }
  sleeper.Stop();  // would hang for an hour if wakes were lost
  EXPECT_EQ(sleeper.woken.load(), 2);
}

TEST_F(ThreadLockTest, SleepReturnsTrueWhenNotStopped) {
  class ShortSleeper : public Thread {
   public:
    ~ShortSleeper() override { Stop(); }
    std::atomic<int> result{-1};

   protected:
    void Run() override { result = SleepUnlessStopped(1) ? 1 : 0; }
  };
  ShortSleeper sleeper;
  ASSERT_TRUE(sleeper.Start());
  while (sleeper.result.load() < 0) {
  }
  EXPECT_EQ(sleeper.result.load(), 1);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
