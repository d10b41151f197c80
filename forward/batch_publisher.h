// BatchPublisher: what the forwarder's loop (forwarder.h) hands the spooled
// lines to. The Publisher (publisher.h) sends them to the server; the
// loop's tests put a fake in its place, which refuses, acknowledges part of
// a batch or loses its connection when they say so.
//
// Thread-safety: called from the forwarder's one thread.
#ifndef YULOTIFYD_FORWARD_BATCH_PUBLISHER_H_
#define YULOTIFYD_FORWARD_BATCH_PUBLISHER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "forward/spool.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

class BatchPublisher {
 public:
  virtual ~BatchPublisher() = default;

  // Makes the connection when there is none and it is time to try again;
  // called at the start of every round. False only for a configuration
  // the library cannot use (`error` says why): trying again cannot help.
  virtual bool KeepUp(std::string* error) = 0;

  // Whether a connection to a server is up: nothing is published without.
  virtual bool connected() const = 0;

  enum class StreamResult {
    kReady,   // the stream takes our subject: publish
    kRetry,   // not known yet (the server did not answer): try later
    kFailed,  // the server refused to create it: give up
  };
  // Makes sure of the stream before a batch is published.
  virtual StreamResult EnsureStream(std::string* error) = 0;

  // Publishes `lines` in order and waits up to `timeout_ms` for their
  // acknowledgements. Returns how many lines from the first one on were all
  // acknowledged; `error` says why not all were.
  virtual size_t PublishBatch(const std::vector<SpooledLine>& lines,
                              int64_t timeout_ms, std::string* error) = 0;
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_BATCH_PUBLISHER_H_
