#include "yulotifyd/control_client.h"

#include <errno.h>
#include <grp.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "base/errno_text.h"
#include "base/unique_fd.h"
#include "yulo_build_config.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

using Status = ControlResult::Status;

// Room for one group entry; a group too big for it is named by the
// compiled-in name instead.
constexpr size_t kGroupBufferSize = 64 * 1024;

// The time left of one call; every blocking socket call is limited to it
// through SO_SNDTIMEO / SO_RCVTIMEO.
class Deadline {
 public:
  explicit Deadline(int timeout_ms)
      : forever_(timeout_ms <= 0), end_ms_(MonotonicMillis() + timeout_ms) {}

  // Sets `option` on `fd` to the time left. False, with errno EAGAIN, when
  // none is left.
  bool Arm(int fd, int option) const {
    struct timeval tv = {0, 0};  // zero: no time-out
    if (!forever_) {
      const int64_t left = end_ms_ - MonotonicMillis();
      if (left <= 0) {
        errno = EAGAIN;
        return false;
      }
      tv.tv_sec = static_cast<time_t>(left / 1000);
      tv.tv_usec = static_cast<suseconds_t>((left % 1000) * 1000);
    }
    return setsockopt(fd, SOL_SOCKET, option, &tv, sizeof(tv)) == 0;
  }

 private:
  bool forever_;
  int64_t end_ms_;
};

ControlResult Failure(Status status, int error, std::string message) {
  ControlResult result;
  result.status = status;
  result.error = error;
  result.message = std::move(message);
  return result;
}

bool IsTimeout(int err) { return err == EAGAIN || err == EWOULDBLOCK; }

// Reads the 4-byte reply. Fills `result` either way.
// Reads exactly `size` bytes into `out` within the deadline. On failure
// fills `result` and returns false.
bool ReadExact(int fd, const Deadline& deadline, const std::string& path,
               char* out, size_t size, ControlResult* result) {
  size_t done = 0;
  while (done < size) {
    if (!deadline.Arm(fd, SO_RCVTIMEO)) {
      const int err = errno;
      *result = Failure(Status::kTimedOut, err,
                        "no reply from " + path + " in time");
      return false;
    }
    const ssize_t n = recv(fd, out + done, size - done, 0);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) {
      *result = Failure(Status::kNoReply, 0,
                        path + " closed the connection without a reply");
      return false;
    }
    const int err = errno;
    if (IsTimeout(err)) {
      *result = Failure(Status::kTimedOut, err,
                        "no reply from " + path + " in time");
    } else {
      *result = Failure(Status::kNoReply, err,
                        "cannot read the reply from " + path + ": " +
                            ErrnoText(err));
    }
    return false;
  }
  return true;
}

void ReadReply(int fd, const Deadline& deadline, const std::string& path,
               ControlResult* result) {
  int32_t reply = 0;
  if (!ReadExact(fd, deadline, path, reinterpret_cast<char*>(&reply),
                 sizeof(reply), result)) {
    return;
  }
  result->status = Status::kAnswered;
  result->reply = reply;
  result->error = 0;
  result->message = "answered " + std::to_string(reply);
}

// The name of the group whose members may use the socket at `path`: the
// socket file's group when the file is open to a group other than root's,
// else the group the daemon was built to open it to. Empty when there is
// none.
std::string SocketGroupName(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && (st.st_mode & 0060) != 0 &&
      st.st_gid != 0) {
    std::vector<char> buffer(kGroupBufferSize);
    struct group entry;
    struct group* found = nullptr;
    int rc;
    do {
      rc = getgrgid_r(st.st_gid, &entry, buffer.data(), buffer.size(),
                      &found);
    } while (rc == EINTR);
    if (rc == 0 && found != nullptr) return entry.gr_name;
  }
  return YULOTIFYD_SOCKET_GROUP;
}

// Whether this process is one the daemon serves: root, or a member of the
// socket file's group. True when that cannot be told.
bool CallerMayUse(const std::string& path) {
  if (geteuid() == 0) return true;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return true;
  if (getegid() == st.st_gid) return true;
  const int count = getgroups(0, nullptr);
  if (count <= 0) return false;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  const int got = getgroups(count, groups.data());
  for (int i = 0; i < got; ++i) {
    if (groups[static_cast<size_t>(i)] == st.st_gid) return true;
  }
  return false;
}

ControlResult Denied(const std::string& path) {
  const std::string group = SocketGroupName(path);
  return Failure(Status::kDenied, EACCES,
                 group.empty() ? "permission denied: run as root"
                               : "permission denied: run as root or as a "
                                 "member of group " + group);
}

// A -1 to a caller the daemon does not serve is the daemon refusing the
// caller, not the command.
ControlResult CheckRefusal(const std::string& path,
                           const ControlResult& result) {
  if (result.answered() && result.reply == -1 && !CallerMayUse(path)) {
    return Denied(path);
  }
  return result;
}

}  // namespace

const char* DefaultControlSocketPath() { return YULOTIFYD_SOCKET_PATH; }

ControlClient::ControlClient(std::string socket_path, int timeout_ms)
    : socket_path_(std::move(socket_path)), timeout_ms_(timeout_ms) {}

ControlResult ControlClient::SendRaw(const std::string& text) const {
  return Exchange(text, nullptr);
}

