#include "daemon/queue_union.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

MonitorQueue Queue(const std::string& file, const std::string& share,
                   uint32_t events, uid_t uid = 0) {
  return MonitorQueue(
      file, {MonitorQueue::MakeConfig("s", share, "/", true, events)}, uid,
      uid);
}

TEST(UniteQueueListsTest, AQueueWantsWhatEitherConfigurationWanted) {
  std::vector<MonitorQueue> united =
      UniteQueueLists({Queue("/q/a", "/vol1/P", QUEUE_EVENT_CREATE)},
                      {Queue("/q/a", "/vol1/P", QUEUE_EVENT_DELETE)});
  ASSERT_EQ(1u, united.size());
  EXPECT_TRUE(united[0].IsMonitoring("/vol1/P/x", QUEUE_EVENT_CREATE));
  EXPECT_TRUE(united[0].IsMonitoring("/vol1/P/x", QUEUE_EVENT_DELETE));
  EXPECT_FALSE(united[0].IsMonitoring("/vol1/P/x", QUEUE_EVENT_MODIFY));
}

TEST(UniteQueueListsTest, QueuesOfOneConfigurationAloneAreKept) {
  std::vector<MonitorQueue> united =
      UniteQueueLists({Queue("/q/gone", "/vol1/P", QUEUE_EVENT_CREATE)},
                      {Queue("/q/new", "/vol1/M", QUEUE_EVENT_CREATE)});
  ASSERT_EQ(2u, united.size());
  EXPECT_EQ("/q/new", united[0].GetQueuePath());
  EXPECT_EQ("/q/gone", united[1].GetQueuePath());
}

TEST(UniteQueueListsTest, AnotherOwnerIsAnotherQueue) {
  std::vector<MonitorQueue> united =
      UniteQueueLists({Queue("/q/a", "/vol1/P", QUEUE_EVENT_CREATE, 1000)},
                      {Queue("/q/a", "/vol1/P", QUEUE_EVENT_DELETE, 1001)});
  ASSERT_EQ(2u, united.size());
  EXPECT_EQ(1001u, united[0].GetOwnerUid());
  EXPECT_FALSE(united[0].IsMonitoring("/vol1/P/x", QUEUE_EVENT_CREATE));
  EXPECT_EQ(1000u, united[1].GetOwnerUid());
}

TEST(UniteQueueListsTest, SameFileTwiceIsMatchedOneToOne) {
  std::vector<MonitorQueue> united = UniteQueueLists(
      {Queue("/q/a", "/vol1/P", QUEUE_EVENT_CREATE),
       Queue("/q/a", "/vol1/M", QUEUE_EVENT_CREATE)},
      {Queue("/q/a", "/vol1/P", QUEUE_EVENT_CREATE),
       Queue("/q/a", "/vol1/M", QUEUE_EVENT_CREATE)});
  ASSERT_EQ(2u, united.size());
  EXPECT_EQ(2u, united[0].GetConfigs().size());
  EXPECT_EQ(2u, united[1].GetConfigs().size());
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
