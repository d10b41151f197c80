#include "yulotifyd/control_client.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/testing/temp_dir.h"
#include "yulo_build_config.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

namespace fs = std::filesystem;
using Status = ControlResult::Status;

bool ReadExactly(int fd, void* buf, size_t size) {
  char* p = static_cast<char*>(buf);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd, p + done, size - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// What a fake daemon saw of one request.
struct Request {
  bool got_length = false;
  uint64_t length = 0;
  std::string body;  // the raw L bytes, zero byte included
};

// A listening socket in a temporary directory and a thread that serves
// connections one at a time with `handler`.
class FakeDaemon {
 public:
  // Called with the accepted connection; returns after answering (or not).
  using Handler = std::function<void(int conn)>;

  FakeDaemon() : dir_(scratch_.path()), path_(dir_ + "/ctl.sock") {}

  ~FakeDaemon() { Stop(); }

  const std::string& path() const { return path_; }

  void Listen(Handler handler) {
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listen_fd_, 0);
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path_.c_str());
    ASSERT_EQ(bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr),
                   sizeof(addr)),
              0);
    ASSERT_EQ(listen(listen_fd_, 10), 0);
    handler_ = std::move(handler);
    thread_ = std::thread([this] { Serve(); });
  }

  // Reads one request the way the daemon does.
  Request ReadRequest(int conn) {
    Request r;
    if (!ReadExactly(conn, &r.length, sizeof(r.length))) return r;
    r.got_length = true;
    if (r.length > (1u << 24)) return r;
    r.body.resize(static_cast<size_t>(r.length));
    if (!ReadExactly(conn, &r.body[0], r.body.size())) r.body.clear();
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(r);
    return r;
  }

  static void Reply(int conn, int32_t value) {
    ASSERT_EQ(send(conn, &value, sizeof(value), MSG_NOSIGNAL),
              static_cast<ssize_t>(sizeof(value)));
  }

  std::vector<Request> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

  int connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
  }

  void Stop() {
    if (listen_fd_ < 0) return;
    stopping_ = true;
    shutdown(listen_fd_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    close(listen_fd_);
    listen_fd_ = -1;
  }

 private:
  void Serve() {
    for (;;) {
      const int conn = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (conn < 0) return;  // shut down
      if (stopping_) {
        close(conn);
        return;
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        ++connections_;
      }
      handler_(conn);
      close(conn);
    }
  }

  testing::TempDir scratch_{"control-client"};
  std::string dir_;
  std::string path_;
  int listen_fd_ = -1;
  std::atomic<bool> stopping_{false};
  Handler handler_;
  std::thread thread_;
  std::mutex mutex_;
  std::vector<Request> requests_;
  int connections_ = 0;
};

Json::Value ParseBody(const Request& r) {
  Json::Value v;
  const size_t end = r.body.find('\0');
  EXPECT_NE(end, std::string::npos);
  EXPECT_TRUE(fromString(r.body.substr(0, end), v)) << r.body;
  return v;
}

TEST(ControlClientTest, DefaultPathIsTheCompiledInOne) {
  EXPECT_STREQ(DefaultControlSocketPath(), YULOTIFYD_SOCKET_PATH);
  ControlClient client;
  EXPECT_EQ(client.socket_path(), YULOTIFYD_SOCKET_PATH);
  EXPECT_EQ(client.timeout_ms(), ControlClient::kDefaultTimeoutMs);
}

TEST(ControlClientTest, SendsLengthBodyAndZeroByteAndReadsReplyZero) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    FakeDaemon::Reply(conn, 0);
  });
  ControlClient client(daemon.path(), 2000);
  const std::string text = "{\"type\":\"x\",\"data\":{}}";
  const ControlResult result = client.SendRaw(text);
  EXPECT_EQ(result.status, Status::kAnswered) << result.message;
  EXPECT_EQ(result.reply, 0);
  EXPECT_TRUE(result.ok());
  ASSERT_EQ(daemon.requests().size(), 1u);
  const Request r = daemon.requests()[0];
  EXPECT_EQ(r.length, text.size() + 1);
  EXPECT_EQ(r.body, text + std::string(1, '\0'));
}

