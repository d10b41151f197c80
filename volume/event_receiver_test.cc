#include "volume/event_receiver.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lib/testing/log_capture.h"
#include "notify/testing/fake_backend.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeBackend;
using testing::FakeKernel;
using testing::CapturedLine;
using testing::FakeMountEnv;
using testing::RawRecordBytes;
using testing::TakeCapturedLines;

class FakeOwner : public ReceiverOwner {
 public:
  std::vector<MonitorQueue> GetMonitorQueues() override {
    std::lock_guard<std::mutex> lock(mutex);
    return queues;
  }
  bool EnqueueEvent(const NotifyEvent& event) override {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(event);
    return true;
  }
  bool EnqueueEvents(PackedEvents& batch) override {
    std::lock_guard<std::mutex> lock(mutex);
    for (size_t i = 0; i < batch.size(); ++i) events.push_back(batch.ToEvent(i));
    batches.push_back(batch.size());
    batch.clear();
    return true;
  }
  void WatchesReady() override {
    std::lock_guard<std::mutex> lock(mutex);
    ++ready;
  }
  const std::string& GetMountPoint() const override { return mount_point; }

  void KernelDrained() override {
    std::lock_guard<std::mutex> lock(mutex);
    ++drained;
  }
  void WatchRecovered() override {
    std::lock_guard<std::mutex> lock(mutex);
    ++recovered;
  }

  // Replaces the configuration with one queue watching `shares`.
  void Watch(const std::vector<std::string>& shares) {
    WatchEvents(shares, 1023);
  }
  // The same, for the queue event codes `events`.
  void WatchEvents(const std::vector<std::string>& shares, uint32_t events) {
    std::vector<MonitorQueue::MonitorQueueConfig> configs;
    for (const std::string& s : shares) {
      configs.push_back(MonitorQueue::MakeConfig("x", s, "/", true, events));
    }
    std::lock_guard<std::mutex> lock(mutex);
    queues = {MonitorQueue("/tmp/q", configs)};
  }

  std::mutex mutex;
  std::vector<MonitorQueue> queues;
  std::vector<NotifyEvent> events;
  std::vector<size_t> batches;  // sizes of the EnqueueEvents calls
  int ready = 0;
  int drained = 0;
  int recovered = 0;
  std::string mount_point = "/vol1";
};

class EventReceiverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Thread::InitThreadLock());
    env_.AddDir("/", 1);
    env_.AddDir("/vol1", 2);
    for (const char* d : {"/vol1/a", "/vol1/b", "/vol1/c"}) env_.AddDir(d, 2);
    env_.AddDir("/vol10", 3);
    env_.AddDir("/vol10/c", 3);
    env_.SetMountTable("tmpfs /vol1 tmpfs rw 0 0\ntmpfs /vol10 tmpfs rw 0 0\n");
    kernel_ = std::make_shared<FakeKernel>();
    kernel_->init_fd = 9;
  }
  void TearDown() override { Thread::DestroyThreadLock(); }

  std::unique_ptr<EventReceiver> Make(uint32_t mask = 0x3ce) {
    return std::make_unique<EventReceiver>(
        mask, &owner_, std::make_unique<FakeBackend>(kernel_), &env_);
  }
  // Made with the event bits the owner's queues want, as a volume does.
  std::unique_ptr<EventReceiver> MakeForQueues() {
    return Make(WantedKernelMask(owner_.GetMonitorQueues(), "/vol1"));
  }

  FakeMountEnv env_;
  std::shared_ptr<FakeKernel> kernel_;
  FakeOwner owner_;
};

TEST_F(EventReceiverTest, NullOwnerThrows) {
  EXPECT_THROW(EventReceiver(0x3ce, nullptr,
                             std::make_unique<FakeBackend>(kernel_), &env_),
               int);
}

