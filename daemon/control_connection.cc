#include "daemon/control_connection.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

constexpr size_t kLengthSize = sizeof(uint64_t);
// Read in pieces of this size: a request is a few hundred bytes.
constexpr size_t kReadChunk = 4096;

}  // namespace

ControlConnection::ControlConnection(UniqueFd fd, int64_t deadline_ms,
                                     uint64_t max_body)
    : fd_(std::move(fd)), deadline_ms_(deadline_ms), max_body_(max_body) {}

void ControlConnection::Read() {
  while (state_ == State::kReading) {
    const size_t want =
        body_length_ == 0
            ? kLengthSize - in_.size()
            : static_cast<size_t>(std::min<uint64_t>(
                  kLengthSize + body_length_ - in_.size(), kReadChunk));
    char buffer[kReadChunk];
    const ssize_t n = recv(fd_.Get(), buffer, want, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) {
      // "%m" then names the early close.
      Fail(n == 0 ? ECONNRESET : errno);
      return;
    }
    in_.append(buffer, static_cast<size_t>(n));
    if (body_length_ == 0 && in_.size() == kLengthSize) {
      uint64_t length = 0;
      std::memcpy(&length, in_.data(), kLengthSize);
      if (length == 0 || length > max_body_) {
        Fail(0);
        return;
      }
      body_length_ = length;
    }
    if (body_length_ != 0 && in_.size() == kLengthSize + body_length_) {
      state_ = State::kRunnable;
    }
  }
}

std::string ControlConnection::TakeRequest() {
  // The text ends at the first zero byte, or with the body when a client
  // forgot it.
  const char* body = in_.data() + kLengthSize;
  const size_t size = in_.size() - kLengthSize;
  const char* end = static_cast<const char*>(std::memchr(body, '\0', size));
  std::string text(body, end == nullptr ? size : end - body);
  in_.clear();
  return text;
}

void ControlConnection::Reply(int32_t reply, const std::string& payload,
                              int64_t deadline_ms) {
  YULO_LOG_DEBUG_AS(kControlLogSource, "Replying socket: %d", reply);
  out_.assign(reinterpret_cast<const char*>(&reply), sizeof(reply));
  if (reply == 0 && !payload.empty()) {
    // "status": its object follows, as an 8-byte length and the text.
    const uint64_t length = payload.size();
    out_.append(reinterpret_cast<const char*>(&length), sizeof(length));
    out_ += payload;
  }
  sent_ = 0;
  deadline_ms_ = deadline_ms;
  state_ = State::kReplying;
  Write();
}

void ControlConnection::Write() {
  while (state_ == State::kReplying && sent_ < out_.size()) {
    // A client that went away is its own business: no SIGPIPE.
    const ssize_t n = send(fd_.Get(), out_.data() + sent_, out_.size() - sent_,
                           MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n < 0) break;
    sent_ += static_cast<size_t>(n);
  }
  if (state_ == State::kReplying) Close();
}

void ControlConnection::Expire() {
  switch (state_) {
    case State::kReading:
      Fail(EAGAIN);  // as a read that timed out
      return;
    case State::kReplying:
      YULO_LOG_ALWAYS_AS(kControlLogSource,
                         "Client too slow to take the reply, dropped");
      Close();
      return;
    case State::kRunnable:
    case State::kDone:
      return;
  }
}

void ControlConnection::Fail(int err) {
  if (err != 0) {
    errno = err;
    YULO_LOG_ALWAYS_AS(kControlLogSource,
                       "Failed to read from domain socket, reason=%m");
  }
  if (body_length_ == 0 && in_.size() < kLengthSize) {
    YULO_LOG_ALWAYS_AS(kControlLogSource, "Receive command length failed");
  } else {
    YULO_LOG_ALWAYS_AS(kControlLogSource, "Receive command body failed");
  }
  in_.clear();
  // The 4 bytes go into the empty send buffer or nowhere: no new deadline.
  Reply(-1, std::string(), deadline_ms_);
}

void ControlConnection::Close() {
  fd_.Reset();
  out_.clear();
  state_ = State::kDone;
}

}  // namespace YULOTIFYD
}  // namespace YULO
