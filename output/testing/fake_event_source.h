// Helpers for the output layer's tests: a scripted EventSource, a scratch
// directory, and readers for queue files.
//
// Thread-safety: FakeEventSource may be used from several threads at once;
// the other helpers are for one thread.
#ifndef YULOTIFYD_OUTPUT_TESTING_FAKE_EVENT_SOURCE_H_
#define YULOTIFYD_OUTPUT_TESTING_FAKE_EVENT_SOURCE_H_

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "notify/notify_event.h"
#include "output/event_source.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// An EventSource whose queue, monitor queues and recovery state the test
// sets. Counts the calls the processor makes.
class FakeEventSource : public EventSource {
 public:
  explicit FakeEventSource(std::string mount_point);

  void Push(const NotifyEvent& event);
  void SetQueues(std::vector<MonitorQueue> queues);
  void SetRecovery(bool recovery);
  // The next TakeLostEvents says events were lost.
  void LoseEvents() { lost_.store(true); }
  size_t Queued();
  int GetEventsCalls() const { return get_events_calls_.load(); }
  int SnapshotCalls() const { return snapshot_calls_.load(); }

  void GetEvents(PackedEvents& out) override;
  std::vector<MonitorQueue> GetMonitorQueues() override;
  bool IsRecovery() override;
  bool TakeLostEvents() override { return lost_.exchange(false); }
  const std::string& GetMountPoint() const override { return mount_point_; }

 private:
  const std::string mount_point_;
  std::mutex mutex_;
  PackedEvents queue_;
  std::vector<MonitorQueue> queues_;
  bool recovery_ = false;
  std::atomic<bool> lost_{false};
  std::atomic<int> get_events_calls_{0};
  std::atomic<int> snapshot_calls_{0};
};

// A kernel event on `watch` + `path` (path "/" = the watched path itself).
NotifyEvent MakeEvent(uint32_t mask, const std::string& watch,
                      const std::string& path, uint32_t cookie = 0);

// A queue-overflow event as the kernel layer delivers it.
NotifyEvent MakeOverflow();

// A queue writing to `file`, with one monitor on share `share_path` (the
// share named after its last component), directory `dir` below it.
MonitorQueue MakeQueue(const std::string& file, const std::string& share_path,
                       uint32_t events = QUEUE_EVENT_ALL,
                       const std::string& dir = "/", bool recursive = true);

// Whole content of a file; "" when it cannot be read.
std::string ReadFileText(const std::string& path);
// Replaces a file's content.
void WriteFileText(const std::string& path, const std::string& text);
// The lines of a file, without their line feeds. A last line without a line
// feed is returned too.
std::vector<std::string> ReadLines(const std::string& path);
// Parses one queue line with JsonCpp; a null value when it does not parse.
Json::Value ParseLine(const std::string& line);
// Number of descriptors this process has open.
int OpenDescriptorCount();

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_TESTING_FAKE_EVENT_SOURCE_H_
