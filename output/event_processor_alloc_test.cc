// The event processor when memory runs out: every allocation of a pass is
// made to fail in turn, through this program's own global operator new,
// and every event must still end in its line or in a rescan line covering
// it.
//
// The replacement operator new is this program's alone (a test executable
// of its own), and fails only while a test has armed it on its own thread.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"
#include "lib/testing/log_capture.h"
#include "output/event_processor.h"
#include "output/queue_line.h"
#include "output/testing/fake_event_source.h"
#include "yulotifyd/log.h"

namespace {

// Allocations left before the one that fails; negative: none fails.
thread_local long t_allocations_left = -1;

}  // namespace

void* operator new(std::size_t size) {
  if (t_allocations_left >= 0 && t_allocations_left-- == 0) {
    throw std::bad_alloc();
  }
  void* p = std::malloc(size != 0 ? size : 1);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

// GCC takes the free() of a replacement operator delete for a mismatch;
// here it is the match of the malloc() above.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeEventSource;
using testing::MakeEvent;
using testing::MakeQueue;
using testing::ParseLine;
using testing::ReadLines;
using testing::TakeLogLines;
using testing::TempDir;

// Fails the allocation numbered `n` (from 0) of the scope on this thread.
class FailAllocation {
 public:
  explicit FailAllocation(long n) { t_allocations_left = n; }
  ~FailAllocation() { t_allocations_left = -1; }
  // Whether the failure was reached.
  static bool Fired() { return t_allocations_left < 0; }
};

class EventProcessorAllocTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Thread::InitThreadLock());
    LOG_LEVEL = 3;
    TakeLogLines();
  }
  void TearDown() override { Thread::DestroyThreadLock(); }
};

// What a queue file says about the changes: the paths it has lines for, by
// event code, and the paths it was told to rescan.
struct Seen {
  std::multiset<std::string> created, deleted, moved_to, rescans;
};

Seen Read(const std::string& file) {
  Seen seen;
  for (const std::string& text : ReadLines(file)) {
    const Json::Value line = ParseLine(text);
    const uint32_t event = line["event"].asUInt();
    const std::string path = line["path"].asString();
    if (event == QUEUE_EVENT_CREATE) seen.created.insert(path);
    if (event == QUEUE_EVENT_DELETE) seen.deleted.insert(path);
    if (event == QUEUE_EVENT_MOVE) seen.moved_to.insert(path);
    if (event == QUEUE_EVENT_RESCAN) seen.rescans.insert(path);
  }
  return seen;
}

TEST_F(EventProcessorAllocTest, EveryEventEndsInALineOrARescanWhateverFails) {
  constexpr int kCreates = 6;
  bool completed_unharmed = false;
  int failures_seen = 0;
  for (long n = 0; !completed_unharmed; ++n) {
    ASSERT_LT(n, 100000) << "the pass never completed";
    TempDir dir;
    const std::string docs = dir.File("docs.queue");
    const std::string all = dir.File("all.queue");
    FakeEventSource source("/vol1");
    source.SetQueues(
        {MakeQueue(docs, "/vol1/Docs"), MakeQueue(all, "/vol1/Docs"),
         MakeQueue(all, "/vol1/Media")});
    for (int i = 0; i < kCreates; ++i) {
      source.Push(MakeEvent(YULO_CREATE, "/vol1/Docs",
                            "/f" + std::to_string(i)));
    }
    source.Push(MakeEvent(YULO_MOVE_FROM, "/vol1/Docs", "/old", 7));
    source.Push(MakeEvent(YULO_DELETE, "/vol1/Media", "/gone"));
    source.Push(MakeEvent(YULO_MOVE_TO, "/vol1/Docs", "/new", 7));
    EventProcessor processor(&source);
    {
      FailAllocation fail(n);
      processor.RunOnePass();
      completed_unharmed = !FailAllocation::Fired();
    }
    if (!completed_unharmed) ++failures_seen;
    // The next pass, with memory enough, finishes what is left.
    processor.RunOnePass();
    EXPECT_EQ(0u, processor.PendingCount()) << "allocation " << n;
    EXPECT_EQ(0u, source.Queued()) << "allocation " << n;

    for (const std::string& file : {docs, all}) {
      const Seen seen = Read(file);
      const bool docs_rescanned = seen.rescans.count("/vol1/Docs") != 0;
      for (int i = 0; i < kCreates; ++i) {
        const std::string path = "/vol1/Docs/f" + std::to_string(i);
        EXPECT_TRUE(seen.created.count(path) != 0 || docs_rescanned)
            << file << ", allocation " << n << ": " << path << " lost";
      }
      EXPECT_TRUE(seen.moved_to.count("/vol1/Docs/new") != 0 || docs_rescanned)
          << file << ", allocation " << n << ": the move lost";
      if (file == all) {
        EXPECT_TRUE(seen.deleted.count("/vol1/Media/gone") != 0 ||
                    seen.rescans.count("/vol1/Media") != 0)
            << file << ", allocation " << n << ": the deletion lost";
      }
      // Never more than one line per change, rescans aside.
      EXPECT_LE(seen.created.size(), static_cast<size_t>(kCreates)) << n;
    }
  }
  // The failures really happened inside the pass, at many places.
  EXPECT_GT(failures_seen, 10);
}

TEST_F(EventProcessorAllocTest, ARecoveryRescanThatFailedIsMadeByTheNextPass) {
  bool completed_unharmed = false;
  for (long n = 0; !completed_unharmed; ++n) {
    ASSERT_LT(n, 100000);
    TempDir dir;
    const std::string docs = dir.File("docs.queue");
    FakeEventSource source("/vol1");
    source.SetQueues({MakeQueue(docs, "/vol1/Docs")});
    source.SetRecovery(true);
    EventProcessor processor(&source);
    {
      FailAllocation fail(n);
      processor.SendRecoveryRescan();
      completed_unharmed = !FailAllocation::Fired();
    }
    processor.RunOnePass();
    EXPECT_EQ(1u, Read(docs).rescans.count("/vol1"))
        << "allocation " << n;
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
