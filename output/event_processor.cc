#include "output/event_processor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "output/queue_file.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

// ---------------------------------------------------------------------------
// The queue-file append.

namespace {

// Unlocks and closes a locked queue file when it goes out of scope, so that
// no return (or exception) leaves a descriptor open or a lock held.
class LockedQueueFile {
 public:
  explicit LockedQueueFile(int fd) : fd_(fd) {}
  ~LockedQueueFile() {
    const int saved = errno;
    flock(fd_, LOCK_UN);
    close(fd_);
    errno = saved;
  }
  LockedQueueFile(const LockedQueueFile&) = delete;
  LockedQueueFile& operator=(const LockedQueueFile&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// Reads the head of the file (from offset 0) in chunks of at most
// kQueueHeadChunk bytes until a chunk holds a line feed, and puts the text
// before the first line feed into `first_line`. Each chunk counts only up to
// its first NUL byte, for the collected text as for the line-feed search.
// False when the file ends, or a read fails, before a line feed turns up.
bool ReadFirstLine(int fd, std::string* first_line) {
  char buf[kQueueHeadChunk + 1];
  std::string head;
  for (;;) {
    std::memset(buf, 0, sizeof(buf));
    const ssize_t n = read(fd, buf, kQueueHeadChunk);
    if (n <= 0) return false;
    head.append(buf);  // up to the chunk's first NUL
    if (std::strchr(buf, '\n') != nullptr) break;
  }
  *first_line = head.substr(0, head.find('\n'));
  return true;
}

// Whether `line` is a reset marker: a JSON object whose "event" (0 when
// missing) reads as the unsigned integer 1024. Values that do not convert
// to an unsigned integer (strings, negative numbers, ...) count as 0.
bool IsResetMarker(const std::string& line) {
  Json::Value head;
  if (!fromString(line, head) || !head.isObject()) return false;
  const Json::Value event = head.get("event", 0);
  if (!event.isNumeric() && !event.isBool()) return false;
  if (!event.isConvertibleTo(Json::uintValue)) return false;
  return event.asUInt() == QUEUE_EVENT_RESET;
}

// Writes `text` with one write() call; a short or failed write is logged and
// left as it is.
void WriteOnce(int fd, const std::string& text) {
  const ssize_t n = write(fd, text.data(), text.size());
  if (n < 0 || static_cast<size_t>(n) < text.size()) {
    YULO_LOG_ALWAYS("Failed to write, reason=%m");
  }
}

}  // namespace

void AppendToQueue(Json::Value& event, const MonitorQueue& queue,
                   const std::vector<MonitorQueue>& snapshot) {
  const std::string& path = queue.GetQueuePath();
  YULO_LOG_DEBUG("write event to: %s", path.c_str());

  // Lock loop: a consumer holds the lock only while it reads and truncates,
  // so a few short tries are enough; after that the line is dropped rather
  // than stall the volume's pipeline. The file is reopened for every try.
  int fd = -1;
  for (int attempt = 1;; ++attempt) {
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kQueueFileMode);
    if (fd < 0) {
      YULO_LOG_ALWAYS("Failed to open queue path=%s, reason=%m",
                      path.c_str());
      return;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) break;
    const int err = errno;
    if (err != EAGAIN && err != EWOULDBLOCK && err != EINTR) {
      errno = err;
      YULO_LOG_DEBUG("flock fail, path=%s, reason=%m", path.c_str());
      LockedQueueFile release(fd);
      return;
    }
    close(fd);
    usleep(static_cast<useconds_t>(rand() % 10) * 1000);
    if (attempt == kQueueLockAttempts) {
      errno = err;
      YULO_LOG_ALWAYS("try lock too many times, path=%s, reason=%m",
                      path.c_str());
      return;
    }
  }
  LockedQueueFile file(fd);

  // A file that starts with a reset marker waits for its consumer: it takes
  // nothing until the consumer has emptied or removed it.
  std::string first_line;
  if (ReadFirstLine(file.fd(), &first_line) && IsResetMarker(first_line)) {
    YULO_LOG_DEBUG("Queue oversized, path=%s", path.c_str());
    return;
  }

