#include "daemon/control_server.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "daemon/testing/control_client.h"
#include "base/testing/temp_dir.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::ConnectAndSend;
using testing::Frame;
using testing::FrameCommand;
using testing::LinesWithMessage;
using testing::ReadToEnd;
using testing::ReplyOf;
using testing::TempDir;
using testing::SendRequest;
using testing::StatusObjectOf;
using testing::TakeLogLines;

// Records the commands it is handed.
class RecordingHandler : public ControlHandler {
 public:
  Json::Value DescribeStatus() override {
    calls.push_back("status");
    Json::Value status(Json::objectValue);
    status["volumes"] = 2;
    status["name"] = "made up";
    if (big_status) status["padding"] = std::string(8 * 1024 * 1024, 'x');
    return status;
  }
  void InjectEvent(uint32_t event, const std::string& path,
                   const std::string& path_old) override {
    calls.push_back("inject " + std::to_string(event) + " " + path + " " +
                    path_old);
  }
  bool SwitchShare(const std::string& share_name, bool mounted) override {
    calls.push_back((mounted ? "mount share " : "umount share ") + share_name);
    return share_name != "Unknown";
  }
  void ReportVolumeMounted(const std::string& mount_point) override {
    calls.push_back("mounted " + mount_point);
  }
  void ReportVolumeUnmounted(const std::string& mount_point) override {
    calls.push_back("unmounted " + mount_point);
  }

  std::vector<std::string> calls;
  // Makes the status object far bigger than a socket buffer.
  bool big_status = false;
};

class ControlServerTest : public ::testing::Test {
 protected:
  void SetUp() override { TakeLogLines(); }
  void TearDown() override { LOG_LEVEL = 3; }

  // Serves `request` over a socketpair; returns everything answered.
  std::string Serve(const std::string& request, int32_t* returned = nullptr) {
    int pair[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    EXPECT_TRUE(SendRequest(pair[0], request));
    shutdown(pair[0], SHUT_WR);
    const int32_t reply = server_.ServeConnection(pair[1]);
    if (returned != nullptr) *returned = reply;
    const std::string answer = ReadToEnd(pair[0]);
    close(pair[0]);
    return answer;
  }

  int32_t ServeReply(const std::string& request) {
    int32_t returned = 0;
    const std::string answer = Serve(request, &returned);
    EXPECT_EQ(sizeof(int32_t), answer.size());
    EXPECT_EQ(returned, ReplyOf(answer));
    return ReplyOf(answer);
  }

  size_t Logged(const std::vector<std::string>& lines,
                const std::string& message) {
    return LinesWithMessage(lines, message, "domain_socket").size();
  }

  // Serves one "mount_volume" through a listening socket whose peer rule is
  // `rule`; returns the reply the client got.
  int32_t ServeListening(ControlServer::PeerRule rule) {
    ControlServer server(dir_.File("s.sock"), "", &handler_, std::move(rule));
    EXPECT_TRUE(server.Open());
    const int client = ConnectAndSend(
        dir_.File("s.sock"),
        FrameCommand(
            R"({"type":"mount_volume","data":{"mount_point":"/vol1"}})"));
    server.ServeOne();
    const int32_t reply = ReplyOf(ReadToEnd(client));
    close(client);
    return reply;
  }

  TempDir dir_;
  RecordingHandler handler_;
  ControlServer server_{dir_.File("control.sock"), "", &handler_};
};

TEST_F(ControlServerTest, SetLogLevel) {
  EXPECT_EQ(0, ServeReply(FrameCommand(
                   R"({"type":"set_log_level","data":{"log_level":"info"}})")));
  EXPECT_EQ(6, LOG_LEVEL.load());
  EXPECT_EQ(0,
            ServeReply(FrameCommand(
                R"({"type":"set_log_level","data":{"log_level":"debug"}})")));
  EXPECT_EQ(7, LOG_LEVEL.load());
  EXPECT_EQ(0,
            ServeReply(FrameCommand(
                R"({"type":"set_log_level","data":{"log_level":"error"}})")));
  EXPECT_EQ(3, LOG_LEVEL.load());
  EXPECT_EQ(-1,
            ServeReply(FrameCommand(
                R"({"type":"set_log_level","data":{"log_level":"loud"}})")));
  EXPECT_EQ(3, LOG_LEVEL.load());
  EXPECT_EQ(1u, Logged(TakeLogLines(), "Unknown log level: loud"));
  EXPECT_TRUE(handler_.calls.empty());
}

TEST_F(ControlServerTest, CommandsAreLoggedAtInfoLevelAndRepliesAtDebug) {
  LOG_LEVEL = 7;
  // In the order the command is written back in.
  const std::string text =
      R"({"data":{"mount_point":"/vol1"},"type":"mount_volume"})";
  EXPECT_EQ(0, ServeReply(FrameCommand(text)));
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines, "Got command: " + text));
  EXPECT_EQ(1u, Logged(lines, "Replying socket: 0"));
}

