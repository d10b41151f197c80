#include "output/event_processor.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/testing/temp_dir.h"
#include "output/queue_line.h"
#include "output/testing/fake_event_source.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"
#include "yulotifyd/queue_path.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeEventSource;
using testing::LinesWithMessage;
using testing::MakeEvent;
using testing::MakeOverflow;
using testing::MakeQueue;
using testing::ParseLine;
using testing::ReadLines;
using testing::TempDir;
using testing::TakeLogLines;
using testing::WriteFileText;
using testing::ReadFileText;

std::string Line(uint32_t code, const std::string& path, bool is_dir = false) {
  return "{\"event\":" + std::to_string(code) +
         ",\"is_dir\":" + (is_dir ? "true" : "false") + ",\"path\":\"" + path +
         "\"}";
}

std::string MoveLine(const std::string& old_path, const std::string& new_path,
                     bool is_dir = false) {
  return "{\"event\":256,\"is_dir\":" + std::string(is_dir ? "true" : "false") +
         ",\"path\":\"" + new_path + "\",\"path_old\":\"" + old_path + "\"}";
}

using Lines = std::vector<std::string>;

class EventProcessorTest : public ::testing::Test {
 protected:
  EventProcessorTest() : source_("/vol1") {}

  void SetUp() override {
    ASSERT_TRUE(Thread::InitThreadLock());
    ASSERT_FALSE(dir_.path().empty());
    media_ = dir_.File("media.queue");
    docs_ = dir_.File("docs.queue");
    LOG_LEVEL = 3;
    TakeLogLines();
  }
  void TearDown() override {
    LOG_LEVEL = 3;
    Thread::DestroyThreadLock();
  }

  // One queue on /vol1/Multimedia (everything), one on /vol1/Docs
  // (everything).
  void TwoShareQueues() {
    source_.SetQueues({MakeQueue(media_, "/vol1/Multimedia"),
                       MakeQueue(docs_, "/vol1/Docs")});
  }

  FakeEventSource source_;
  TempDir dir_;
  std::string media_;
  std::string docs_;
};

TEST_F(EventProcessorTest, NullSourceThrowsMinusOne) {
  try {
    EventProcessor processor(nullptr);
    FAIL() << "no exception";
  } catch (int code) {
    EXPECT_EQ(code, -1);
  }
}

TEST_F(EventProcessorTest, SingleEventsGoToTheQueuesThatWantThem) {
  TwoShareQueues();
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/a.jpg"));
  source_.Push(MakeEvent(YULO_DELETE | YULO_ISDIR, "/vol1/Docs", "/old"));
  source_.Push(MakeEvent(YULO_MODIFY, "/vol1/Multimedia", "/a.jpg"));
  source_.Push(MakeEvent(YULO_ATTRIB, "/vol1/Other", "/x"));  // nobody's
  source_.Push(MakeEvent(YULO_RESCAN | YULO_ISDIR, "/vol1/Docs", "/"));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(processor.PendingCount(), 0u);
  EXPECT_EQ(source_.SnapshotCalls(), 1) << "one snapshot per pass";
  EXPECT_EQ(ReadLines(media_), (Lines{Line(64, "/vol1/Multimedia/a.jpg"),
                                      Line(2, "/vol1/Multimedia/a.jpg")}));
  EXPECT_EQ(ReadLines(docs_), (Lines{Line(128, "/vol1/Docs/old", true),
                                     Line(512, "/vol1/Docs", true)}));
}

TEST_F(EventProcessorTest, PassWithoutEventsTakesNoSnapshot) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(source_.GetEventsCalls(), 1);
  EXPECT_EQ(source_.SnapshotCalls(), 0);
  EXPECT_EQ(access(media_.c_str(), F_OK), -1) << "no file created";
}

