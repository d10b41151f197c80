// The locked append of one event line to a monitor queue's file.
//
// Free functions, implemented in event_processor.cc beside the processor
// that calls them (their log lines read "event_processor:<line> ...").
//
// Every append opens the queue file, takes an exclusive non-blocking flock
// (three tries, a pause of 0 to 9 ms after each busy one, the file reopened
// for each), looks at the first line, checks the size, writes one line with
// a single write(), and unlocks and closes the file, on every path. No
// descriptor is kept between calls. A file whose first line is a reset
// marker (code 1024) takes nothing more; a file above 100 MiB is emptied and
// restarted with a reset marker and one rescan line (512) per share of every
// queue that names the same file. Failures are logged and the event is
// dropped; nothing is reported to the caller. docs/queue-files.md describes
// the file for consumers.
//
// Thread-safety: callable from any thread at once; the flock is the only
// synchronisation with other writers and with consumers. `snapshot` is the
// caller's private copy of the monitor queues.
#ifndef YULOTIFYD_OUTPUT_QUEUE_FILE_H_
#define YULOTIFYD_OUTPUT_QUEUE_FILE_H_

#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {

// A queue file strictly larger than this is oversized and gets reset.
constexpr off_t kQueueFileMaxSize = 104857600;  // 100 MiB
// Mode of a queue file the daemon creates (before the umask, which the
// daemon sets to 0).
constexpr mode_t kQueueFileMode = 0600;
// flock attempts before an event is given up.
constexpr int kQueueLockAttempts = 3;
// The head check reads the file in chunks of at most this many bytes.
constexpr size_t kQueueHeadChunk = 1023;

// Appends `event` (a JSON object) as one line to `queue`'s file. On a reset
// the object is turned in place into the marker and then into the rescan
// lines ("event", "path" and "is_dir" overwritten, any other member kept),
// and the event itself is not written. `snapshot` is used only for a reset,
// to collect the shares of every queue whose file path equals `queue`'s.
void AppendToQueue(Json::Value& event, const MonitorQueue& queue,
                   const std::vector<MonitorQueue>& snapshot);

// Appends {"event": code, "is_dir": is_dir, "path": path}.
void SendEvent(uint32_t code, const std::string& path, bool is_dir,
               const MonitorQueue& queue,
               const std::vector<MonitorQueue>& snapshot);

// Appends {"event": 256, "is_dir": is_dir, "path": new_path,
// "path_old": old_path}.
void SendMoveEvent(const std::string& old_path, const std::string& new_path,
                   bool is_dir, const MonitorQueue& queue,
                   const std::vector<MonitorQueue>& snapshot);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_QUEUE_FILE_H_