TEST_F(ControlServerTest, StatusIsFollowedByItsObject) {
  int32_t returned = -1;
  const std::string answer =
      Serve(FrameCommand(R"({"type":"status","data":{}})"), &returned);
  EXPECT_EQ(0, returned);
  EXPECT_EQ(0, ReplyOf(answer));
  Json::Value status;
  ASSERT_TRUE(StatusObjectOf(answer, &status));
  EXPECT_EQ(2, status["volumes"].asInt());
  EXPECT_EQ("made up", status["name"].asString());
  // The next command's answer has nothing after its reply.
  EXPECT_EQ(0, ServeReply(FrameCommand(
                   R"({"type":"umount_volume","data":{"mount_point":"/v"}})")));
}

TEST_F(ControlServerTest, CommandsReachTheHandlerWithTheirMembers) {
  EXPECT_EQ(
      0,
      ServeReply(FrameCommand(
          R"({"type":"notify","data":{"event":256,"path":"/vol1/P/b","path_old":"/vol1/P/a"}})")));
  // Missing members take their defaults.
  EXPECT_EQ(0, ServeReply(FrameCommand(R"({"type":"notify","data":{}})")));
  EXPECT_EQ(0,
            ServeReply(FrameCommand(
                R"({"type":"mount_share","data":{"share_name":"Public"}})")));
  EXPECT_EQ(0,
            ServeReply(FrameCommand(
                R"({"type":"umount_share","data":{"share_name":"Public"}})")));
  EXPECT_EQ(0,
            ServeReply(FrameCommand(
                R"({"type":"mount_volume","data":{"mount_point":"/vol1"}})")));
  EXPECT_EQ(0,
            ServeReply(FrameCommand(
                R"({"type":"umount_volume","data":{"mount_point":"/vol2"}})")));
  EXPECT_EQ(
      (std::vector<std::string>{"inject 256 /vol1/P/b /vol1/P/a", "inject 0  ",
                                "mount share Public", "umount share Public",
                                "mounted /vol1", "unmounted /vol2"}),
      handler_.calls);
}

TEST_F(ControlServerTest, ShareWithoutAManagerIsRefused) {
  EXPECT_EQ(-1,
            ServeReply(FrameCommand(
                R"({"type":"mount_share","data":{"share_name":"Unknown"}})")));
  EXPECT_EQ(
      1u, Logged(TakeLogLines(), "Cannot get volume manager, share: Unknown"));
}

TEST_F(ControlServerTest, UnknownTypeIsRefused) {
  EXPECT_EQ(-1, ServeReply(FrameCommand(R"({"type":"reboot","data":{}})")));
  EXPECT_EQ(1u, Logged(TakeLogLines(), "Unknown command type: reboot"));
  EXPECT_TRUE(handler_.calls.empty());
}

TEST_F(ControlServerTest, MalformedCommandsAreRefusedWithTheirText) {
  for (const std::string& text :
       {std::string("not json"), std::string(R"({"type":"status"})"),
        std::string(R"({"type":"status","data":[]})"),
        std::string(R"({"type":{},"data":{}})"),
        std::string(R"([{"type":"status","data":{}}])")}) {
    EXPECT_EQ(-1, ServeReply(FrameCommand(text))) << text;
    EXPECT_EQ(1u, Logged(TakeLogLines(), "Malformed command: " + text)) << text;
  }
  EXPECT_TRUE(handler_.calls.empty());
}