TEST_F(EventProcessorTest, KeptLinesAreRetriedAtPassesWithoutEvents) {
  TwoShareQueues();
  // The consumer of the media queue holds its lock through one pass.
  WriteFileText(media_, "");
  const int holder = open(media_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/a.jpg"));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/a.txt"));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadFileText(media_), "");
  EXPECT_EQ(ReadLines(docs_), (Lines{Line(64, "/vol1/Docs/a.txt")}))
      << "a busy file holds up no other file";
  EXPECT_EQ(processor.KeptLineCount(), 1u);

  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/b.jpg"));
  processor.RunOnePass();
  EXPECT_EQ(processor.KeptLineCount(), 2u);

  flock(holder, LOCK_UN);
  close(holder);
  processor.RunOnePass();  // no new event
  EXPECT_EQ(processor.KeptLineCount(), 0u);
  EXPECT_EQ(ReadLines(media_), (Lines{Line(64, "/vol1/Multimedia/a.jpg"),
                                      Line(64, "/vol1/Multimedia/b.jpg")}));
  EXPECT_EQ(source_.SnapshotCalls(), 3);
}

TEST_F(EventProcessorTest, DrainStopWritesEverythingQueued) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  ASSERT_TRUE(processor.Start());
  // Queued while the thread sleeps between passes: only a drain writes
  // them before the thread ends.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  for (int i = 0; i < 200; ++i) {
    source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/f" + std::to_string(i)));
  }
  const auto start = std::chrono::steady_clock::now();
  processor.RequestDrainStop(start + std::chrono::seconds(10));
  processor.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2))
      << "no 3-second pause on the way out";
  EXPECT_TRUE(processor.Drained());
  EXPECT_EQ(ReadLines(docs_).size(), 200u);
  EXPECT_EQ(source_.Queued(), 0u);
}

TEST_F(EventProcessorTest, DrainGivesUpOnAFileThatKeepsItsLines) {
  TwoShareQueues();
  WriteFileText(docs_, "");
  const int holder = open(docs_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/held"));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/free"));
  EventProcessor processor(&source_);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(processor.FinalPasses(start + std::chrono::milliseconds(400)));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(400)) << "tried until the end";
  EXPECT_LT(took, std::chrono::seconds(2));
  EXPECT_EQ(ReadLines(media_), (Lines{Line(64, "/vol1/Multimedia/free")}));
  EXPECT_EQ(ReadFileText(docs_), "");
  EXPECT_EQ(processor.KeptLineCount(), 1u);

  // Let go in time: the drain completes.
  flock(holder, LOCK_UN);
  close(holder);
  EXPECT_TRUE(processor.FinalPasses(std::chrono::steady_clock::now() +
                                    std::chrono::seconds(5)));
  EXPECT_EQ(ReadLines(docs_), (Lines{Line(64, "/vol1/Docs/held")}));
}

TEST_F(EventProcessorTest, PassesFollowQuicklyWhileABurstLasts) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  EXPECT_EQ(processor.NextPauseMs(), EventProcessor::kPassIntervalMs);
  for (size_t i = 0; i < EventProcessor::kEarlyPassEvents; ++i) {
    source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/f" + std::to_string(i)));
  }
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(docs_).size(), EventProcessor::kEarlyPassEvents);
  EXPECT_EQ(processor.NextPauseMs(), EventProcessor::kBurstPassIntervalMs);
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/tail"));
  processor.RunOnePass();  // the rest of the burst
  EXPECT_EQ(processor.NextPauseMs(), EventProcessor::kPassIntervalMs);
  processor.RunOnePass();  // idle again
  EXPECT_EQ(processor.NextPauseMs(), EventProcessor::kPassIntervalMs);
}

