// YULotify on the running kernel: tmpfs mounts of the test's own, watched
// through the default backend chain (fanotify on a stock kernel).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <chrono>
#include <string>
#include <vector>

#include "notify/fanotify_backend.h"
#include "notify/syscall_backend.h"
#include "notify/testing/kernel_environment.h"
#include "notify/testing/scratch_mounts.h"
#include "notify/yulotify.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

// The whole content of `path` ("" when it cannot be read).
std::string FileText(const std::string& path) {
  std::string text;
  ReadWholeFile(path, kNoReadLimit, &text);
  return text;
}

using testing::Changes;
using testing::Describe;
using testing::Drain;
using testing::MaskOf;
using testing::ScratchMounts;
using testing::SysctlOverride;
using Expected = std::vector<testing::Change>;

// What the event receiver asks for.
constexpr uint32_t kMask = 0x3ce;

class KernelNotifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(scratch_.ok()) << scratch_.error();
    m1_ = scratch_.MountTmpfs("m1", "size=64m");
    ASSERT_FALSE(m1_.empty()) << scratch_.error();
    share_ = m1_ + "/share";
    ASSERT_EQ(0, ::mkdir(share_.c_str(), 0755));
    notify_ = Open(kMask);
    ASSERT_EQ(0, notify_->AddWatch(share_));
  }

  // A YULotify on the default backends, failing the test when it is inert.
  std::unique_ptr<YULotify> Open(uint32_t mask) {
    auto notify = std::make_unique<YULotify>(mask);
    EXPECT_GE(notify->descriptor(), 0)
        << "no notification backend came up; fanotify needs root and "
           "Linux 5.9+ (see the log for the init line)";
    notify->SetReadTimeout(0, 200000);
    return notify;
  }

  std::string S(const std::string& rel) const { return share_ + rel; }

  const FanotifyBackend* Fanotify(const YULotify& notify) const {
    return dynamic_cast<const FanotifyBackend*>(notify.backend());
  }

  ScratchMounts scratch_;
  std::string m1_;
  std::string share_;
  std::unique_ptr<YULotify> notify_;
};