TEST_F(ControlServerTest, MembersOfTheWrongTypeAreRefusedBeforeAnyEffect) {
  const std::string text =
      R"({"type":"notify","data":{"event":1,"path":"/a","path_old":[]}})";
  EXPECT_EQ(-1, ServeReply(FrameCommand(text)));
  EXPECT_EQ(
      -1, ServeReply(FrameCommand(R"({"type":"notify","data":{"event":-1}})")));
  EXPECT_EQ(-1, ServeReply(FrameCommand(
                    R"({"type":"mount_share","data":{"share_name":{}}})")));
  EXPECT_EQ(-1, ServeReply(FrameCommand(
                    R"({"type":"set_log_level","data":{"log_level":[1]}})")));
  EXPECT_EQ(1u, Logged(TakeLogLines(), "Malformed command: " + text));
  EXPECT_TRUE(handler_.calls.empty());
}

TEST_F(ControlServerTest, TextEndsAtTheFirstZeroOrWithTheBody) {
  EXPECT_EQ(0, ServeReply(Frame(
                   R"({"type":"mount_volume","data":{"mount_point":"/a"}})")));
  EXPECT_EQ(0,
            ServeReply(Frame(
                std::string(
                    R"({"type":"mount_volume","data":{"mount_point":"/b"}})") +
                std::string(1, '\0') + "trailing garbage")));
  EXPECT_EQ((std::vector<std::string>{"mounted /a", "mounted /b"}),
            handler_.calls);
}

TEST_F(ControlServerTest, BadLengthsAreRefusedUnread) {
  EXPECT_EQ(-1, ServeReply(Frame("")));
  const uint64_t huge = ControlServer::kMaxBodyLength + 1;
  EXPECT_EQ(-1, ServeReply(std::string(reinterpret_cast<const char*>(&huge),
                                       sizeof(huge))));
  EXPECT_EQ(2u, Logged(TakeLogLines(), "Receive command body failed"));
}

TEST_F(ControlServerTest, ClientThatClosesEarlyGetsMinusOne) {
  // The length promises more than is sent.
  const std::string request = Frame("{}").substr(0, 9);
  EXPECT_EQ(-1, ServeReply(request));
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines,
                       "Failed to read from domain socket, "
                       "reason=Connection reset by peer"));
  EXPECT_EQ(1u, Logged(lines, "Receive command body failed"));
  // Not even a whole length.
  EXPECT_EQ(-1, ServeReply(std::string(3, '\1')));
  EXPECT_EQ(1u, Logged(TakeLogLines(), "Receive command length failed"));
}

TEST_F(ControlServerTest, ReadSocketReadsExactlyTheLength) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
  const std::string text(3000, 'x');
  ASSERT_TRUE(SendRequest(pair[0], text + "rest"));
  std::vector<char> buffer(text.size());
  EXPECT_TRUE(ControlServer::ReadSocket(pair[1], text.size(), buffer.data()));
  EXPECT_EQ(text, std::string(buffer.begin(), buffer.end()));
  EXPECT_TRUE(ControlServer::ReadSocket(pair[1], 0, nullptr));
  close(pair[0]);
  EXPECT_FALSE(ControlServer::ReadSocket(pair[1], 5, buffer.data()));
  close(pair[1]);
}