TEST_F(EventProcessorTest, FilteringFollowsEachQueuesEventsAndDirectories) {
  // Three queues on one share: creations only, modifications only, and a
  // non-recursive one on the "photos" directory.
  const std::string creates = dir_.File("creates");
  const std::string modifies = dir_.File("modifies");
  const std::string photos = dir_.File("photos");
  source_.SetQueues({MakeQueue(creates, "/vol1/M", QUEUE_EVENT_CREATE),
                     MakeQueue(modifies, "/vol1/M", QUEUE_EVENT_MODIFY),
                     MakeQueue(photos, "/vol1/M", QUEUE_EVENT_ALL, "/photos",
                               false)});
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/M", "/photos/a.jpg"));
  source_.Push(MakeEvent(YULO_MODIFY, "/vol1/M", "/photos/a.jpg"));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/M", "/photos/2023/b.jpg"));
  source_.Push(MakeEvent(YULO_CLOSE_WRITE, "/vol1/M", "/c.txt"));
  source_.Push(MakeEvent(YULO_ACCESS | YULO_OPEN, "/vol1/M", "/photos/d"));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(creates), (Lines{Line(64, "/vol1/M/photos/a.jpg"),
                                       Line(64, "/vol1/M/photos/2023/b.jpg")}));
  EXPECT_EQ(ReadLines(modifies), (Lines{Line(2, "/vol1/M/photos/a.jpg")}));
  EXPECT_EQ(ReadLines(photos), (Lines{Line(64, "/vol1/M/photos/a.jpg"),
                                      Line(2, "/vol1/M/photos/a.jpg"),
                                      Line(33, "/vol1/M/photos/d")}));
}

TEST_F(EventProcessorTest, TwoQueuesNamingOneFileBothGetTheirLines) {
  const std::string shared = dir_.File("shared");
  source_.SetQueues({MakeQueue(shared, "/vol1/M"), MakeQueue(shared, "/vol1/N"),
                     MakeQueue(shared, "/vol1/M", QUEUE_EVENT_DELETE)});
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/M", "/a"));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/N", "/b"));
  source_.Push(MakeEvent(YULO_DELETE, "/vol1/M", "/a"));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  // Per event, queues in order: the delete matches the first and the third.
  EXPECT_EQ(ReadLines(shared),
            (Lines{Line(64, "/vol1/M/a"), Line(64, "/vol1/N/b"),
                   Line(128, "/vol1/M/a"), Line(128, "/vol1/M/a")}));
}

TEST_F(EventProcessorTest, MoveWithinOneQueueIsOneMoveLine) {
  TwoShareQueues();
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/old", 7));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/between"));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/new", 7));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_),
            (Lines{MoveLine("/vol1/Multimedia/old", "/vol1/Multimedia/new"),
                   Line(64, "/vol1/Multimedia/between")}));
}

TEST_F(EventProcessorTest, MoveToHalfFirstStillNamesTheOldPath) {
  TwoShareQueues();
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Multimedia",
                         "/new", 9));
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/old", 9));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  // The directory bit is the move-from half's.
  EXPECT_EQ(ReadLines(media_), (Lines{MoveLine("/vol1/Multimedia/old",
                                               "/vol1/Multimedia/new")}));
}

TEST_F(EventProcessorTest, MoveDirectoryBitOfTheFromHalf) {
  TwoShareQueues();
  source_.Push(MakeEvent(YULO_MOVE_FROM | YULO_ISDIR, "/vol1/Multimedia",
                         "/d1", 3));
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Multimedia",
                         "/d2", 3));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_), (Lines{MoveLine("/vol1/Multimedia/d1",
                                               "/vol1/Multimedia/d2", true)}));
}

TEST_F(EventProcessorTest, MoveBetweenQueuesIsDeleteAndCreate) {
  TwoShareQueues();
  // Out of Multimedia into Docs: Multimedia's queue sees the from-half only
  // (128), Docs' queue the to-half only (64).
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/a", 11));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Docs", "/a", 11));
  // Into Multimedia from an unwatched folder: a creation there.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Other", "/b", 12));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/b", 12));
  // From Docs to an unwatched folder: a deletion there.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Docs", "/c", 13));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Other", "/c", 13));
  // Entirely outside: nothing.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Other", "/d", 14));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Other", "/e", 14));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_), (Lines{Line(128, "/vol1/Multimedia/a"),
                                      Line(64, "/vol1/Multimedia/b")}));
  EXPECT_EQ(ReadLines(docs_),
            (Lines{Line(64, "/vol1/Docs/a"), Line(128, "/vol1/Docs/c")}));
}

