#include "forward/options.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

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
  EXPECT_EQ(o.servers, (std::vector<std::string>{"nats://a:4222", "nats://b:4222"}));
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
  ASSERT_TRUE(Parse({"--server", "nats://a", "--subject", "s", "/q"}, &o, &error));
  EXPECT_EQ(o.spool_dir, "/var/lib/yulotifyd/forward");
  EXPECT_EQ(o.spool_max_bytes, uint64_t{1} << 30);
  EXPECT_EQ(o.interval_ms, 1000);
  EXPECT_TRUE(o.stream.empty());
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
           "interval=200\n"
           "queue=/q/idx.queue\n";
  }
  Options o;
  std::string error;
  ASSERT_TRUE(Parse({"--config", path, "--interval", "20"}, &o, &error)) << error;
  EXPECT_EQ(o.servers, (std::vector<std::string>{"nats://a:4222"}));
  EXPECT_EQ(o.subject, "yulotifyd.h.idx");
  EXPECT_EQ(o.stream, "IDX");
  EXPECT_EQ(o.interval_ms, 20);
  EXPECT_EQ(o.queue_file, "/q/idx.queue");
  unlink(path);
}

TEST(OptionsTest, ConfigErrorsNameTheLine) {
  Options o;
  std::string error;
  EXPECT_FALSE(ApplyConfigText("server=nats://a\nnonsense\n", "f.conf", &o, &error));
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

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