TEST_F(EventReceiverTest, ReAddAllWatchesOnlyMonitoredSharesOfThisVolume) {
  owner_.Watch({"/vol1/a", "/vol1/b", "/vol10/c", "/vol1"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  std::vector<std::string> watched;
  for (const auto& entry : receiver->watched_paths()) watched.push_back(entry.first);
  EXPECT_EQ(watched, (std::vector<std::string>{"/vol1/a", "/vol1/b"}));
  EXPECT_EQ(kernel_->Count("add "), 1);  // one kernel watch for the mount
  EXPECT_EQ(owner_.ready, 1);
}

TEST_F(EventReceiverTest, ReAddWithNothingOnTheVolumeRemovesAllAndStillAcks) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  owner_.Watch({"/vol10/c"});
  receiver->PostCommand(ReceiverCommand::kReloadAll, "");
  receiver->RunCommands();
  EXPECT_TRUE(receiver->watched_paths().empty());
  EXPECT_EQ(kernel_->Count("remove "), 1);
  EXPECT_EQ(owner_.ready, 2);
}

// A reload that changes what the queues want changes the kernel watch in
// place: the new bits are added, the old ones removed, and the watch itself
// never goes, not even for a moment.
TEST_F(EventReceiverTest, ReloadChangesTheKernelMaskInPlace) {
  owner_.WatchEvents({"/vol1/a"}, QUEUE_EVENT_CREATE);
  auto receiver = MakeForQueues();
  receiver->ReAddAllWatches();
  EXPECT_EQ(kernel_->calls.back(), "add 9 /vol1 0x180");  // create, moved-to
  kernel_->calls.clear();

  owner_.WatchEvents({"/vol1/a"}, QUEUE_EVENT_CREATE | QUEUE_EVENT_DELETE);
  receiver->PostCommand(ReceiverCommand::kReloadAll, "");
  receiver->RunCommands();
  EXPECT_EQ(kernel_->calls, (std::vector<std::string>{"add 9 /vol1 0x240"}));
  EXPECT_EQ(receiver->event_mask(), 0x3c0u);
  kernel_->calls.clear();

  // Narrowed again: only the bits nobody wants any more go.
  owner_.WatchEvents({"/vol1/a"}, QUEUE_EVENT_CREATE);
  receiver->ReAddAllWatches();
  EXPECT_EQ(kernel_->calls, (std::vector<std::string>{"remove 9 /vol1 0x240"}));
  EXPECT_EQ(receiver->event_mask(), 0x180u);
  EXPECT_EQ(receiver->watched_paths().count("/vol1/a"), 1u);
  EXPECT_EQ(owner_.ready, 3);
}

// Another share wanting other bits: the bits come first, so the new share
// is watched with them, and the share no longer wanted goes last.
TEST_F(EventReceiverTest, ReloadMovingToAnotherShareWidensBeforeNarrowing) {
  owner_.WatchEvents({"/vol1/a"}, QUEUE_EVENT_CREATE);
  auto receiver = MakeForQueues();
  receiver->ReAddAllWatches();
  kernel_->calls.clear();
  owner_.WatchEvents({"/vol1/b"}, QUEUE_EVENT_CLOSE_WRITE);
  receiver->ReAddAllWatches();
  // Close-write added, then create and moved-to removed; one watch all the
  // time (the two shares share the mount point's).
  EXPECT_EQ(kernel_->calls, (std::vector<std::string>{"add 9 /vol1 0x8",
                                                      "remove 9 /vol1 0x180"}));
  std::vector<std::string> watched;
  for (const auto& entry : receiver->watched_paths()) watched.push_back(entry.first);
  EXPECT_EQ(watched, (std::vector<std::string>{"/vol1/b"}));
}

// A volume that nobody wanted anything of gets its first share later (the
// share appeared in the share configuration): watched with its bits.
TEST_F(EventReceiverTest, AShareAppearingLaterIsWatchedWithItsBits) {
  owner_.WatchEvents({}, QUEUE_EVENT_CREATE);
  auto receiver = MakeForQueues();
  receiver->ReAddAllWatches();
  EXPECT_EQ(receiver->event_mask(), 0u);
  EXPECT_EQ(kernel_->Count("add "), 0);
  owner_.WatchEvents({"/vol1/c"}, QUEUE_EVENT_CREATE | QUEUE_EVENT_DELETE);
  receiver->ReAddAllWatches();
  EXPECT_EQ(kernel_->calls.back(), "add 9 /vol1 0x3c0");
  EXPECT_EQ(kernel_->Count("remove "), 0);
}

TEST_F(EventReceiverTest, DrainKernelQueuesWhatTheKernelHoldsAndTellsTheOwner) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  kernel_->reads.push_back(RawRecordBytes(YULO_CREATE, 0, "/vol1/a/x") +
                           RawRecordBytes(YULO_DELETE, 0, "/vol1/a/y"));
  receiver->PostCommand(ReceiverCommand::kDrainKernel, "");
  receiver->RunCommands();
  ASSERT_EQ(owner_.events.size(), 2u);
  EXPECT_EQ(owner_.events[0].path, "/x");
  EXPECT_EQ(owner_.events[1].path, "/y");
  EXPECT_EQ(owner_.batches, (std::vector<size_t>{2}));
  EXPECT_EQ(owner_.drained, 1);
}

