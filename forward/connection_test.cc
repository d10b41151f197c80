#include "forward/connection.h"

#include <gtest/gtest.h>
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

// A well-formed user NKey seed (its 32 bytes are 1..32).
constexpr char kSeed[] =
    "SUAACAQDAQCQMBYIBEFAWDANBYHRAEISCMKBKFQXDAMRUGY4DUPB6IC5CQ";

class ConnectionTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text,
                    mode_t mode) {
    const std::string path = scratch_.path() + "/" + name;
    unlink(path.c_str());
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
    return path;
  }
  testing::TempDir scratch_{"forward_connection"};
};

TEST(ConnectionOptionsTest, TakesTheKeysItKnowsAndLeavesTheRest) {
  ConnectionOptions o;
  std::string error;
  EXPECT_EQ(SetConnectionOption("server", "tls://a:4222,,nats://b:1", &o,
                                &error),
            SetResult::kSet);
  EXPECT_EQ(o.servers,
            (std::vector<std::string>{"tls://a:4222", "nats://b:1"}));
  EXPECT_EQ(SetConnectionOption("tls-ca", "/etc/ca.pem", &o, &error),
            SetResult::kSet);
  EXPECT_EQ(o.tls_ca_file, "/etc/ca.pem");
  EXPECT_EQ(SetConnectionOption("nats-user", "appliance", &o, &error),
            SetResult::kSet);
  EXPECT_EQ(SetConnectionOption("subject", "x", &o, &error),
            SetResult::kUnknown);
  EXPECT_EQ(SetConnectionOption("server", "http://a:4222", &o, &error),
            SetResult::kBad);
  EXPECT_NE(error.find("tls://"), std::string::npos) << error;
  EXPECT_EQ(SetConnectionOption("password-file", "relative", &o, &error),
            SetResult::kBad);
  EXPECT_EQ(SetConnectionOption("nats-user", "a b", &o, &error),
            SetResult::kBad);
  // The secrets themselves are not options.
  EXPECT_EQ(SetConnectionOption("password", "hunter2", &o, &error),
            SetResult::kUnknown);
}

TEST(ConnectionOptionsTest, ChecksWhatGoesTogether) {
  std::string error;
  ConnectionOptions o;
  EXPECT_FALSE(CheckConnectionOptions(o, &error));
  o.servers = {"nats://a:4222"};
  EXPECT_TRUE(CheckConnectionOptions(o, &error)) << error;
  o.tls_cert_file = "/c.pem";
  EXPECT_FALSE(CheckConnectionOptions(o, &error));
  o.tls_key_file = "/k.pem";
  EXPECT_TRUE(CheckConnectionOptions(o, &error)) << error;
  o.password_file = "/p";
  EXPECT_FALSE(CheckConnectionOptions(o, &error));
  EXPECT_NE(error.find("--nats-user"), std::string::npos) << error;
  o.nats_user = "u";
  EXPECT_TRUE(CheckConnectionOptions(o, &error)) << error;
  o.token_file = "/t";
  EXPECT_FALSE(CheckConnectionOptions(o, &error));
  o.password_file.clear();
  o.nats_user.clear();
  o.creds_file = "/c.creds";
  EXPECT_FALSE(CheckConnectionOptions(o, &error));
}

TEST_F(ConnectionTest, ASecretFileOthersCanReachIsRefused) {
  for (const mode_t bad : {0644, 0640, 0604, 0620, 0602, 0660, 0610}) {
    ConnectionOptions o;
    o.servers = {"nats://a:4222"};
    o.nats_user = "u";
    o.password_file = Write("pw", "hunter2\n", bad);
    std::string error;
    EXPECT_FALSE(LoadConnectionFiles(&o, &error)) << std::oct << bad;
    EXPECT_NE(error.find("readable or writable by others"), std::string::npos)
        << error;
    EXPECT_NE(error.find(o.password_file), std::string::npos) << error;
    EXPECT_EQ(error.find("hunter2"), std::string::npos) << error;
    EXPECT_FALSE(o.loaded);
  }
}

