// Publisher: one NATS connection and its JetStream context, publishing
// spooled lines and reporting which of them the server acknowledged.
//
// The connection is made once and then kept up by the library, which
// tries the servers in turn and, when none would take it, waits a growing
// delay (0.1 s doubling up to 5 s) before the next round; connection
// changes are logged once each, from the library's thread, and so is each
// round that ended without a connection, with the library's reason (a
// certificate not verified, authorization refused).
// Until it is connected nothing is published: the lines wait in the spool,
// not in the library's buffers.
//
// Order. The stream keeps the order of the spool even when the server
// refuses one message and would store the next: in a stream of its own
// (whose only subject is ours), every message of a batch after the first
// carries Nats-Expected-Last-Msg-Id, the id of the line before it, so that
// after a refusal the server refuses the rest of the batch too, and the
// batch is sent again from the refused line. In a stream shared with other
// subjects that header cannot work (other publishers' messages come in
// between), so there each message waits for the acknowledgement of the one
// before it: slower, but in order.
//
// Size. A line whose message the server can never take (larger than its
// maximum payload or the stream's maximum message size) is published as a
// rescan line in its place (see oversize.h), logged once.
//
// Thread-safety: one thread calls the methods; the library's callbacks only
// touch the acknowledgement table and the closed flag and reason under the
// mutex and
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
#include <utility>
#include <vector>

#include "forward/connection.h"
#include "forward/spool.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

class Publisher {
 public:
  struct Config {
    // Servers, TLS, credentials; its files loaded (LoadConnectionFiles).
    ConnectionOptions connection;
    std::string subject;
    std::string stream;     // empty: do not create it
    // For the stream created: copies in a cluster, and how long it keeps
    // message ids to recognise a line sent again.
    int replicas = 1;
    int64_t duplicate_window_s = 120;
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

  // Called often by the owner's loop: makes the connection when there is
  // none, after a back-off since the last failure, and notices when the
  // library gave a connection up (it does when a server refuses our
  // certificate or credentials, instead of trying again). Each failure is
  // logged with its reason (see Failed). False only for a bad
  // configuration.
  bool KeepUp(std::string* error);

  enum class StreamResult { kReady, kRetry, kFailed };
  // With a stream name: makes sure the stream exists, creating it (file
  // storage, our subject) when it does not. Without one: looks up the
  // stream that takes our subject. Either way learns the stream's maximum
  // message size and whether the subject is the stream's only one. Done
  // once, and again after the server refused a message.
  StreamResult EnsureStream(std::string* error);

  // Publishes `lines` in order and waits up to `timeout_ms` for their
  // acknowledgements. Returns how many lines from the first one on were all
  // acknowledged (stored, or recognized as duplicates); `error` says why
  // not all were. A line too large for the server counts as acknowledged
  // once its rescan line is; one for which not even a rescan line fits
  // counts as done, with a log line.
  size_t PublishBatch(const std::vector<SpooledLine>& lines,
                      int64_t timeout_ms, std::string* error);

  // Bytes a message takes against the server's size limits: its payload
  // and its headers as the protocol encodes them.
  static size_t MessageBytes(
      size_t payload_bytes,
      const std::vector<std::pair<std::string, std::string>>& headers);

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
  // Makes the connection and its JetStream context; a failure starts a
  // back-off. False only for a bad configuration.
  bool Connect(std::string* error);
  // Starts the back-off after a failed connection and logs `reason`.
  void Failed(bool unreachable, const std::string& reason);
  // The name of the stream that takes our subject; "" when none does.
  bool FindStream(std::string* name, std::string* error);
  // The largest message size not refused yet; 0 when none was refused.
  int64_t LearnedLimit();
  // Publishes lines[first, first + count) without waiting; returns how many
  // went out.
  size_t SendGroup(const std::vector<SpooledLine>& lines, size_t first,
                   size_t count, std::string* error);

  Config config_;
  natsOptions* opts_ = nullptr;
  natsConnection* nc_ = nullptr;
  jsCtx* js_ = nullptr;
  bool stream_ready_ = false;
  // From the stream's configuration: its maximum message size (0 for
  // none), and whether our subject is its only one.
  int64_t stream_max_msg_ = 0;
  bool own_stream_ = false;
  // The id of the last message published in the current batch.
  std::string last_sent_id_;
  // The highest spool sequence number whose oversize was logged, plus one:
  // a line sent again after a failure is not logged twice.
  uint64_t oversize_logged_end_ = 0;
  std::atomic<bool> connected_{false};
  std::atomic<bool> closing_{false};  // our own Close: not worth a log line

  std::mutex mu_;
  uint64_t batch_first_seq_ = 0;
  std::vector<int8_t> batch_status_;  // 0 waiting, 1 acknowledged, -1 failed
  std::string batch_error_;
  // A refusal for the size of a message (JetStream error 10054): the
  // stream's limit is then looked up again.
  bool batch_refused_ = false;
  // The bytes of each message of the batch as sent, and the largest size
  // not yet refused for its size (0: no refusal seen).
  std::vector<size_t> batch_bytes_;
  size_t refused_size_ = 0;
  bool closed_ = false;  // the closed callback has run
  std::string closed_reason_;  // the library's last error then
  // KeepUp's back-off: when the next connection may be made, the current
  // delay, and the failures since the last connection.
  int64_t retry_at_ms_ = 0;
  int64_t backoff_ms_ = 0;
  uint64_t failed_rounds_ = 0;
  std::condition_variable closed_cv_;
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_PUBLISHER_H_
