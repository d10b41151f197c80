// Forwarder: the main loop of yulotify-forward, one round at a time.
//
// A round (Step):
//   1. takes the lines of the queue file into the spool, unless the spool
//      holds spool_max_bytes or more (the lines then stay in the queue
//      file, which the daemon resets if it grows too large);
//   2. once the publisher is connected and no back-off is running, makes
//      sure of the stream, publishes one batch from the first
//      unacknowledged line of the spool and acknowledges in the spool what
//      the server acknowledged. A batch not wholly acknowledged (a refusal,
//      a connection lost half-way, a time-out) is sent again from its first
//      unacknowledged line after a back-off that doubles from 100 ms up to
//      max_backoff_ms and ends with the first batch that goes through;
//   3. when neither step moved a line, waits for the next look at the
//      queue file (interval_ms), or for the end of the back-off when lines
//      are waiting, or for a stop.
// Every change of state (spool full, queue file failing, publishing failing,
// spool state unsaved) is logged once when it starts and once when it ends.
//
// The queue file, the spool, the publisher and the clock (with the stop
// signal) come from the caller, so that tests drive the loop a round at a
// time against a fake server and a clock they move themselves.
//
// Ownership: borrows all four; they must outlive the Forwarder.
// Thread-safety: one thread.
#ifndef YULOTIFYD_FORWARD_FORWARDER_H_
#define YULOTIFYD_FORWARD_FORWARDER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "forward/batch_publisher.h"
#include "forward/forward_clock.h"
#include "forward/spool.h"
#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

class Forwarder {
 public:
  struct Limits {
    uint64_t spool_max_bytes = 0;
    int64_t interval_ms = 1000;
    // Lines (and about the bytes) published before waiting for their
    // acknowledgements.
    size_t batch_lines = 1000;
    size_t batch_bytes = 1 << 20;
    // How long a batch may wait for its acknowledgements; also how long a
    // stop may wait for them.
    int64_t ack_timeout_ms = 5000;
    int64_t max_backoff_ms = 5000;
  };

  // The first back-off after a failed batch.
  static constexpr int64_t kFirstBackoffMs = 100;

  enum class StepResult {
    kGoOn,           // call Step again
    kStopped,        // a stop was asked for
    kStreamRefused,  // the server refused to create the stream
    kSpoolFailed,    // the spool could not be read
    kConnectFailed,  // the connection cannot be set up (its options)
  };

  // REQUIRES: `spool` is open.
  Forwarder(const QueueConsumer& consumer, Spool* spool,
            BatchPublisher* publisher, ForwardClock* clock,
            const Limits& limits);
  Forwarder(const Forwarder&) = delete;
  Forwarder& operator=(const Forwarder&) = delete;

  // One round (above), waiting at most `max_wait` at its end. Anything but
  // kGoOn ends the loop, with a log line.
  // REQUIRES: every earlier call returned kGoOn.
  StepResult Step(std::chrono::milliseconds max_wait);

  // The back-off running after failed batches; 0 when the last one went.
  int64_t backoff_ms() const { return backoff_ms_; }

 private:
  // Step 1; true when lines were taken.
  bool TakeLines();
  // Step 2; `more` says whether unacknowledged lines are left after a
  // batch that went through.
  StepResult PublishBatch(bool* more);
  // Acknowledges the first `acked` lines of `batch_` in the spool.
  void Acknowledge(size_t acked);
  // How long the round's end may wait.
  int64_t WaitMillis() const;
  StepResult Stopped();

  const QueueConsumer& consumer_;
  Spool* const spool_;
  BatchPublisher* const publisher_;
  ForwardClock* const clock_;
  const Limits limits_;

  // The states that are logged as they start and end.
  bool spool_full_ = false;
  bool queue_failing_ = false;
  bool publish_failing_ = false;
  bool state_failing_ = false;

  int64_t backoff_ms_ = 0;
  // No batch before this time (the back-off).
  int64_t next_publish_ms_ = 0;
  std::vector<SpooledLine> batch_;
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_FORWARDER_H_
