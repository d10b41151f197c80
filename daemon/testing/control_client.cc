#include "daemon/testing/control_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

std::string Frame(const std::string& body) {
  const uint64_t length = body.size();
  return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) +
         body;
}

std::string FrameCommand(const std::string& text) {
  return Frame(text + std::string(1, '\0'));
}

bool SendRequest(int fd, const std::string& request) {
  return send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(request.size());
}

int ConnectAndSend(const std::string& path, const std::string& request) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) !=
          0 ||
      !SendRequest(fd, request)) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string ReadToEnd(int fd) {
  std::string out;
  char chunk[4096];
  for (;;) {
    const ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
    if (n <= 0) break;
    out.append(chunk, static_cast<size_t>(n));
  }
  return out;
}

int32_t ReplyOf(const std::string& answer) {
  int32_t reply = 99;
  if (answer.size() >= sizeof(reply)) {
    std::memcpy(&reply, answer.data(), sizeof(reply));
  }
  return reply;
}

bool StatusObjectOf(const std::string& answer, Json::Value* status) {
  uint64_t length = 0;
  const size_t object_at = sizeof(int32_t) + sizeof(length);
  if (answer.size() < object_at) return false;
  std::memcpy(&length, answer.data() + sizeof(int32_t), sizeof(length));
  if (length != answer.size() - object_at) return false;
  return fromString(answer.substr(object_at), *status);
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
