#include "daemon/control_server.h"

#include <errno.h>
#include <grp.h>
#include <poll.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "base/clock.h"
#include "base/path.h"
#include "yulotifyd/fs_ids.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

constexpr const char* kLogSource = kControlLogSource;
constexpr int kListenBacklog = 10;
// The socket file's mode when it has a group: root and the group.
constexpr mode_t kGroupSocketMode = 0660;
// Bound on the buffer for one group entry (a group with very many members).
constexpr size_t kMaxGroupEntrySize = 1024 * 1024;
constexpr size_t kReadChunk = 1024;
constexpr int kReadRetries = 3;
// What Dispatch returns for a member it cannot convert.
constexpr int32_t kMalformed = -2;

// Members are converted the way JsonCpp's asString()/asUInt() convert them
// (null gives "" or 0, numbers and booleans are accepted), except that a
// value those calls would throw on (an object or array where a string is
// expected, a string, negative or too large number where an unsigned one is)
// is refused instead of taking the process down.
bool GetString(const Json::Value& data, const char* key, std::string* out) {
  const Json::Value v = data.get(key, Json::Value(""));
  if (!v.isConvertibleTo(Json::stringValue)) return false;
  *out = v.asString();
  return true;
}

bool GetUInt(const Json::Value& data, const char* key, uint32_t* out) {
  const Json::Value v = data.get(key, Json::Value(0u));
  if (!v.isConvertibleTo(Json::uintValue)) return false;
  *out = v.asUInt();
  return true;
}

// How many milliseconds are left until `deadline_ms`; 0 when none is left.
int MillisLeft(int64_t deadline_ms) {
  const int64_t left = deadline_ms - MonotonicMillis();
  if (left <= 0) return 0;
  return static_cast<int>(std::min<int64_t>(left, 60 * 1000));
}

