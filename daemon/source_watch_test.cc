#include "daemon/source_watch.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "base/file_io.h"
#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

class SourceWatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = scratch_.path();
    etc_ = scratch_.MakeDir("etc");
    samba_ = scratch_.MakeDir("samba");
    Write(etc_ + "/volumes.json", "{}");
    Write(samba_ + "/smb.conf", "[global]\n");
  }
  void TearDown() override { watch_.Close(); }

  static void Write(const std::string& path, const std::string& text) {
    ASSERT_TRUE(WriteWholeFile(path, text, 0644)) << path;
  }

  bool Open() {
    SourceWatch::Paths paths;
    paths.volume_table = etc_ + "/volumes.json";
    paths.share_conf = samba_ + "/smb.conf";
    return watch_.Open(paths);
  }

  // One select turn without waiting, handled at `now`.
  void Poll(int64_t now) {
    fd_set readable, exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&exceptional);
    int width = 0;
    watch_.AddToSets(&readable, &exceptional, &width);
    struct timeval zero = {0, 0};
    ASSERT_GE(::select(width, &readable, nullptr, &exceptional, &zero), 0);
    watch_.Handle(readable, exceptional, now);
  }

  testing::TempDir scratch_{"sources"};
  std::string root_, etc_, samba_;
  SourceWatch watch_;
};

TEST_F(SourceWatchTest, NothingHappenedNothingPending) {
  ASSERT_TRUE(Open());
  Poll(1000);
  EXPECT_EQ(-1, watch_.MillisUntilDue(1000));
  EXPECT_EQ(0u, watch_.TakeDue(5000));
}

TEST_F(SourceWatchTest, RewrittenVolumeTableFallsDueAfterSettling) {
  ASSERT_TRUE(Open());
  Write(etc_ + "/volumes.json", "{\"volumes\": []}");
  Poll(1000);
  EXPECT_EQ(SourceWatch::kSettleMillis, watch_.MillisUntilDue(1000));
  EXPECT_EQ(200, watch_.MillisUntilDue(1000 + SourceWatch::kSettleMillis - 200));
  EXPECT_EQ(0u, watch_.TakeDue(1000 + SourceWatch::kSettleMillis - 1));
  EXPECT_EQ(0, watch_.MillisUntilDue(1000 + SourceWatch::kSettleMillis));
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kVolumes),
            watch_.TakeDue(1000 + SourceWatch::kSettleMillis));
  EXPECT_EQ(-1, watch_.MillisUntilDue(2000));
  EXPECT_EQ(0u, watch_.TakeDue(9000));
}

TEST_F(SourceWatchTest, ShareConfigurationIsTheSharesChange) {
  ASSERT_TRUE(Open());
  Write(samba_ + "/smb.conf", "[Public]\npath = /vol1/Public\n");
  Poll(0);
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kShares),
            watch_.TakeDue(SourceWatch::kSettleMillis));
}

TEST_F(SourceWatchTest, ReplacedByRenameAndRemovedCount) {
  ASSERT_TRUE(Open());
  Write(samba_ + "/smb.conf.tmp", "[global]\n");  // another name: nothing
  Poll(0);
  EXPECT_EQ(-1, watch_.MillisUntilDue(0));
  ASSERT_EQ(0, std::rename((samba_ + "/smb.conf.tmp").c_str(),
                           (samba_ + "/smb.conf").c_str()));
  Poll(0);
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kShares),
            watch_.TakeDue(SourceWatch::kSettleMillis));
  ASSERT_EQ(0, ::unlink((etc_ + "/volumes.json").c_str()));
  Poll(0);
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kVolumes),
            watch_.TakeDue(SourceWatch::kSettleMillis));
  Write(etc_ + "/other", "x");
  ASSERT_EQ(0, std::rename((etc_ + "/other").c_str(),
                           (etc_ + "/volumes.json").c_str()));
  Poll(0);
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kVolumes),
            watch_.TakeDue(SourceWatch::kSettleMillis));
  // Renamed away counts too.
  ASSERT_EQ(0, std::rename((etc_ + "/volumes.json").c_str(),
                           (etc_ + "/old").c_str()));
  Poll(0);
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kVolumes),
            watch_.TakeDue(SourceWatch::kSettleMillis));
}

TEST_F(SourceWatchTest, OtherNamesAndDirectoriesDoNotCount) {
  ASSERT_TRUE(Open());
  Write(etc_ + "/yulotifyd.run", "{}");
  Write(etc_ + "/volumes.json.tmp", "{}");
  ASSERT_EQ(0, ::unlink((samba_ + "/smb.conf").c_str()));
  ASSERT_EQ(0, ::mkdir((samba_ + "/smb.conf").c_str(), 0755));
  ASSERT_EQ(0, ::rmdir((samba_ + "/smb.conf").c_str()));
  Poll(0);
  // Only the removal of the file itself counted.
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kShares),
            watch_.TakeDue(SourceWatch::kSettleMillis));
}