TEST(ControlClientTest, ReplyMinusOneIsAnsweredButNotOk) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    FakeDaemon::Reply(conn, -1);
  });
  const ControlResult result =
      ControlClient(daemon.path(), 2000).SetLogLevel("loud");
  EXPECT_TRUE(result.answered());
  EXPECT_FALSE(result.ok());
  EXPECT_EQ(result.reply, -1);
}

TEST(ControlClientTest, AnyOtherReplyIsPassedOn) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    FakeDaemon::Reply(conn, 7);
  });
  const ControlResult result =
      ControlClient(daemon.path(), 2000).SetLogLevel("info");
  EXPECT_TRUE(result.answered());
  EXPECT_FALSE(result.ok());
  EXPECT_EQ(result.reply, 7);
}

TEST(ControlClientTest, CommandsCarryTheirTypeAndData) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    FakeDaemon::Reply(conn, 0);
  });
  ControlClient client(daemon.path(), 2000);
  ASSERT_TRUE(client.SetLogLevel("debug").ok());
  ASSERT_TRUE(client.Notify(64, "/vol1/Public/a").ok());
  ASSERT_TRUE(client.Notify(256, "/vol1/Public/b", "/vol1/Public/a").ok());
  ASSERT_TRUE(client.Notify(4294967295u, "/x").ok());
  ASSERT_TRUE(client.MountShare("Public").ok());
  ASSERT_TRUE(client.UmountShare("Public").ok());
  ASSERT_TRUE(client.MountVolume("/vol2").ok());
  ASSERT_TRUE(client.UmountVolume("/vol2").ok());
  Json::Value data(Json::objectValue);
  data["n"] = 1;
  ASSERT_TRUE(client.Send("custom", data).ok());

  const std::vector<Request> requests = daemon.requests();
  ASSERT_EQ(requests.size(), 9u);
  std::vector<Json::Value> c;
  for (const Request& r : requests) {
    // One zero byte, at the end, counted in the length.
    EXPECT_EQ(r.body.size(), r.length);
    EXPECT_EQ(r.body.find('\0'), r.body.size() - 1);
    c.push_back(ParseBody(r));
  }
  EXPECT_EQ(c[0]["type"], "set_log_level");
  EXPECT_EQ(c[0]["data"]["log_level"], "debug");
  EXPECT_EQ(c[1]["type"], "notify");
  EXPECT_TRUE(c[1]["data"]["event"].isUInt());
  EXPECT_EQ(c[1]["data"]["event"].asUInt(), 64u);
  EXPECT_EQ(c[1]["data"]["path"], "/vol1/Public/a");
  EXPECT_FALSE(c[1]["data"].isMember("path_old"));
  EXPECT_EQ(c[2]["data"]["event"].asUInt(), 256u);
  EXPECT_EQ(c[2]["data"]["path"], "/vol1/Public/b");
  EXPECT_EQ(c[2]["data"]["path_old"], "/vol1/Public/a");
  EXPECT_EQ(c[3]["data"]["event"].asUInt(), 4294967295u);
  EXPECT_EQ(c[4]["type"], "mount_share");
  EXPECT_EQ(c[4]["data"]["share_name"], "Public");
  EXPECT_EQ(c[5]["type"], "umount_share");
  EXPECT_EQ(c[5]["data"]["share_name"], "Public");
  EXPECT_EQ(c[6]["type"], "mount_volume");
  EXPECT_EQ(c[6]["data"]["mount_point"], "/vol2");
  EXPECT_EQ(c[7]["type"], "umount_volume");
  EXPECT_EQ(c[7]["data"]["mount_point"], "/vol2");
  EXPECT_EQ(c[8]["type"], "custom");
  EXPECT_EQ(c[8]["data"]["n"], 1);
}

TEST(ControlClientTest, MakeCommandIsOneLine) {
  Json::Value data(Json::objectValue);
  data["path"] = "a\nb";
  const std::string text = ControlClient::MakeCommand("notify", data);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  Json::Value parsed;
  ASSERT_TRUE(fromString(text, parsed));
  EXPECT_EQ(parsed["type"], "notify");
  EXPECT_EQ(parsed["data"]["path"], "a\nb");
}