// Waits until `fd` is ready for `events` or `deadline_ms` passed. False,
// with errno EAGAIN, when time ran out.
bool WaitReady(int fd, short events, int64_t deadline_ms) {
  for (;;) {
    const int left = MillisLeft(deadline_ms);
    if (left == 0) {
      errno = EAGAIN;
      return false;
    }
    struct pollfd p = {fd, events, 0};
    const int ready = poll(&p, 1, left);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

// ReadSocket with a deadline on the monotonic clock (0: none). With a
// deadline nothing blocks past it: every read waits in poll for what is left
// of the time and then takes what is there without blocking.
bool ReadUntil(int fd, uint64_t length, char* buffer, int64_t deadline_ms) {
  if (length == 0) return true;
  int retries = kReadRetries;
  uint64_t done = 0;
  while (done < length) {
    const size_t want =
        static_cast<size_t>(std::min<uint64_t>(length - done, kReadChunk));
    ssize_t n = -1;
    if (deadline_ms == 0) {
      n = read(fd, buffer + done, want);
    } else if (WaitReady(fd, POLLIN, deadline_ms)) {
      n = recv(fd, buffer + done, want, MSG_DONTWAIT);
      // Readable but nothing there after all: wait again.
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    }
    if (n <= 0) {
      if (n < 0 && errno == EINTR && retries > 0) {
        --retries;
        continue;
      }
      if (n == 0) errno = ECONNRESET;  // "%m" then names the early close
      YULO_LOG_ALWAYS_AS(kLogSource,
                         "Failed to read from domain socket, reason=%m");
      return false;
    }
    done += static_cast<uint64_t>(n);
  }
  return true;
}

// Sends all of `data` by `deadline_ms`, carrying on after short sends and
// interruptions, never blocking past the deadline; false when the client is
// gone or too slow to take it.
bool SendUntil(int fd, const void* data, size_t size, int64_t deadline_ms) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = send(fd, p, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if ((errno == EAGAIN || errno == EWOULDBLOCK) &&
          WaitReady(fd, POLLOUT, deadline_ms)) {
        continue;
      }
      return false;
    }
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Whether a path (or share name) in a command is refused for a ".."
// component, which is then logged. Paths in commands are compared with the
// shares and mount points, never resolved: ".." would lead out of whatever
// the path seems to lie below.
bool RefusedForDotDot(const std::string& path) {
  if (!HasDotDotComponent(path)) return false;
  YULO_LOG_ALWAYS_AS(kLogSource, "Refused path with a \"..\" component: %s",
                     path.c_str());
  return true;
}

}  // namespace

ControlServer::ControlServer(std::string socket_path, std::string socket_group,
                             ControlHandler* handler, PeerRule rule)
    : socket_path_(std::move(socket_path)),
      socket_group_(std::move(socket_group)),
      handler_(handler),
      rule_(std::move(rule)) {}

ControlServer::~ControlServer() { Close(); }

void ControlServer::Close() {
  clients_.clear();
  fd_.Reset();
}

void ControlServer::RemoveSocketFile() { unlink(socket_path_.c_str()); }

bool ControlServer::Open() {
  fd_.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd_.Valid()) {
    YULO_LOG_ALWAYS_AS(kLogSource, "socket failed, reason=%m");
    return false;
  }
  unlink(socket_path_.c_str());
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  const std::string& path = socket_path_;
  if (path.size() >= sizeof(addr.sun_path)) {
    errno = ENAMETOOLONG;
    YULO_LOG_ALWAYS_AS(kLogSource, "bind failed, reason=%m");
    return false;
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  // The family plus the path bytes, without a terminating zero.
  const socklen_t len = static_cast<socklen_t>(
      offsetof(struct sockaddr_un, sun_path) + path.size());
  LookUpSocketGroup();
  // The socket file is made usable by its owner alone (umask 0177: mode
  // 0600) and then opened to its group, so at no time can more callers
  // connect than should. It is made while the thread's file-system group is
  // the socket group, so it belongs to that group from the start: that takes
  // CAP_SETGID, which the daemon keeps anyway to write queue files as their
  // owners, instead of CAP_CHOWN. The process umask is changed around bind
  // only; no other thread runs yet.
  const mode_t old_umask = umask(0177);
  int bound;
  int bind_errno;
  bool ids_restored = true;
  {
    std::optional<ScopedFsIds> ids;
    if (socket_group_found_) {
      ids.emplace(ScopedFsIds::CurrentFsUid(), socket_gid_);
    }
    bound = bind(fd_.Get(), reinterpret_cast<struct sockaddr*>(&addr), len);
    bind_errno = errno;
    if (ids) ids_restored = ids->Restore();
  }
  umask(old_umask);
  if (!ids_restored) return false;  // logged by Restore
  if (bound != 0) {
    errno = bind_errno;
    YULO_LOG_ALWAYS_AS(kLogSource, "bind failed, reason=%m");
    return false;
  }
  if (listen(fd_.Get(), kListenBacklog) != 0) {
    YULO_LOG_ALWAYS_AS(kLogSource, "listen failed, reason=%m");
    return false;
  }
  OpenSocketToGroup();
  return true;
}

void ControlServer::LookUpSocketGroup() {
  socket_group_found_ = false;
  const std::string& name = socket_group_;
  if (name.empty()) return;
  const long hint = sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 1024);
  struct group entry;
  struct group* found = nullptr;
  int rc;
  for (;;) {
    rc = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (rc == EINTR) continue;
    if (rc != ERANGE || buffer.size() >= kMaxGroupEntrySize) break;
    buffer.resize(buffer.size() * 2);
  }
  if (rc != 0 || found == nullptr) {
    YULO_LOG_INFO_AS(kLogSource,
                     "No group %s: the control socket is for root only",
                     name.c_str());
    return;
  }
  socket_gid_ = entry.gr_gid;
  socket_group_found_ = true;
}

// Opens the socket file to its group (mode 0660) once it is in the socket
// group. Without a group, or when the file did not get it (a directory with
// the set-group-ID bit imposes its own), the file stays 0600: root only.
void ControlServer::OpenSocketToGroup() {
  if (!socket_group_found_) return;
  const std::string& path = socket_path_;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    YULO_LOG_ALWAYS_AS(kLogSource, "stat failed, path=%s, reason=%m",
                       path.c_str());
    return;
  }
  if (st.st_gid != socket_gid_) {
    YULO_LOG_ALWAYS_AS(kLogSource,
                       "Control socket %s not in group %s: root only",
                       path.c_str(), socket_group_.c_str());
    return;
  }
  if (chmod(path.c_str(), kGroupSocketMode) != 0) {
    YULO_LOG_ALWAYS_AS(kLogSource, "chmod failed, path=%s, reason=%m",
                       path.c_str());
  }
}

bool ControlServer::ReadSocket(int fd, uint64_t length, char* buffer) {
  return ReadUntil(fd, length, buffer, 0);
}