ControlResult ControlClient::Exchange(const std::string& text,
                                      std::string* payload) const {
  const std::string& path = socket_path_;
  if (text.find('\0') != std::string::npos) {
    return Failure(Status::kInvalidRequest, EINVAL,
                   "the command contains a zero byte");
  }
  if (text.size() + 1 > kMaxBodyLength) {
    return Failure(Status::kInvalidRequest, EMSGSIZE,
                   "the command is longer than " +
                       std::to_string(kMaxBodyLength - 1) + " bytes");
  }
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr.sun_path) ||
      path.find('\0') != std::string::npos) {
    return Failure(Status::kInvalidRequest, ENAMETOOLONG,
                   "unusable socket path \"" + path + "\" (empty, too long " +
                       "or with a zero byte)");
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  const socklen_t addr_len = static_cast<socklen_t>(
      offsetof(struct sockaddr_un, sun_path) + path.size());

  const Deadline deadline(timeout_ms_);
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.Valid()) {
    const int err = errno;
    return Failure(Status::kUnreachable, err,
                   "cannot create a socket: " + ErrnoText(err));
  }

  // A full listen backlog makes connect wait, within SO_SNDTIMEO.
  for (;;) {
    if (!deadline.Arm(fd.Get(), SO_SNDTIMEO)) {
      const int err = errno;
      return Failure(Status::kTimedOut, err,
                     "cannot connect to " + path + " in time");
    }
    if (connect(fd.Get(), reinterpret_cast<struct sockaddr*>(&addr),
                addr_len) == 0) {
      break;
    }
    const int err = errno;
    if (err == EINTR) continue;
    if (IsTimeout(err)) {
      return Failure(Status::kTimedOut, err,
                     "cannot connect to " + path + " in time (busy)");
    }
    if (err == EACCES || err == EPERM) return Denied(path);
    return Failure(Status::kUnreachable, err,
                   "cannot connect to " + path + ": " + ErrnoText(err));
  }

  // Header and body in one buffer: the daemon reads them as they come, but
  // one send keeps a short command in one segment.
  const uint64_t length = static_cast<uint64_t>(text.size()) + 1;
  std::string request(sizeof(length), '\0');
  std::memcpy(&request[0], &length, sizeof(length));
  request += text;
  request.push_back('\0');

  ControlResult result;
  size_t sent = 0;
  while (sent < request.size()) {
    if (!deadline.Arm(fd.Get(), SO_SNDTIMEO)) {
      const int err = errno;
      return Failure(Status::kTimedOut, err,
                     "cannot send the command to " + path + " in time");
    }
    const ssize_t n = send(fd.Get(), request.data() + sent,
                           request.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    const int err = errno;
    if (n < 0 && err == EINTR) continue;
    if (n < 0 && IsTimeout(err)) {
      return Failure(Status::kTimedOut, err,
                     "cannot send the command to " + path + " in time");
    }
    // The daemon may have refused the request and answered before closing;
    // that answer is worth more than the broken send.
    ReadReply(fd.Get(), deadline, path, &result);
    if (result.answered()) return CheckRefusal(path, result);
    return Failure(Status::kSendFailed, err,
                   "cannot send the command to " + path + ": " +
                       ErrnoText(err));
  }
  ReadReply(fd.Get(), deadline, path, &result);
  if (payload != nullptr && result.ok()) {
    // A reply with an object behind it: 8-byte length, then the text.
    uint64_t size = 0;
    if (!ReadExact(fd.Get(), deadline, path, reinterpret_cast<char*>(&size),
                   sizeof(size), &result)) {
      return result;
    }
    if (size > kMaxPayloadLength) {
      return Failure(Status::kNoReply, EMSGSIZE,
                     path + " sent a reply of " + std::to_string(size) +
                         " bytes, more than a client takes");
    }
    payload->assign(static_cast<size_t>(size), '\0');
    if (!ReadExact(fd.Get(), deadline, path, &(*payload)[0], payload->size(),
                   &result)) {
      return result;
    }
  }
  return CheckRefusal(path, result);
}

ControlResult ControlClient::Status(Json::Value* status) const {
  std::string text;
  ControlResult result = Exchange(MakeCommand("status", Json::Value(Json::objectValue)),
                                  &text);
  if (!result.ok()) return result;
  if (!fromString(text, *status) || !status->isObject()) {
    return Failure(Status::kNoReply, EPROTO,
                   socket_path_ + " sent a status that is not a JSON object");
  }
  return result;
}

std::string ControlClient::MakeCommand(const std::string& type,
                                       const Json::Value& data) {
  Json::Value command(Json::objectValue);
  command["type"] = type;
  command["data"] = data;
  return toString(command);
}

ControlResult ControlClient::Send(const std::string& type,
                                  const Json::Value& data) const {
  return SendRaw(MakeCommand(type, data));
}

ControlResult ControlClient::SetLogLevel(const std::string& level) const {
  Json::Value data(Json::objectValue);
  data["log_level"] = level;
  return Send("set_log_level", data);
}

ControlResult ControlClient::Notify(uint32_t event, const std::string& path,
                                    const std::string& path_old) const {
  Json::Value data(Json::objectValue);
  data["event"] = Json::Value(static_cast<Json::UInt>(event));
  data["path"] = path;
  if (!path_old.empty()) data["path_old"] = path_old;
  return Send("notify", data);
}

ControlResult ControlClient::MountShare(const std::string& share_name) const {
  Json::Value data(Json::objectValue);
  data["share_name"] = share_name;
  return Send("mount_share", data);
}

ControlResult ControlClient::UmountShare(
    const std::string& share_name) const {
  Json::Value data(Json::objectValue);
  data["share_name"] = share_name;
  return Send("umount_share", data);
}

ControlResult ControlClient::MountVolume(
    const std::string& mount_point) const {
  Json::Value data(Json::objectValue);
  data["mount_point"] = mount_point;
  return Send("mount_volume", data);
}

ControlResult ControlClient::UmountVolume(
    const std::string& mount_point) const {
  Json::Value data(Json::objectValue);
  data["mount_point"] = mount_point;
  return Send("umount_volume", data);
}

}  // namespace YULOTIFYD
}  // namespace YULO
