// Publisher: one NATS connection and its JetStream context, publishing
// spooled lines and reporting which of them the server acknowledged.
//
// The connection is made once and then kept up by the library, which
// reconnects by itself with a growing delay (0.1 s doubling up to 5 s);
// connection changes are logged once each, from the library's thread.
// Until it is connected nothing is published: the lines wait in the spool,
// not in the library's buffers.
//
// Thread-safety: one thread calls the methods; the library's callbacks only
// touch the acknowledgement table and the closed flag under the mutex and
// the connection-state flags, which are atomic. The destructor waits (up to
// 5 s) for the library's last callback.
#ifndef YULOTIFYD_FORWARD_PUBLISHER_H_
#define YULOTIFYD_FORWARD_PUBLISHER_H_

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "forward/spool.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

class Publisher {
 public:
  struct Config {
    std::vector<std::string> servers;
    std::string subject;
    std::string stream;     // empty: do not create it
    std::string host;       // Yulotifyd-Host
    std::string id_prefix;  // Nats-Msg-Id = id_prefix + seq
  };

  Publisher() = default;
  ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // Creates the connection; succeeds while the server is still unreachable
  // (the library keeps trying). False only for a bad configuration.
  bool Start(const Config& config, std::string* error);

  bool connected() const { return connected_.load(); }

  enum class StreamResult { kReady, kRetry, kFailed };
  // With a stream name: makes sure the stream exists, creating it (file
  // storage, our subject) when it does not. Done once per process.
  StreamResult EnsureStream(std::string* error);

  // Publishes `lines` in order and waits up to `timeout_ms` for their
  // acknowledgements. Returns how many lines from the first one on were all
  // acknowledged (stored, or recognized as duplicates); `error` says why
  // not all were.
  size_t PublishBatch(const std::vector<SpooledLine>& lines,
                      int64_t timeout_ms, std::string* error);

  // The "event" number of a queue line as text; "" when the line is not a
  // JSON object with a numeric "event".
  static std::string EventOf(const std::string& line);

 private:
  static void OnAck(jsCtx* js, natsMsg* msg, jsPubAck* pa, jsPubAckErr* pae,
                    void* closure);
  static void OnDisconnected(natsConnection* nc, void* closure);
  static void OnReconnected(natsConnection* nc, void* closure);
  static void OnClosed(natsConnection* nc, void* closure);
  static int64_t ReconnectDelay(natsConnection* nc, int attempts,
                                void* closure);

  Config config_;
  natsOptions* opts_ = nullptr;
  natsConnection* nc_ = nullptr;
  jsCtx* js_ = nullptr;
  bool stream_ready_ = false;
  std::atomic<bool> connected_{false};
  std::atomic<bool> closing_{false};  // our own Close: not worth a log line

  std::mutex mu_;
  uint64_t batch_first_seq_ = 0;
  std::vector<int8_t> batch_status_;  // 0 waiting, 1 acknowledged, -1 failed
  std::string batch_error_;
  bool closed_ = false;  // the closed callback has run
  std::condition_variable closed_cv_;
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_PUBLISHER_H_
