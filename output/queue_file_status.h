// QueueFileStatus: what a processor reports about one queue file it
// writes, for the daemon's "status". A plain value, apart from the event
// processor so that those who only show it need nothing of the processor.
//
// Thread-safety: a value type; no shared state.
#ifndef YULOTIFYD_OUTPUT_QUEUE_FILE_STATUS_H_
#define YULOTIFYD_OUTPUT_QUEUE_FILE_STATUS_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace YULO {
namespace YULOTIFYD {

// How a queue file did at the last attempt to write it.
enum class QueueFileState {
  kOk,       // took its lines
  kBusy,     // the lock stayed busy
  kFailing,  // open, lock or write failed otherwise
  kReset,    // the first line is a reset marker: lines are dropped
};

struct QueueFileStatus {
  std::string path;
  uint64_t lines_written = 0;
  size_t lines_kept = 0;
  QueueFileState state = QueueFileState::kOk;
  std::string last_error;
  time_t last_error_time = 0;
  // See QueueOutbox::oldest_line_time.
  time_t oldest_line_time = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_QUEUE_FILE_STATUS_H_
