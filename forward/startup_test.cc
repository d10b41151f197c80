#include "forward/startup.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "base/testing/temp_dir.h"
#include "forward/spool.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

namespace fs = std::filesystem;

class StartupTest : public ::testing::Test {
 protected:
  void SetUp() override { root_ = scratch_.path(); }
  // As root, tests give files to "nobody" (65534); as anyone else they stay
  // the caller's, the only owner they can have.
  static uid_t Owner() { return geteuid() == 0 ? 65534 : geteuid(); }
  static void Give(const std::string& path) {
    if (geteuid() == 0) {
      ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    }
  }

  testing::TempDir scratch_{"forward_startup"};
  std::string root_;
};

TEST_F(StartupTest, AQueueUnderAHiddenDirectoryIsRefusedSayingWhereToPutIt) {
  std::string error;
  EXPECT_EQ(CheckQueuePlace("/tmp/q.queue", {"/var/tmp", "/tmp"}, &error),
            PlaceCheck::kHidden);
  EXPECT_NE(error.find("/tmp/q.queue is under /tmp"), std::string::npos)
      << error;
  EXPECT_NE(error.find("cannot see"), std::string::npos) << error;
  EXPECT_NE(error.find("/var, /srv"), std::string::npos) << error;
  EXPECT_EQ(CheckQueuePlace("/home/u/x/q", {"/home"}, &error),
            PlaceCheck::kHidden);
  // "/tmpx" is not under "/tmp".
  fs::create_directories(root_ + "/tmpx");
  EXPECT_EQ(CheckQueuePlace(root_ + "/tmpx/q", {root_ + "/tmp"}, &error),
            PlaceCheck::kOk)
      << error;
}

TEST_F(StartupTest, ALinkedDirectoryLeadingIntoAHiddenOneIsRefusedToo) {
  fs::create_directories(root_ + "/hidden/d");
  fs::create_directories(root_ + "/srv");
  fs::create_directory_symlink(root_ + "/hidden/d", root_ + "/srv/link");
  std::string error;
  EXPECT_EQ(
      CheckQueuePlace(root_ + "/srv/link/q", {root_ + "/hidden"}, &error),
      PlaceCheck::kHidden);
  EXPECT_NE(error.find("(as " + root_ + "/hidden/d)"), std::string::npos)
      << error;
}

TEST_F(StartupTest, AMissingDirectoryIsSaidAndMayComeLater) {
  std::string error;
  EXPECT_EQ(CheckQueuePlace(root_ + "/vol/q", {"/nothing-hidden"}, &error),
            PlaceCheck::kNotFound);
  EXPECT_NE(error.find("cannot see " + root_ + "/vol"), std::string::npos)
      << error;
  fs::create_directories(root_ + "/vol");
  EXPECT_EQ(CheckQueuePlace(root_ + "/vol/q", {"/nothing-hidden"}, &error),
            PlaceCheck::kOk);
}

TEST_F(StartupTest, RunsAsTheConfiguredUserOrTheOwnerOfTheQueuesDirectory) {
  RunAs who;
  std::string error;
  ASSERT_TRUE(ChooseUser("/nonexistent/q", "root", &who, &error)) << error;
  EXPECT_EQ(who.uid, 0u);
  EXPECT_EQ(who.why, "named in the configuration");
  EXPECT_FALSE(ChooseUser("/srv/q", "no-such-user-here", &who, &error));
  EXPECT_NE(error.find("unknown"), std::string::npos) << error;

  const std::string dir = root_ + "/u";
  fs::create_directories(dir);
  Give(dir);
  ASSERT_TRUE(ChooseUser(dir + "/q", "", &who, &error)) << error;
  EXPECT_EQ(who.uid, Owner());
  EXPECT_EQ(who.name, getpwuid(Owner())->pw_name);
  EXPECT_EQ(who.why, "owner of " + dir);
}

TEST_F(StartupTest, BothProgramsSettleTheirIdentityTheSameWay) {
  RunAs who;
  EXPECT_EQ(ChooseIdentity("/tmp/q", {"/tmp"}, "", &who),
            IdentityChoice::kUsageError);
  EXPECT_EQ(ChooseIdentity(root_ + "/none/q", {"/nothing-hidden"}, "", &who),
            IdentityChoice::kFailed);
  const std::string dir = root_ + "/own";
  fs::create_directories(dir);
  Give(dir);
  // As root: the directory's owner; as anyone else: stays who runs.
  EXPECT_EQ(ChooseIdentity(dir + "/q", {"/nothing-hidden"}, "", &who),
            geteuid() == 0 ? IdentityChoice::kSwitch : IdentityChoice::kStay);
  if (geteuid() == 0) {
    EXPECT_EQ(who.uid, Owner());
  } else {
    EXPECT_EQ(ChooseIdentity(dir + "/q", {"/nothing-hidden"}, "root", &who),
              IdentityChoice::kUsageError);
  }
}