TEST(ControlClientTest, MissingSocketIsUnreachable) {
  FakeDaemon daemon;  // never listens
  const ControlResult result =
      ControlClient(daemon.path(), 2000).SetLogLevel("info");
  EXPECT_EQ(result.status, Status::kUnreachable);
  EXPECT_EQ(result.error, ENOENT);
  EXPECT_NE(result.message.find(daemon.path()), std::string::npos)
      << result.message;
  EXPECT_NE(result.message.find("No such file or directory"),
            std::string::npos)
      << result.message;
}

TEST(ControlClientTest, StaleSocketFileIsUnreachable) {
  FakeDaemon daemon;
  // Bound, then closed: the file stays, nobody listens.
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, daemon.path().c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)),
            0);
  close(fd);
  const ControlResult result =
      ControlClient(daemon.path(), 2000).SetLogLevel("info");
  EXPECT_EQ(result.status, Status::kUnreachable);
  EXPECT_EQ(result.error, ECONNREFUSED);
}

TEST(ControlClientTest, CloseWithoutReplyIsNoReply) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) { daemon.ReadRequest(conn); });
  const ControlResult result =
      ControlClient(daemon.path(), 2000).SetLogLevel("info");
  EXPECT_EQ(result.status, Status::kNoReply);
  EXPECT_FALSE(result.answered());
}

TEST(ControlClientTest, HalfAReplyIsNoReply) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    const char two[2] = {0, 0};
    ASSERT_EQ(send(conn, two, sizeof(two), MSG_NOSIGNAL), 2);
  });
  const ControlResult result =
      ControlClient(daemon.path(), 2000).SetLogLevel("info");
  EXPECT_EQ(result.status, Status::kNoReply);
}

TEST(ControlClientTest, SilentDaemonTimesOut) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  });
  const auto start = std::chrono::steady_clock::now();
  const ControlResult result =
      ControlClient(daemon.path(), 300).SetLogLevel("info");
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(result.status, Status::kTimedOut);
  EXPECT_GE(elapsed, std::chrono::milliseconds(250));
  EXPECT_LT(elapsed, std::chrono::milliseconds(1400));
}

TEST(ControlClientTest, RefusedUnreadBodyStillYieldsTheReply) {
  // Like the daemon with a body it will not read: it answers after the
  // length and closes, while the client is still sending.
  FakeDaemon daemon;
  daemon.Listen([](int conn) {
    uint64_t length = 0;
    ASSERT_TRUE(ReadExactly(conn, &length, sizeof(length)));
    FakeDaemon::Reply(conn, -1);
  });
  const std::string text(ControlClient::kMaxBodyLength - 1, 'x');
  const ControlResult result = ControlClient(daemon.path(), 5000).SendRaw(text);
  EXPECT_EQ(result.status, Status::kAnswered) << result.message;
  EXPECT_EQ(result.reply, -1);
}

TEST(ControlClientTest, InvalidRequestsAreNotSent) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    FakeDaemon::Reply(conn, 0);
  });
  ControlClient client(daemon.path(), 2000);
  const ControlResult with_nul = client.SendRaw(std::string("{}\0{}", 5));
  EXPECT_EQ(with_nul.status, Status::kInvalidRequest);
  const ControlResult too_long =
      client.SendRaw(std::string(ControlClient::kMaxBodyLength, ' '));
  EXPECT_EQ(too_long.status, Status::kInvalidRequest);
  EXPECT_FALSE(too_long.message.empty());
  // The longest that is allowed still goes out.
  const ControlResult longest =
      client.SendRaw(std::string(ControlClient::kMaxBodyLength - 1, ' '));
  EXPECT_EQ(longest.status, Status::kAnswered) << longest.message;
  EXPECT_EQ(daemon.connections(), 1);

  const ControlResult long_path =
      ControlClient(std::string(200, 'a'), 2000).SetLogLevel("info");
  EXPECT_EQ(long_path.status, Status::kInvalidRequest);
  const ControlResult empty_path = ControlClient("", 2000).SetLogLevel("info");
  EXPECT_EQ(empty_path.status, Status::kInvalidRequest);
}

