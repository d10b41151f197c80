#include "tools/conf_check.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/testing/temp_dir.h"
#include "yulotifyd/fs_ids.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {
namespace {

// Answers from tables; records the ids each queue file was checked with.
class FakeProbe : public CheckProbe {
 public:
  std::map<std::string, std::string> dir_problems;
  std::map<std::string, std::string> queue_problems;
  std::vector<std::pair<uid_t, gid_t>> queue_ids;

  std::string DirectoryProblem(const std::string& dir) override {
    auto it = dir_problems.find(dir);
    return it == dir_problems.end() ? "" : it->second;
  }
  std::string QueueFileProblem(const std::string& path, uid_t uid,
                               gid_t gid) override {
    queue_ids.emplace_back(uid, gid);
    auto it = queue_problems.find(path);
    return it == queue_problems.end() ? "" : it->second;
  }
};

MonitorQueue::MonitorReport Loaded(unsigned index, const std::string& dir,
                                   uint32_t events) {
  MonitorQueue::MonitorReport m;
  m.index = index;
  m.loaded = true;
  m.config = MonitorQueue::MakeConfig("", "/vol1/Public", dir, true, events);
  return m;
}

MonitorQueue::FileReport LoadedFile(
    std::vector<MonitorQueue::MonitorReport> monitors) {
  MonitorQueue::FileReport f;
  f.file = "/conf/system.d/a.json";
  f.loaded = true;
  f.queue_path = "/q/a.queue";
  f.owner_uid = 1000;
  f.owner_gid = 100;
  f.monitors = std::move(monitors);
  return f;
}

TEST(EventsProblemTest, EventsThatProduceLines) {
  EXPECT_EQ(EventsProblem(QUEUE_EVENT_ALL), "");
  EXPECT_EQ(EventsProblem(QUEUE_EVENT_CREATE), "");
  EXPECT_EQ(EventsProblem(QUEUE_EVENT_MODIFY | QUEUE_EVENT_RESCAN), "");
  EXPECT_EQ(EventsProblem(QUEUE_EVENT_CREATE | QUEUE_EVENT_DELETE |
                          QUEUE_EVENT_MOVE),
            "");
  EXPECT_EQ(EventsProblem(QUEUE_EVENT_RESCAN), "");
}

TEST(EventsProblemTest, NoEventAtAll) {
  EXPECT_NE(EventsProblem(0).find("asks for no event"), std::string::npos);
  // Bits above the codes a monitor may ask for count as nothing.
  EXPECT_NE(EventsProblem(QUEUE_EVENT_RESET).find("asks for no event"),
            std::string::npos);
}

TEST(EventsProblemTest, MoveAloneNeverProducesALine) {
  EXPECT_NE(EventsProblem(QUEUE_EVENT_MOVE).find("move alone"),
            std::string::npos);
}

TEST(EventsProblemTest, MoveWithoutBothHalves) {
  for (uint32_t events :
       {QUEUE_EVENT_MOVE | QUEUE_EVENT_CREATE,
        QUEUE_EVENT_MOVE | QUEUE_EVENT_DELETE,
        QUEUE_EVENT_MOVE | QUEUE_EVENT_MODIFY | QUEUE_EVENT_CLOSE_WRITE}) {
    const std::string problem = EventsProblem(events);
    EXPECT_NE(problem.find("without both create and delete"),
              std::string::npos)
        << events;
  }
}

TEST(CheckFileTest, AGoodFileHasNoWarnings) {
  FakeProbe probe;
  const MonitorQueue::FileReport f =
      LoadedFile({Loaded(0, "/", QUEUE_EVENT_ALL)});
  const FileCheck check = CheckFile(f, &probe);
  EXPECT_TRUE(check.warnings.empty());
  ASSERT_EQ(check.monitor_warnings.size(), 1u);
  EXPECT_TRUE(check.monitor_warnings[0].empty());
  // The queue file is checked with the owner's ids.
  ASSERT_EQ(probe.queue_ids.size(), 1u);
  EXPECT_EQ(probe.queue_ids[0], std::make_pair(uid_t{1000}, gid_t{100}));
}

TEST(CheckFileTest, QueueFileProblemIsAFileWarning) {
  FakeProbe probe;
  probe.queue_problems["/q/a.queue"] = "its directory /q does not exist";
  const FileCheck check =
      CheckFile(LoadedFile({Loaded(0, "/", QUEUE_EVENT_ALL)}), &probe);
  ASSERT_EQ(check.warnings.size(), 1u);
  EXPECT_EQ(check.warnings[0],
            "queue file: its directory /q does not exist");
}

TEST(CheckFileTest, MonitorWarnings) {
  FakeProbe probe;
  probe.dir_problems["/vol1/Public/gone"] =
      "directory /vol1/Public/gone does not exist";
  MonitorQueue::MonitorReport noted = Loaded(2, "/", QUEUE_EVENT_CREATE);
  noted.reason = "access, open and close_nowrite left out";
  MonitorQueue::MonitorReport skipped;
  skipped.index = 3;
  skipped.reason = "unknown share \"X\"";
  MonitorQueue::MonitorReport nothing = Loaded(4, "/", QUEUE_EVENT_ALL);
  nothing.config = MonitorQueue::MakeConfig("S", "relative", "/", true,
                                            QUEUE_EVENT_ALL);
  const FileCheck check = CheckFile(
      LoadedFile({Loaded(0, "gone", QUEUE_EVENT_ALL),
                  Loaded(1, "/", QUEUE_EVENT_MOVE), noted, skipped, nothing}),
      &probe);
  EXPECT_TRUE(check.warnings.empty());
  ASSERT_EQ(check.monitor_warnings.size(), 5u);
  EXPECT_EQ(check.monitor_warnings[0],
            std::vector<std::string>{
                "directory /vol1/Public/gone does not exist"});
  ASSERT_EQ(check.monitor_warnings[1].size(), 1u);
  EXPECT_NE(check.monitor_warnings[1][0].find("move alone"),
            std::string::npos);
  EXPECT_EQ(check.monitor_warnings[2],
            std::vector<std::string>{
                "access, open and close_nowrite left out"});
  EXPECT_TRUE(check.monitor_warnings[3].empty());  // its reason says it
  ASSERT_EQ(check.monitor_warnings[4].size(), 1u);
  EXPECT_NE(check.monitor_warnings[4][0].find("matches nothing"),
            std::string::npos);
}

TEST(CheckFileTest, ASkippedFileIsNotProbed) {
  FakeProbe probe;
  MonitorQueue::FileReport f;
  f.file = "/conf/user.d/bad.json";
  f.reason = "not valid JSON";
  const FileCheck check = CheckFile(f, &probe);
  EXPECT_TRUE(check.warnings.empty());
  EXPECT_TRUE(probe.queue_ids.empty());
}

TEST(TallyTest, PassesOnlyWithNothingSkippedOrWarned) {
  FakeProbe probe;
  std::vector<MonitorQueue::DirReport> dirs(3);
  std::vector<MonitorQueue::FileReport> files = {
      LoadedFile({Loaded(0, "/", QUEUE_EVENT_ALL)})};
  std::vector<FileCheck> checks = {CheckFile(files[0], &probe)};
  CheckTotals totals = Tally(dirs, files, checks);
  EXPECT_TRUE(totals.Passed());
  EXPECT_EQ(totals.files, 1);
  EXPECT_EQ(totals.queues, 1);

  // Nothing configured at all still passes: nothing fails to load.
  EXPECT_TRUE(Tally(dirs, {}, {}).Passed());

  // An unreadable configuration directory.
  dirs[2].exists = true;
  dirs[2].error = "Permission denied";
  totals = Tally(dirs, files, checks);
  EXPECT_FALSE(totals.Passed());
  EXPECT_EQ(totals.warnings, 1);
  dirs[2].error.clear();

  // A skipped monitor.
  MonitorQueue::MonitorReport skipped;
  skipped.index = 1;
  skipped.reason = "unknown share \"X\"";
  files[0].monitors.push_back(skipped);
  checks[0] = CheckFile(files[0], &probe);
  totals = Tally(dirs, files, checks);
  EXPECT_FALSE(totals.Passed());
  EXPECT_EQ(totals.monitors_skipped, 1);
  EXPECT_EQ(totals.warnings, 0);

  // A skipped file.
  MonitorQueue::FileReport bad;
  bad.reason = "not valid JSON";
  totals = Tally(dirs, {bad}, {CheckFile(bad, &probe)});
  EXPECT_FALSE(totals.Passed());
  EXPECT_EQ(totals.files_skipped, 1);
  EXPECT_EQ(totals.queues, 0);

  // A warning only.
  files[0].monitors.pop_back();
  files[0].monitors.push_back(Loaded(1, "/", 0));
  checks[0] = CheckFile(files[0], &probe);
  totals = Tally(dirs, files, checks);
  EXPECT_FALSE(totals.Passed());
  EXPECT_EQ(totals.warnings, 1);
}

// The real probe, with the caller's own ids (no switch needed).
class SystemCheckProbeTest : public ::testing::Test {
 protected:
  std::string Problem(const std::string& path) {
    return probe_.QueueFileProblem(path, geteuid(), getegid());
  }
  testing::TempDir tmp_{"conf-check"};
  const std::string dir_ = tmp_.path();
  SystemCheckProbe probe_;
};

TEST_F(SystemCheckProbeTest, Directories) {
  EXPECT_EQ(probe_.DirectoryProblem(dir_), "");
  EXPECT_EQ(probe_.DirectoryProblem(dir_ + "/none"),
            "directory " + dir_ + "/none does not exist");
  const std::string file = dir_ + "/f";
  tmp_.Write("f", "");
  EXPECT_EQ(probe_.DirectoryProblem(file), file + " is not a directory");
}

TEST_F(SystemCheckProbeTest, QueueFiles) {
  // Missing, in a directory the caller may write: created later.
  EXPECT_EQ(Problem(dir_ + "/q.queue"), "");
  EXPECT_EQ(Problem(dir_ + "/none/q.queue"),
            "its directory " + dir_ + "/none does not exist");
  const std::string file = dir_ + "/f";
  tmp_.Write("f", "");
  EXPECT_EQ(Problem(file), "");
  EXPECT_EQ(Problem(file + "/q.queue"), file + " is not a directory");
  const std::string link = dir_ + "/link";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  EXPECT_EQ(Problem(link),
            link + " is a symbolic link, which the daemon never writes "
                   "through");
  const std::string fifo = dir_ + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(Problem(fifo), fifo + " is not a regular file");
}

TEST_F(SystemCheckProbeTest, PermissionsCountForOthersThanRoot) {
  // Root may write anything; the kernel's refusal shows for anyone else.
  if (geteuid() == 0) {
    // As another user: the probe switches ids itself.
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    const std::string sub = dir_ + "/ro";
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    const std::string problem =
        probe_.QueueFileProblem(sub + "/q.queue", 65534, 65534);
    EXPECT_EQ(problem, "uid 65534 may not create it in " + sub +
                           ": Permission denied");
    const std::string file = tmp_.Write("ro/f", "");
    EXPECT_EQ(probe_.QueueFileProblem(file, 65534, 65534),
              "uid 65534 may not write " + file + ": Permission denied");
    // And the probe's switch is undone.
    EXPECT_EQ(ScopedFsIds::CurrentFsUid(), 0u);
    return;
  }
  const std::string sub = dir_ + "/ro";
  ASSERT_EQ(mkdir(sub.c_str(), 0555), 0);
  EXPECT_EQ(Problem(sub + "/q.queue"),
            "uid " + std::to_string(geteuid()) + " may not create it in " +
                sub + ": Permission denied");
  // Another user's rights cannot be taken without root.
  EXPECT_NE(probe_.QueueFileProblem(dir_ + "/q", geteuid() + 1, getegid())
                .find("run the check as root"),
            std::string::npos);
}

}  // namespace
}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