TEST_F(SourceWatchTest, ChangesSettleTogetherFromTheLastOne) {
  watch_.Note(SourceWatch::kVolumes, 0);
  watch_.Note(SourceWatch::kShares, 300);
  EXPECT_EQ(0u, watch_.TakeDue(SourceWatch::kSettleMillis));
  EXPECT_EQ(300, watch_.MillisUntilDue(SourceWatch::kSettleMillis));
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kVolumes | SourceWatch::kShares),
            watch_.TakeDue(300 + SourceWatch::kSettleMillis));
  watch_.Note(0, 0);
  EXPECT_EQ(-1, watch_.MillisUntilDue(0));
}

TEST_F(SourceWatchTest, ChangesThatNeverStopStillFallDue) {
  int64_t now = 0;
  for (; now < SourceWatch::kLongestSettleMillis; now += 100) {
    watch_.Note(SourceWatch::kVolumes, now);
    EXPECT_EQ(0u, watch_.TakeDue(now));
  }
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kVolumes), watch_.TakeDue(now));
  // The next burst counts from its own first change.
  watch_.Note(SourceWatch::kShares, now + 1);
  EXPECT_EQ(SourceWatch::kSettleMillis, watch_.MillisUntilDue(now + 1));
}

TEST_F(SourceWatchTest, BothFilesInOneDirectory) {
  SourceWatch::Paths paths;
  paths.volume_table = etc_ + "/volumes.json";
  paths.share_conf = etc_ + "/smb.conf";
  ASSERT_TRUE(watch_.Open(paths));
  Write(etc_ + "/smb.conf", "");
  Poll(0);
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kShares),
            watch_.TakeDue(SourceWatch::kSettleMillis));
  Write(etc_ + "/volumes.json", "");
  Poll(0);
  EXPECT_EQ(static_cast<unsigned>(SourceWatch::kVolumes),
            watch_.TakeDue(SourceWatch::kSettleMillis));
}

TEST_F(SourceWatchTest, MissingDirectoriesLeaveNothingToWatch) {
  SourceWatch::Paths paths;
  paths.volume_table = root_ + "/nowhere/volumes.json";
  paths.share_conf = root_ + "/nowhere/smb.conf";
  EXPECT_FALSE(watch_.Open(paths));
  fd_set readable, exceptional;
  FD_ZERO(&readable);
  FD_ZERO(&exceptional);
  int width = 0;
  watch_.AddToSets(&readable, &exceptional, &width);
  EXPECT_EQ(0, width);
}

// A mount in the process's mount namespace makes the mount table report an
// exceptional condition once. Needs root: runs in a child with a mount
// namespace of its own.
TEST_F(SourceWatchTest, MountTableReportsMounts) {
  // Labelled "root" in CMakeLists.txt: fails, not skips, without it.
  ASSERT_EQ(0u, ::geteuid()) << "needs root to mount";
  const std::string mnt = root_ + "/mnt";
  ASSERT_EQ(0, ::mkdir(mnt.c_str(), 0755));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      ::_exit(10);
    }
    SourceWatch watch;
    SourceWatch::Paths paths;
    paths.mount_table = "/proc/self/mountinfo";
    if (!watch.Open(paths)) ::_exit(11);
    auto poll = [&](int64_t now) {
      fd_set readable, exceptional;
      FD_ZERO(&readable);
      FD_ZERO(&exceptional);
      int width = 0;
      watch.AddToSets(&readable, &exceptional, &width);
      struct timeval zero = {0, 0};
      ::select(width, &readable, nullptr, &exceptional, &zero);
      watch.Handle(readable, exceptional, now);
    };
    poll(0);
    if (watch.MillisUntilDue(0) != -1) ::_exit(12);  // nothing yet
    if (::mount("tmpfs", mnt.c_str(), "tmpfs", 0, nullptr) != 0) ::_exit(13);
    poll(0);
    if (watch.TakeDue(SourceWatch::kSettleMillis) != SourceWatch::kVolumes) {
      ::_exit(14);
    }
    poll(1000);  // reported once
    if (watch.MillisUntilDue(1000) != -1) ::_exit(15);
    if (::umount(mnt.c_str()) != 0) ::_exit(16);
    poll(2000);
    if (watch.TakeDue(2000 + SourceWatch::kSettleMillis) !=
        SourceWatch::kVolumes) {
      ::_exit(17);
    }
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
