// MonitorQueue: whose rights a queue is written with (the owner of its
// configuration file), and configuration files refused as unsafe.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "lib/monitor_queue_test_fixture.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::MonitorQueueTest;
using testing::QueuePaths;

// A user and group other than root, for files whose owner matters.
constexpr uid_t kOtherUid = 65534;
constexpr gid_t kOtherGid = 65534;

TEST(MonitorQueueOwnerTest, QueuesNotFromFilesBelongToRoot) {
  const MonitorQueue q("/q", {});
  EXPECT_EQ(q.GetOwnerUid(), 0u);
  EXPECT_EQ(q.GetOwnerGid(), 0u);
  EXPECT_EQ(MonitorQueue().GetOwnerUid(), 0u);
}

TEST(MonitorQueueOwnerTest, CopiesKeepTheOwner) {
  MonitorQueue a("/q", {}, 1234, 5678);
  const MonitorQueue b = a;
  std::vector<MonitorQueue> list = {a};
  const std::vector<MonitorQueue> snapshot = list;
  a = MonitorQueue("/other", {});
  EXPECT_EQ(b.GetOwnerUid(), 1234u);
  EXPECT_EQ(b.GetOwnerGid(), 5678u);
  EXPECT_EQ(snapshot[0].GetOwnerUid(), 1234u);
  EXPECT_EQ(snapshot[0].GetOwnerGid(), 5678u);
  EXPECT_EQ(a.GetOwnerUid(), 0u);
}

TEST_F(MonitorQueueTest, OwnerIsTheConfigurationFilesOwner) {
  // Labelled "root" in CMakeLists.txt: fails, not skips, without it.
  ASSERT_EQ(0u, geteuid()) << "needs root to give files away";
  WriteQueueOnly(MONITOR_QUEUE_TYPE_SYSTEM, "root.json", "/q/root");
  const std::string user =
      WriteQueueOnly(MONITOR_QUEUE_TYPE_USER, "user.json", "/q/user");
  ASSERT_EQ(chown(user.c_str(), kOtherUid, kOtherGid + 1), 0);

  std::vector<MonitorQueue> queues;
  ASSERT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 2);
  EXPECT_EQ(queues[0].GetQueuePath(), "/q/root");
  EXPECT_EQ(queues[0].GetOwnerUid(), 0u);
  EXPECT_EQ(queues[0].GetOwnerGid(), 0u);
  EXPECT_EQ(queues[1].GetQueuePath(), "/q/user");
  EXPECT_EQ(queues[1].GetOwnerUid(), kOtherUid);
  EXPECT_EQ(queues[1].GetOwnerGid(), kOtherGid + 1);

  MonitorQueue q;
  std::string reason;
  ASSERT_TRUE(MonitorQueue::LoadFile(user, resolve_, &q, &reason)) << reason;
  EXPECT_EQ(q.GetOwnerUid(), kOtherUid);

  std::vector<MonitorQueue::DirReport> dirs;
  const auto files = MonitorQueue::Describe(root_, resolve_, &dirs);
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[1].owner_uid, kOtherUid);
  EXPECT_EQ(files[1].owner_gid, kOtherGid + 1);
}

TEST_F(MonitorQueueTest, SymbolicLinkMadeByAUserBelongsToThatUser) {
  // Labelled "root" in CMakeLists.txt: fails, not skips, without it.
  ASSERT_EQ(0u, geteuid()) << "needs root to give files away";
  const std::string dir = ConfDir(MONITOR_QUEUE_TYPE_USER);
  // A root-owned file, linked to by somebody else: that somebody's rights.
  WriteText(root_ + "/root-target", "{\"queue\": \"/q/by-link\"}");
  ASSERT_EQ(symlink((root_ + "/root-target").c_str(),
                    (dir + "/a-user-link.json").c_str()),
            0);
  ASSERT_EQ(lchown((dir + "/a-user-link.json").c_str(), kOtherUid, kOtherGid),
            0);
  // Somebody's file, linked to by root: still that somebody's rights.
  WriteText(root_ + "/user-target", "{\"queue\": \"/q/by-target\"}");
  ASSERT_EQ(chown((root_ + "/user-target").c_str(), kOtherUid, kOtherGid), 0);
  ASSERT_EQ(symlink((root_ + "/user-target").c_str(),
                    (dir + "/b-root-link.json").c_str()),
            0);

  std::vector<MonitorQueue> queues;
  ASSERT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 2);
  EXPECT_EQ(queues[0].GetQueuePath(), "/q/by-link");
  EXPECT_EQ(queues[0].GetOwnerUid(), kOtherUid);
  EXPECT_EQ(queues[0].GetOwnerGid(), kOtherGid);
  EXPECT_EQ(queues[1].GetQueuePath(), "/q/by-target");
  EXPECT_EQ(queues[1].GetOwnerUid(), kOtherUid);
}

