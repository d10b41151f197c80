#include "volume/event_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

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

PackedEvents Pack(const std::vector<std::string>& paths) {
  PackedEvents packed;
  for (const std::string& path : paths) packed.Push(Event(path));
  return packed;
}

TEST(EventQueueTest, TakeAllIntoEmptyPackTakesEverything) {
  EventQueue q;
  size_t size = 0;
  ASSERT_TRUE(q.Push(Event("/1"), &size));
  EXPECT_EQ(size, 1u);
  ASSERT_TRUE(q.Push(Event("/2"), &size));
  EXPECT_EQ(size, 2u);
  EXPECT_EQ(q.Size(), 2u);
  PackedEvents out;
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out.Get(0).path, "/1");
  EXPECT_EQ(out.Get(1).path, "/2");
  EXPECT_EQ(out.Get(1).watch, "/vol1/a");
  EXPECT_EQ(q.Size(), 0u);
}

TEST(EventQueueTest, TakeAllAppendsAfterExistingElements) {
  EventQueue q;
  q.Push(Event("/3"));
  PackedEvents out = Pack({"/1", "/2"});
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out.Get(2).path, "/3");
  EXPECT_EQ(q.Size(), 0u);
}

TEST(EventQueueTest, TakeAllOfEmptyQueueLeavesPackUnchanged) {
  EventQueue q;
  PackedEvents out = Pack({"/1"});
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out.Get(0).path, "/1");
}

TEST(EventQueueTest, PushAllAppendsEveryEventInOrderAndEmptiesTheBatch) {
  EventQueue q;
  q.Push(Event("/0"));
  PackedEvents batch = Pack({"/1", "/2"});
  size_t size = 0;
  ASSERT_TRUE(q.PushAll(batch, &size));
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(size, 3u);
  PackedEvents out;
  q.TakeAll(out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out.Get(2).path, "/2");
}

TEST(EventQueueTest, PushAllIsSeenWholeByAConcurrentTaker) {
  EventQueue q;
  constexpr int kPairs = 5000;
  std::thread producer([&] {
    for (int i = 0; i < kPairs; ++i) {
      PackedEvents pair = Pack({"/a", "/b"});
      q.PushAll(pair);
    }
  });
  size_t taken = 0;
  bool split = false;
  while (taken < 2u * kPairs) {
    PackedEvents batch;
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
  PackedEvents taken;
  while (taken.size() < static_cast<size_t>(kEvents)) q.TakeAll(taken);
  producer.join();
  for (size_t i = 0; i < taken.size(); ++i) {
    ASSERT_EQ(taken.Get(i).path, "/" + std::to_string(i));
  }
  EXPECT_EQ(q.Size(), 0u);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
