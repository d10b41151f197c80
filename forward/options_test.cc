#include "forward/options.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

bool Parse(std::vector<const char*> args, Options* o, std::string* error) {
  args.insert(args.begin(), "yulotify-forward");
  return ParseCommandLine(static_cast<int>(args.size()), args.data(), o, error);
}

TEST(OptionsTest, FullCommandLine) {
  Options o;
  std::string error;
  ASSERT_TRUE(Parse({"--server", "nats://a:4222,nats://b:4222", "--subject",
                     "yulotifyd.h.q", "--stream", "S", "--spool", "/sp",
                     "--spool-max", "64M", "--interval=50", "/q/a.queue"},
                    &o, &error))
      << error;
  EXPECT_EQ(o.connection.servers,
            (std::vector<std::string>{"nats://a:4222", "nats://b:4222"}));
  EXPECT_EQ(o.subject, "yulotifyd.h.q");
  EXPECT_EQ(o.stream, "S");
  EXPECT_EQ(o.spool_dir, "/sp");
  EXPECT_EQ(o.spool_max_bytes, 64u << 20);
  EXPECT_EQ(o.interval_ms, 50);
  EXPECT_EQ(o.queue_file, "/q/a.queue");
}

TEST(OptionsTest, Defaults) {
  Options o;
  std::string error;
  ASSERT_TRUE(
      Parse({"--server", "nats://a", "--subject", "s", "/q"}, &o, &error));
  EXPECT_EQ(o.spool_dir, "/var/lib/yulotifyd/forward");
  EXPECT_EQ(o.spool_max_bytes, uint64_t{1} << 30);
  EXPECT_EQ(o.interval_ms, 1000);
  EXPECT_TRUE(o.stream.empty());
  EXPECT_EQ(o.replicas, 1);
  EXPECT_EQ(o.duplicate_window_s, 24 * 3600);
  EXPECT_TRUE(o.connection.password_file.empty());
}

TEST(OptionsTest, ClusterTlsAndCredentials) {
  Options o;
  std::string error;
  ASSERT_TRUE(Parse({"--server", "tls://a:4222,tls://b:4222", "--subject", "s",
                     "--stream", "S", "--replicas", "3",
                     "--duplicate-window", "12h", "--tls-ca", "/etc/ca.pem",
                     "--tls-cert", "/etc/c.pem", "--tls-key", "/etc/c.key",
                     "--nats-user", "nas01", "--password-file", "/etc/pw",
                     "/q"},
                    &o, &error))
      << error;
  EXPECT_EQ(o.connection.servers,
            (std::vector<std::string>{"tls://a:4222", "tls://b:4222"}));
  EXPECT_EQ(o.replicas, 3);
  EXPECT_EQ(o.duplicate_window_s, 12 * 3600);
  EXPECT_EQ(o.connection.tls_ca_file, "/etc/ca.pem");
  EXPECT_EQ(o.connection.tls_cert_file, "/etc/c.pem");
  EXPECT_EQ(o.connection.tls_key_file, "/etc/c.key");
  EXPECT_EQ(o.connection.nats_user, "nas01");
  EXPECT_EQ(o.connection.password_file, "/etc/pw");
  // Parsing reads none of the files: that is LoadConnectionFiles's.
  EXPECT_FALSE(o.connection.loaded);
}