  struct stat st;
  if (fstat(file.fd(), &st) == 0 && st.st_size <= kQueueFileMaxSize) {
    lseek(file.fd(), 0, SEEK_END);
    WriteOnce(file.fd(), QueueLineText(event) + "\n");
    return;
  }

  // Oversized (or unknown size): start the file afresh with a reset marker
  // and a rescan of every share the file's queues cover. The object itself
  // becomes the marker and the rescan lines; members other than "event",
  // "path" and "is_dir" (a move's "path_old") stay in them.
  YULO_LOG_ALWAYS("Queue oversized, path=%s", path.c_str());
  // A failed truncation is not checked: the output still goes to offset 0,
  // and the marker at the head stops further appends either way.
  if (ftruncate(file.fd(), 0) != 0) {
  }
  lseek(file.fd(), 0, SEEK_SET);
  event["event"] = Json::Value(static_cast<Json::UInt>(QUEUE_EVENT_RESET));
  event["path"] = Json::Value("");
  event["is_dir"] = Json::Value(false);
  std::string output = QueueLineText(event) + "\n";
  std::set<std::string> shares;
  for (const MonitorQueue& other : snapshot) {
    if (other.GetQueuePath() == path) other.CollectShareSet(shares);
  }
  for (const std::string& share : shares) {
    event["event"] = Json::Value(static_cast<Json::UInt>(QUEUE_EVENT_RESCAN));
    event["path"] = Json::Value(share);
    event["is_dir"] = Json::Value(true);
    output += QueueLineText(event) + "\n";
  }
  WriteOnce(file.fd(), output);
}

void SendEvent(uint32_t code, const std::string& path, bool is_dir,
               const MonitorQueue& queue,
               const std::vector<MonitorQueue>& snapshot) {
  Json::Value event(Json::objectValue);
  event["event"] = Json::Value(static_cast<Json::UInt>(code));
  event["path"] = Json::Value(path);
  event["is_dir"] = Json::Value(is_dir);
  AppendToQueue(event, queue, snapshot);
}

void SendMoveEvent(const std::string& old_path, const std::string& new_path,
                   bool is_dir, const MonitorQueue& queue,
                   const std::vector<MonitorQueue>& snapshot) {
  Json::Value event(Json::objectValue);
  event["event"] = Json::Value(static_cast<Json::UInt>(QUEUE_EVENT_MOVE));
  event["path"] = Json::Value(new_path);
  event["path_old"] = Json::Value(old_path);
  event["is_dir"] = Json::Value(is_dir);
  AppendToQueue(event, queue, snapshot);
}

// ---------------------------------------------------------------------------
// EventProcessor.

namespace {

bool IsDir(const NotifyEvent& event) { return (event.mask & YULO_ISDIR) != 0; }

}  // namespace

EventProcessor::EventProcessor(EventSource* source)
    : source_(source), fetching_(0) {
  if (source_ == nullptr) {
    YULO_LOG_ALWAYS("EventProcessor needs a volume");
    throw -1;
  }
}

EventProcessor::~EventProcessor() {
  Stop();
  pending_.clear();
}

void EventProcessor::Run() {
  SendRecoveryRescan();
  while (!stop_flag) {
    RunOnePass();
    SleepUnlessStopped(kPassIntervalMs);
  }
}

void EventProcessor::SendRecoveryRescan() {
  if (!source_->IsRecovery()) return;
  YULO_LOG_ALWAYS("Send Rescan because of recovery vol: %s",
                  source_->GetMountPoint().c_str());
  std::vector<MonitorQueue> snapshot = source_->GetMonitorQueues();
  SendRescan(snapshot);
}

void EventProcessor::RunOnePass() {
  StateGuard guard(this);
  YULO_LOG_DEBUG("EventProcessor alive ...");
  if (fetching_ == 0) FetchEvents();
  if (pending_.empty()) return;

  // One copy of the monitor queues serves every event of the pass.
  std::vector<MonitorQueue> snapshot = source_->GetMonitorQueues();
  while (!pending_.empty()) {
    NotifyEvent event = std::move(pending_.front());
    pending_.pop_front();
    LogEvent(event);

    if (event.mask & YULO_Q_OVERFLOW) {
      // The kernel lost events: what is still pending is no longer the whole
      // story, so drop it and have every watching queue rescan the volume.
      pending_.clear();
      YULO_LOG_ALWAYS("Recieve overflow event vol: %s",
                      source_->GetMountPoint().c_str());
      SendRescan(snapshot);
      break;
    }
    if (event.mask & (YULO_MOVE_FROM | YULO_MOVE_TO)) {
      NotifyEvent partner;
      if (PairMoveEvent(event, partner)) {
        HandleMovePair(event, partner, snapshot);
        continue;
      }
      YULO_LOG_DEBUG("pair fail");
    }
    HandleEvent(event, snapshot);
  }
}

size_t EventProcessor::PendingCount() {
  StateGuard guard(this);
  return pending_.size();
}

void EventProcessor::FetchAction(Thread* thread, char* /*arg*/) {
  EventProcessor* processor = dynamic_cast<EventProcessor*>(thread);
  if (processor == nullptr) return;
  if (processor->fetching_ == 0) processor->FetchEvents();
}

void EventProcessor::FetchEvents() {
  fetching_ = 1;
  const size_t before = pending_.size();
  source_->GetEvents(pending_);
  if (pending_.size() != before) {
    YULO_LOG_DEBUG("EventProcessor got %zd events",
                   static_cast<ssize_t>(pending_.size()));
  }
  fetching_ = 0;
}

void EventProcessor::LogEvent(const NotifyEvent& event) {
  if (!LogGateOpen(LogGate::kInfo)) return;
  std::ostringstream dump;
  dump << event;
  YULO_LOG_INFO("Got event, %s", dump.str().c_str());
}

bool EventProcessor::PairMoveEvent(const NotifyEvent& first,
                                   NotifyEvent& partner) {
  // Only the cookie is compared: whatever pending event carries the same
  // cookie first is the other half.
  for (auto it = pending_.begin(); it != pending_.end(); ++it) {
    if (it->cookie != first.cookie) continue;
    partner = std::move(*it);
    pending_.erase(it);
    LogEvent(partner);
    return true;
  }
  return false;
}

void EventProcessor::HandleEvent(const NotifyEvent& event,
                                 std::vector<MonitorQueue>& snapshot) {
  const std::string path = GetFullPath(event);
  const uint32_t code = QueueEventCode(event.mask);
  for (MonitorQueue& queue : snapshot) {
    if (queue.IsMonitoring(path, code)) {
      SendEvent(code, path, IsDir(event), queue, snapshot);
    }
  }
}

void EventProcessor::HandleMovePair(const NotifyEvent& first,
                                    const NotifyEvent& partner,
                                    std::vector<MonitorQueue>& snapshot) {
  const std::string path_a = GetFullPath(first);
  const std::string path_b = GetFullPath(partner);
  const uint32_t code_a = QueueEventCode(first.mask);
  const uint32_t code_b = QueueEventCode(partner.mask);
  for (MonitorQueue& queue : snapshot) {
    const bool wants_a = queue.IsMonitoring(path_a, code_a);
    const bool wants_b = queue.IsMonitoring(path_b, code_b);
    if (wants_a && wants_b) {
      // Both ends watched: one move line, whichever half came first.
      if (code_a & QUEUE_EVENT_DELETE) {
        SendMoveEvent(path_a, path_b, IsDir(first), queue, snapshot);
      } else {
        SendMoveEvent(path_b, path_a, IsDir(partner), queue, snapshot);
      }
    } else if (wants_a) {
      SendEvent(code_a, path_a, IsDir(first), queue, snapshot);
    } else if (wants_b) {
      SendEvent(code_b, path_b, IsDir(partner), queue, snapshot);
    }
  }
}

void EventProcessor::SendRescan(std::vector<MonitorQueue>& snapshot) {
  const std::string& mount_point = source_->GetMountPoint();
  for (const MonitorQueue& queue : snapshot) {
    if (queue.IsDirMonitoring(mount_point)) {
      SendEvent(QUEUE_EVENT_RESCAN, mount_point, true, queue, snapshot);
    }
  }
}

}  // namespace YULOTIFYD
}  // namespace YULO