TEST_F(ControlServerTest, ListensForRootOnlyWithoutAGroup) {
  ASSERT_TRUE(server_.Open());
  struct stat st;
  ASSERT_EQ(0, stat(dir_.File("control.sock").c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_TRUE(TakeLogLines().empty());
  server_.Close();
  EXPECT_EQ(-1, server_.fd());
  // The file stays until it is removed.
  EXPECT_EQ(0, access(dir_.File("control.sock").c_str(), F_OK));
  server_.RemoveSocketFile();
  EXPECT_NE(0, access(dir_.File("control.sock").c_str(), F_OK));
}

TEST_F(ControlServerTest, UnknownGroupLeavesTheSocketToRoot) {
  ControlServer server(dir_.File("g.sock"), "no-such-group-for-yulo",
                       &handler_);
  LOG_LEVEL = 6;
  ASSERT_TRUE(server.Open());
  struct stat st;
  ASSERT_EQ(0, stat(dir_.File("g.sock").c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(1u, Logged(TakeLogLines(),
                       "No group no-such-group-for-yulo: the control socket "
                       "is for root only"));
}

TEST_F(ControlServerTest, SocketIsOpenedToItsGroup) {
  struct group* own = getgrgid(getegid());
  ASSERT_NE(nullptr, own) << "the test's group has no name";
  ControlServer server(dir_.File("g.sock"), own->gr_name, &handler_);
  ASSERT_TRUE(server.Open());
  struct stat st;
  ASSERT_EQ(0, stat(dir_.File("g.sock").c_str(), &st));
  EXPECT_EQ(getegid(), st.st_gid);
  EXPECT_EQ(0660u, st.st_mode & 07777);
}

TEST_F(ControlServerTest, ReplacesAStaleSocketFile) {
  dir_.Write("control.sock", "stale");
  ASSERT_TRUE(server_.Open());
  struct stat st;
  ASSERT_EQ(0, stat(dir_.File("control.sock").c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
}

TEST_F(ControlServerTest, PathTooLongIsRefused) {
  ControlServer server(dir_.File(std::string(120, 'p')), "", &handler_);
  EXPECT_FALSE(server.Open());
  EXPECT_EQ(1u,
            Logged(TakeLogLines(), "bind failed, reason=File name too long"));
}

TEST_F(ControlServerTest, ServesOneAcceptedClient) {
  // Whoever runs the test is let in by the rule.
  EXPECT_EQ(0,
            ServeListening([](const PeerCredentials& peer, const gid_t* group) {
              return peer.uid == geteuid() && group == nullptr;
            }));
  EXPECT_EQ((std::vector<std::string>{"mounted /vol1"}), handler_.calls);
}

TEST_F(ControlServerTest, RefusedCallerGetsMinusOneUnread) {
  EXPECT_EQ(-1, ServeListening([](const PeerCredentials&, const gid_t*) {
    return false;
  }));
  EXPECT_TRUE(handler_.calls.empty());
  const std::vector<std::string> lines = TakeLogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(0u, lines[0].find("domain_socket:"));
  EXPECT_NE(
      std::string::npos,
      lines[0].find("Refused command from uid=" + std::to_string(geteuid()) +
                    ", pid=" + std::to_string(getpid())));
}

// How long `serve` took, in milliseconds.
template <typename Serve>
int64_t MillisTaken(Serve serve) {
  const auto start = std::chrono::steady_clock::now();
  serve();
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now() - start)
      .count();
}

TEST_F(ControlServerTest, SilentClientIsDroppedAtTheRequestDeadline) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
  // Half a length, then nothing: the connection stays open.
  ASSERT_EQ(3, write(pair[0], "\x10\0\0", 3));
  int32_t reply = 0;
  const int64_t took =
      MillisTaken([&] { reply = server_.ServeConnection(pair[1]); });
  EXPECT_EQ(-1, reply);
  EXPECT_GE(took, ControlServer::kRequestTimeoutMillis - 50);
  EXPECT_LT(took, ControlServer::kRequestTimeoutMillis + 1000);
  EXPECT_EQ(-1, ReplyOf(ReadToEnd(pair[0])));
  close(pair[0]);
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines, "Failed to read from domain socket, "
                              "reason=Resource temporarily unavailable"));
  EXPECT_EQ(1u, Logged(lines, "Receive command length failed"));
}

TEST_F(ControlServerTest, ClientThatStopsReadingIsDroppedAtTheReplyDeadline) {
  handler_.big_status = true;
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
  ASSERT_TRUE(
      SendRequest(pair[0], FrameCommand(R"({"type":"status","data":{}})")));
  // The client never reads: the 8 MiB object cannot all go out.
  const int64_t took =
      MillisTaken([&] { server_.ServeConnection(pair[1]); });
  close(pair[0]);
  EXPECT_GE(took, ControlServer::kReplyTimeoutMillis - 50);
  EXPECT_LT(took, ControlServer::kReplyTimeoutMillis + 1000);
  EXPECT_EQ(1u, Logged(TakeLogLines(),
                       "Client too slow to take the reply, dropped"));
}

TEST_F(ControlServerTest, PathsWithDotDotAreRefused) {
  for (const char* command : {
           R"({"type":"notify","data":{"event":64,"path":"/vol1/P/../../etc/x"}})",
           R"({"type":"notify","data":{"event":256,"path":"/vol1/P/b","path_old":"/vol1/P/.."}})",
           R"({"type":"mount_share","data":{"share_name":"../Public"}})",
           R"({"type":"umount_share","data":{"share_name":".."}})",
           R"({"type":"mount_volume","data":{"mount_point":"/vol1/.."}})",
           R"({"type":"umount_volume","data":{"mount_point":"/vol1/../vol2"}})",
       }) {
    EXPECT_EQ(-1, ServeReply(FrameCommand(command))) << command;
  }
  EXPECT_TRUE(handler_.calls.empty());
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines, "Refused path with a \"..\" component: "
                              "/vol1/P/../../etc/x"));
  EXPECT_EQ(1u, Logged(lines, "Refused path with a \"..\" component: "
                              "/vol1/P/.."));
  EXPECT_EQ(1u, Logged(lines, "Refused path with a \"..\" component: "
                              "../Public"));
  // Two dots inside a name are just a name.
  EXPECT_EQ(0, ServeReply(FrameCommand(
                   R"({"type":"notify","data":{"event":64,"path":"/vol1/P/a..b"}})")));
  EXPECT_EQ((std::vector<std::string>{"inject 64 /vol1/P/a..b "}),
            handler_.calls);
}

