#include "forward/stderr_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

TEST(StderrLogTest, ALineCarriesTheProgramName) {
  EXPECT_EQ(StderrLogLine("yulotify-forward", LOG_ERR, "forwarder:12 full",
                          false),
            "yulotify-forward: forwarder:12 full\n");
  // A message that brings its line feed gets no second one.
  EXPECT_EQ(StderrLogLine("p", LOG_INFO, "x:1 y\n", false), "p: x:1 y\n");
}

TEST(StderrLogTest, TheJournalIsToldEachLinesPriority) {
  EXPECT_EQ(StderrLogLine("p", LOG_ERR, "x:1 y", true), "<3>p: x:1 y\n");
  EXPECT_EQ(StderrLogLine("p", LOG_WARNING, "x:1 y", true), "<4>p: x:1 y\n");
  EXPECT_EQ(StderrLogLine("p", LOG_NOTICE, "x:1 y", true), "<5>p: x:1 y\n");
  // The facility is the journal's to choose.
  EXPECT_EQ(StderrLogLine("p", LOG_DAEMON | LOG_ERR, "x:1 y", true),
            "<3>p: x:1 y\n");
}

TEST(StderrLogTest, StderrIsTheJournalOnlyWhenItsDeviceAndInodeMatch) {
  struct stat st;
  ASSERT_EQ(fstat(STDERR_FILENO, &st), 0);
  const std::string dev = std::to_string(st.st_dev);
  const std::string ino = std::to_string(st.st_ino);
  EXPECT_TRUE(StderrIsJournal((dev + ":" + ino).c_str()));
  EXPECT_FALSE(StderrIsJournal(nullptr));
  EXPECT_FALSE(StderrIsJournal(""));
  EXPECT_FALSE(StderrIsJournal((dev + ":" + std::to_string(st.st_ino + 1))
                                   .c_str()));
  EXPECT_FALSE(StderrIsJournal((dev + ":" + ino + "x").c_str()));
  EXPECT_FALSE(StderrIsJournal(ino.c_str()));
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
