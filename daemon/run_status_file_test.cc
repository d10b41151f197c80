#include "daemon/run_status_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/testing/fake_platform.h"
#include "base/testing/temp_dir.h"
#include "lib/testing/log_capture.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakePlatform;
using testing::LinesWithMessage;
using testing::TempDir;
using testing::TakeLogLines;

class RunStatusFileTest : public ::testing::Test {
 protected:
  void SetUp() override { TakeLogLines(); }

  // Loads a file holding `text` and returns the status read.
  int32_t LoadText(const std::string& text) {
    dir_.Write("yulotifyd.run", text);
    RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
    file.Load();
    return file.status();
  }

  TempDir dir_;
  FakePlatform platform_;
};

TEST_F(RunStatusFileTest, UnsetUntilLoaded) {
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  EXPECT_EQ(RUN_STATUS_UNSET, file.status());
}

TEST_F(RunStatusFileTest, AbsentFileIsAFirstStart) {
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  file.Load();
  EXPECT_EQ(RUN_STATUS_INIT, file.status());
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(RunStatusFileTest, KnownStates) {
  EXPECT_EQ(RUN_STATUS_INIT, LoadText(R"({"status": "init"})"));
  EXPECT_EQ(RUN_STATUS_STOPPED, LoadText(R"({"status": "stop"})"));
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(R"({"status": "running"})"));
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(R"({"status": "crashed"})"));
  // Exact and case-sensitive.
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(R"({"status": "Stop"})"));
  // Not a string: read as "", an unknown state.
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(R"({"status": 3})"));
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(RunStatusFileTest, UnreadableFileMeansRecoveryAndIsLogged) {
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText("not json"));
  const std::vector<std::string> lines = TakeLogLines();
  EXPECT_EQ(
      1u, LinesWithMessage(lines, "run config read fail", "run_status").size());
}

TEST_F(RunStatusFileTest, MalformedObjectMeansRecoveryAndIsLogged) {
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText("[1]"));
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(R"({"state": "stop"})"));
  const std::vector<std::string> lines = TakeLogLines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(1u,
            LinesWithMessage(lines, "run config error, json=[1]", "run_status")
                .size());
  EXPECT_EQ(
      1u, LinesWithMessage(lines, R"(run config error, json={"state":"stop"})",
                           "run_status")
              .size());
}

TEST_F(RunStatusFileTest, OnlyTheFileThePlatformSeesIsRead) {
  // The existence check is the platform's: a file it does not report is a
  // first start even when it is there.
  class Blind : public FakePlatform {
   public:
    int FileExists(const char*) override { return 0; }
  } blind;
  dir_.Write("yulotifyd.run", R"({"status": "crashed"})");
  RunStatusFile file(dir_.File("yulotifyd.run"), &blind);
  file.Load();
  EXPECT_EQ(RUN_STATUS_INIT, file.status());
}

TEST_F(RunStatusFileTest, WriteReplacesTheFile) {
  dir_.Write("yulotifyd.run", R"({"status": "init", "other": 1})");
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  EXPECT_TRUE(file.Write("running"));
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(dir_.Read("yulotifyd.run")));
  EXPECT_EQ(std::string::npos, dir_.Read("yulotifyd.run").find("other"));
}

TEST_F(RunStatusFileTest, FailedWriteIsLogged) {
  RunStatusFile file(dir_.File("missing/yulotifyd.run"), &platform_);
  EXPECT_FALSE(file.Write("stop"));
  const std::vector<std::string> lines = TakeLogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(0u, lines[0].find("run_status:"));
  EXPECT_NE(std::string::npos,
            lines[0].find("Failed to write run status stop, path=" +
                          dir_.File("missing/yulotifyd.run") + ", reason="));
}

TEST_F(RunStatusFileTest, StopNeverLoadedLeavesTheFile) {
  dir_.Write("yulotifyd.run", R"({"status": "crashed"})");
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  file.SaveStop(true);
  EXPECT_EQ(R"({"status": "crashed"})", dir_.Read("yulotifyd.run"));
}

TEST_F(RunStatusFileTest, StopBeforeReadinessWritesStop) {
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  file.Load();
  // Not marked running: even a stop that left lines unwritten says "stop".
  file.SaveStop(false);
  EXPECT_EQ(RUN_STATUS_STOPPED, LoadText(dir_.Read("yulotifyd.run")));
}

TEST_F(RunStatusFileTest, OwedRecoverySurvivesAStartThatEndedBeforeReady) {
  for (const std::string& text :
       {std::string(R"({"status": "running"})"), std::string("{ not json")}) {
    dir_.Write("yulotifyd.run", text);
    RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
    file.Load();
    ASSERT_EQ(RUN_STATUS_RECOVERY, file.status());
    TakeLogLines();
    // No volume mounted yet, or no queue loadable: the start ends before
    // its volumes queued their rescans.
    file.SaveStop(true);
    EXPECT_EQ(text, dir_.Read("yulotifyd.run"));
    EXPECT_EQ(1u, LinesWithMessage(TakeLogLines(),
                                   "Start ended before ready, recovery still "
                                   "owed, run status left as it was",
                                   "run_status")
                      .size());
    // The start after that still owes it.
    EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(dir_.Read("yulotifyd.run")));
  }
}

TEST_F(RunStatusFileTest, RecoveryDoneByACompleteStartEndsInStop) {
  dir_.Write("yulotifyd.run", R"({"status": "running"})");
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  file.Load();
  file.MarkRunning();
  file.SaveStop(true);
  EXPECT_EQ(RUN_STATUS_STOPPED, LoadText(dir_.Read("yulotifyd.run")));
}

TEST_F(RunStatusFileTest, CleanStopReplacesRunning) {
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  file.Load();
  file.MarkRunning();
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(dir_.Read("yulotifyd.run")));
  file.SaveStop(true);
  EXPECT_EQ(RUN_STATUS_STOPPED, LoadText(dir_.Read("yulotifyd.run")));
}

TEST_F(RunStatusFileTest, StopWithLinesUnwrittenKeepsRunning) {
  RunStatusFile file(dir_.File("yulotifyd.run"), &platform_);
  file.Load();
  file.MarkRunning();
  const std::string running = dir_.Read("yulotifyd.run");
  file.SaveStop(false);
  EXPECT_EQ(running, dir_.Read("yulotifyd.run"));
  EXPECT_EQ(RUN_STATUS_RECOVERY, LoadText(running));
}

TEST_F(RunStatusFileTest, RunningThatCouldNotBeWrittenDoesNotBlockStop) {
  // "running" never reached the file, so there is nothing to keep.
  RunStatusFile file(dir_.File("gone/yulotifyd.run"), &platform_);
  file.Load();
  file.MarkRunning();
  dir_.MakeDir("gone");
  file.SaveStop(false);
  EXPECT_EQ(RUN_STATUS_STOPPED, LoadText(dir_.Read("gone/yulotifyd.run")));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
