// UniteQueueLists: the monitor queues a reload writes with while it goes
// from one configuration to the next.
//
// Changes read before a reload took effect may have happened under either
// configuration, so the events queued at that moment are written to every
// queue that wants them under the old or the new one: a queue that stops
// wanting something still gets what happened while it wanted it, and one
// that starts wanting something gets what happened right after its
// subscription was written. Each queue (queue file, owner) of both lists
// appears once, with the monitors of both, so no change is written to it
// twice.
//
// Thread-safety: a pure function.
#ifndef YULOTIFYD_DAEMON_QUEUE_UNION_H_
#define YULOTIFYD_DAEMON_QUEUE_UNION_H_

#include <vector>

#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

// Every queue of `after`, each with the monitors of the queue of `before`
// that has its queue file and owner (matched in order, one to one), then
// the queues of `before` that matched none.
std::vector<MonitorQueue> UniteQueueLists(
    const std::vector<MonitorQueue>& before,
    const std::vector<MonitorQueue>& after);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_QUEUE_UNION_H_