TEST_F(MonitorQueueTest, FilesOthersCanChangeAreUnsafe) {
  const MONITOR_QUEUE_TYPE t = MONITOR_QUEUE_TYPE_SYSTEM;
  const std::string ok = WriteQueueOnly(t, "1-ok.json", "/q/ok");
  const std::string group = WriteQueueOnly(t, "2-group.json", "/q/group");
  const std::string other = WriteQueueOnly(t, "3-other.json", "/q/other");
  // Unsafe whatever it holds.
  const std::string junk = WriteConf(t, "4-junk.json", "not json");
  const std::string read_only = WriteQueueOnly(t, "5-ro.json", "/q/ro");
  ASSERT_EQ(chmod(ok.c_str(), 0644), 0);
  ASSERT_EQ(chmod(group.c_str(), 0664), 0);
  ASSERT_EQ(chmod(other.c_str(), 0606), 0);
  ASSERT_EQ(chmod(junk.c_str(), 0666), 0);
  ASSERT_EQ(chmod(read_only.c_str(), 0400), 0);

  std::vector<MonitorQueue> queues;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 2);
  EXPECT_EQ(QueuePaths(queues),
            (std::vector<std::string>{"/q/ok", "/q/ro"}));

  MonitorQueue q("/untouched", {});
  std::string reason;
  EXPECT_FALSE(MonitorQueue::LoadFile(group, resolve_, &q, &reason));
  EXPECT_EQ(reason, "unsafe: writable by its group or by others (mode 0664)");
  EXPECT_EQ(q.GetQueuePath(), "/untouched");
  EXPECT_FALSE(MonitorQueue::LoadFile(other, resolve_, &q, &reason));
  EXPECT_EQ(reason, "unsafe: writable by its group or by others (mode 0606)");
  EXPECT_FALSE(MonitorQueue::LoadFile(junk, resolve_, &q, &reason));
  EXPECT_EQ(reason.rfind("unsafe: ", 0), 0u) << reason;

  const auto files = MonitorQueue::Describe(root_, resolve_, nullptr);
  ASSERT_EQ(files.size(), 5u);
  EXPECT_TRUE(files[0].loaded);
  EXPECT_FALSE(files[1].loaded);
  EXPECT_EQ(files[1].reason,
            "unsafe: writable by its group or by others (mode 0664)");
  EXPECT_FALSE(files[3].loaded);
  EXPECT_EQ(files[3].reason.rfind("unsafe: ", 0), 0u) << files[3].reason;
}

TEST_F(MonitorQueueTest, DirectoryWritableByOthersNeedsTheStickyBit) {
  const std::string file =
      WriteQueueOnly(MONITOR_QUEUE_TYPE_USER, "u.json", "/q/u");
  const std::string dir = ConfDir(MONITOR_QUEUE_TYPE_USER);
  MonitorQueue q;
  std::string reason;

  ASSERT_EQ(chmod(dir.c_str(), 0777), 0);
  EXPECT_FALSE(MonitorQueue::LoadFile(file, resolve_, &q, &reason));
  EXPECT_EQ(reason, "unsafe: its directory " + dir +
                        " is writable by others without the sticky bit "
                        "(mode 0777)");
  std::vector<MonitorQueue> queues;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 0);

  // Like /tmp: everybody may add files, but only their owners may replace
  // them.
  ASSERT_EQ(chmod(dir.c_str(), 01777), 0);
  EXPECT_TRUE(MonitorQueue::LoadFile(file, resolve_, &q, &reason)) << reason;
  // Writable by the directory's group only: that is the owner's choice.
  ASSERT_EQ(chmod(dir.c_str(), 0775), 0);
  EXPECT_TRUE(MonitorQueue::LoadFile(file, resolve_, &q, &reason)) << reason;
  EXPECT_EQ(MonitorQueue::LoadAll(queues, root_, resolve_), 1);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