TEST(OptionsTest, ClusterAndCredentialErrors) {
  const std::vector<std::vector<const char*>> bad = {
      {"--replicas", "0"},
      {"--replicas", "6"},
      {"--replicas", "12"},
      {"--duplicate-window", "0"},
      {"--duplicate-window", "31d"},
      {"--duplicate-window", "1w"},
      {"--password", "hunter2"},  // never on the command line
      {"--password-file", "/etc/pw"},  // whose?
      {"--tls-cert", "/etc/c.pem"},    // without its key
      {"--token-file", "/t", "--creds", "/c"},
      {"--server", "ws://a:80"},
  };
  for (const auto& extra : bad) {
    std::vector<const char*> args = {"--server", "nats://a", "--subject",
                                     "s"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back("/q");
    Options o;
    std::string error;
    EXPECT_FALSE(Parse(args, &o, &error)) << extra[0] << " " << extra[1];
    EXPECT_FALSE(error.empty());
  }
}

TEST(OptionsTest, Durations) {
  int64_t s = 0;
  EXPECT_TRUE(ParseDuration("90", 1000, &s));
  EXPECT_EQ(s, 90);
  EXPECT_TRUE(ParseDuration("90s", 1000, &s));
  EXPECT_EQ(s, 90);
  EXPECT_TRUE(ParseDuration("15m", 1000000, &s));
  EXPECT_EQ(s, 900);
  EXPECT_TRUE(ParseDuration("2h", 1000000, &s));
  EXPECT_EQ(s, 7200);
  EXPECT_TRUE(ParseDuration("7d", 1000000, &s));
  EXPECT_EQ(s, 7 * 86400);
  for (const char* bad : {"", "s", "0", "0h", "-1", "1.5h", "2 h", "1hh",
                          "1001", "9999999999"}) {
    EXPECT_FALSE(ParseDuration(bad, 1000, &s)) << bad;
  }
}

TEST(OptionsTest, UsageErrors) {
  const std::vector<std::vector<const char*>> bad = {
      {"--subject", "s", "/q"},                              // no server
      {"--server", "nats://a", "/q"},                        // no subject
      {"--server", "nats://a", "--subject", "s"},            // no queue
      {"--server", "nats://a", "--subject", "s", "q"},       // relative
      {"--server", "nats://a", "--subject", "s.*", "/q"},    // wildcard
      {"--server", "nats://a", "--subject", "s", "--interval", "0", "/q"},
      {"--server", "nats://a", "--subject", "s", "--spool-max", "1X", "/q"},
      {"--server", "nats://a", "--subject", "s", "--bogus", "1", "/q"},
      {"--server", "nats://a", "--subject", "s", "/q", "/r"},
      {"--server"},
  };
  for (const auto& args : bad) {
    Options o;
    std::string error;
    EXPECT_FALSE(Parse(args, &o, &error)) << args.size();
    EXPECT_FALSE(error.empty());
  }
}

TEST(OptionsTest, HelpWinsOverEverythingElse) {
  Options o;
  std::string error;
  ASSERT_TRUE(Parse({"--bogus", "--help"}, &o, &error));
  EXPECT_TRUE(o.help);
}

TEST(OptionsTest, VersionWinsOverEverythingElse) {
  Options o;
  std::string error;
  ASSERT_TRUE(Parse({"--server", "--version"}, &o, &error)) << error;
  EXPECT_TRUE(o.version);
  EXPECT_FALSE(o.help);
}

TEST(OptionsTest, ConfigFileAndCommandLineOverride) {
  char path[] = "/tmp/forward_options_test.XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  {
    std::ofstream out(path);
    out << "# forwarder of the indexer queue\n"
           "server = nats://a:4222\n"
           "subject=yulotifyd.h.idx\n"
           "\n"
           "stream=IDX\n"
           "replicas=3\n"
           "duplicate-window=2d\n"
           "tls-ca=/etc/ca.pem\n"
           "creds=/etc/nas01.creds\n"
           "interval=200\n"
           "queue=/q/idx.queue\n";
  }
  Options o;
  std::string error;
  ASSERT_TRUE(Parse({"--config", path, "--interval", "20"}, &o, &error))
      << error;
  EXPECT_EQ(o.connection.servers, (std::vector<std::string>{"nats://a:4222"}));
  EXPECT_EQ(o.subject, "yulotifyd.h.idx");
  EXPECT_EQ(o.stream, "IDX");
  EXPECT_EQ(o.interval_ms, 20);
  EXPECT_EQ(o.queue_file, "/q/idx.queue");
  EXPECT_EQ(o.replicas, 3);
  EXPECT_EQ(o.duplicate_window_s, 2 * 86400);
  EXPECT_EQ(o.connection.tls_ca_file, "/etc/ca.pem");
  EXPECT_EQ(o.connection.creds_file, "/etc/nas01.creds");
  unlink(path);
}

TEST(OptionsTest, ConfigErrorsNameTheLine) {
  Options o;
  std::string error;
  EXPECT_FALSE(
      ApplyConfigText("server=nats://a\nnonsense\n", "f.conf", &o, &error));
  EXPECT_EQ(error.rfind("f.conf:2:", 0), 0u) << error;
  EXPECT_FALSE(ApplyConfigText("colour=blue\n", "f.conf", &o, &error));
}

TEST(OptionsTest, Sizes) {
  uint64_t v = 0;
  EXPECT_TRUE(ParseSize("4096", &v));
  EXPECT_EQ(v, 4096u);
  EXPECT_TRUE(ParseSize("64K", &v));
  EXPECT_EQ(v, 65536u);
  EXPECT_TRUE(ParseSize("1G", &v));
  EXPECT_EQ(v, uint64_t{1} << 30);
  EXPECT_FALSE(ParseSize("", &v));
  EXPECT_FALSE(ParseSize("0", &v));
  EXPECT_FALSE(ParseSize("G", &v));
  EXPECT_FALSE(ParseSize("12T", &v));
}