TEST_F(EventProcessorTest, RenamesAcrossExcludedNamesKeepTheirMeaning) {
  MonitorQueue::MonitorQueueConfig config = MonitorQueue::MakeConfig(
      "Multimedia", "/vol1/Multimedia", "/", true, QUEUE_EVENT_ALL);
  config.exclude = {"*.part", "@eaDir"};
  source_.SetQueues({MonitorQueue(media_, {config})});
  // A download finishes: from an excluded name to a wanted one.
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/film.mkv.part"));
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia",
                         "/film.mkv.part", 31));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/film.mkv", 31));
  // Something put away into an excluded directory: gone for the consumer.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/a.jpg", 32));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/@eaDir/a.jpg",
                         32));
  // Within excluded names: nothing at all.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/x.part", 33));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/@eaDir/x", 33));
  // Between wanted names: one move line, as ever.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/b", 34));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/c", 34));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_),
            (Lines{Line(64, "/vol1/Multimedia/film.mkv"),
                   Line(128, "/vol1/Multimedia/a.jpg"),
                   MoveLine("/vol1/Multimedia/b", "/vol1/Multimedia/c")}));
}

TEST_F(EventProcessorTest, MoveBetweenTwoSharesOfOneQueueIsOneMoveLine) {
  source_.SetQueues({MonitorQueue(
      media_, {MonitorQueue::MakeConfig("A", "/vol1/A", "/", true, 1023),
               MonitorQueue::MakeConfig("B", "/vol1/B", "/", true, 1023)})});
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/A", "/x", 5));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/B", "/y", 5));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_), (Lines{MoveLine("/vol1/A/x", "/vol1/B/y")}));
}

TEST_F(EventProcessorTest, DirectoryMovedInIsCreatedThenRescanned) {
  TwoShareQueues();
  // From an unwatched folder into Multimedia, paired.
  source_.Push(MakeEvent(YULO_MOVE_FROM | YULO_ISDIR, "/vol1/Other", "/d", 21));
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Multimedia", "/d", 21));
  // From Multimedia to Docs: Docs' queue sees only the arrival.
  source_.Push(MakeEvent(YULO_MOVE_FROM | YULO_ISDIR, "/vol1/Multimedia",
                         "/e", 22));
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Docs", "/e", 22));
  // An arrival whose other half was never seen (moved in from outside
  // every watch).
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Docs", "/f", 23));
  // A file moved in needs no listing.
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Docs", "/g", 24));
  // Within one share: one move line, nothing to list.
  source_.Push(MakeEvent(YULO_MOVE_FROM | YULO_ISDIR, "/vol1/Docs", "/h", 25));
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Docs", "/i", 25));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_),
            (Lines{Line(64, "/vol1/Multimedia/d", true),
                   Line(512, "/vol1/Multimedia/d", true),
                   Line(128, "/vol1/Multimedia/e", true)}));
  EXPECT_EQ(ReadLines(docs_),
            (Lines{Line(64, "/vol1/Docs/e", true), Line(512, "/vol1/Docs/e", true),
                   Line(64, "/vol1/Docs/f", true), Line(512, "/vol1/Docs/f", true),
                   Line(64, "/vol1/Docs/g"),
                   MoveLine("/vol1/Docs/h", "/vol1/Docs/i", true)}));
  EXPECT_EQ(3u, processor.RescanLines());
}

TEST_F(EventProcessorTest, ArrivalRescanOnlyWhereTheQueueSeesInside) {
  // A queue on the top of Docs only (not recursive) learns of the new
  // directory but has nothing to list in it; one on Docs/in (not even
  // wanting rescans) lists it.
  const std::string flat = dir_.File("flat.queue");
  const std::string in = dir_.File("in.queue");
  source_.SetQueues({MakeQueue(flat, "/vol1/Docs", QUEUE_EVENT_ALL, "/", false),
                     MakeQueue(in, "/vol1/Docs", QUEUE_EVENT_CREATE, "/in")});
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Docs", "/d", 31));
  source_.Push(MakeEvent(YULO_MOVE_TO | YULO_ISDIR, "/vol1/Docs", "/in/d", 32));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(flat), (Lines{Line(64, "/vol1/Docs/d", true)}));
  EXPECT_EQ(ReadLines(in), (Lines{Line(64, "/vol1/Docs/in/d", true),
                                  Line(512, "/vol1/Docs/in/d", true)}));
}

