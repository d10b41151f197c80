#include "yulotifyd/fs_ids.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

constexpr uid_t kUid = 65534;
constexpr gid_t kGid = 65533;

class ScopedFsIdsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Labelled "root" in CMakeLists.txt: fails, not skips, without it.
    ASSERT_EQ(0u, geteuid()) << "needs root to switch ids";
    dir_ = scratch_.path();
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
  }

  // Whether the calling thread may create `name` in `dir`; if so, the
  // file's owner.
  static bool Create(const std::string& path, struct stat* st) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const bool ok = fstat(fd, st) == 0;
    close(fd);
    return ok;
  }

  testing::TempDir scratch_{"fs-ids"};
  std::string dir_;
};

TEST_F(ScopedFsIdsTest, FilesAreMadeAsTheOtherUserOnThisThreadOnly) {
  // A directory only the other user may write to, and one only root may.
  const std::string theirs = dir_ + "/theirs";
  ASSERT_EQ(mkdir(theirs.c_str(), 0755), 0);
  ASSERT_EQ(chown(theirs.c_str(), kUid, kGid), 0);

  // Threads start with their creator's ids, so this one starts now and
  // looks once the switch below is done.
  std::promise<void> go;
  std::future<void> go_future = go.get_future();
  bool other_ok = false;
  uid_t other_uid = 1;
  std::thread other([&] {
    go_future.wait();
    struct stat other_st;
    other_uid = ScopedFsIds::CurrentFsUid();
    other_ok = Create(dir_ + "/c", &other_st) && other_st.st_uid == 0;
  });

  struct stat st {};
  {
    // No ASSERT until `other` is joined.
    ScopedFsIds ids(kUid, kGid);
    EXPECT_TRUE(ids.ok());
    EXPECT_EQ(ScopedFsIds::CurrentFsUid(), kUid);
    EXPECT_EQ(ScopedFsIds::CurrentFsGid(), kGid);
    EXPECT_TRUE(Create(theirs + "/a", &st));
    EXPECT_EQ(st.st_uid, kUid);
    EXPECT_EQ(st.st_gid, kGid);
    // Root's directory is closed to them: no file-system capabilities now.
    EXPECT_FALSE(Create(dir_ + "/b", &st));
    EXPECT_EQ(errno, EACCES);

    // A thread started before the switch keeps root's rights meanwhile.
    go.set_value();
    other.join();
    EXPECT_EQ(other_uid, 0u);
    EXPECT_TRUE(other_ok);
    EXPECT_TRUE(ids.Restore());
    EXPECT_TRUE(ids.Restore());
  }
  EXPECT_EQ(ScopedFsIds::CurrentFsUid(), 0u);
  EXPECT_EQ(ScopedFsIds::CurrentFsGid(), 0u);
  ASSERT_TRUE(Create(dir_ + "/d", &st));
  EXPECT_EQ(st.st_uid, 0u);
}

TEST_F(ScopedFsIdsTest, DestructorRestores) {
  {
    ScopedFsIds ids(kUid, kGid);
    ASSERT_TRUE(ids.ok());
  }
  EXPECT_EQ(ScopedFsIds::CurrentFsUid(), 0u);
  EXPECT_EQ(ScopedFsIds::CurrentFsGid(), 0u);
}

TEST_F(ScopedFsIdsTest, WithoutTheCapabilityNothingChanges) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setresgid(kGid, kGid, kGid) != 0 || setresuid(kUid, kUid, kUid) != 0)
      _exit(10);
    ScopedFsIds ids(0, 0);
    if (ids.ok()) _exit(11);
    if (ScopedFsIds::CurrentFsUid() != kUid) _exit(12);
    if (ScopedFsIds::CurrentFsGid() != kGid) _exit(13);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