void ControlServer::ServeOne() {
  YULO_LOG_DEBUG_AS(kLogSource, "HandleDomainSocket");
  int32_t reply = -1;
  // Non-blocking: a client that connected and went away before this call
  // leaves nothing to accept, and the main loop must not wait for the next.
  const int conn =
      accept4(fd_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (conn < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED) {
      return;
    }
    YULO_LOG_ALWAYS_AS(kLogSource, "accept failed, reason=%m");
    YULO_LOG_DEBUG_AS(kLogSource, "Replying socket: %d", reply);
    return;
  }
  if (!MayControl(conn)) {
    // Not a byte of the request is read, and the reply goes into the empty
    // send buffer without waiting, so a refused caller costs the main loop
    // nothing it could drag out.
    YULO_LOG_DEBUG_AS(kLogSource, "Replying socket: %d", reply);
    ssize_t ignored =
        send(conn, &reply, sizeof(reply), MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)ignored;
    close(conn);
    return;
  }
  auto client = std::make_unique<ControlConnection>(
      UniqueFd(conn), MonotonicMillis() + kRequestTimeoutMillis,
      kMaxBodyLength);
  // A request that is all there already (the usual case) is served now.
  Progress(client.get());
  if (client->state() != ControlConnection::State::kDone) {
    clients_.push_back(std::move(client));
  }
}

void ControlServer::Progress(ControlConnection* client) {
  if (client->state() == ControlConnection::State::kReading) client->Read();
  if (client->state() == ControlConnection::State::kRunnable) {
    const int32_t reply = Execute(client->TakeRequest());
    client->Reply(reply, reply_payload_,
                  MonotonicMillis() + kReplyTimeoutMillis);
    reply_payload_.clear();
  } else if (client->state() == ControlConnection::State::kReplying) {
    client->Write();
  }
}

void ControlServer::AddToSets(fd_set* readable, fd_set* writable,
                              int* width) const {
  // At the limit, new clients wait in the listen backlog.
  if (fd_.Valid() && clients_.size() < kMaxClients) {
    FD_SET(fd_.Get(), readable);
    *width = std::max(*width, fd_.Get() + 1);
  }
  for (const auto& client : clients_) {
    const bool reading =
        client->state() == ControlConnection::State::kReading;
    FD_SET(client->fd(), reading ? readable : writable);
    *width = std::max(*width, client->fd() + 1);
  }
}

void ControlServer::Handle(const fd_set& readable, const fd_set& writable) {
  // The clients in progress first: a new one is served as it is accepted.
  for (auto& client : clients_) {
    if (FD_ISSET(client->fd(), &readable) ||
        FD_ISSET(client->fd(), &writable)) {
      Progress(client.get());
    }
  }
  DropFinished();
  if (fd_.Valid() && FD_ISSET(fd_.Get(), &readable) &&
      clients_.size() < kMaxClients) {
    ServeOne();
  }
}

void ControlServer::ExpireClients() {
  const int64_t now = MonotonicMillis();
  for (auto& client : clients_) {
    if (client->deadline_ms() <= now) client->Expire();
  }
  DropFinished();
}

int64_t ControlServer::MillisUntilDeadline() const {
  if (clients_.empty()) return -1;
  int64_t first = clients_.front()->deadline_ms();
  for (const auto& client : clients_) {
    first = std::min(first, client->deadline_ms());
  }
  return std::max<int64_t>(0, first - MonotonicMillis());
}

void ControlServer::DropFinished() {
  clients_.erase(
      std::remove_if(clients_.begin(), clients_.end(),
                     [](const std::unique_ptr<ControlConnection>& client) {
                       return client->state() ==
                              ControlConnection::State::kDone;
                     }),
      clients_.end());
}

int32_t ControlServer::ServeConnection(int conn) {
  int32_t reply = -1;
  const int64_t deadline = MonotonicMillis() + kRequestTimeoutMillis;

  do {
    uint64_t length = 0;
    if (!ReadUntil(conn, sizeof(length), reinterpret_cast<char*>(&length),
                   deadline)) {
      YULO_LOG_ALWAYS_AS(kLogSource, "Receive command length failed");
      break;
    }
    if (length == 0 || length > kMaxBodyLength) {
      YULO_LOG_ALWAYS_AS(kLogSource, "Receive command body failed");
      break;
    }
    std::vector<char> body(static_cast<size_t>(length));
    if (!ReadUntil(conn, length, body.data(), deadline)) {
      YULO_LOG_ALWAYS_AS(kLogSource, "Receive command body failed");
      break;
    }
    // The text ends at the first zero byte, or with the body when a client
    // forgot it.
    const char* end =
        static_cast<const char*>(std::memchr(body.data(), '\0', body.size()));
    reply = Execute(std::string(
        body.data(), end == nullptr ? body.size() : end - body.data()));
  } while (false);

  YULO_LOG_DEBUG_AS(kLogSource, "Replying socket: %d", reply);
  // The whole reply has its own deadline: a client that stops reading (a
  // "status" object is bigger than a socket buffer on a busy daemon) is
  // dropped when it runs out. A client that went away is its own business:
  // no SIGPIPE, whether or not the process ignores it.
  const int64_t reply_deadline = MonotonicMillis() + kReplyTimeoutMillis;
  bool sent = SendUntil(conn, &reply, sizeof(reply), reply_deadline);
  if (sent && reply == 0 && !reply_payload_.empty()) {
    // "status": its object follows, as an 8-byte length and the text.
    const uint64_t length = reply_payload_.size();
    sent = SendUntil(conn, &length, sizeof(length), reply_deadline) &&
           SendUntil(conn, reply_payload_.data(), reply_payload_.size(),
                     reply_deadline);
    if (!sent && errno == EAGAIN) {
      YULO_LOG_ALWAYS_AS(kLogSource,
                         "Client too slow to take the reply, dropped");
    }
  }
  reply_payload_.clear();
  close(conn);
  return reply;
}