TEST_F(EventProcessorTest, RescanOfADirectoryGoesToTheQueuesWatchingIntoIt) {
  const std::string all = dir_.File("all.queue");
  const std::string no_rescan = dir_.File("creates.queue");
  const std::string no_tree = dir_.File("modify.queue");
  const std::string below = dir_.File("below.queue");
  const std::string flat = dir_.File("flat.queue");
  const std::string other = dir_.File("other.queue");
  source_.SetQueues(
      {MakeQueue(all, "/vol1/Docs"),
       // The rescan is about lines it may have missed: sent whatever the
       // codes asked for, as the rescans of the volume are.
       MakeQueue(no_rescan, "/vol1/Docs", QUEUE_EVENT_CREATE),
       // No model of the tree to correct: nothing.
       MakeQueue(no_tree, "/vol1/Docs", QUEUE_EVENT_MODIFY | QUEUE_EVENT_RESCAN),
       MakeQueue(below, "/vol1/Docs", QUEUE_EVENT_ALL, "/tree/deep"),
       MakeQueue(flat, "/vol1/Docs", QUEUE_EVENT_ALL, "/", false),
       MakeQueue(other, "/vol1/Docs", QUEUE_EVENT_ALL, "/elsewhere")});
  source_.Push(MakeEvent(YULO_RESCAN | YULO_ISDIR, "/vol1/Docs", "/tree",
                         kDerivedRescanCookie));
  // The same rescan again right after: one line is enough.
  source_.Push(MakeEvent(YULO_RESCAN | YULO_ISDIR, "/vol1/Docs", "/tree",
                         kDerivedRescanCookie));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  const Lines rescan{Line(512, "/vol1/Docs/tree", true)};
  EXPECT_EQ(ReadLines(all), rescan);
  EXPECT_EQ(ReadLines(no_rescan), rescan);
  EXPECT_EQ(ReadLines(below), rescan);
  EXPECT_TRUE(ReadLines(no_tree).empty());
  EXPECT_TRUE(ReadLines(flat).empty());
  EXPECT_TRUE(ReadLines(other).empty());
  EXPECT_EQ(3u, processor.RescanLines());
}

TEST_F(EventProcessorTest, InjectedRescanGoesWhereRescansAreWanted) {
  const std::string wants = dir_.File("wants.queue");
  const std::string creates = dir_.File("creates.queue");
  source_.SetQueues({MakeQueue(wants, "/vol1/Docs", QUEUE_EVENT_RESCAN),
                     MakeQueue(creates, "/vol1/Docs", QUEUE_EVENT_CREATE)});
  source_.Push(MakeEvent(YULO_RESCAN | YULO_ISDIR, "/vol1/Docs", "/t"));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(wants), (Lines{Line(512, "/vol1/Docs/t", true)}));
  EXPECT_TRUE(ReadLines(creates).empty());
}

TEST_F(EventProcessorTest, RescanAfterOtherLinesIsWrittenAgain) {
  TwoShareQueues();
  const uint32_t derived = kDerivedRescanCookie;
  source_.Push(MakeEvent(YULO_RESCAN | YULO_ISDIR, "/vol1/Docs", "/t", derived));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/t/x"));
  source_.Push(MakeEvent(YULO_RESCAN | YULO_ISDIR, "/vol1/Docs", "/t", derived));
  source_.Push(MakeEvent(YULO_RESCAN | YULO_ISDIR, "/vol1/Docs", "/u", derived));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(docs_),
            (Lines{Line(512, "/vol1/Docs/t", true), Line(64, "/vol1/Docs/t/x"),
                   Line(512, "/vol1/Docs/t", true),
                   Line(512, "/vol1/Docs/u", true)}));
}

TEST_F(EventProcessorTest, TwoMovesWithOneCookiePairInListOrder) {
  TwoShareQueues();
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/a1", 4));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/a2", 4));
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/b1", 4));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/b2", 4));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_),
            (Lines{MoveLine("/vol1/Multimedia/a1", "/vol1/Multimedia/a2"),
                   MoveLine("/vol1/Multimedia/b1", "/vol1/Multimedia/b2")}));
}

