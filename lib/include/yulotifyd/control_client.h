// ControlClient: sends commands to a running yulotifyd over its control
// socket.
//
// One command per connection. The request is the body length L as an
// unsigned 64-bit integer in host byte order, then L bytes: the JSON text of
// the command and a terminating zero byte (counted in L). The daemon answers
// with a signed 32-bit status in host byte order, 0 when it carried the
// command out and -1 otherwise, and closes the connection. docs/control.md
// describes the commands.
//
// Only root and the members of the socket's group may drive the daemon; it
// answers anybody else -1 without reading the request. The client reports
// that, and a socket whose permissions refuse the connection, as kDenied.
//
// Every call connects, sends, waits for the reply and closes; nothing is kept
// between calls, and a call never raises SIGPIPE in the calling process.
// Each call is bounded by the client's time-out as a whole (connect, send and
// reply together).
//
// Thread-safety: a ControlClient is immutable after construction; its calls
// may run concurrently from several threads. The daemon serves one
// connection at a time, so concurrent calls are answered one after another.
#ifndef YULOTIFYD_CONTROL_CLIENT_H_
#define YULOTIFYD_CONTROL_CLIENT_H_

#include <json/json.h>

#include <cstdint>
#include <string>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

// The socket path compiled into this library (the daemon's default).
YULOTIFYD_EXPORT const char* DefaultControlSocketPath();

// The outcome of one exchange with the daemon.
struct ControlResult {
  enum class Status {
    kAnswered,         // the daemon sent a reply; see `reply`
    kInvalidRequest,   // nothing was sent: the request cannot be sent as is
    kUnreachable,      // no connection: no socket, nobody listening
    kDenied,           // this caller may not use the daemon (see above)
    kSendFailed,       // connected, but the request could not be sent whole
    kNoReply,          // the daemon closed the connection without a reply
    kTimedOut,         // no reply within the time-out
  };

  Status status = Status::kInvalidRequest;
  // The daemon's reply (0 done, -1 refused or failed); only for kAnswered.
  int32_t reply = -1;
  // errno of the failed call, 0 when there was none.
  int error = 0;
  // One line for a person: what failed, with the socket path and the reason.
  // For kDenied: "permission denied: run as root or as a member of group
  // <group>", naming the socket's group.
  std::string message;

  // True when the daemon answered 0.
  bool ok() const { return status == Status::kAnswered && reply == 0; }
  bool answered() const { return status == Status::kAnswered; }
};

class YULOTIFYD_EXPORT ControlClient {
 public:
  // A command body never gets near this; the daemon refuses longer ones
  // unread, so the client refuses them before sending.
  static constexpr size_t kMaxBodyLength = 1024 * 1024;
  static constexpr int kDefaultTimeoutMs = 10000;

  // `timeout_ms` bounds each call as a whole; 0 or less waits for ever.
  explicit ControlClient(std::string socket_path = DefaultControlSocketPath(),
                         int timeout_ms = kDefaultTimeoutMs);

  const std::string& socket_path() const { return socket_path_; }
  int timeout_ms() const { return timeout_ms_; }

  // Sends `text` as the command text, unchanged. It must not contain a zero
  // byte (the daemon would stop reading there) and, with its zero byte, must
  // fit in kMaxBodyLength; otherwise kInvalidRequest and nothing is sent.
  ControlResult SendRaw(const std::string& text) const;

  // Sends {"type": type, "data": data}.
  ControlResult Send(const std::string& type, const Json::Value& data) const;

  // The commands. `level` is "debug", "info" or "error".
  ControlResult SetLogLevel(const std::string& level) const;
  // `event` is a queue event code (64 create, 128 delete, 256 move from
  // `path_old` to `path`, ...).
  ControlResult Notify(uint32_t event, const std::string& path,
                       const std::string& path_old = std::string()) const;
  ControlResult MountShare(const std::string& share_name) const;
  ControlResult UmountShare(const std::string& share_name) const;
  ControlResult MountVolume(const std::string& mount_point) const;
  ControlResult UmountVolume(const std::string& mount_point) const;
  // "status": on success (ok()), `status` holds the daemon's object
  // (docs/control.md lists its members). A daemon that does not know the
  // command answers -1.
  ControlResult Status(Json::Value* status) const;

  // A status object never gets near this; a longer one is refused.
  static constexpr uint64_t kMaxPayloadLength = 64 * 1024 * 1024;

  // The command text Send() puts on the wire (single-line JSON).
  static std::string MakeCommand(const std::string& type,
                                 const Json::Value& data);

 private:
  // One exchange; with `payload`, an answer 0 is followed by an object
  // (8-byte length and text) read into it.
  YULOTIFYD_NO_EXPORT ControlResult Exchange(const std::string& text,
                                             std::string* payload) const;

  std::string socket_path_;
  int timeout_ms_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_CONTROL_CLIENT_H_