TEST(ControlClientTest, ConcurrentCallsAreAllAnswered) {
  FakeDaemon daemon;
  daemon.Listen([&daemon](int conn) {
    daemon.ReadRequest(conn);
    FakeDaemon::Reply(conn, 0);
  });
  const ControlClient client(daemon.path(), 5000);
  std::vector<std::thread> threads;
  std::atomic<int> ok{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&client, &ok] {
      for (int i = 0; i < 25; ++i) {
        if (client.MountVolume("/vol" + std::to_string(i)).ok()) ++ok;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(ok.load(), 100);
  EXPECT_EQ(daemon.requests().size(), 100u);
}

// ---------------------------------------------------------------------------
// Callers the daemon does not serve

// Runs `body` in a child process as user nobody with primary group nobody
// and the supplementary groups `groups`; the child's exit status is what
// `body` returns.
int RunAsNobody(const std::vector<gid_t>& groups,
                const std::function<int()>& body) {
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    if (setgroups(groups.size(), groups.data()) != 0 ||
        setresgid(65534, 65534, 65534) != 0 ||
        setresuid(65534, 65534, 65534) != 0) {
      _exit(100);
    }
    _exit(body());
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// A daemon that refuses the caller: -1 at once, nothing read.
void Refuse(int conn) {
  const int32_t minus_one = -1;
  (void)!send(conn, &minus_one, sizeof(minus_one), MSG_NOSIGNAL);
}

// The child's verdict on one exchange, as an exit status: 0 denied with the
// permission message naming `group`, 1 answered -1, 2 anything else.
int DeniedOrAnswered(const std::string& path, const std::string& group) {
  const ControlResult r = ControlClient(path, 5000).SetLogLevel("info");
  if (r.status == Status::kDenied && r.error == EACCES &&
      r.message ==
          "permission denied: run as root or as a member of group " + group) {
    return 0;
  }
  if (r.status == Status::kAnswered && r.reply == -1) return 1;
  return 2;
}

class ControlClientPermissionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Labelled "root" in CMakeLists.txt: fails, not skips, without it.
    ASSERT_EQ(0u, geteuid()) << "needs root to become another user";
    const struct group* g = getgrnam("daemon");
    ASSERT_NE(nullptr, g) << "no group \"daemon\"";
    group_ = g->gr_gid;
    daemon_.Listen(Refuse);
    // Others may reach the socket; the socket file decides.
    ASSERT_EQ(chmod(fs::path(daemon_.path()).parent_path().c_str(), 0755), 0);
  }

  FakeDaemon daemon_;
  gid_t group_ = 0;
};

TEST_F(ControlClientPermissionTest, SocketClosedToTheCallerIsDenied) {
  ASSERT_EQ(chown(daemon_.path().c_str(), 0, group_), 0);
  ASSERT_EQ(chmod(daemon_.path().c_str(), 0660), 0);
  // Named after the socket file's group.
  EXPECT_EQ(RunAsNobody({}, [&] {
              return DeniedOrAnswered(daemon_.path(), "daemon");
            }),
            0);
  EXPECT_EQ(daemon_.connections(), 0);
}

TEST_F(ControlClientPermissionTest, RefusedCallerIsDenied) {
  // Anybody may connect; the daemon refuses.
  ASSERT_EQ(chmod(daemon_.path().c_str(), 0666), 0);
  // A socket not open to a group of its own: the compiled-in group.
  EXPECT_EQ(RunAsNobody({}, [&] {
              return DeniedOrAnswered(daemon_.path(), YULOTIFYD_SOCKET_GROUP);
            }),
            0);
  EXPECT_EQ(daemon_.connections(), 1);
}

TEST_F(ControlClientPermissionTest, MemberGetsTheDaemonsAnswer) {
  ASSERT_EQ(chown(daemon_.path().c_str(), 0, group_), 0);
  ASSERT_EQ(chmod(daemon_.path().c_str(), 0660), 0);
  // A member's -1 is about the command, not the caller.
  EXPECT_EQ(RunAsNobody({group_}, [&] {
              return DeniedOrAnswered(daemon_.path(), "daemon");
            }),
            1);
  EXPECT_EQ(daemon_.connections(), 1);
}

TEST_F(ControlClientPermissionTest, RootIsNeverDenied) {
  const ControlResult r = ControlClient(daemon_.path(), 5000).SetLogLevel("x");
  EXPECT_EQ(r.status, Status::kAnswered);
  EXPECT_EQ(r.reply, -1);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