TEST_F(EventReceiverTest, MountAddsWatchOnlyForMonitoredShares) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->PostCommand(ReceiverCommand::kMountShare, "/vol1/b");
  receiver->RunCommands();
  EXPECT_TRUE(receiver->watched_paths().empty());
  receiver->PostCommand(ReceiverCommand::kMountShare, "/vol1/a");
  receiver->RunCommands();
  EXPECT_EQ(receiver->watched_paths().count("/vol1/a"), 1u);
}

TEST_F(EventReceiverTest, UmountRemovesTheWatch) {
  owner_.Watch({"/vol1/a", "/vol1/b"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  receiver->PostCommand(ReceiverCommand::kUmountShare, "/vol1/a");
  receiver->RunCommands();
  EXPECT_EQ(receiver->watched_paths().count("/vol1/a"), 0u);
  EXPECT_EQ(receiver->watched_paths().count("/vol1/b"), 1u);
  // The kernel watch stays for the share still watched on the mount.
  EXPECT_EQ(kernel_->Count("remove "), 0);
}

TEST_F(EventReceiverTest, CommandsRunInPostingOrderAndUnknownOnesAreDropped) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->PostCommand(ReceiverCommand::kMountShare, "/vol1/a");
  receiver->PostCommand(7, "/vol1/a");
  receiver->PostCommand(ReceiverCommand::kUmountShare, "/vol1/a");
  EXPECT_EQ(receiver->PendingCommands(), 3u);
  receiver->RunCommands();
  EXPECT_EQ(receiver->PendingCommands(), 0u);
  EXPECT_TRUE(receiver->watched_paths().empty());
  EXPECT_EQ(kernel_->Count("add "), 1);
  EXPECT_EQ(kernel_->Count("remove "), 1);
}

TEST_F(EventReceiverTest, PendingCommandsAreDroppedAtDestruction) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->PostCommand(ReceiverCommand::kMountShare, "/vol1/a");
  receiver.reset();
  EXPECT_EQ(kernel_->Count("add "), 0);
}

TEST_F(EventReceiverTest, RunOnceQueuesDecodedEvents) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  kernel_->reads.push_back(RawRecordBytes(YULO_CREATE, 0, "/vol1/a/x.jpg") +
                           RawRecordBytes(YULO_DELETE, 0, "/vol1/c/y"));
  NotifyEvent event;
  EXPECT_TRUE(receiver->RunOnce(event));
  EXPECT_FALSE(receiver->RunOnce(event));  // not under a watched share
  ASSERT_EQ(owner_.events.size(), 1u);
  EXPECT_EQ(owner_.events[0].mask, static_cast<uint32_t>(YULO_CREATE));
  EXPECT_EQ(owner_.events[0].watch, "/vol1/a");
  EXPECT_EQ(owner_.events[0].path, "/x.jpg");
}

TEST_F(EventReceiverTest, DrainReadsUntilTheKernelHasNothingLeft) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  kernel_->reads.push_back(RawRecordBytes(YULO_CREATE, 0, "/vol1/a/1") +
                           RawRecordBytes(YULO_CREATE, 0, "/vol1/c/other"));
  kernel_->reads.push_back(RawRecordBytes(YULO_DELETE, 0, "/vol1/a/2"));
  EXPECT_TRUE(receiver->DrainKernel(std::chrono::steady_clock::now() +
                                    std::chrono::seconds(10)));
  ASSERT_EQ(owner_.events.size(), 2u);
  EXPECT_EQ(owner_.events[0].path, "/1");
  EXPECT_EQ(owner_.events[1].path, "/2");
  EXPECT_TRUE(kernel_->reads.empty());
}

