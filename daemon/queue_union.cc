#include "daemon/queue_union.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

bool SameQueue(const MonitorQueue& a, const MonitorQueue& b) {
  return a.GetQueuePath() == b.GetQueuePath() &&
         a.GetOwnerUid() == b.GetOwnerUid() &&
         a.GetOwnerGid() == b.GetOwnerGid();
}

}  // namespace

std::vector<MonitorQueue> UniteQueueLists(
    const std::vector<MonitorQueue>& before,
    const std::vector<MonitorQueue>& after) {
  std::vector<MonitorQueue> united;
  std::vector<bool> used(before.size(), false);
  for (const MonitorQueue& queue : after) {
    std::vector<MonitorQueue::MonitorQueueConfig> configs = queue.GetConfigs();
    for (size_t i = 0; i < before.size(); ++i) {
      if (used[i] || !SameQueue(before[i], queue)) continue;
      used[i] = true;
      configs.insert(configs.end(), before[i].GetConfigs().begin(),
                     before[i].GetConfigs().end());
      break;
    }
    united.emplace_back(queue.GetQueuePath(), std::move(configs),
                        queue.GetOwnerUid(), queue.GetOwnerGid());
  }
  for (size_t i = 0; i < before.size(); ++i) {
    if (!used[i]) united.push_back(before[i]);
  }
  return united;
}

}  // namespace YULOTIFYD
}  // namespace YULO
