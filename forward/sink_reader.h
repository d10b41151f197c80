// SinkReader: the messages of a JetStream stream, taken through a durable
// pull consumer, for yulotify-sink.
//
// The consumer (name --durable, default "yulotify-sink") belongs to the
// sink: it is made afresh whenever the sink subscribes (see Subscribe),
// with explicit acknowledgements, from the message after the last one
// written, only the subjects of the filter when one is given. The sink's
// state file keeps the stream sequence of the last line written, so
// messages delivered again (an acknowledgement lost with the connection)
// are recognised and only acknowledged. Fetch hands them over in stream
// order.
//
// The connection is kept up by the library (reconnecting for ever, once a
// second); the main thread asks connected() and logs the changes, so no
// callback of the library ever refers to this object.
//
// Ownership: owns the connection, the subscription and the messages of the
// last fetch until they are acknowledged or dropped. Thread-safety: one
// thread.
#ifndef YULOTIFYD_FORWARD_SINK_READER_H_
#define YULOTIFYD_FORWARD_SINK_READER_H_

#include <nats/nats.h>

#include <cstdint>
#include <string>
#include <vector>

#include "forward/connection.h"
#include "forward/sink_writer.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

class SinkReader {
 public:
  struct Config {
    ConnectionOptions connection;  // loaded
    std::string stream;
    std::string subject;  // filter; empty: all
    std::string durable;
    int batch = 1000;
  };

  SinkReader() = default;
  ~SinkReader();
  SinkReader(const SinkReader&) = delete;
  SinkReader& operator=(const SinkReader&) = delete;

  // Sets the connection up; succeeds while no server is reachable yet (the
  // library keeps trying). False only for options the library refuses.
  bool Start(const Config& config, std::string* error);

  bool connected() const;
  // The URL of the server connected to, without user information.
  std::string ServerUrl() const;

  enum class Result {
    kOk,
    kRetry,   // the server is away or not ready: try again later
    kFailed,  // refused for good
  };

  // Looks up the stream: its creation time as text, and its first
  // sequence number still held.
  Result LookUpStream(std::string* created, uint64_t* first_seq,
                      std::string* error);

  // Makes the consumer afresh, delivering from stream sequence
  // `start_seq` on, and subscribes. Afresh, because the place the server
  // kept is not what counts: messages that a killed sink fetched are held
  // back for the acknowledgement wait, and the server would meanwhile hand
  // out later ones, out of order. The sink's state says what is written.
  Result Subscribe(uint64_t start_seq, std::string* error);
  bool bound() const { return sub_ != nullptr; }

  // Waits up to `timeout_ms` for up to `batch` messages and puts them, in
  // stream order, in `out` (empty when none came). Any failure but a
  // time-out unbinds: the next Bind starts over.
  Result Fetch(int64_t timeout_ms, std::vector<SinkMessage>* out,
               std::string* error);

  // Acknowledges every message of the last fetch, then lets them go.
  // False when an acknowledgement could not be sent (the server then
  // delivers those messages again).
  bool AckFetched(std::string* error);
  // Lets them go unacknowledged.
  void DropFetched();

 private:
  void Unbind();

  Config config_;
  natsOptions* opts_ = nullptr;
  natsConnection* nc_ = nullptr;
  jsCtx* js_ = nullptr;
  natsSubscription* sub_ = nullptr;
  natsMsgList fetched_ = {nullptr, 0};
};

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_SINK_READER_H_