TEST_F(EventReceiverTest, DrainAlsoTakesWhatTheBackendHeldBack) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  kernel_->reads.push_back(RawRecordBytes(YULO_CREATE, 0, "/vol1/a/1"));
  // A rescan the backend was still making sure of.
  kernel_->held_back.push_back(RawRecordBytes(
      YULO_RESCAN | YULO_ISDIR, kDerivedRescanCookie, "/vol1/a/d"));
  EXPECT_TRUE(receiver->DrainKernel(std::chrono::steady_clock::now() +
                                    std::chrono::seconds(10)));
  ASSERT_EQ(owner_.events.size(), 2u);
  EXPECT_EQ(owner_.events[0].path, "/1");
  EXPECT_EQ(owner_.events[1].mask,
            static_cast<uint32_t>(YULO_RESCAN | YULO_ISDIR));
  EXPECT_EQ(owner_.events[1].path, "/d");
  EXPECT_EQ(kernel_->Count("finish"), 2) << "asked again until nothing comes";
}

TEST_F(EventReceiverTest, DrainStopsAtItsDeadline) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  kernel_->reads.push_back(RawRecordBytes(YULO_CREATE, 0, "/vol1/a/1"));
  EXPECT_FALSE(receiver->DrainKernel(std::chrono::steady_clock::now() -
                                     std::chrono::seconds(1)));
  EXPECT_TRUE(owner_.events.empty());
}

TEST_F(EventReceiverTest, DrainStopReadsWhatCameBeforeTheStop) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  for (int i = 0; i < 50; ++i) {
    kernel_->reads.push_back(
        RawRecordBytes(YULO_CREATE, 0, "/vol1/a/" + std::to_string(i)));
  }
  ASSERT_TRUE(receiver->Start());
  receiver->RequestDrainStop(std::chrono::steady_clock::now() +
                             std::chrono::seconds(10));
  receiver->Stop();
  EXPECT_TRUE(receiver->Drained());
  EXPECT_TRUE(kernel_->reads.empty());
  ASSERT_EQ(owner_.events.size(), 50u);
  EXPECT_EQ(owner_.events.back().path, "/49");
}

TEST_F(EventReceiverTest, RenameHalvesAreQueuedTogether) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  kernel_->reads.push_back(
      RawRecordBytes(YULO_MOVE_FROM, 0x80000005u, "/vol1/a/old") +
      RawRecordBytes(YULO_MOVE_TO, 0x80000005u, "/vol1/a/new") +
      RawRecordBytes(YULO_MOVE_FROM, 0x80000006u, "/vol1/a/out") +
      RawRecordBytes(YULO_CREATE, 0, "/vol1/a/other"));
  NotifyEvent event;
  EXPECT_TRUE(receiver->RunOnce(event));
  EXPECT_EQ(owner_.batches, (std::vector<size_t>{4})) << "one read, one push";
  ASSERT_EQ(owner_.events.size(), 4u);
  EXPECT_EQ(owner_.events[0].path, "/old");
  EXPECT_EQ(owner_.events[1].path, "/new");
  EXPECT_EQ(owner_.events[2].path, "/out");
  EXPECT_EQ(owner_.events[3].path, "/other");
}

TEST_F(EventReceiverTest, ThreadAddsWatchesFirstThenServesCommandsAndEvents) {
  owner_.Watch({"/vol1/a", "/vol1/b"});
  auto receiver = Make();
  ASSERT_TRUE(receiver->Start());
  while (true) {
    std::lock_guard<std::mutex> lock(owner_.mutex);
    if (owner_.ready >= 1) break;
  }
  receiver->PostCommand(ReceiverCommand::kUmountShare, "/vol1/b");
  while (receiver->PendingCommands() != 0) {
  }
  receiver->Stop();
  EXPECT_EQ(receiver->watched_paths().count("/vol1/a"), 1u);
  EXPECT_EQ(receiver->watched_paths().count("/vol1/b"), 0u);
  EXPECT_EQ(receiver->read_timeout().tv_sec, 0);
  EXPECT_EQ(receiver->read_timeout().tv_usec, 250000);
}

