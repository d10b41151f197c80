#include "daemon/peer_credentials.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>

namespace YULO {
namespace YULOTIFYD {

namespace {

// Enough for nearly everybody; the kernel tells how much more is needed.
constexpr size_t kInitialGroups = 64;

// The peer's supplementary groups, or none when the kernel cannot tell them
// (SO_PEERGROUPS is Linux 4.13 and later).
std::vector<gid_t> PeerGroups(int fd) {
  std::vector<gid_t> groups(kInitialGroups);
  for (int attempt = 0; attempt < 2; ++attempt) {
    socklen_t len = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len) == 0) {
      groups.resize(len / sizeof(gid_t));
      return groups;
    }
    if (errno != ERANGE) break;
    // `len` now holds the size the list needs.
    groups.resize(len / sizeof(gid_t) + 1);
  }
  return std::vector<gid_t>();
}

}  // namespace

bool GetPeerCredentials(int fd, PeerCredentials* out) {
  struct ucred cred;
  socklen_t len = sizeof(cred);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
  out->pid = cred.pid;
  out->uid = cred.uid;
  out->gid = cred.gid;
  out->groups = PeerGroups(fd);
  return true;
}

bool PeerMayControl(const PeerCredentials& peer, const gid_t* group) {
  if (peer.uid == 0) return true;
  if (group == nullptr) return false;
  return peer.gid == *group ||
         std::find(peer.groups.begin(), peer.groups.end(), *group) !=
             peer.groups.end();
}

}  // namespace YULOTIFYD
}  // namespace YULO