int32_t ControlServer::Execute(const std::string& text) {
  Json::Value command;
  std::string type;
  if (!fromString(text, command) || !command.isObject() ||
      !command.isMember("type") || !command.isMember("data") ||
      !command["data"].isObject() || !GetString(command, "type", &type)) {
    YULO_LOG_ALWAYS_AS(kLogSource, "Malformed command: %s", text.c_str());
    return -1;
  }
  const Json::Value data = command["data"];
  YULO_LOG_INFO_AS(kLogSource, "Got command: %s", toString(command).c_str());
  const int32_t result = Dispatch(type, data);
  if (result == kMalformed) {
    YULO_LOG_ALWAYS_AS(kLogSource, "Malformed command: %s", text.c_str());
    reply_payload_.clear();
    return -1;
  }
  return result;
}

// Whether the caller at the other end of `conn` may drive the daemon: root,
// or a member of the socket group. Logs every refusal.
bool ControlServer::MayControl(int conn) {
  PeerCredentials peer;
  const bool known = GetPeerCredentials(conn, &peer);
  if (known && rule_(peer, socket_group_found_ ? &socket_gid_ : nullptr)) {
    return true;
  }
  YULO_LOG_ALWAYS_AS(kLogSource, "Refused command from uid=%u, pid=%d",
                     static_cast<unsigned>(peer.uid),
                     static_cast<int>(peer.pid));
  return false;
}

// Carries out one command. Returns the reply, or kMalformed when a member has
// a type the command cannot use (the caller reports the command as
// malformed).
int32_t ControlServer::Dispatch(const std::string& type,
                                const Json::Value& data) {
  if (type == "set_log_level") {
    std::string level;
    if (!GetString(data, "log_level", &level)) return kMalformed;
    if (level == "debug") {
      LOG_LEVEL = 7;
    } else if (level == "error") {
      LOG_LEVEL = 3;
    } else if (level == "info") {
      LOG_LEVEL = 6;
    } else {
      YULO_LOG_ALWAYS_AS(kLogSource, "Unknown log level: %s", level.c_str());
      return -1;
    }
    return 0;
  }
  if (type == "status") {
    reply_payload_ = toString(handler_->DescribeStatus());
    return 0;
  }
  if (type == "notify") {
    uint32_t event = 0;
    std::string path, path_old;
    if (!GetUInt(data, "event", &event) || !GetString(data, "path", &path) ||
        !GetString(data, "path_old", &path_old)) {
      return kMalformed;
    }
    if (RefusedForDotDot(path) || RefusedForDotDot(path_old)) return -1;
    handler_->InjectEvent(event, path, path_old);
    return 0;
  }
  if (type == "mount_share" || type == "umount_share") {
    std::string share;
    if (!GetString(data, "share_name", &share)) return kMalformed;
    if (RefusedForDotDot(share)) return -1;
    if (!handler_->SwitchShare(share, type == "mount_share")) {
      YULO_LOG_ALWAYS_AS(kLogSource, "Cannot get volume manager, share: %s",
                         share.c_str());
      return -1;
    }
    return 0;
  }
  if (type == "mount_volume" || type == "umount_volume") {
    std::string mount_point;
    if (!GetString(data, "mount_point", &mount_point)) return kMalformed;
    if (RefusedForDotDot(mount_point)) return -1;
    if (type == "mount_volume") {
      handler_->ReportVolumeMounted(mount_point);
    } else {
      handler_->ReportVolumeUnmounted(mount_point);
    }
    return 0;
  }
  YULO_LOG_ALWAYS_AS(kLogSource, "Unknown command type: %s", type.c_str());
  return -1;
}

}  // namespace YULOTIFYD
}  // namespace YULO