TEST_F(EventReceiverTest, VolumeAtRootWatchesItsShares) {
  owner_.mount_point = "/";
  owner_.Watch({"/vol1/a", "/", "/vol10/c"});
  auto receiver = Make();
  receiver->ReAddAllWatches();
  std::vector<std::string> watched;
  for (const auto& entry : receiver->watched_paths()) watched.push_back(entry.first);
  // Everything lies below "/" except "/" itself, which is no share.
  EXPECT_EQ(watched, (std::vector<std::string>{"/vol1/a", "/vol10/c"}));
}

// An owner that disowns some paths below its mount point (they lie on
// another volume mounted inside it).
class PickyOwner : public FakeOwner {
 public:
  bool OwnsPath(const std::string& path) const override {
    return FakeOwner::OwnsPath(path) && path != "/vol1/b";
  }
};

TEST_F(EventReceiverTest, PathsTheOwnerDisownsAreNotWatched) {
  PickyOwner owner;
  owner.Watch({"/vol1/a", "/vol1/b"});
  EventReceiver receiver(0x3ce, &owner, std::make_unique<FakeBackend>(kernel_),
                         &env_);
  receiver.ReAddAllWatches();
  std::vector<std::string> watched;
  for (const auto& entry : receiver.watched_paths()) watched.push_back(entry.first);
  EXPECT_EQ(watched, (std::vector<std::string>{"/vol1/a"}));
}

// The captured lines of `priority` that contain `text`.
std::vector<std::string> LinesAt(const std::vector<CapturedLine>& lines,
                                 int priority, const std::string& text) {
  std::vector<std::string> out;
  for (const CapturedLine& line : lines) {
    if (line.priority == priority &&
        line.text.find(text) != std::string::npos) {
      out.push_back(line.text);
    }
  }
  return out;
}

std::vector<std::string> Shares(const std::vector<RefusedWatch>& refused) {
  std::vector<std::string> out;
  for (const RefusedWatch& r : refused) out.push_back(r.share);
  return out;
}

TEST_F(EventReceiverTest, ARefusedWatchIsNeverShownAsWatched) {
  owner_.Watch({"/vol1/a", "/vol1/b"});
  auto receiver = Make();
  // The kernel refuses the mark of /vol1 for both shares on it.
  kernel_->add_errnos = {EOPNOTSUPP, EOPNOTSUPP};
  TakeCapturedLines();
  receiver->ReAddAllWatches();
  EXPECT_TRUE(receiver->watched_paths().empty());
  EXPECT_TRUE(receiver->health().Watched().empty());
  EXPECT_TRUE(receiver->health().AnyRefused());
  const std::vector<RefusedWatch> refused = receiver->health().Refusals();
  EXPECT_EQ(Shares(refused), (std::vector<std::string>{"/vol1/a", "/vol1/b"}));
  EXPECT_EQ(refused[0].err, EOPNOTSUPP);
  EXPECT_EQ(refused[0].reason, "Operation not supported");
  // Still acknowledged: a reload waiting for the receiver goes on.
  EXPECT_EQ(owner_.ready, 1);
  // One line at error priority naming the volume and why, for both shares.
  const std::vector<CapturedLine> lines = TakeCapturedLines();
  EXPECT_EQ(LinesAt(lines, LOG_ERR, "Volume /vol1 not watched").size(), 1u);
  EXPECT_EQ(LinesAt(lines, LOG_ERR,
                    "the kernel refused the watch of /vol1/a: Operation not "
                    "supported")
                .size(),
            1u);
  EXPECT_EQ(owner_.recovered, 0);
}