TEST_F(ControlServerTest, NothingToAcceptReturnsAtOnce) {
  ControlServer server(dir_.File("s.sock"), "", &handler_);
  ASSERT_TRUE(server.Open());
  // A client that connected and left before the accept leaves nothing:
  // the main loop must not wait for the next client.
  const int64_t took = MillisTaken([&] { server.ServeOne(); });
  EXPECT_LT(took, 500);
  EXPECT_TRUE(LinesWithMessage(TakeLogLines(), "accept failed, reason="
                                               "Resource temporarily unavailable",
                               "domain_socket")
                  .empty());
}

// A listening server driven as the main loop drives it: one select round
// at a time.
class ListeningServerTest : public ControlServerTest {
 protected:
  void SetUp() override {
    ControlServerTest::SetUp();
    ASSERT_TRUE(server_.Open());
  }

  // One round: waits at most `wait_ms` for what the server waits on, serves
  // it, drops the clients whose time ran out.
  void Round(int wait_ms = 0) {
    fd_set readable, writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    int width = 0;
    server_.AddToSets(&readable, &writable, &width);
    struct timeval timeout = {wait_ms / 1000, (wait_ms % 1000) * 1000};
    if (select(width, &readable, &writable, nullptr, &timeout) <= 0) {
      FD_ZERO(&readable);
      FD_ZERO(&writable);
    }
    server_.Handle(readable, writable);
    server_.ExpireClients();
  }

  int Connect(const std::string& request) {
    return ConnectAndSend(server_path_, request);
  }

  // Whether `fd` has something to read (or was closed) now.
  static bool Answered(int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }

  std::string server_path_ = dir_.File("l.sock");
  // Whoever runs the test is let in.
  ControlServer server_{server_path_, "", &handler_,
                        [](const PeerCredentials& peer, const gid_t*) {
                          return peer.uid == geteuid();
                        }};
};