TEST(OptionsTest, SizesThatOverflowOrAreNotSizesAreRefused) {
  uint64_t v = 7;
  EXPECT_TRUE(ParseSize("17179869183G", &v));  // the largest that fits
  EXPECT_EQ(v, uint64_t{17179869183} << 30);
  for (const char* bad :
       {"17179869184G", "18014398509481984K", "18446744073709551616",
        "99999999999999999999", "9999999999999999999G", "-1", "+1", " 1",
        "1 ", "1.5G", "0x10", "1GB", "1g1", "00"}) {
    v = 7;
    EXPECT_FALSE(ParseSize(bad, &v)) << bad;
    EXPECT_EQ(v, 7u) << bad;
  }
  EXPECT_TRUE(ParseSize("18446744073709551615", &v));
  EXPECT_EQ(v, UINT64_MAX);
  Options o;
  std::string error;
  EXPECT_FALSE(Parse({"--server", "nats://a", "--subject", "s", "--spool-max",
                      "17179869184G", "/q"},
                     &o, &error));
  EXPECT_NE(error.find("spool-max"), std::string::npos) << error;
}

TEST(OptionsTest, UserAndHiddenDirectories) {
  Options o;
  std::string error;
  ASSERT_TRUE(Parse({"--server", "nats://a", "--subject", "s", "--user", "idx",
                     "--hidden-dirs", "/tmp/,/var/tmp,/home", "/q"},
                    &o, &error))
      << error;
  EXPECT_EQ(o.user, "idx");
  EXPECT_EQ(o.hidden_dirs,
            (std::vector<std::string>{"/tmp", "/var/tmp", "/home"}));
  for (const std::vector<const char*>& bad :
       std::vector<std::vector<const char*>>{
           {"--user", "", "/q"},
           {"--user", "a/b", "/q"},
           {"--hidden-dirs", "tmp", "/q"},
           {"--hidden-dirs", "/var/../tmp", "/q"},
           {"/srv/../tmp/q"},
           {"/srv/q/.."}}) {
    std::vector<const char*> args = {"--server", "nats://a", "--subject", "s"};
    args.insert(args.end(), bad.begin(), bad.end());
    Options p;
    EXPECT_FALSE(Parse(args, &p, &error)) << bad.back();
  }
}

class ConfigFileTest : public ::testing::Test {
 protected:
  std::string Write(mode_t mode) {
    const std::string path = scratch_.path() + "/f.conf";
    {
      std::ofstream out(path, std::ios::trunc);
      out << "server=nats://u:secret@a:4222\nsubject=s\nqueue=/q\n";
    }
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
  testing::TempDir scratch_{"forward_options"};
};

TEST_F(ConfigFileTest, OnlyItsOwnerMayReadOrChangeIt) {
  for (const mode_t ok : {0600, 0400, 0640}) {
    Options o;
    std::string error;
    const std::string path = Write(ok);
    EXPECT_TRUE(Parse({"--config", path.c_str()}, &o, &error))
        << ok << " " << error;
  }
  for (const mode_t bad : {0644, 0604, 0602, 0620, 0666}) {
    Options o;
    std::string error;
    const std::string path = Write(bad);
    EXPECT_FALSE(Parse({"--config", path.c_str()}, &o, &error)) << bad;
    EXPECT_NE(error.find("readable or writable by others"), std::string::npos)
        << error;
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_EQ(error.find("secret"), std::string::npos) << error;
  }
}

TEST_F(ConfigFileTest, AFileOfAnotherUserOrNotAFileIsRefused) {
  Options o;
  std::string error;
  EXPECT_FALSE(Parse({"--config", scratch_.path().c_str()}, &o, &error));
  EXPECT_NE(error.find("not a regular file"), std::string::npos) << error;
  EXPECT_FALSE(Parse({"--config", "/nonexistent/f.conf"}, &o, &error));
  EXPECT_NE(error.find("cannot open /nonexistent/f.conf"), std::string::npos)
      << error;
  const std::string path = Write(0600);
  // Only root can give a file away; as anyone else the file stays ours
  // and is taken.
  const bool given = geteuid() == 0 && chown(path.c_str(), 65534, 65534) == 0;
  EXPECT_EQ(Parse({"--config", path.c_str()}, &o, &error), !given) << error;
  if (given) {
    EXPECT_NE(error.find("neither root nor the user running"),
              std::string::npos)
        << error;
  }
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