TEST_F(StartupTest, ADirectoryOthersCanWriteNeedsTheUserNamed) {
  const std::string dir = root_ + "/shared";
  fs::create_directories(dir);
  RunAs who;
  std::string error;
  for (const mode_t mode : {0775, 0757, 01777}) {
    ASSERT_EQ(chmod(dir.c_str(), mode), 0);
    EXPECT_FALSE(ChooseUser(dir + "/q", "", &who, &error)) << mode;
    EXPECT_NE(error.find("writable by others than its owner"),
              std::string::npos)
        << error;
    ASSERT_TRUE(ChooseUser(dir + "/q", "root", &who, &error)) << error;
    EXPECT_EQ(who.uid, 0u);
  }
  // A link to a directory counts as that directory (a link's own mode bits
  // are all set).
  ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
  fs::create_directory_symlink(dir, root_ + "/link");
  EXPECT_TRUE(ChooseUser(root_ + "/link/q", "", &who, &error)) << error;
}

TEST_F(StartupTest, InARootDirectoryTheQueueFilesOwnerCounts) {
  RunAs who;
  std::string error;
  // /etc is root's: with no file there the choice is root.
  ASSERT_TRUE(ChooseUser("/etc/no-such-queue", "", &who, &error)) << error;
  EXPECT_EQ(who.uid, 0u);
  if (geteuid() == 0) {
    // A file of nobody's in a directory of root's.
    const std::string dir = root_ + "/rootdir";
    fs::create_directories(dir);
    std::ofstream(dir + "/q").close();
    Give(dir + "/q");
    ASSERT_TRUE(ChooseUser(dir + "/q", "", &who, &error)) << error;
    EXPECT_EQ(who.uid, 65534u);
    EXPECT_EQ(who.why, "owner of " + dir + "/q");
  }
}

TEST_F(StartupTest, TheSpoolDirectoryBelongsToTheUser) {
  RunAs who;
  who.uid = Owner();
  who.gid = geteuid() == 0 ? 65534 : getegid();
  who.name = "someone";
  std::string dir, error;
  bool moved = true;
  ASSERT_TRUE(PrepareSpoolDir(root_ + "/spool", "/srv/q", who, &dir, &moved,
                              &error))
      << error;
  EXPECT_FALSE(moved);
  EXPECT_EQ(dir, root_ + "/spool/someone");
  struct stat st;
  ASSERT_EQ(stat(dir.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_uid, who.uid);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  ASSERT_EQ(stat((root_ + "/spool").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0111, 0111u);
  EXPECT_EQ(st.st_mode & 0044, 0u);
  // A link planted in its place is not followed.
  fs::remove(dir);
  fs::create_directory_symlink(root_, dir);
  EXPECT_FALSE(PrepareSpoolDir(root_ + "/spool", "/srv/q", who, &dir, &moved,
                               &error));
}

TEST_F(StartupTest, ASpoolLeftByARootForwarderMovesToTheUser) {
  RunAs who;
  who.uid = Owner();
  who.gid = geteuid() == 0 ? 65534 : getegid();
  who.name = "someone";
  const std::string top = root_ + "/spool";
  const std::string name = Spool::NameFor("/srv/q");
  fs::create_directories(top);
  std::ofstream(top + "/" + name + ".spool") << "a\nb\n";
  std::ofstream(top + "/" + name + ".state") << "{}\n";
  std::ofstream(top + "/" + Spool::NameFor("/srv/other") + ".spool") << "x\n";
  std::string dir, error;
  bool moved = false;
  ASSERT_TRUE(PrepareSpoolDir(top, "/srv/q", who, &dir, &moved, &error))
      << error;
  EXPECT_TRUE(moved);
  for (const char* suffix : {".spool", ".state"}) {
    EXPECT_FALSE(fs::exists(top + "/" + name + suffix));
    struct stat st;
    ASSERT_EQ(stat((dir + "/" + name + suffix).c_str(), &st), 0) << suffix;
    EXPECT_EQ(st.st_uid, who.uid);
  }
  EXPECT_TRUE(fs::exists(top + "/" + Spool::NameFor("/srv/other") + ".spool"));
  // Both places holding one: refused rather than choosing.
  std::ofstream(top + "/" + name + ".spool") << "c\n";
  EXPECT_FALSE(PrepareSpoolDir(top, "/srv/q", who, &dir, &moved, &error));
  EXPECT_NE(error.find("move one of them away"), std::string::npos) << error;
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