TEST_F(EventProcessorTest, PairingNeedsTheOtherDirection) {
  TwoShareQueues();
  // Same cookie everywhere: a move-from takes neither another move-from nor
  // a create, only the first move-to.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/a", 7));
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/b", 7));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/c", 7));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/d", 7));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_),
            (Lines{MoveLine("/vol1/Multimedia/a", "/vol1/Multimedia/d"),
                   Line(128, "/vol1/Multimedia/b"),
                   Line(64, "/vol1/Multimedia/c")}));
}

TEST_F(EventProcessorTest, KernelAndInjectedRenamesInOnePassStayApart) {
  TwoShareQueues();
  // The kernel layer's cookies have the top bit, injected ones never do.
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/k1", 0x80000001u));
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/i1", 1));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/i2", 1));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/k2", 0x80000001u));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_),
            (Lines{MoveLine("/vol1/Multimedia/k1", "/vol1/Multimedia/k2"),
                   MoveLine("/vol1/Multimedia/i1", "/vol1/Multimedia/i2")}));
}

TEST_F(EventProcessorTest, UnpairedHalvesAcrossPassesAreDeleteThenCreate) {
  TwoShareQueues();
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/old", 21));
  EventProcessor processor(&source_);
  LOG_LEVEL = 7;
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_), (Lines{Line(128, "/vol1/Multimedia/old")}));
  EXPECT_EQ(LinesWithMessage(TakeLogLines(), "pair fail").size(), 1u);

  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/new", 21));
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_), (Lines{Line(128, "/vol1/Multimedia/old"),
                                      Line(64, "/vol1/Multimedia/new")}));
}

TEST_F(EventProcessorTest, OverflowDiscardsTheRestOfTheBatchAndRescans) {
  // A third queue watches another volume only: no rescan for it.
  const std::string vol2 = dir_.File("vol2.queue");
  source_.SetQueues({MakeQueue(media_, "/vol1/Multimedia"),
                     MakeQueue(docs_, "/vol1/Docs"),
                     MakeQueue(vol2, "/vol2/Elsewhere")});
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/before"));
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Docs", "/half", 30));
  source_.Push(MakeOverflow());
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Docs", "/other-half", 30));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/after"));
  source_.Push(MakeEvent(YULO_CREATE, "/vol2/Elsewhere", "/after"));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  EXPECT_EQ(processor.PendingCount(), 0u);
  // The move-from was paired with its partner behind the overflow, which
  // was pending already.
  EXPECT_EQ(ReadLines(media_), (Lines{Line(64, "/vol1/Multimedia/before"),
                                      Line(512, "/vol1", true)}));
  EXPECT_EQ(ReadLines(docs_), (Lines{MoveLine("/vol1/Docs/half",
                                              "/vol1/Docs/other-half"),
                                     Line(512, "/vol1", true)}));
  EXPECT_EQ(access(vol2.c_str(), F_OK), -1);
  const auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u) << "only the overflow at level 3";
  EXPECT_EQ(LinesWithMessage(lines, "Recieve overflow event vol: /vol1").size(),
            1u);

  // The next batch is handled normally.
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/later"));
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_).back(), Line(64, "/vol1/Multimedia/later"));
}

TEST_F(EventProcessorTest, RecoveryRescanComesBeforeAnyEvent) {
  TwoShareQueues();
  source_.SetRecovery(true);
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/a"));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/b"));
  {
    EventProcessor processor(&source_);
    ASSERT_TRUE(processor.Start());
    // The first pass follows the recovery step right away.
    for (int i = 0; i < 500 && (ReadLines(media_).size() < 2 ||
                                ReadLines(docs_).size() < 2);
         ++i) {
      usleep(10000);
    }
  }
  EXPECT_EQ(ReadLines(media_), (Lines{Line(512, "/vol1", true),
                                      Line(64, "/vol1/Multimedia/a")}));
  EXPECT_EQ(ReadLines(docs_),
            (Lines{Line(512, "/vol1", true), Line(64, "/vol1/Docs/b")}));
  const auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u) << "only the recovery line at level 3";
  EXPECT_EQ(LinesWithMessage(lines,
                             "Send Rescan because of recovery vol: /vol1")
                .size(),
            1u);
}

