// A bare control-socket client for the daemon core's tests: the request's
// framing, the connection, and the answer taken apart.
//
// Thread-safety: plain functions without shared state.
#ifndef YULOTIFYD_DAEMON_TESTING_CONTROL_CLIENT_H_
#define YULOTIFYD_DAEMON_TESTING_CONTROL_CLIENT_H_

#include <json/json.h>

#include <cstdint>
#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// `body` behind its 8-byte length.
std::string Frame(const std::string& body);
// The command `text` as a client sends it: framed, with its terminating
// zero byte.
std::string FrameCommand(const std::string& text);

// Connects to the control socket at `path` and sends `request`; the
// descriptor, or -1 (the test has failed then).
int ConnectAndSend(const std::string& path, const std::string& request);
// Sends all of `request` on the connected socket `fd`; false when it could
// not.
bool SendRequest(int fd, const std::string& request);
// Everything the peer of `fd` sends until it closes.
std::string ReadToEnd(int fd);

// The reply at the start of `answer`; 99 when it is shorter than one.
int32_t ReplyOf(const std::string& answer);
// The "status" object after the reply, parsed into `status`; false when
// there is none or its length does not match.
bool StatusObjectOf(const std::string& answer, Json::Value* status);

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_TESTING_CONTROL_CLIENT_H_