TEST_F(EventReceiverTest, ARefusedWatchIsTriedAgainAndOwesARescanOncePlaced) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  kernel_->add_errnos = {EXDEV};
  receiver->ReAddAllWatches();
  ASSERT_TRUE(receiver->health().AnyRefused());
  TakeCapturedLines();
  // Refused again: traced, not said again at error priority.
  kernel_->add_errnos = {EXDEV};
  receiver->PostCommand(ReceiverCommand::kReloadAll, std::string());
  receiver->RunCommands();
  EXPECT_TRUE(LinesAt(TakeCapturedLines(), LOG_ERR, "not watched").empty());
  EXPECT_EQ(owner_.recovered, 0);
  EXPECT_EQ(kernel_->Count("add "), 2);
  // The kernel takes it now.
  receiver->PostCommand(ReceiverCommand::kReloadAll, std::string());
  receiver->RunCommands();
  EXPECT_EQ(receiver->watched_paths().count("/vol1/a"), 1u);
  EXPECT_FALSE(receiver->health().AnyRefused());
  EXPECT_EQ(receiver->health().Watched(), (std::vector<std::string>{"/vol1/a"}));
  EXPECT_EQ(owner_.recovered, 1);
  EXPECT_EQ(LinesAt(TakeCapturedLines(), LOG_WARNING,
                    "Volume /vol1 watched after the kernel refused it, "
                    "rescanning it, share=/vol1/a")
                .size(),
            1u);
  // Watched from then on: later reloads add nothing and owe nothing.
  receiver->ReAddAllWatches();
  EXPECT_EQ(kernel_->Count("add "), 3);
  EXPECT_EQ(owner_.recovered, 1);
}

TEST_F(EventReceiverTest, ANewCauseOfRefusalIsSaidAgain) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  kernel_->add_errnos = {EXDEV};
  receiver->ReAddAllWatches();
  TakeCapturedLines();
  kernel_->add_errnos = {ENOSPC};
  receiver->ReAddAllWatches();
  EXPECT_EQ(LinesAt(TakeCapturedLines(), LOG_ERR,
                    "of /vol1/a: No space left on device")
                .size(),
            1u);
  EXPECT_EQ(receiver->health().Refusals()[0].err, ENOSPC);
}

TEST_F(EventReceiverTest, AShareNoLongerWantedIsNoLongerAFailure) {
  owner_.Watch({"/vol1/a", "/vol1/b"});
  auto receiver = Make();
  // /vol1/a refused; the kernel is asked again for /vol1/b and takes it.
  kernel_->add_errnos = {ENODEV, 0};
  receiver->ReAddAllWatches();
  ASSERT_EQ(Shares(receiver->health().Refusals()),
            (std::vector<std::string>{"/vol1/a"}));
  EXPECT_EQ(receiver->health().Watched(), (std::vector<std::string>{"/vol1/b"}));
  owner_.Watch({"/vol1/b"});
  receiver->ReAddAllWatches();
  EXPECT_FALSE(receiver->health().AnyRefused());
  EXPECT_EQ(owner_.recovered, 0);
  // Unwatched when unmounted.
  receiver->PostCommand(ReceiverCommand::kUmountShare, "/vol1/b");
  receiver->RunCommands();
  EXPECT_TRUE(receiver->health().Watched().empty());
}

TEST_F(EventReceiverTest, AMountedShareTheKernelRefusesIsAFailureUntilPlaced) {
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  kernel_->add_errnos = {EOPNOTSUPP};
  receiver->PostCommand(ReceiverCommand::kMountShare, "/vol1/a");
  receiver->RunCommands();
  EXPECT_EQ(Shares(receiver->health().Refusals()),
            (std::vector<std::string>{"/vol1/a"}));
  // Unmounted while refused: nothing is left to fail.
  receiver->PostCommand(ReceiverCommand::kUmountShare, "/vol1/a");
  receiver->RunCommands();
  EXPECT_FALSE(receiver->health().AnyRefused());
}

TEST_F(EventReceiverTest, WithoutAKernelInstanceEveryShareIsRefused) {
  kernel_->init_fd = -1;
  owner_.Watch({"/vol1/a"});
  auto receiver = Make();
  TakeCapturedLines();
  receiver->ReAddAllWatches();
  const std::vector<RefusedWatch> refused = receiver->health().Refusals();
  ASSERT_EQ(Shares(refused), (std::vector<std::string>{"/vol1/a"}));
  EXPECT_EQ(refused[0].reason, "no kernel notification instance");
  EXPECT_EQ(LinesAt(TakeCapturedLines(), LOG_ERR,
                    "of /vol1/a: no kernel notification instance")
                .size(),
            1u);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
