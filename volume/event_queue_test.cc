#include "volume/event_queue.h"

#include <gtest/gtest.h>

#include <thread>

namespace YULO {
namespace YULOTIFYD {
namespace {

NotifyEvent Event(const std::string& path) {
  NotifyEvent e;
  e.mask = YULO_CREATE;
  e.root = 1;
  e.watch = "/vol1/a";
  e.path = path;
  return e;
}

TEST(EventQueueTest, TakeAllIntoEmptyListTakesEverything) {
  EventQueue q;
  ASSERT_TRUE(q.Push(Event("/1")));
  ASSERT_TRUE(q.Push(Event("/2")));
  EXPECT_EQ(q.Size(), 2u);
  std::list<NotifyEvent> out;
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out.front().path, "/1");
  EXPECT_EQ(out.back().path, "/2");
  EXPECT_EQ(q.Size(), 0u);
}

TEST(EventQueueTest, TakeAllAppendsAfterExistingElements) {
  EventQueue q;
  q.Push(Event("/3"));
  std::list<NotifyEvent> out = {Event("/1"), Event("/2")};
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out.back().path, "/3");
  EXPECT_EQ(q.Size(), 0u);
}

TEST(EventQueueTest, TakeAllOfEmptyQueueLeavesListUnchanged) {
  EventQueue q;
  std::list<NotifyEvent> out = {Event("/1")};
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out.front().path, "/1");
}

TEST(EventQueueTest, PushAllAppendsEveryEventInOrder) {
  EventQueue q;
  q.Push(Event("/0"));
  ASSERT_TRUE(q.PushAll({Event("/1"), Event("/2")}));
  EXPECT_EQ(q.Size(), 3u);
  std::list<NotifyEvent> out;
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out.back().path, "/2");
}

TEST(EventQueueTest, PushAllIsSeenWholeByAConcurrentTaker) {
  EventQueue q;
  constexpr int kPairs = 5000;
  std::thread producer([&] {
    for (int i = 0; i < kPairs; ++i) q.PushAll({Event("/a"), Event("/b")});
  });
  size_t taken = 0;
  bool split = false;
  while (taken < 2u * kPairs) {
    std::list<NotifyEvent> batch;
    q.TakeAll(batch);
    split |= batch.size() % 2 != 0;
    taken += batch.size();
  }
  producer.join();
  EXPECT_FALSE(split);
}

TEST(EventQueueTest, ConcurrentPushAndTakeLoseNothing) {
  EventQueue q;
  constexpr int kEvents = 20000;
  std::thread producer([&] {
    for (int i = 0; i < kEvents; ++i) q.Push(Event("/" + std::to_string(i)));
  });
  std::list<NotifyEvent> taken;
  while (taken.size() < static_cast<size_t>(kEvents)) q.TakeAll(taken);
  producer.join();
  int i = 0;
  for (const NotifyEvent& e : taken) {
    ASSERT_EQ(e.path, "/" + std::to_string(i));
    ++i;
  }
  EXPECT_EQ(q.Size(), 0u);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
