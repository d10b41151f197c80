// Constants of the queue files the daemon appends to; docs/queue-files.md
// describes the files for consumers. QueueOutbox (queue_outbox.h) does the
// appending.
#ifndef YULOTIFYD_OUTPUT_QUEUE_FILE_H_
#define YULOTIFYD_OUTPUT_QUEUE_FILE_H_

#include <sys/types.h>

#include <cstddef>

#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {

// A queue file strictly larger than this is oversized and gets reset. The
// consumers' library knows the size too: it refuses files the daemon
// could never have written.
constexpr off_t kQueueFileMaxSize = QueueConsumer::kQueueFileResetBytes;
// Mode of a queue file the daemon creates (before the umask, which the
// daemon sets to 0).
constexpr mode_t kQueueFileMode = 0600;
// flock attempts per append before the lines wait for the next pass.
constexpr int kQueueLockAttempts = 3;
// The head check reads the file in chunks of at most this many bytes...
constexpr size_t kQueueHeadChunk = 1023;
// ...and no further than this: a longer first line is not a reset marker.
// It bounds what a consumer's file content can cost the daemon.
constexpr size_t kQueueHeadMax = 65536;
// Past either bound, the lines kept for a file that does not take them are
// replaced by rescan lines.
constexpr size_t kOutboxMaxLines = 10000;
constexpr size_t kOutboxMaxBytes = 4 * 1024 * 1024;

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_QUEUE_FILE_H_
