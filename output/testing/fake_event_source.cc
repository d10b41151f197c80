#include "output/testing/fake_event_source.h"

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <utility>

#include "base/file_io.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

FakeEventSource::FakeEventSource(std::string mount_point)
    : mount_point_(std::move(mount_point)) {}

void FakeEventSource::Push(const NotifyEvent& event) {
  std::lock_guard<std::mutex> guard(mutex_);
  queue_.Push(event);
}

void FakeEventSource::SetQueues(std::vector<MonitorQueue> queues) {
  std::lock_guard<std::mutex> guard(mutex_);
  queues_ = std::move(queues);
}

void FakeEventSource::SetRecovery(bool recovery) {
  std::lock_guard<std::mutex> guard(mutex_);
  recovery_ = recovery;
}

size_t FakeEventSource::Queued() {
  std::lock_guard<std::mutex> guard(mutex_);
  return queue_.size();
}

void FakeEventSource::GetEvents(PackedEvents& out) {
  ++get_events_calls_;
  std::lock_guard<std::mutex> guard(mutex_);
  out.Append(queue_);
}

std::vector<MonitorQueue> FakeEventSource::GetMonitorQueues() {
  ++snapshot_calls_;
  std::lock_guard<std::mutex> guard(mutex_);
  return queues_;
}

bool FakeEventSource::IsRecovery() {
  std::lock_guard<std::mutex> guard(mutex_);
  return recovery_;
}

NotifyEvent MakeEvent(uint32_t mask, const std::string& watch,
                      const std::string& path, uint32_t cookie) {
  NotifyEvent event;
  event.mask = mask;
  event.cookie = cookie;
  event.root = 1;
  event.watch = watch;
  event.path = path;
  return event;
}

NotifyEvent MakeOverflow() {
  NotifyEvent event;
  event.mask = YULO_Q_OVERFLOW;
  event.root = -1;
  return event;
}

MonitorQueue MakeQueue(const std::string& file, const std::string& share_path,
                       uint32_t events, const std::string& dir,
                       bool recursive) {
  const std::string name = share_path.substr(share_path.rfind('/') + 1);
  return MonitorQueue(file, {MonitorQueue::MakeConfig(name, share_path, dir,
                                                      recursive, events)});
}

std::string ReadFileText(const std::string& path) {
  std::string text;
  ReadWholeFile(path, kNoReadLimit, &text);
  return text;
}

void WriteFileText(const std::string& path, const std::string& text) {
  WriteWholeFile(path, text, 0644);
}

std::vector<std::string> ReadLines(const std::string& path) {
  const std::string text = ReadFileText(path);
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

Json::Value ParseLine(const std::string& line) {
  Json::Value value;
  fromString(line, value);
  return value;
}

int OpenDescriptorCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (const struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory stream's own descriptor
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
