#include "yulotifyd/log.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <syslog.h>

#include <cstdarg>
#include <string>
#include <utility>
#include <vector>

#include "log_format.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

std::string Format(const char* file, int line, int err, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
std::string Format(const char* file, int line, int err, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string s = FormatLogLine(file, line, err, fmt, args);
  va_end(args);
  return s;
}

class LogLevelTest : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = LOG_LEVEL.load(); }
  void TearDown() override { LOG_LEVEL = saved_; }
  int32_t saved_ = 3;
};

TEST(LogTest, DefaultLevelIsError) { EXPECT_EQ(LOG_LEVEL.load(), 3); }

TEST(LogTest, SourceStemDropsDirectoryAndExtension) {
  EXPECT_EQ(SourceStem("/src/volume/volume_manager.cc"), "volume_manager");
  EXPECT_EQ(SourceStem("daemon.cc"), "daemon");
  EXPECT_EQ(SourceStem("a/b/noext"), "noext");
  EXPECT_EQ(SourceStem(""), "");
}

TEST(LogTest, LineBeginsWithStemAndLine) {
  EXPECT_EQ(Format("/x/daemon/daemon.cc", 123, 0, "In kill handler(%d)", 15),
            "daemon:123 In kill handler(15)");
}

TEST(LogTest, PercentMIsTheCallersErrno) {
  errno = 0;
  EXPECT_EQ(Format("d.cc", 7, ENOENT, "bind failed, reason=%m"),
            "d:7 bind failed, reason=No such file or directory");
}

TEST(LogTest, LongMessagesAreNotCut) {
  const std::string big(5000, 'x');
  const std::string s = Format("f.cc", 1, 0, "path=%s", big.c_str());
  EXPECT_EQ(s, "f:1 path=" + big);
}

TEST(LogTest, ControlCharactersInTheMessageAreEscaped) {
  // One line stays one line; an escape sequence reaches nobody's terminal.
  EXPECT_EQ(Format("monitor_queue", 9, 0, "skipped %s: %s",
                   "/etc/u/a\nmonitor_queue:1 forged.json", "\x1b[2J"),
            "monitor_queue:9 skipped /etc/u/a\\x0amonitor_queue:1 "
            "forged.json: \\x1b[2J");
  const std::string big(600, 'x');
  EXPECT_EQ(Format("f.cc", 1, 0, "%s\r", big.c_str()),
            "f:1 " + big + "\\x0d");
  // A line feed that ends the message only ends the line.
  EXPECT_EQ(Format("yulotify.cc", 5, 0, "add %s to watch\n", "/a\nb"),
            "yulotify:5 add /a\\x0ab to watch\n");
}

TEST(LogTest, LogWriteKeepsErrno) {
  errno = EACCES;
  LogWrite(__FILE__, __LINE__, "test line from log_test, reason=%m");
  EXPECT_EQ(errno, EACCES);
}

std::vector<std::pair<int, std::string>>& SunkLines() {
  static std::vector<std::pair<int, std::string>> lines;
  return lines;
}

void Sink(int priority, const char* line) {
  SunkLines().emplace_back(priority, line);
}

TEST(LogSinkTest, LinesGoToTheSinkUntilItIsRemoved) {
  SunkLines().clear();
  const LogSink before = SetLogSink(&Sink);
  EXPECT_EQ(nullptr, before);  // syslog until now
  errno = ENOENT;
  LogWrite("dir/volume_manager.cc", 42, "to the sink %d, reason=%m", 7);
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(&Sink, SetLogSink(before));
  LogWrite(__FILE__, __LINE__, "test line from log_test, to syslog");
  ASSERT_EQ(1u, SunkLines().size());
  EXPECT_EQ(LOG_ERR, SunkLines()[0].first);
  EXPECT_EQ("volume_manager:42 to the sink 7, reason=No such file or directory",
            SunkLines()[0].second);
}

TEST(LogSinkTest, EachKindOfLineHasItsPriority) {
  SunkLines().clear();
  const LogSink before = SetLogSink(&Sink);
  const int32_t level = LOG_LEVEL;
  LOG_LEVEL = 7;
  YULO_LOG_ALWAYS("a failure");
  YULO_LOG_WARNING("a loss made good");
  YULO_LOG_NOTICE("worth knowing");
  YULO_LOG_INFO("progress");
  YULO_LOG_DEBUG("a trace");
  YULO_LOG_WARNING_AS("event_processor", "from another file");
  LOG_LEVEL = 3;
  YULO_LOG_WARNING("still written at the default level");
  YULO_LOG_NOTICE("this one too");
  YULO_LOG_INFO("not this one");
  LOG_LEVEL = level;
  SetLogSink(before);
  std::vector<int> priorities;
  for (const auto& line : SunkLines()) priorities.push_back(line.first);
  EXPECT_EQ(priorities,
            (std::vector<int>{LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO,
                              LOG_DEBUG, LOG_WARNING, LOG_WARNING,
                              LOG_NOTICE}));
  ASSERT_EQ(8u, SunkLines().size());
  EXPECT_EQ(0u, SunkLines()[5].second.rfind("event_processor:", 0));
}

TEST_F(LogLevelTest, GatesFollowTheLevel) {
  struct Case {
    int32_t level;
    bool info;
    bool debug;
  } cases[] = {{3, false, false}, {6, true, false}, {7, true, true},
               {5, false, false}, {0, false, false}, {8, false, false}};
  for (const Case& c : cases) {
    LOG_LEVEL = c.level;
    EXPECT_TRUE(LogGateOpen(LogGate::kAlways)) << c.level;
    EXPECT_EQ(LogGateOpen(LogGate::kInfo), c.info) << c.level;
    EXPECT_EQ(LogGateOpen(LogGate::kDebug), c.debug) << c.level;
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