TEST_F(EventProcessorTest, EventsTheSourceCouldNotQueueBecomeARescan) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/before"));
  source_.LoseEvents();
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(docs_), (Lines{Line(512, "/vol1", true),
                                     Line(64, "/vol1/Docs/before")}));
  EXPECT_EQ(ReadLines(media_), (Lines{Line(512, "/vol1", true)}));
  // Once.
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Docs", "/after"));
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(docs_).back(), Line(64, "/vol1/Docs/after"));
  EXPECT_EQ(ReadLines(media_).size(), 1u);
}

TEST_F(EventProcessorTest, NoRecoveryNoRescan) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  processor.SendRecoveryRescan();
  EXPECT_EQ(access(media_.c_str(), F_OK), -1);
  EXPECT_EQ(source_.SnapshotCalls(), 0);
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(EventProcessorTest, LogLinesFollowTheLevel) {
  TwoShareQueues();
  EventProcessor processor(&source_);

  // Level 6: each event's dump, nothing else.
  LOG_LEVEL = 6;
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/a"));
  processor.RunOnePass();
  auto lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("event_processor:", 0), 0u);
  EXPECT_NE(lines[0].find(" Got event, "), std::string::npos);
  EXPECT_NE(lines[0].find("/vol1/Multimedia"), std::string::npos);

  // Level 7: alive, the fetch count (all pending), the events, the writes.
  LOG_LEVEL = 7;
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/x", 1));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/y", 1));
  processor.RunOnePass();
  lines = TakeLogLines();
  EXPECT_EQ(LinesWithMessage(lines, "EventProcessor alive ...").size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "EventProcessor got 2 events").size(), 1u);
  size_t got_event = 0;
  for (const auto& line : lines) {
    if (line.find(" Got event, ") != std::string::npos) ++got_event;
  }
  EXPECT_EQ(got_event, 2u) << "both halves logged";
  EXPECT_EQ(LinesWithMessage(lines, "write event to: " + media_).size(), 1u);
  EXPECT_TRUE(LinesWithMessage(lines, "pair fail").empty());

  // An empty pass at level 7 only says it is alive.
  processor.RunOnePass();
  lines = TakeLogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(LinesWithMessage(lines, "EventProcessor alive ...").size(), 1u);

  // Level 3: nothing for ordinary events.
  LOG_LEVEL = 3;
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/lonely", 99));
  processor.RunOnePass();
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(EventProcessorTest, FetchActionTakesQueuedEventsIntoPending) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/a"));
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/b"));
  LOG_LEVEL = 7;
  processor.DoAction(&EventProcessor::FetchAction, nullptr);
  EXPECT_EQ(source_.Queued(), 0u);
  EXPECT_EQ(processor.PendingCount(), 2u);
  EXPECT_EQ(
      LinesWithMessage(TakeLogLines(), "EventProcessor got 2 events").size(),
      1u);
  // Nothing is written until the next pass, which handles them in order.
  EXPECT_EQ(access(media_.c_str(), F_OK), -1);
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/c"));
  processor.RunOnePass();
  EXPECT_EQ(ReadLines(media_), (Lines{Line(64, "/vol1/Multimedia/a"),
                                      Line(64, "/vol1/Multimedia/b"),
                                      Line(64, "/vol1/Multimedia/c")}));
}

TEST_F(EventProcessorTest, FetchedEventsAreDroppedAtDestruction) {
  TwoShareQueues();
  {
    EventProcessor processor(&source_);
    ASSERT_TRUE(processor.Start());
    // Wait for the first pass (an empty one), then fetch behind its back.
    for (int i = 0; i < 500 && source_.GetEventsCalls() == 0; ++i) {
      usleep(10000);
    }
    source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/a"));
    processor.DoAction(&EventProcessor::FetchAction, nullptr);
    EXPECT_EQ(processor.PendingCount(), 1u);
  }
  EXPECT_EQ(access(media_.c_str(), F_OK), -1) << "never written";
}