TEST_F(ListeningServerTest, AStalledClientDoesNotHoldTheOthers) {
  // Half a length, then nothing.
  const int stalled = Connect(std::string("\x10\0\0", 3));
  ASSERT_GE(stalled, 0);
  const int64_t took = MillisTaken([&] { Round(100); });
  EXPECT_LT(took, 500);
  EXPECT_EQ(1u, server_.client_count());
  EXPECT_FALSE(Answered(stalled));

  // Meanwhile another client is served at once.
  const int next = Connect(FrameCommand(
      R"({"type":"mount_volume","data":{"mount_point":"/vol1"}})"));
  Round(100);
  EXPECT_EQ(0, ReplyOf(ReadToEnd(next)));
  close(next);
  EXPECT_EQ((std::vector<std::string>{"mounted /vol1"}), handler_.calls);
  const int64_t left = server_.MillisUntilDeadline();
  EXPECT_GT(left, 0);
  EXPECT_LE(left, ControlServer::kRequestTimeoutMillis);

  // Its time runs out: -1, as for a read that timed out.
  TakeLogLines();
  while (!Answered(stalled)) Round(static_cast<int>(left) + 10);
  EXPECT_EQ(-1, ReplyOf(ReadToEnd(stalled)));
  close(stalled);
  EXPECT_EQ(0u, server_.client_count());
  EXPECT_EQ(-1, server_.MillisUntilDeadline());
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(1u, Logged(lines, "Failed to read from domain socket, "
                              "reason=Resource temporarily unavailable"));
  EXPECT_EQ(1u, Logged(lines, "Receive command length failed"));
}

TEST_F(ListeningServerTest, ARequestInPiecesIsServedWhenWhole) {
  const std::string request =
      FrameCommand(R"({"type":"umount_share","data":{"share_name":"Public"}})");
  const int fd = Connect(request.substr(0, 11));
  Round(100);
  EXPECT_TRUE(handler_.calls.empty());
  ASSERT_TRUE(SendRequest(fd, request.substr(11)));
  Round(100);
  EXPECT_EQ(0, ReplyOf(ReadToEnd(fd)));
  close(fd);
  EXPECT_EQ((std::vector<std::string>{"umount share Public"}), handler_.calls);
}

TEST_F(ListeningServerTest, AClientThatDoesNotReadTheStatusIsDropped) {
  handler_.big_status = true;
  const int slow = Connect(FrameCommand(R"({"type":"status","data":{}})"));
  Round(100);
  // The object is far bigger than the socket takes: the rest waits.
  EXPECT_EQ(1u, server_.client_count());
  // Others are served meanwhile.
  handler_.big_status = false;
  const int next = Connect(FrameCommand(R"({"type":"status","data":{}})"));
  Round(100);
  Json::Value status;
  EXPECT_TRUE(StatusObjectOf(ReadToEnd(next), &status));
  close(next);
  EXPECT_EQ("made up", status["name"].asString());
  // Until the reply's time runs out.
  const auto start = std::chrono::steady_clock::now();
  while (server_.client_count() > 0 &&
         std::chrono::steady_clock::now() - start < std::chrono::seconds(5)) {
    Round(50);
  }
  close(slow);
  EXPECT_EQ(0u, server_.client_count());
  EXPECT_EQ(1u, Logged(TakeLogLines(),
                       "Client too slow to take the reply, dropped"));
}

TEST_F(ListeningServerTest, AtTheLimitNewClientsWaitInTheBacklog) {
  std::vector<int> stalled;
  for (size_t i = 0; i < ControlServer::kMaxClients; ++i) {
    stalled.push_back(Connect(std::string("\x10", 1)));
    Round(100);
  }
  EXPECT_EQ(ControlServer::kMaxClients, server_.client_count());
  fd_set readable, writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  int width = 0;
  server_.AddToSets(&readable, &writable, &width);
  EXPECT_FALSE(FD_ISSET(server_.fd(), &readable));
  for (int fd : stalled) close(fd);
  // Closed clients are dropped as their close is read.
  Round(100);
  EXPECT_EQ(0u, server_.client_count());
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
