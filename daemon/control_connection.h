// ControlConnection: one client of the control socket, served without
// ever blocking the main loop.
//
// The request (an 8-byte length, then the body) is taken as it arrives;
// once it is whole, the server carries the command out and hands the reply
// back (Reply), which goes out as the client takes it. Each half has its
// own deadline: a client that has not sent the whole request within
// ControlServer::kRequestTimeoutMillis of the accept, or not taken the
// whole reply within kReplyTimeoutMillis, is dropped (Expire) with the
// same log lines as a client that closed early. So a client that stalls or
// trickles costs the main loop nothing but its descriptor for that time,
// and other clients are served meanwhile.
//
// Ownership: owns its descriptor, closed when the connection is done or
// destroyed. Thread-safety: none; the daemon's main thread only.
#ifndef YULOTIFYD_DAEMON_CONTROL_CONNECTION_H_
#define YULOTIFYD_DAEMON_CONTROL_CONNECTION_H_

#include <stdint.h>

#include <string>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

// The source name the control socket's lines have always carried.
inline constexpr char kControlLogSource[] = "domain_socket";

class ControlConnection {
 public:
  enum class State {
    kReading,   // waiting for (the rest of) the request
    kRunnable,  // the whole request is in: TakeRequest, then Reply
    kReplying,  // sending the reply
    kDone,      // nothing left to do; the descriptor is closed
  };

  // Serves the accepted, non-blocking socket `fd`; the whole request must
  // be in by `deadline_ms` (monotonic milliseconds). A command longer than
  // `max_body` is refused unread.
  ControlConnection(UniqueFd fd, int64_t deadline_ms, uint64_t max_body);

  ControlConnection(const ControlConnection&) = delete;
  ControlConnection& operator=(const ControlConnection&) = delete;

  int fd() const { return fd_.Get(); }
  State state() const { return state_; }
  int64_t deadline_ms() const { return deadline_ms_; }

  // kReading: takes what has arrived. A request that turns out bad (an
  // early close, a length of 0 or over the limit) is logged and answered
  // -1. Then kRunnable when the request is whole.
  void Read();
  // kRunnable: the command text (the body up to its first zero byte).
  std::string TakeRequest();
  // kRunnable: sends `reply`, then for "status" (`payload` not empty and
  // `reply` 0) the payload's 8-byte length and the payload, as the client
  // takes them; all of it by `deadline_ms`.
  void Reply(int32_t reply, const std::string& payload, int64_t deadline_ms);
  // kReplying: sends what the client takes now.
  void Write();
  // The deadline passed: logs what was missing, answers -1 if nothing was
  // answered yet, and closes. Harmless when done.
  void Expire();

 private:
  // Logs why the request failed (after `err` as the read's errno, when
  // not 0) and answers -1.
  void Fail(int err);
  void Close();

  UniqueFd fd_;
  State state_ = State::kReading;
  int64_t deadline_ms_;
  const uint64_t max_body_;
  std::string in_;            // the length's bytes, then the body's
  uint64_t body_length_ = 0;  // 0 until the length is in
  std::string out_;
  size_t sent_ = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_CONTROL_CONNECTION_H_