TEST_F(EventProcessorTest, StopDuringThePauseIsPrompt) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  ASSERT_TRUE(processor.Start());
  for (int i = 0; i < 500 && source_.GetEventsCalls() == 0; ++i) {
    usleep(10000);
  }
  ASSERT_EQ(source_.GetEventsCalls(), 1);
  const auto start = std::chrono::steady_clock::now();
  processor.Stop();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_LT(elapsed, std::chrono::milliseconds(1000));
  EXPECT_FALSE(processor.IsRunning());
  EXPECT_EQ(source_.GetEventsCalls(), 1) << "no further pass";
}

TEST_F(EventProcessorTest, WorkerWritesQueuedEventsOnItsOwn) {
  TwoShareQueues();
  source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", "/a"));
  EventProcessor processor(&source_);
  ASSERT_TRUE(processor.Start());
  for (int i = 0; i < 500 && ReadLines(media_).empty(); ++i) usleep(10000);
  processor.Stop();
  EXPECT_EQ(ReadLines(media_), (Lines{Line(64, "/vol1/Multimedia/a")}));
}

TEST_F(EventProcessorTest, FetchActionNeverRacesAPass) {
  // A stand-in worker runs passes back to back while this thread keeps
  // queueing events and fetching them through DoAction, as the daemon's
  // main thread does before a reload. Every event is written exactly once
  // and in order; under ThreadSanitizer any unguarded access to the pending
  // list would be reported.
  TwoShareQueues();
  EventProcessor processor(&source_);
  constexpr int kEvents = 300;
  std::atomic<bool> done{false};
  std::thread worker([&] {
    while (!done.load()) processor.RunOnePass();
  });
  for (int i = 0; i < kEvents; ++i) {
    source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia",
                           "/f" + std::to_string(i)));
    processor.DoAction(&EventProcessor::FetchAction, nullptr);
  }
  done = true;
  worker.join();
  processor.RunOnePass();
  const auto lines = ReadLines(media_);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kEvents));
  for (int i = 0; i < kEvents; ++i) {
    EXPECT_EQ(lines[i], Line(64, "/vol1/Multimedia/f" + std::to_string(i)));
  }
}

TEST_F(EventProcessorTest, FetchActionWhileTheRealThreadRuns) {
  TwoShareQueues();
  EventProcessor processor(&source_);
  ASSERT_TRUE(processor.Start());
  for (int i = 0; i < 50; ++i) {
    source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia",
                           "/g" + std::to_string(i)));
    processor.DoAction(&EventProcessor::FetchAction, nullptr);
  }
  EXPECT_EQ(source_.Queued(), 0u);
  processor.Stop();
  // Every event was either written by a pass or still waits in the pending
  // list (dropped with the processor).
  EXPECT_EQ(ReadLines(media_).size() + processor.PendingCount(), 50u);
}

TEST_F(EventProcessorTest, PathsOfAnyBytesRoundTrip) {
  TwoShareQueues();
  const std::vector<std::string> names = {
      "/with blank", "/\"quoted\"", "/back\\slash", "/\xc3\xa9t\xc3\xa9",
      "/\xe9t\xe9", "/\xff\x80"};
  for (const auto& name : names) {
    source_.Push(MakeEvent(YULO_CREATE, "/vol1/Multimedia", name));
  }
  source_.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Multimedia", "/\xfe old", 8));
  source_.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Multimedia", "/n\xc3\xa9w", 8));
  EventProcessor processor(&source_);
  processor.RunOnePass();
  const auto lines = ReadLines(media_);
  ASSERT_EQ(lines.size(), names.size() + 1);
  for (size_t i = 0; i < names.size(); ++i) {
    const Json::Value parsed = ParseLine(lines[i]);
    ASSERT_TRUE(parsed.isObject()) << lines[i];
    EXPECT_EQ(DecodeQueuePath(parsed["path"].asString()),
              "/vol1/Multimedia" + names[i]);
  }
  const Json::Value move = ParseLine(lines.back());
  EXPECT_EQ(move["event"].asUInt(), 256u);
  EXPECT_EQ(DecodeQueuePath(move["path_old"].asString()),
            "/vol1/Multimedia/\xfe old");
  EXPECT_EQ(DecodeQueuePath(move["path"].asString()),
            "/vol1/Multimedia/n\xc3\xa9w");
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
