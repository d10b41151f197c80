// Control requests: bytes from a client, through the daemon's real handler.
//
// A Daemon that was never Run() serves one connection of a socketpair per
// input with HandleConnection, exactly as the main loop serves an accepted
// client: the 8-byte length, the body, JSON parsing, member conversion and
// every command. The client's end is closed for writing after the request,
// so a short request ends in the end-of-data path instead of the 1-second
// time-out. The reply must be the 4 bytes of 0 or -1, equal to what the
// handler returned.
//
// Input: the first byte chooses the framing. Even: the rest is the byte
// stream the client sends, length field included. Odd: the rest is the
// body and the target puts its true length in front, so that mutations of
// the command text are not all lost to a length that no longer matches.
//
// What the commands can reach: no volume manager exists, so "notify" and
// the share commands find none; "mount_volume" asks the platform library,
// whose volume table and smb.conf in a fuzz build are compiled-in paths that
// do not exist (checked at start-up, see LLVMFuzzerInitialize), so no
// request can start watching a real volume. Log lines are kept in memory
// and dropped.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "daemon/daemon.h"
#include "fuzz/common/fuzz_support.h"
#include "lib/testing/log_capture.h"
#include "yulo_build_config.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

// Writes as much of `bytes` as the socket takes without blocking; the rest
// is lost as if the client had stopped sending.
void SendSome(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done,
                           MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
}

int32_t Serve(const std::string& request) {
  int pair[2];
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0,
             std::strerror(errno));
  const int client = pair[0];
  SendSome(client, request);
  shutdown(client, SHUT_WR);

  DaemonOptions options;
  options.socket_path = fuzz::ScratchRoot() + "/control.sock";
  options.run_status_path = fuzz::ScratchRoot() + "/yulotifyd.run";
  options.conf_root = fuzz::ScratchRoot() + "/conf";
  int32_t returned;
  {
    Daemon daemon(options);
    returned = daemon.HandleConnection(pair[1]);  // closes pair[1]
  }

  int32_t reply = 0;
  ssize_t got = 0;
  while (got < static_cast<ssize_t>(sizeof(reply))) {
    const ssize_t n = recv(client, reinterpret_cast<char*>(&reply) + got,
                           sizeof(reply) - got, MSG_DONTWAIT);
    if (n <= 0) break;
    got += n;
  }
  // Only a "status" answer has more after its 0: an 8-byte length and
  // exactly that many bytes of one JSON object.
  std::string rest;
  char chunk[4096];
  for (;;) {
    const ssize_t n = recv(client, chunk, sizeof(chunk), MSG_DONTWAIT);
    if (n <= 0) break;
    rest.append(chunk, static_cast<size_t>(n));
  }
  close(client);
  bool more = false;
  if (!rest.empty()) {
    uint64_t length = 0;
    Json::Value object;
    more = !(reply == 0 && rest.size() >= sizeof(length) &&
             (std::memcpy(&length, rest.data(), sizeof(length)),
              length == rest.size() - sizeof(length)) &&
             fromString(rest.substr(sizeof(length)), object) &&
             object.isObject());
  }

  FUZZ_CHECK(returned == 0 || returned == -1,
             "handler returned " + std::to_string(returned));
  FUZZ_CHECK(got == sizeof(reply),
             "reply of " + std::to_string(got) + " bytes");
  FUZZ_CHECK(!more, "bytes after the reply that are not a status object");
  FUZZ_CHECK(reply == returned, "sent " + std::to_string(reply) +
                                    ", returned " + std::to_string(returned));
  return reply;
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // A fuzzed mount_volume that found a real volume table would start a
  // volume manager watching the machine's volume; refuse to run instead.
  for (const char* path : {YULO_VOLUME_TABLE_PATH, YULO_SMB_CONF_PATH}) {
    if (access(path, F_OK) == 0) {
      fprintf(stderr,
              "control_fuzzer: %s exists; configure the fuzz build with "
              "-DYULOTIFYD_FUZZ=ON in a fresh build directory so that the "
              "platform library reads files that do not exist\n",
              path);
      exit(1);
    }
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace YULO::YULOTIFYD;
  if (size == 0) return 0;
  std::string request;
  const std::string_view rest = fuzz::AsText(data + 1, size - 1);
  if (data[0] & 1) {
    const uint64_t length = rest.size();
    request.assign(reinterpret_cast<const char*>(&length), sizeof(length));
  }
  request.append(rest.data(), rest.size());
  Serve(request);
  // set_log_level changes the level for the whole process; each input
  // starts from the daemon's initial level.
  LOG_LEVEL = 3;
  testing::TakeLogLines();
  return 0;
}
