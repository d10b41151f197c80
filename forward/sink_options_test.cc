#include "forward/sink_options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

bool Parse(std::vector<const char*> args, SinkOptions* o, std::string* error) {
  args.insert(args.begin(), "yulotify-sink");
  return ParseSinkCommandLine(static_cast<int>(args.size()), args.data(), o,
                              error);
}

TEST(SinkOptionsTest, DefaultsAndTheStateBesideTheQueue) {
  SinkOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"--server", "nats://127.0.0.1:4222", "--stream", "FLEET",
                     "/srv/central/all.queue"},
                    &o, &error))
      << error;
  EXPECT_EQ(o.connection.servers,
            std::vector<std::string>{"nats://127.0.0.1:4222"});
  EXPECT_EQ(o.stream, "FLEET");
  EXPECT_EQ(o.subject, "");
  EXPECT_EQ(o.durable, "yulotify-sink");
  EXPECT_EQ(o.state_file, "/srv/central/all.queue.sink-state");
  EXPECT_FALSE(o.host_member);
  EXPECT_EQ(o.batch, kDefaultSinkBatch);
}

TEST(SinkOptionsTest, EveryOptionAndWildcardFilters) {
  SinkOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"--server=nats://a:1,nats://b:2", "--stream", "S",
                     "--subject", "yulotifyd.*.media", "--durable", "central",
                     "--state", "/var/lib/s/state", "--host-member", "yes",
                     "--batch", "250", "--interval", "50", "--user", "idx",
                     "--hidden-dirs", "/tmp,/home", "/srv/q"},
                    &o, &error))
      << error;
  EXPECT_EQ(o.connection.servers.size(), 2u);
  EXPECT_EQ(o.subject, "yulotifyd.*.media");
  EXPECT_EQ(o.durable, "central");
  EXPECT_EQ(o.state_file, "/var/lib/s/state");
  EXPECT_TRUE(o.host_member);
  EXPECT_EQ(o.batch, 250);
  EXPECT_EQ(o.interval_ms, 50);
  EXPECT_EQ(o.user, "idx");
  EXPECT_EQ(o.hidden_dirs, (std::vector<std::string>{"/tmp", "/home"}));
}

TEST(SinkOptionsTest, MistakesAreRefusedWithTheReason) {
  const std::vector<std::pair<std::vector<const char*>, std::string>> bad = {
      {{"--stream", "S", "/q"}, "server"},
      {{"--server", "nats://a:1", "/q"}, "--stream is required"},
      {{"--server", "nats://a:1", "--stream", "S"}, "QUEUE_FILE"},
      {{"--server", "nats://a:1", "--stream", "a.b", "/q"}, "stream must"},
      {{"--server", "nats://a:1", "--stream", "S", "q"}, "absolute"},
      {{"--server", "nats://a:1", "--stream", "S", "/a/../q"}, "absolute"},
      {{"--server", "nats://a:1", "--stream", "S", "--batch", "0", "/q"},
       "batch"},
      {{"--server", "nats://a:1", "--stream", "S", "--host-member", "1",
        "/q"},
       "host-member"},
      {{"--server", "nats://a:1", "--stream", "S", "--bogus", "1", "/q"},
       "unknown option --bogus"},
      {{"--server", "nats://a:1", "--stream", "S", "/q", "/r"}, "one"},
  };
  for (const auto& c : bad) {
    SinkOptions o;
    std::string error;
    EXPECT_FALSE(Parse(c.first, &o, &error)) << c.second;
    EXPECT_NE(error.find(c.second), std::string::npos)
        << error << " / " << c.second;
  }
}

TEST(SinkOptionsTest, ConfigFileAppliesAndTheCommandLineWins) {
  testing::TempDir dir;
  const std::string conf = dir.Write(
      "sink.conf",
      "# central sink\nserver = nats://a:1\nstream=FLEET\nqueue=/srv/q\n"
      "host-member=yes\n\nbatch=10\n");
  ASSERT_EQ(chmod(conf.c_str(), 0600), 0);
  SinkOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"--config", conf.c_str(), "--batch", "20"}, &o, &error))
      << error;
  EXPECT_EQ(o.stream, "FLEET");
  EXPECT_EQ(o.queue_file, "/srv/q");
  EXPECT_TRUE(o.host_member);
  EXPECT_EQ(o.batch, 20);
  // Readable by others: refused.
  ASSERT_EQ(chmod(conf.c_str(), 0644), 0);
  SinkOptions open_one;
  EXPECT_FALSE(Parse({"--config", conf.c_str()}, &open_one, &error));
  // A line that is not key=value names its place.
  SinkOptions o2;
  EXPECT_FALSE(ApplySinkConfigText("stream=S\noops\n", "f", &o2, &error));
  EXPECT_EQ(error, "f:2: expected key=value");
}

TEST(SinkOptionsTest, HelpAndVersionNeedNothingElse) {
  SinkOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"--bogus", "--help"}, &o, &error));
  EXPECT_TRUE(o.help);
  SinkOptions v;
  ASSERT_TRUE(Parse({"--version"}, &v, &error));
  EXPECT_TRUE(v.version);
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