TEST_F(KernelNotifyTest, StockKernelFallsBackToFanotify) {
  SyscallBackend appliance;
  errno = 0;
  EXPECT_EQ(-1, appliance.Init());
  EXPECT_EQ(ENOSYS, errno) << "this kernel has the appliance calls";
  EXPECT_STREQ("fanotify", notify_->backend()->Name());
  EXPECT_EQ(kMask, notify_->event_mask());
  EXPECT_EQ(1u, notify_->mount_points().at(m1_));
  // The descriptor is a real one with close-on-exec.
  EXPECT_NE(0, ::fcntl(notify_->descriptor(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(KernelNotifyTest, CreateFile) {
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  const auto events = Drain(*notify_);
  // Created and closed: one event per kind of change, creation first.
  EXPECT_EQ((Expected{{YULO_CREATE, "/a"}, {YULO_CLOSE_WRITE, "/a"}}),
            Changes(events))
      << Describe(events);
  for (const auto& event : events) {
    EXPECT_EQ(share_, event.watch);
    EXPECT_EQ(0, event.root);
    EXPECT_EQ(0u, event.cookie);
    EXPECT_EQ(S("/a"), GetFullPath(event));
  }
}

TEST_F(KernelNotifyTest, NewFileWrittenGivesCreateModifyCloseWrite) {
  // The kernel merges the three changes (nothing was read in between); they
  // come out as three events in the order they happened.
  ASSERT_TRUE(WriteWholeFile(S("/new"), "data", 0644));
  const auto events = Drain(*notify_);
  EXPECT_EQ((Expected{{YULO_CREATE, "/new"},
                      {YULO_MODIFY, "/new"},
                      {YULO_CLOSE_WRITE, "/new"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, WriteAndClose) {
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  Drain(*notify_);
  ASSERT_TRUE(WriteWholeFile(S("/a"), "some bytes", 0644));
  const auto events = Drain(*notify_);
  // Truncation and write are both modifications, merged into one.
  EXPECT_EQ((Expected{{YULO_MODIFY, "/a"}, {YULO_CLOSE_WRITE, "/a"}}),
            Changes(events))
      << Describe(events);
  EXPECT_EQ(0u, MaskOf(events, S("/a")) & YULO_CREATE);
}

TEST_F(KernelNotifyTest, AttributeChange) {
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  Drain(*notify_);
  ASSERT_EQ(0, ::chmod(S("/a").c_str(), 0600));
  const auto events = Drain(*notify_);
  ASSERT_EQ(1u, events.size()) << Describe(events);
  EXPECT_EQ(static_cast<uint32_t>(YULO_ATTRIB), events[0].mask);
  EXPECT_EQ("/a", events[0].path);
}

TEST_F(KernelNotifyTest, Delete) {
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  Drain(*notify_);
  ASSERT_EQ(0, ::unlink(S("/a").c_str()));
  const auto events = Drain(*notify_);
  ASSERT_EQ(1u, events.size()) << Describe(events);
  EXPECT_EQ(static_cast<uint32_t>(YULO_DELETE), events[0].mask);
  EXPECT_EQ("/a", events[0].path);
}

TEST_F(KernelNotifyTest, MkdirAndRmdirAreDirectories) {
  ASSERT_EQ(0, ::mkdir(S("/d").c_str(), 0755));
  auto events = Drain(*notify_);
  ASSERT_EQ(1u, events.size()) << Describe(events);
  EXPECT_EQ(YULO_CREATE | YULO_ISDIR, events[0].mask);
  EXPECT_EQ("/d", events[0].path);
  ASSERT_EQ(0, ::rmdir(S("/d").c_str()));
  events = Drain(*notify_);
  ASSERT_EQ(1u, events.size()) << Describe(events);
  EXPECT_EQ(YULO_DELETE | YULO_ISDIR, events[0].mask);
  EXPECT_EQ("/d", events[0].path);
}

TEST_F(KernelNotifyTest, AttributeOfTheWatchedDirectoryItself) {
  ASSERT_EQ(0, ::chmod(share_.c_str(), 0700));
  const auto events = Drain(*notify_);
  ASSERT_EQ(1u, events.size()) << Describe(events);
  EXPECT_EQ(YULO_ATTRIB | YULO_ISDIR, events[0].mask);
  EXPECT_EQ("/", events[0].path);
  EXPECT_EQ(share_, GetFullPath(events[0]));
}

TEST_F(KernelNotifyTest, RenameFileGivesTwoRecordsWithOneCookie) {
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  Drain(*notify_);
  ASSERT_EQ(0, ::rename(S("/a").c_str(), S("/b").c_str()));
  const auto events = Drain(*notify_);
  ASSERT_EQ(2u, events.size()) << Describe(events);
  EXPECT_EQ(static_cast<uint32_t>(YULO_MOVE_FROM), events[0].mask);
  EXPECT_EQ("/a", events[0].path);
  EXPECT_EQ(static_cast<uint32_t>(YULO_MOVE_TO), events[1].mask);
  EXPECT_EQ("/b", events[1].path);
  EXPECT_NE(0u, events[0].cookie);
  EXPECT_EQ(events[0].cookie, events[1].cookie);
}

TEST_F(KernelNotifyTest, RenameDirectoryAcrossDirectories) {
  ASSERT_EQ(0, ::mkdir(S("/d1").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir(S("/d2").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir(S("/d1/x").c_str(), 0755));
  Drain(*notify_);
  ASSERT_EQ(0, ::rename(S("/d1/x").c_str(), S("/d2/y").c_str()));
  const auto events = Drain(*notify_);
  ASSERT_EQ(2u, events.size()) << Describe(events);
  EXPECT_EQ(YULO_MOVE_FROM | YULO_ISDIR, events[0].mask);
  EXPECT_EQ("/d1/x", events[0].path);
  EXPECT_EQ(YULO_MOVE_TO | YULO_ISDIR, events[1].mask);
  EXPECT_EQ("/d2/y", events[1].path);
  EXPECT_NE(0u, events[0].cookie);
  EXPECT_EQ(events[0].cookie, events[1].cookie);

  // Two renames never share a cookie.
  ASSERT_EQ(0, ::rename(S("/d2/y").c_str(), S("/d1/x").c_str()));
  const auto again = Drain(*notify_);
  ASSERT_EQ(2u, again.size()) << Describe(again);
  EXPECT_NE(events[0].cookie, again[0].cookie);
}

TEST_F(KernelNotifyTest, EventInADirectoryAfterItWasRenamed) {
  ASSERT_EQ(0, ::mkdir(S("/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(S("/d/x"), "", 0644));
  auto events = Drain(*notify_);
  EXPECT_NE(0u, MaskOf(events, S("/d/x")) & YULO_CREATE) << Describe(events);

  ASSERT_EQ(0, ::rename(S("/d").c_str(), S("/e").c_str()));
  Drain(*notify_);
  ASSERT_TRUE(WriteWholeFile(S("/e/y"), "", 0644));
  events = Drain(*notify_);
  ASSERT_FALSE(events.empty());
  for (const auto& event : events) EXPECT_EQ("/e/y", event.path);
}

TEST_F(KernelNotifyTest, EventBelowADirectoryWhoseParentWasRenamed) {
  ASSERT_EQ(0, ::mkdir(S("/p").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir(S("/p/q").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(S("/p/q/x"), "", 0644));
  Drain(*notify_);
  ASSERT_EQ(0, ::rename(S("/p").c_str(), S("/r").c_str()));
  ASSERT_TRUE(WriteWholeFile(S("/r/q/z"), "", 0644));
  const auto events = Drain(*notify_);
  EXPECT_EQ((Expected{{YULO_MOVE_FROM | YULO_ISDIR, "/p"},
                      {YULO_MOVE_TO | YULO_ISDIR, "/r"},
                      {YULO_CREATE, "/r/q/z"},
                      {YULO_CLOSE_WRITE, "/r/q/z"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, EventReadAfterItsDirectoryMovedGetsTheNewPath) {
  ASSERT_EQ(0, ::mkdir(S("/d").c_str(), 0755));
  Drain(*notify_);
  // All three happen before anything is read.
  ASSERT_TRUE(WriteWholeFile(S("/d/x"), "", 0644));
  ASSERT_EQ(0, ::rename(S("/d").c_str(), S("/e").c_str()));
  ASSERT_TRUE(WriteWholeFile(S("/e/y"), "", 0644));
  const auto events = Drain(*notify_);
  // The directory is only looked up when the first event is read: by then
  // it is /e. No event names a path that was stale when it happened, but
  // /e/x was named before the move that gave it that name: a rescan of /e
  // follows the move.
  EXPECT_EQ((Expected{{YULO_CREATE, "/e/x"},
                      {YULO_CLOSE_WRITE, "/e/x"},
                      {YULO_MOVE_FROM | YULO_ISDIR, "/d"},
                      {YULO_MOVE_TO | YULO_ISDIR, "/e"},
                      {YULO_RESCAN | YULO_ISDIR, "/e"},
                      {YULO_CREATE, "/e/y"},
                      {YULO_CLOSE_WRITE, "/e/y"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, DirectoryRenamedAfterItsEventsWereReadNeedsNoRescan) {
  ASSERT_EQ(0, ::mkdir(S("/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(S("/d/x"), "", 0644));
  Drain(*notify_);
  ASSERT_EQ(0, ::rename(S("/d").c_str(), S("/e").c_str()));
  const auto events = Drain(*notify_);
  EXPECT_EQ((Expected{{YULO_MOVE_FROM | YULO_ISDIR, "/d"},
                      {YULO_MOVE_TO | YULO_ISDIR, "/e"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, UnlinkAndCreateOfOneNameComeInTheirOrder) {
  ASSERT_TRUE(WriteWholeFile(S("/f"), "old", 0644));
  ASSERT_TRUE(WriteWholeFile(S("/g"), "", 0644));
  Drain(*notify_);
  // As an archiver restoring over the tree does: unlink, create again. And
  // the other way round for /g's successor /h: created, then removed.
  ASSERT_EQ(0, ::unlink(S("/f").c_str()));
  ASSERT_TRUE(WriteWholeFile(S("/f"), "new", 0644));
  ASSERT_TRUE(WriteWholeFile(S("/h"), "", 0644));
  ASSERT_EQ(0, ::unlink(S("/h").c_str()));
  const auto events = Drain(*notify_);
  // fanotify merged each name's events into one; the file system decides.
  EXPECT_EQ((Expected{{YULO_DELETE, "/f"},
                      {YULO_CREATE, "/f"},
                      {YULO_MODIFY, "/f"},
                      {YULO_CLOSE_WRITE, "/f"},
                      {YULO_CREATE, "/h"},
                      {YULO_CLOSE_WRITE, "/h"},
                      {YULO_DELETE, "/h"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, FileReplacedByADirectoryIsRescanned) {
  ASSERT_TRUE(WriteWholeFile(S("/k"), "", 0644));
  Drain(*notify_);
  ASSERT_EQ(0, ::unlink(S("/k").c_str()));
  ASSERT_TRUE(WriteWholeFile(S("/k"), "", 0644));
  ASSERT_EQ(0, ::unlink(S("/k").c_str()));
  ASSERT_EQ(0, ::mkdir(S("/k").c_str(), 0755));
  const auto events = Drain(*notify_);
  // The file's merged create and delete cannot be ordered by a name that
  // now holds a directory: the share is rescanned after them.
  EXPECT_EQ((Expected{{YULO_CREATE, "/k"},
                      {YULO_CLOSE_WRITE, "/k"},
                      {YULO_DELETE, "/k"},
                      {YULO_RESCAN | YULO_ISDIR, "/"},
                      {YULO_CREATE | YULO_ISDIR, "/k"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, MergedRenamesOfLogRotationAreRescanned) {
  ASSERT_EQ(0, ::mkdir(S("/logs").c_str(), 0755));
  Drain(*notify_);
  // Three roll-overs before anything is read: the renames of each name
  // pair merge into one event, and the records alone lose every file.
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(WriteWholeFile(S("/logs/app.log"), "x", 0644));
    for (int i = 2; i >= 1; --i) {
      const std::string from = S("/logs/app.log." + std::to_string(i));
      const std::string to = S("/logs/app.log." + std::to_string(i + 1));
      if (::access(from.c_str(), F_OK) == 0) {
        ASSERT_EQ(0, ::rename(from.c_str(), to.c_str()));
      }
    }
    ASSERT_EQ(0, ::rename(S("/logs/app.log").c_str(),
                          S("/logs/app.log.1").c_str()));
  }
  ASSERT_TRUE(WriteWholeFile(S("/logs/app.log"), "x", 0644));
  auto events = Drain(*notify_);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(0u, MaskOf(events, S("/logs")) & YULO_RESCAN)
      << "the contradiction is given time to be explained first";
  // Nothing more happens: once it has stood long enough, the reader is
  // woken for it without any event.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(5);
  NotifyEvent event;
  while (std::chrono::steady_clock::now() < deadline &&
         (events.back().mask & YULO_RESCAN) == 0) {
    if (notify_->ReadEvent(event)) events.push_back(event);
  }
  EXPECT_EQ((testing::Change{YULO_RESCAN | YULO_ISDIR, "/logs"}),
            Changes(events).back())
      << Describe(events);
}

TEST_F(KernelNotifyTest, ReaderAboutToStopGetsTheRescansHeldBack) {
  // Saved twice by renaming /f over /g, then /f made again: the creates
  // of /f merge, and so do the renames, so the records leave /f gone, and
  // it is there.
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(WriteWholeFile(S("/f"), "", 0644));
    ASSERT_EQ(0, ::rename(S("/f").c_str(), S("/g").c_str()));
  }
  ASSERT_TRUE(WriteWholeFile(S("/f"), "", 0644));
  auto events = Drain(*notify_);
  ASSERT_EQ(0u, MaskOf(events, share_) & YULO_RESCAN) << Describe(events);
  ASSERT_TRUE(notify_->FinishPending());
  events = Drain(*notify_);
  EXPECT_EQ((Expected{{YULO_RESCAN | YULO_ISDIR, "/"}}), Changes(events))
      << Describe(events);
  EXPECT_FALSE(notify_->FinishPending());
}

TEST_F(KernelNotifyTest, DeletedDirectoryNeverGivesAWrongPath) {
  ASSERT_EQ(0, ::mkdir(S("/d").c_str(), 0755));
  Drain(*notify_);
  const uint64_t dropped = Fanotify(*notify_)->translator().dropped_events();
  ASSERT_TRUE(WriteWholeFile(S("/d/x"), "", 0644));
  ASSERT_EQ(0, ::unlink(S("/d/x").c_str()));
  ASSERT_EQ(0, ::rmdir(S("/d").c_str()));
  const auto events = Drain(*notify_);
  // /d is gone before its events are read and was never looked up: the
  // events inside it are dropped, the removal of /d itself is reported.
  ASSERT_EQ(1u, events.size()) << Describe(events);
  EXPECT_EQ(YULO_DELETE | YULO_ISDIR, events[0].mask);
  EXPECT_EQ("/d", events[0].path);
  EXPECT_GT(Fanotify(*notify_)->translator().dropped_events(), dropped);
}

TEST_F(KernelNotifyTest, ManyLevelsDeep) {
  std::string rel;
  for (int level = 0; level < 60; ++level) {
    rel += "/level" + std::to_string(level);
    ASSERT_EQ(0, ::mkdir(S(rel).c_str(), 0755)) << rel;
  }
  Drain(*notify_);
  ASSERT_TRUE(WriteWholeFile(S(rel + "/leaf.txt"), "x", 0644));
  const auto events = Drain(*notify_);
  EXPECT_EQ((Expected{{YULO_CREATE, rel + "/leaf.txt"},
                      {YULO_MODIFY, rel + "/leaf.txt"},
                      {YULO_CLOSE_WRITE, rel + "/leaf.txt"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, NamesWithBlanksAndNonAsciiBytes) {
  const std::string name = "/a b \xc3\xa9t\xc3\xa9 \xe4\xb8\xad\xff\x01\n.txt";
  ASSERT_TRUE(WriteWholeFile(S(name), "", 0644));
  const auto events = Drain(*notify_);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(name, events[0].path);
  EXPECT_NE(0u, events[0].mask & YULO_CREATE);
}

TEST_F(KernelNotifyTest, ChangesOutsideTheShareAreSkipped) {
  ASSERT_EQ(0, ::mkdir((m1_ + "/other").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/other/x", "", 0644));
  ASSERT_TRUE(WriteWholeFile(S("/y"), "", 0644));
  const auto events = Drain(*notify_);
  EXPECT_EQ((Expected{{YULO_CREATE, "/y"}, {YULO_CLOSE_WRITE, "/y"}}),
            Changes(events))
      << Describe(events);
}

TEST_F(KernelNotifyTest, TwoSharesOnOneMount) {
  const std::string share2 = m1_ + "/share2";
  ASSERT_EQ(0, ::mkdir(share2.c_str(), 0755));
  Drain(*notify_);
  ASSERT_EQ(1, notify_->AddWatch(share2));
  EXPECT_EQ(2u, notify_->mount_points().at(m1_));
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  ASSERT_TRUE(WriteWholeFile(share2 + "/b", "", 0644));
  const auto events = Drain(*notify_);
  ASSERT_EQ((Expected{{YULO_CREATE, "/a"},
                      {YULO_CLOSE_WRITE, "/a"},
                      {YULO_CREATE, "/b"},
                      {YULO_CLOSE_WRITE, "/b"}}),
            Changes(events))
      << Describe(events);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(share_, events[i].watch);
    EXPECT_EQ(0, events[i].root);
    EXPECT_EQ(share2, events[i + 2].watch);
    EXPECT_EQ(1, events[i + 2].root);
  }

  // Removing one share keeps the kernel watch for the other.
  notify_->RemoveWatch(0);
  ASSERT_TRUE(WriteWholeFile(share2 + "/c", "", 0644));
  const auto later = Drain(*notify_);
  EXPECT_EQ((Expected{{YULO_CREATE, "/c"}, {YULO_CLOSE_WRITE, "/c"}}),
            Changes(later))
      << Describe(later);
}

TEST_F(KernelNotifyTest, TwoMountsAndRemovingTheLastWatchOfOne) {
  const std::string m2 = scratch_.MountTmpfs("m2", "size=16m");
  ASSERT_FALSE(m2.empty()) << scratch_.error();
  ASSERT_EQ(1, notify_->AddWatch(m2));
  EXPECT_EQ(2u, notify_->mount_points().size());
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  ASSERT_TRUE(WriteWholeFile(m2 + "/b", "", 0644));
  auto events = Drain(*notify_);
  ASSERT_EQ((Expected{{YULO_CREATE, "/a"},
                      {YULO_CLOSE_WRITE, "/a"},
                      {YULO_CREATE, "/b"},
                      {YULO_CLOSE_WRITE, "/b"}}),
            Changes(events))
      << Describe(events);
  EXPECT_EQ(S("/a"), GetFullPath(events[1]));
  EXPECT_EQ(m2 + "/b", GetFullPath(events[2]));
  EXPECT_EQ(m2 + "/b", GetFullPath(events[3]));

  notify_->RemoveWatch(0);  // m1's kernel watch goes
  EXPECT_EQ(0u, notify_->mount_points().count(m1_));
  ASSERT_TRUE(WriteWholeFile(S("/gone"), "", 0644));
  ASSERT_TRUE(WriteWholeFile(m2 + "/c", "", 0644));
  events = Drain(*notify_);
  // Had m1 still been marked, its events would have been queued first.
  ASSERT_EQ((Expected{{YULO_CREATE, "/c"}, {YULO_CLOSE_WRITE, "/c"}}),
            Changes(events))
      << Describe(events);
  EXPECT_EQ(m2 + "/c", GetFullPath(events[0]));
}

TEST_F(KernelNotifyTest, RemoveAllWatchesAndAddAgain) {
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  notify_->RemoveAllWatches();
  EXPECT_TRUE(notify_->mount_points().empty());
  Drain(*notify_);  // whatever was queued before the removal
  ASSERT_TRUE(WriteWholeFile(S("/b"), "", 0644));
  EXPECT_FALSE(notify_->HasEvent());
  ASSERT_EQ(1, notify_->AddWatch(share_));
  ASSERT_TRUE(WriteWholeFile(S("/c"), "", 0644));
  const auto events = Drain(*notify_);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ("/c", events[0].path);
  EXPECT_EQ(1, events[0].root);
}

TEST_F(KernelNotifyTest, HasEventAndPlainSelect) {
  EXPECT_FALSE(notify_->HasEvent());
  ASSERT_TRUE(WriteWholeFile(S("/a"), "", 0644));
  EXPECT_TRUE(notify_->HasEvent());
  // The descriptor works with select unchanged.
  fd_set set;
  FD_ZERO(&set);
  FD_SET(notify_->descriptor(), &set);
  struct timeval zero = {0, 0};
  EXPECT_EQ(1,
            ::select(notify_->descriptor() + 1, &set, nullptr, nullptr, &zero));
  // Two events (create, close-write), from one read of the descriptor.
  NotifyEvent event;
  EXPECT_TRUE(notify_->ReadEvent(event));
  EXPECT_EQ(static_cast<uint32_t>(YULO_CREATE), event.mask);
  EXPECT_TRUE(notify_->HasEvent());
  FD_ZERO(&set);
  FD_SET(notify_->descriptor(), &set);
  EXPECT_EQ(0,
            ::select(notify_->descriptor() + 1, &set, nullptr, nullptr, &zero));
  EXPECT_TRUE(notify_->ReadEvent(event));
  EXPECT_EQ(static_cast<uint32_t>(YULO_CLOSE_WRITE), event.mask);
  EXPECT_FALSE(notify_->HasEvent());
}

TEST_F(KernelNotifyTest, ReadEventTimesOutWhenNothingHappens) {
  notify_->SetReadTimeout(0, 1000);
  NotifyEvent event;
  EXPECT_FALSE(notify_->ReadEvent(event));
}

TEST_F(KernelNotifyTest, BurstInOneDirectoryIsResolvedOnce) {
  ASSERT_EQ(0, ::mkdir(S("/burst").c_str(), 0755));
  Drain(*notify_);
  const uint64_t calls = Fanotify(*notify_)->translator().resolver_calls();
  for (int i = 0; i < 500; ++i) {
    ASSERT_TRUE(WriteWholeFile(S("/burst/f" + std::to_string(i)), "", 0644));
  }
  const auto events = Drain(*notify_);
  ASSERT_EQ(1000u, events.size());
  for (int i = 0; i < 500; ++i) {
    const std::string path = "/burst/f" + std::to_string(i);
    ASSERT_EQ((testing::Change{YULO_CREATE, path}),
              testing::Change(events[2 * i].mask, events[2 * i].path));
    ASSERT_EQ((testing::Change{YULO_CLOSE_WRITE, path}),
              testing::Change(events[2 * i + 1].mask, events[2 * i + 1].path));
  }
  EXPECT_LE(Fanotify(*notify_)->translator().resolver_calls() - calls, 1u);
}

TEST(KernelOverflowTest, OverflowGivesExactlyOneOverflowRecord) {
  ScratchMounts scratch;
  ASSERT_TRUE(scratch.ok()) << scratch.error();
  const std::string m1 = scratch.MountTmpfs("m1", "size=16m");
  ASSERT_FALSE(m1.empty()) << scratch.error();

  const std::string knob = "/proc/sys/fs/fanotify/max_queued_events";
  const std::string before = FileText(knob);
  std::unique_ptr<YULotify> notify;
  {
    // The limit is taken when the instance is made; put it back at once.
    SysctlOverride limit(knob, "16");
    ASSERT_TRUE(limit.ok()) << limit.error();
    notify = std::make_unique<YULotify>(kMask);
  }
  EXPECT_EQ(before, FileText(knob));
  ASSERT_GE(notify->descriptor(), 0);
  notify->SetReadTimeout(0, 200000);
  ASSERT_EQ(0, notify->AddWatch(m1));

  // mkdir: one kernel event and one record per change, so that the count
  // below is the count of queued events.
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(0, ::mkdir((m1 + "/d" + std::to_string(i)).c_str(), 0755));
  }
  const auto events = Drain(*notify);
  int overflows = 0;
  for (const auto& event : events) {
    if (event.mask & YULO_Q_OVERFLOW) {
      ++overflows;
      EXPECT_EQ(-1, event.root);
      EXPECT_EQ("", event.watch);
      EXPECT_EQ("", event.path);
    } else {
      EXPECT_EQ(m1, event.watch);
      EXPECT_EQ(YULO_CREATE | YULO_ISDIR, event.mask);
    }
  }
  EXPECT_EQ(1, overflows) << Describe(events);
  EXPECT_LE(events.size(), 17u) << Describe(events);
}

TEST(KernelOlderKernelTest, MovesAsUnpairedHalves) {
  ScratchMounts scratch;
  ASSERT_TRUE(scratch.ok()) << scratch.error();
  const std::string m1 = scratch.MountTmpfs("m1", "size=16m");
  ASSERT_FALSE(m1.empty()) << scratch.error();
  FanotifyBackend::Options options;
  options.move_events = FanotifyBackend::MoveEvents::kHalves;
  YULotify notify(kMask, std::make_unique<FanotifyBackend>(options));
  ASSERT_GE(notify.descriptor(), 0);
  notify.SetReadTimeout(0, 200000);
  ASSERT_EQ(0, notify.AddWatch(m1));

  ASSERT_EQ(0, ::mkdir((m1 + "/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1 + "/d/a", "", 0644));
  Drain(notify);
  ASSERT_EQ(0, ::rename((m1 + "/d/a").c_str(), (m1 + "/d/b").c_str()));
  auto events = Drain(notify);
  ASSERT_EQ(2u, events.size()) << Describe(events);
  EXPECT_EQ(static_cast<uint32_t>(YULO_MOVE_FROM), events[0].mask);
  EXPECT_EQ("/d/a", events[0].path);
  EXPECT_EQ(static_cast<uint32_t>(YULO_MOVE_TO), events[1].mask);
  EXPECT_EQ("/d/b", events[1].path);
  EXPECT_NE(0u, events[0].cookie);
  EXPECT_NE(0u, events[1].cookie);
  EXPECT_NE(events[0].cookie, events[1].cookie);

  // Directory moves still keep the paths right.
  ASSERT_EQ(0, ::rename((m1 + "/d").c_str(), (m1 + "/e").c_str()));
  ASSERT_TRUE(WriteWholeFile(m1 + "/e/c", "", 0644));
  events = Drain(notify);
  ASSERT_EQ((Expected{{YULO_MOVE_FROM | YULO_ISDIR, "/d"},
                      {YULO_MOVE_TO | YULO_ISDIR, "/e"},
                      {YULO_CREATE, "/e/c"},
                      {YULO_CLOSE_WRITE, "/e/c"}}),
            Changes(events))
      << Describe(events);
  EXPECT_NE(events[0].cookie, events[1].cookie);
}

TEST(KernelMaskTest, NoMoveBitsNoMoveRecordsButRightPaths) {
  ScratchMounts scratch;
  ASSERT_TRUE(scratch.ok()) << scratch.error();
  const std::string m1 = scratch.MountTmpfs("m1", "size=16m");
  ASSERT_FALSE(m1.empty()) << scratch.error();
  YULotify notify(YULO_CREATE);
  ASSERT_GE(notify.descriptor(), 0);
  notify.SetReadTimeout(0, 200000);
  ASSERT_EQ(0, notify.AddWatch(m1));

  ASSERT_EQ(0, ::mkdir((m1 + "/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1 + "/d/a", "x", 0644));
  auto events = Drain(notify);
  ASSERT_EQ(2u, events.size()) << Describe(events);
  ASSERT_EQ(0, ::rename((m1 + "/d/a").c_str(), (m1 + "/d/b").c_str()));
  ASSERT_EQ(0, ::rename((m1 + "/d").c_str(), (m1 + "/e").c_str()));
  ASSERT_EQ(0, ::chmod((m1 + "/e/b").c_str(), 0600));
  ASSERT_TRUE(WriteWholeFile(m1 + "/e/c", "", 0644));
  events = Drain(notify);
  ASSERT_EQ(1u, events.size()) << Describe(events);
  EXPECT_EQ(static_cast<uint32_t>(YULO_CREATE), events[0].mask);
  EXPECT_EQ("/e/c", events[0].path);
}

// Drops CAP_SYS_ADMIN from the calling process (all three sets).
bool DropSysAdmin() {
  struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  struct __user_cap_data_struct data[2];
  if (::syscall(SYS_capget, &header, data) != 0) return false;
  const int word = CAP_SYS_ADMIN / 32;
  const uint32_t bit = 1u << (CAP_SYS_ADMIN % 32);
  data[word].effective &= ~bit;
  data[word].permitted &= ~bit;
  data[word].inheritable &= ~bit;
  return ::syscall(SYS_capset, &header, data) == 0;
}

TEST(KernelInertTest, WithoutCapSysAdminTheObjectIsInert) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (!DropSysAdmin()) ::_exit(10);
    YULotify notify(kMask);
    if (notify.descriptor() >= 0) ::_exit(11);
    if (notify.AddWatch("/") != -1) ::_exit(12);
    if (notify.HasEvent()) ::_exit(13);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status))
      << "10: cannot drop the capability, 11: init succeeded, 12: a watch "
         "was added, 13: HasEvent was true";
}

// Unmounting and mounting again at the same place makes another mount.
TEST(MountIdentityKernelTest, RemountIsAnotherMount) {
  testing::ScratchMounts scratch;
  ASSERT_TRUE(scratch.ok()) << scratch.error();
  const std::string m = scratch.MountTmpfs("m", "size=1m");
  ASSERT_FALSE(m.empty()) << scratch.error();
  MountIdentity first, same, parent, second;
  ASSERT_TRUE(GetMountIdentity(m, &first));
  ASSERT_TRUE(GetMountIdentity(m + "/.", &same));
  EXPECT_EQ(first, same);
  ASSERT_TRUE(GetMountIdentity(scratch.root(), &parent));
  EXPECT_NE(first, parent);
  ASSERT_EQ(0, ::umount2(m.c_str(), 0));
  ASSERT_EQ(m, scratch.MountTmpfs("m", "size=1m")) << scratch.error();
  ASSERT_TRUE(GetMountIdentity(m, &second));
  EXPECT_NE(first, second);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
