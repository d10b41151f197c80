// ControlServer: the control socket.
//
// One length-prefixed JSON command per connection, answered with a 4-byte
// status (0 or -1); the "status" command's 0 is followed by an 8-byte
// length and its object as text. docs/control.md describes the protocol.
// Only root and the members of the socket group may connect (mode 0660) and
// are served (checked per connection); anybody else gets -1 without a byte
// of the request being read. The server reads and checks the request and
// hands each well-formed command to a ControlHandler, which the daemon
// implements.
//
// Ownership: owns the listening socket, closed by Close or on destruction;
// `handler` is not owned and outlives the server.
// The main loop serves the socket without ever waiting for a client: it
// adds the listening socket and the connections in progress to its select
// sets (AddToSets), lets the server take what is ready (Handle) and drop the
// clients whose time ran out (ExpireClients), and waits no longer than the
// next such deadline (MillisUntilDeadline). Each connection
// (ControlConnection) must send its whole request within
// kRequestTimeoutMillis of the accept and take its whole reply within
// kReplyTimeoutMillis; meanwhile other clients are served. Commands are
// still carried out one at a time, in the order their requests became
// whole.
//
// Thread-safety: none; the daemon's main thread only.
#ifndef YULOTIFYD_DAEMON_CONTROL_SERVER_H_
#define YULOTIFYD_DAEMON_CONTROL_SERVER_H_

#include <stdint.h>
#include <sys/select.h>
#include <sys/types.h>

#include <json/json.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "daemon/control_connection.h"
#include "daemon/peer_credentials.h"

namespace YULO {
namespace YULOTIFYD {

// What the commands do to the daemon. "set_log_level" is the server's own.
class ControlHandler {
 public:
  virtual ~ControlHandler() = default;

  // "status": the object sent after the 0.
  virtual Json::Value DescribeStatus() = 0;
  // "notify": offers the event to every volume.
  virtual void InjectEvent(uint32_t event, const std::string& path,
                           const std::string& path_old) = 0;
  // "mount_share" (`mounted`) and "umount_share". False when no volume
  // manager serves the share.
  virtual bool SwitchShare(const std::string& share_name, bool mounted) = 0;
  // "mount_volume" and "umount_volume".
  virtual void ReportVolumeMounted(const std::string& mount_point) = 0;
  virtual void ReportVolumeUnmounted(const std::string& mount_point) = 0;
};

class ControlServer {
 public:
  // Whether `peer` may drive the daemon; `group` is the socket's group, null
  // when it has none.
  using PeerRule =
      std::function<bool(const PeerCredentials& peer, const gid_t* group)>;

  // A command is a few hundred bytes; anything longer is refused unread.
  static constexpr uint64_t kMaxBodyLength = 1024 * 1024;
  // A client must not hold the main loop: the whole request has to arrive
  // within this time after the connection is accepted (a client that sends
  // a byte now and then gets no more than one that stops), and the whole
  // reply has to be taken within the second after the command was carried
  // out. Real clients need a millisecond for either.
  static constexpr int64_t kRequestTimeoutMillis = 1000;
  static constexpr int64_t kReplyTimeoutMillis = 1000;
  // Connections in progress at once; more wait in the listen backlog.
  static constexpr size_t kMaxClients = 16;

  // Listens at `socket_path`; besides root, the members of `socket_group`
  // may connect (empty or unknown: nobody but root) when `rule` lets them.
  ControlServer(std::string socket_path, std::string socket_group,
                ControlHandler* handler, PeerRule rule = &PeerMayControl);
  ~ControlServer();

  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Creates the socket file (replacing whatever was there) and listens.
  // False, logged, on failure; the descriptor then stays open until Close.
  // REQUIRES: not open; no other thread runs (the umask is changed around
  // bind).
  bool Open();
  // Closes the listening socket; harmless when not open. The socket file
  // stays until RemoveSocketFile.
  void Close();
  void RemoveSocketFile();
  // The listening descriptor to wait on; -1 when not open.
  int fd() const { return fd_.Get(); }

  // Accepts one connection, if there is one, and serves what it sent so
  // far; the rest of it is served by Handle as it comes.
  void ServeOne();

  // Adds the listening socket (unless kMaxClients are in progress) and the
  // connections in progress to the sets of a select call and raises *width
  // to cover them.
  void AddToSets(fd_set* readable, fd_set* writable, int* width) const;
  // After select returned `readable` and `writable`: serves what is ready,
  // accepting a new client when the listening socket is readable.
  void Handle(const fd_set& readable, const fd_set& writable);
  // Drops the clients whose deadline passed (answering -1 to one whose
  // request is not in).
  void ExpireClients();
  // Milliseconds until the first client's deadline (0: passed); -1 when no
  // client is in progress.
  int64_t MillisUntilDeadline() const;
  // Connections in progress.
  size_t client_count() const { return clients_.size(); }

  // Serves the connected stream socket `conn` in one go: reads one
  // request, carries it out, sends the reply and closes `conn`, within the
  // same deadlines. Returns the reply (0 or -1). No peer check. Any
  // connected stream socket will do (a socketpair in tests and the fuzzer).
  //
  // Either way, paths and share names with a ".." component are refused
  // (-1, logged).
  int32_t ServeConnection(int conn);

  // Reads exactly `length` bytes from `fd` into `buffer`; false, logged,
  // when the peer closed early or a read failed.
  static bool ReadSocket(int fd, uint64_t length, char* buffer);

 private:
  void LookUpSocketGroup();
  void OpenSocketToGroup();
  bool MayControl(int conn);
  // Takes `client` as far as it can go now: reads, carries out the
  // command, sends.
  void Progress(ControlConnection* client);
  void DropFinished();
  // Parses the command text and carries it out; the reply (0 or -1), with
  // reply_payload_ set for "status".
  int32_t Execute(const std::string& text);
  int32_t Dispatch(const std::string& type, const Json::Value& data);

  const std::string socket_path_;
  const std::string socket_group_;
  ControlHandler* const handler_;
  const PeerRule rule_;
  UniqueFd fd_;
  // The socket's group, when it has one (socket_group_found_).
  bool socket_group_found_ = false;
  gid_t socket_gid_ = 0;
  // The object a "status" command answers with after its 0, as text; empty
  // for every other command.
  std::string reply_payload_;
  std::vector<std::unique_ptr<ControlConnection>> clients_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_CONTROL_SERVER_H_
