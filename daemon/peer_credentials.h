// Who is at the other end of a control-socket connection, and whether that
// caller may drive the daemon.
//
// Only root and the members of the control socket's group (as primary or
// supplementary group) may send commands. The credentials are the kernel's
// record of the peer taken when it connected (SO_PEERCRED, SO_PEERGROUPS),
// so reading them costs no read of the request and cannot block.
//
// Thread-safety: plain functions without shared state.
#ifndef YULOTIFYD_DAEMON_PEER_CREDENTIALS_H_
#define YULOTIFYD_DAEMON_PEER_CREDENTIALS_H_

#include <sys/types.h>

#include <vector>

namespace YULO {
namespace YULOTIFYD {

struct PeerCredentials {
  pid_t pid = -1;  // 0 when the peer is in a PID namespace we cannot see
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  // Supplementary groups; empty when the kernel cannot tell them.
  std::vector<gid_t> groups;
};

// Reads the credentials of the peer of the connected AF_UNIX socket `fd`.
// Returns false, with errno set, when even the user cannot be told.
bool GetPeerCredentials(int fd, PeerCredentials* out);

// Whether `peer` may drive the daemon: uid 0, or `group` as its primary or a
// supplementary group. `group` is null when the socket has no group (only
// root is served then).
bool PeerMayControl(const PeerCredentials& peer, const gid_t* group);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_PEER_CREDENTIALS_H_
