#include "daemon/peer_credentials.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <grp.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

// Ids of a caller that is not root.
constexpr uid_t kUid = 65534;
constexpr gid_t kPrimary = 4321;
constexpr gid_t kSupplementary = 4322;
constexpr gid_t kUnrelated = 4323;

PeerCredentials Peer(uid_t uid, gid_t gid, std::vector<gid_t> groups) {
  PeerCredentials p;
  p.pid = 1;
  p.uid = uid;
  p.gid = gid;
  p.groups = std::move(groups);
  return p;
}

TEST(PeerMayControlTest, RootAlways) {
  const gid_t group = kPrimary;
  EXPECT_TRUE(PeerMayControl(Peer(0, 0, {}), nullptr));
  EXPECT_TRUE(PeerMayControl(Peer(0, kUnrelated, {}), &group));
}

TEST(PeerMayControlTest, TheGroupAsPrimaryOrSupplementaryGroup) {
  const gid_t group = kSupplementary;
  EXPECT_TRUE(PeerMayControl(Peer(kUid, kSupplementary, {}), &group));
  EXPECT_TRUE(
      PeerMayControl(Peer(kUid, kPrimary, {kUnrelated, kSupplementary}),
                     &group));
  EXPECT_FALSE(PeerMayControl(Peer(kUid, kPrimary, {kUnrelated}), &group));
  EXPECT_FALSE(PeerMayControl(Peer(kUid, kPrimary, {}), &group));
}

TEST(PeerMayControlTest, WithoutAGroupOnlyRoot) {
  EXPECT_FALSE(PeerMayControl(Peer(kUid, 0, {0}), nullptr));
  EXPECT_FALSE(PeerMayControl(Peer(1, kPrimary, {kSupplementary}), nullptr));
}

TEST(GetPeerCredentialsTest, OwnProcessOverASocketPair) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  PeerCredentials peer;
  ASSERT_TRUE(GetPeerCredentials(fds[0], &peer));
  EXPECT_EQ(peer.pid, getpid());
  EXPECT_EQ(peer.uid, geteuid());
  EXPECT_EQ(peer.gid, getegid());
  close(fds[0]);
  close(fds[1]);
}

TEST(GetPeerCredentialsTest, NotASocket) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  PeerCredentials peer;
  EXPECT_FALSE(GetPeerCredentials(fds[0], &peer));
  EXPECT_EQ(errno, ENOTSOCK);
  close(fds[0]);
  close(fds[1]);
}

// Another user connects: its user, primary group and supplementary groups
// are what the kernel recorded at connect time.
TEST(GetPeerCredentialsTest, AnotherUsersConnection) {
  // Labelled "root" in CMakeLists.txt: fails, not skips, without it.
  ASSERT_EQ(0u, geteuid()) << "needs root to become another user";
  ::YULO::YULOTIFYD::testing::TempDir dir("peer-credentials");
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string path = dir.File("s");
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<struct sockaddr*>(&addr),
                 sizeof(addr)),
            0);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  ASSERT_EQ(listen(listener, 1), 0);

  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const gid_t groups[] = {kUnrelated, kSupplementary};
    if (setgroups(2, groups) != 0 || setresgid(kPrimary, kPrimary, kPrimary) != 0 ||
        setresuid(kUid, kUid, kUid) != 0) {
      _exit(10);
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<struct sockaddr*>(&addr),
                          sizeof(addr)) != 0) {
      _exit(11);
    }
    char byte;
    // Stays connected until the parent has looked.
    (void)!read(fd, &byte, 1);
    _exit(0);
  }
  const int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  PeerCredentials peer;
  const bool got = conn >= 0 && GetPeerCredentials(conn, &peer);
  if (conn >= 0) close(conn);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  close(listener);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ASSERT_TRUE(got);

  EXPECT_EQ(peer.pid, child);
  EXPECT_EQ(peer.uid, kUid);
  EXPECT_EQ(peer.gid, kPrimary);
  // The kernel keeps them sorted.
  EXPECT_EQ(peer.groups, (std::vector<gid_t>{kSupplementary, kUnrelated}));
  const gid_t in = kSupplementary;
  const gid_t out = 4324;
  EXPECT_TRUE(PeerMayControl(peer, &in));
  EXPECT_FALSE(PeerMayControl(peer, &out));
  EXPECT_FALSE(PeerMayControl(peer, nullptr));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