TEST_F(ConnectionTest, SecretsAreTheFirstLineOfTheirFile) {
  ConnectionOptions o;
  o.servers = {"nats://a:4222"};
  o.nats_user = "u";
  o.password_file = Write("pw", "  hunter2 \nignored\n", 0600);
  std::string error;
  ASSERT_TRUE(LoadConnectionFiles(&o, &error)) << error;
  EXPECT_TRUE(o.loaded);
  EXPECT_EQ(o.password, "hunter2");

  ConnectionOptions t;
  t.servers = {"nats://a:4222"};
  t.token_file = Write("tok", "\n", 0400);
  EXPECT_FALSE(LoadConnectionFiles(&t, &error));
  EXPECT_NE(error.find("is empty"), std::string::npos) << error;
  t.token_file = Write("tok", "s3cret", 0400);
  ASSERT_TRUE(LoadConnectionFiles(&t, &error)) << error;
  EXPECT_EQ(t.token, "s3cret");
}

TEST_F(ConnectionTest, NotAFileOrAnotherUsersFileIsRefused) {
  ConnectionOptions o;
  o.servers = {"nats://a:4222"};
  o.token_file = scratch_.path();
  std::string error;
  EXPECT_FALSE(LoadConnectionFiles(&o, &error));
  EXPECT_NE(error.find("not a regular file"), std::string::npos) << error;
  o.token_file = Write("tok", "t", 0600);
  const bool given = geteuid() == 0 && chown(o.token_file.c_str(), 65534,
                                              65534) == 0;
  EXPECT_EQ(LoadConnectionFiles(&o, &error), !given) << error;
  if (given) {
    EXPECT_NE(error.find("neither root nor the user running"),
              std::string::npos)
        << error;
  }
}

TEST_F(ConnectionTest, ACredentialsFileGivesItsJwtAndASeedThatSigns) {
  ConnectionOptions o;
  o.servers = {"nats://a:4222"};
  o.creds_file = Write("u.creds",
                       std::string("-----BEGIN NATS USER JWT-----\n"
                                   "eyJ0eXAi.eyJqdGki.c2ln\n"
                                   "------END NATS USER JWT------\n\n"
                                   "************ IMPORTANT ************\n\n"
                                   "-----BEGIN USER NKEY SEED-----\n") +
                           kSeed + "\n------END USER NKEY SEED------\n",
                       0600);
  std::string error;
  ASSERT_TRUE(LoadConnectionFiles(&o, &error)) << error;
  EXPECT_EQ(o.jwt, "eyJ0eXAi.eyJqdGki.c2ln");
  EXPECT_EQ(o.seed, kSeed);
  natsOptions* opts = nullptr;
  ASSERT_TRUE(BuildNatsOptions(o, &opts, &error)) << error;
  natsOptions_Destroy(opts);

  // A seed whose checksum is wrong is refused at start.
  std::string bad = kSeed;
  bad[10] = bad[10] == 'A' ? 'B' : 'A';
  o.creds_file = Write("bad.creds",
                       "-----BEGIN NATS USER JWT-----\nj.w.t\n"
                       "------END NATS USER JWT------\n"
                       "-----BEGIN USER NKEY SEED-----\n" + bad + "\n",
                       0600);
  EXPECT_FALSE(LoadConnectionFiles(&o, &error));
  EXPECT_NE(error.find("seed is not valid"), std::string::npos) << error;
  o.creds_file = Write("empty.creds", "no blocks here\n", 0600);
  EXPECT_FALSE(LoadConnectionFiles(&o, &error));
  EXPECT_NE(error.find("not a credentials file"), std::string::npos) << error;
}

TEST_F(ConnectionTest, OptionsAreBuiltOnlyFromLoadedFiles) {
  ConnectionOptions o;
  o.servers = {"tls://127.0.0.1:1"};
  natsOptions* opts = nullptr;
  std::string error;
  EXPECT_FALSE(BuildNatsOptions(o, &opts, &error));
  std::string load_error;
  ASSERT_TRUE(LoadConnectionFiles(&o, &load_error)) << load_error;
  ASSERT_TRUE(BuildNatsOptions(o, &opts, &error)) << error;
  natsOptions_Destroy(opts);
  // Not a certificate: refused when the options are built, saying which.
  o.tls_ca_file = Write("ca.pem", "not a certificate\n", 0644);
  ASSERT_TRUE(LoadConnectionFiles(&o, &load_error)) << load_error;
  EXPECT_FALSE(BuildNatsOptions(o, &opts, &error));
  EXPECT_NE(error.find("--tls-ca"), std::string::npos) << error;
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
