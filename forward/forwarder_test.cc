#include "forward/forwarder.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"
#include "forward/batch_publisher.h"
#include "forward/forward_clock.h"
#include "forward/spool.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

using Lines = std::vector<std::string>;
using StepResult = Forwarder::StepResult;
using StreamResult = BatchPublisher::StreamResult;

constexpr std::chrono::milliseconds kNoLimit = std::chrono::hours(1);

// Time moves only when the forwarder waits, by what it waits.
class FakeClock : public ForwardClock {
 public:
  int64_t NowMillis() override { return now_; }
  bool StopRequested() override { return stop_; }
  bool WaitForStop(int64_t ms) override {
    waits_.push_back(ms);
    if (stop_in_wait_) {
      stop_ = true;
    } else {
      now_ += ms;
    }
    return stop_;
  }

  void RequestStop() { stop_ = true; }
  // The stop comes while the forwarder waits next.
  void RequestStopInNextWait() { stop_in_wait_ = true; }
  // Every wait so far; clears them.
  std::vector<int64_t> TakeWaits() {
    std::vector<int64_t> waits;
    waits.swap(waits_);
    return waits;
  }

 private:
  int64_t now_ = 0;
  bool stop_ = false;
  bool stop_in_wait_ = false;
  std::vector<int64_t> waits_;
};

// A server as the forwarder sees it: connected or not, a stream that is
// there or not, and acknowledgements of as many lines as the test says.
class FakePublisher : public BatchPublisher {
 public:
  explicit FakePublisher(ForwardClock* clock) : clock_(clock) {}

  bool KeepUp(std::string* error) override {
    ++keep_up_calls_;
    if (!usable_) *error = "bad server options";
    return usable_;
  }

  bool connected() const override { return connected_; }

  StreamResult EnsureStream(std::string* error) override {
    if (stream_ != StreamResult::kReady) *error = "no stream for the subject";
    return stream_;
  }

  size_t PublishBatch(const std::vector<SpooledLine>& lines, int64_t,
                      std::string* error) override {
    std::vector<uint64_t> seqs;
    for (const SpooledLine& line : lines) seqs.push_back(line.seq);
    batches_.push_back(seqs);
    batch_times_.push_back(clock_->NowMillis());
    const size_t acked = std::min(lines.size(), accept_);
    for (size_t i = 0; i < acked; ++i) stored_.push_back(lines[i].text);
    if (accept_ != kAll) accept_ -= acked;
    if (acked < lines.size()) {
      *error = "refused by the server";
      if (drop_on_refusal_) connected_ = false;
    }
    return acked;
  }

  void set_connected(bool connected) { connected_ = connected; }
  // The connection's options are not usable: KeepUp fails.
  void set_unusable() { usable_ = false; }
  int keep_up_calls() const { return keep_up_calls_; }
  void set_stream(StreamResult stream) { stream_ = stream; }
  // Acknowledges `lines` more lines, then refuses every other one.
  void AcceptOnly(size_t lines) { accept_ = lines; }
  void AcceptAll() { accept_ = kAll; }
  // The connection is lost at the first line not acknowledged.
  void DropOnRefusal() { drop_on_refusal_ = true; }

  // The sequence numbers of each batch, in the order they came.
  const std::vector<std::vector<uint64_t>>& batches() const {
    return batches_;
  }
  // When each batch came.
  const std::vector<int64_t>& batch_times() const { return batch_times_; }
  // The acknowledged lines, in order.
  const Lines& stored() const { return stored_; }

 private:
  static constexpr size_t kAll = std::numeric_limits<size_t>::max();

  ForwardClock* const clock_;
  bool connected_ = true;
  StreamResult stream_ = StreamResult::kReady;
  size_t accept_ = kAll;
  bool drop_on_refusal_ = false;
  bool usable_ = true;
  int keep_up_calls_ = 0;
  std::vector<std::vector<uint64_t>> batches_;
  std::vector<int64_t> batch_times_;
  Lines stored_;
};

class ForwarderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scratch_.MakeDir("queues");
    std::string error;
    ASSERT_TRUE(spool_.Open(scratch_.File("spool"), queue_, &error)) << error;
    limits_.interval_ms = 1000;
    limits_.spool_max_bytes = 1 << 20;
    testing::TakeCapturedLines();
  }

  Forwarder& MakeForwarder() {
    forwarder_ = std::make_unique<Forwarder>(consumer_, &spool_, &publisher_,
                                             &clock_, limits_);
    return *forwarder_;
  }

  void AddToQueue(const Lines& lines) {
    std::string text = scratch_.Read(kQueueName);
    for (const std::string& line : lines) text += line + "\n";
    scratch_.Write(kQueueName, text);
  }

  std::string QueueText() const { return scratch_.Read(kQueueName); }

  // How many log lines so far hold `text`, and that they all have
  // `priority`.
  size_t Logged(const std::string& text, int priority) {
    for (testing::CapturedLine& line : testing::TakeCapturedLines()) {
      log_.push_back(std::move(line));
    }
    size_t count = 0;
    for (const testing::CapturedLine& line : log_) {
      if (line.text.find(text) == std::string::npos) continue;
      EXPECT_EQ(line.priority, priority) << line.text;
      ++count;
    }
    return count;
  }

  static Lines Numbered(const std::string& stem, int count) {
    Lines lines;
    for (int i = 0; i < count; ++i) lines.push_back(stem + std::to_string(i));
    return lines;
  }

  static constexpr const char kQueueName[] = "queues/idx.queue";

  testing::TempDir scratch_{"forwarder"};
  const std::string queue_ = scratch_.File(kQueueName);
  const QueueConsumer consumer_{queue_};
  Spool spool_;
  FakeClock clock_;
  FakePublisher publisher_{&clock_};
  Forwarder::Limits limits_;
  std::unique_ptr<Forwarder> forwarder_;
  std::vector<testing::CapturedLine> log_;
};

TEST_F(ForwarderTest, QueueLinesReachTheServerInOrderThroughTheSpool) {
  AddToQueue({"a", "b", "c"});
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(QueueText(), "");
  EXPECT_EQ(publisher_.stored(), (Lines{"a", "b", "c"}));
  EXPECT_EQ(spool_.unacked_lines(), 0u);
  EXPECT_EQ(spool_.size_bytes(), 0u) << "a spool wholly acknowledged is cut";
  // Lines moved: the next round comes at once.
  EXPECT_TRUE(clock_.TakeWaits().empty());

  // Nothing left: the round waits for the next look at the queue file, no
  // longer than it is allowed to.
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  ASSERT_EQ(f.Step(std::chrono::milliseconds(250)), StepResult::kGoOn);
  EXPECT_EQ(clock_.TakeWaits(), (std::vector<int64_t>{1000, 250}));
  EXPECT_EQ(publisher_.batches().size(), 1u);

  AddToQueue({"d"});
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.stored(), (Lines{"a", "b", "c", "d"}));
  EXPECT_EQ(publisher_.batches().back(), (std::vector<uint64_t>{3}));
}

TEST_F(ForwarderTest, ABatchHoldsAtMostItsLinesAndTheRestFollowAtOnce) {
  limits_.batch_lines = 2;
  AddToQueue(Numbered("x", 5));
  Forwarder& f = MakeForwarder();
  for (int i = 0; i < 2; ++i) ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_TRUE(clock_.TakeWaits().empty()) << "lines were left: no wait";
  // The last one; nothing is left to do after it.
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(clock_.TakeWaits(), (std::vector<int64_t>{1000}));
  EXPECT_EQ(publisher_.batches(),
            (std::vector<std::vector<uint64_t>>{{0, 1}, {2, 3}, {4}}));
  EXPECT_EQ(publisher_.stored(), Numbered("x", 5));
}

TEST_F(ForwarderTest, LinesWaitInTheSpoolWhileNoServerIsConnected) {
  publisher_.set_connected(false);
  AddToQueue({"a", "b"});
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(QueueText(), "");
  EXPECT_EQ(spool_.unacked_lines(), 2u);
  EXPECT_TRUE(publisher_.batches().empty());
  EXPECT_EQ(clock_.TakeWaits(), (std::vector<int64_t>{1000}));

  publisher_.set_connected(true);
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.stored(), (Lines{"a", "b"}));
  EXPECT_EQ(spool_.unacked_lines(), 0u);
}

TEST_F(ForwarderTest, ARefusingServerGetsTheBatchAgainAfterAGrowingBackoff) {
  publisher_.AcceptOnly(0);
  AddToQueue({"a", "b"});
  Forwarder& f = MakeForwarder();
  for (int i = 0; i < 40 && publisher_.batches().size() < 9; ++i) {
    ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  }
  ASSERT_EQ(publisher_.batches().size(), 9u);
  std::vector<int64_t> gaps;
  const std::vector<int64_t>& times = publisher_.batch_times();
  for (size_t i = 1; i < times.size(); ++i) {
    gaps.push_back(times[i] - times[i - 1]);
  }
  EXPECT_EQ(gaps, (std::vector<int64_t>{100, 200, 400, 800, 1600, 3200,
                                        5000, 5000}));
  // Every try sends the whole batch again, from its first line.
  for (const std::vector<uint64_t>& batch : publisher_.batches()) {
    EXPECT_EQ(batch, (std::vector<uint64_t>{0, 1}));
  }
  EXPECT_EQ(f.backoff_ms(), 5000);
  EXPECT_EQ(spool_.unacked_lines(), 2u);
  EXPECT_EQ(Logged("cannot publish: refused by the server", LOG_WARNING),
            1u);

  // The first batch that goes through ends the back-off.
  publisher_.AcceptAll();
  const size_t tries = publisher_.batches().size();
  for (int i = 0; i < 5 && publisher_.batches().size() == tries; ++i) {
    ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  }
  EXPECT_EQ(publisher_.stored(), (Lines{"a", "b"}));
  EXPECT_EQ(f.backoff_ms(), 0);
  EXPECT_EQ(Logged("publishing again", LOG_NOTICE), 1u);

  // A new refusal starts again from the shortest back-off.
  publisher_.AcceptOnly(0);
  AddToQueue({"c"});
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(f.backoff_ms(), Forwarder::kFirstBackoffMs);
  EXPECT_EQ(Logged("cannot publish", LOG_WARNING), 2u);
}

TEST_F(ForwarderTest, WhileBackingOffTheQueueFileIsStillTaken) {
  publisher_.AcceptOnly(0);
  AddToQueue({"a"});
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  ASSERT_EQ(publisher_.batches().size(), 1u);
  // Waits for the end of the back-off, not for the whole interval.
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(clock_.TakeWaits(), (std::vector<int64_t>{100}));
  AddToQueue({"b"});
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(QueueText(), "");
  EXPECT_EQ(spool_.unacked_lines(), 2u);
}

TEST_F(ForwarderTest, AServerLostMidBatchGetsTheRestFromTheFirstUnackedLine) {
  publisher_.AcceptOnly(2);
  publisher_.DropOnRefusal();
  AddToQueue(Numbered("l", 5));
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.stored(), Numbered("l", 2));
  EXPECT_EQ(spool_.acked_seq(), 2u) << "what was stored leaves the spool";
  EXPECT_EQ(spool_.unacked_lines(), 3u);

  // Away: nothing is sent, the round waits for the queue file's interval.
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.batches().size(), 1u);
  EXPECT_EQ(clock_.TakeWaits(), (std::vector<int64_t>{1000}));

  publisher_.set_connected(true);
  publisher_.AcceptAll();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  ASSERT_EQ(publisher_.batches().size(), 2u);
  EXPECT_EQ(publisher_.batches()[1], (std::vector<uint64_t>{2, 3, 4}));
  EXPECT_EQ(publisher_.stored(), Numbered("l", 5)) << "each line once";
  EXPECT_EQ(spool_.unacked_lines(), 0u);
  EXPECT_EQ(spool_.size_bytes(), 0u);
}

TEST_F(ForwarderTest, AFullSpoolLeavesTheLinesInTheQueueFile) {
  limits_.spool_max_bytes = 10;
  publisher_.set_connected(false);
  AddToQueue({"line-one", "line-two"});
  Forwarder& f = MakeForwarder();
  // Below its bound the spool takes everything there is, past the bound.
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(spool_.size_bytes(), 18u);
  EXPECT_EQ(QueueText(), "");

  AddToQueue({"line-three"});
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(QueueText(), "line-three\n");
  EXPECT_EQ(spool_.unacked_lines(), 2u);
  EXPECT_EQ(Logged("spool full (18 bytes): not taking lines", LOG_WARNING),
            1u);

  // Acknowledged lines make room; the queue file is taken from again.
  publisher_.set_connected(true);
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.stored(), (Lines{"line-one", "line-two"}));
  EXPECT_EQ(QueueText(), "line-three\n") << "full when the round began";
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(QueueText(), "");
  EXPECT_EQ(publisher_.stored(),
            (Lines{"line-one", "line-two", "line-three"}));
  EXPECT_EQ(Logged("spool below its bound again: taking lines", LOG_NOTICE),
            1u);
  EXPECT_EQ(Logged("spool full", LOG_WARNING), 1u);
}

TEST_F(ForwarderTest, AStopBeforeARoundTakesNothing) {
  AddToQueue({"a"});
  Forwarder& f = MakeForwarder();
  clock_.RequestStop();
  EXPECT_EQ(f.Step(kNoLimit), StepResult::kStopped);
  EXPECT_EQ(QueueText(), "a\n");
  EXPECT_TRUE(publisher_.batches().empty());
  EXPECT_EQ(Logged("stopping: 0 lines left in the spool", LOG_NOTICE), 1u);
}

TEST_F(ForwarderTest, AStopDuringTheWaitEndsTheLoopWithTheSpoolKept) {
  publisher_.set_connected(false);
  AddToQueue({"a", "b"});
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  clock_.RequestStopInNextWait();
  EXPECT_EQ(f.Step(kNoLimit), StepResult::kStopped);
  EXPECT_EQ(spool_.unacked_lines(), 2u);
  EXPECT_EQ(Logged("stopping: 2 lines left in the spool", LOG_NOTICE), 1u);
}

TEST_F(ForwarderTest, AStreamTheServerRefusesToCreateEndsTheLoop) {
  publisher_.set_stream(StreamResult::kFailed);
  AddToQueue({"a"});
  Forwarder& f = MakeForwarder();
  EXPECT_EQ(f.Step(kNoLimit), StepResult::kStreamRefused);
  EXPECT_TRUE(publisher_.batches().empty());
  EXPECT_EQ(spool_.unacked_lines(), 1u) << "the line stays in the spool";
  EXPECT_EQ(Logged("no stream for the subject", LOG_ERR), 1u);
}

TEST_F(ForwarderTest, EveryRoundKeepsTheConnectionUp) {
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.keep_up_calls(), 2);
}

TEST_F(ForwarderTest, ConnectionOptionsTheLibraryRefusesEndTheLoop) {
  publisher_.set_unusable();
  AddToQueue({"a"});
  Forwarder& f = MakeForwarder();
  EXPECT_EQ(f.Step(kNoLimit), StepResult::kConnectFailed);
  EXPECT_TRUE(publisher_.batches().empty());
  EXPECT_EQ(QueueText(), "a\n") << "nothing taken from the queue file";
  EXPECT_EQ(Logged("bad server options", LOG_ERR), 1u);
}

TEST_F(ForwarderTest, AStreamNotKnownYetIsAskedForAgainAfterABackoff) {
  publisher_.set_stream(StreamResult::kRetry);
  AddToQueue({"a"});
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(f.backoff_ms(), Forwarder::kFirstBackoffMs);
  EXPECT_TRUE(publisher_.batches().empty());
  EXPECT_EQ(Logged("cannot publish: no stream for the subject", LOG_WARNING),
            1u);
  publisher_.set_stream(StreamResult::kReady);
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);  // waits out the back-off
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.stored(), (Lines{"a"}));
}

TEST_F(ForwarderTest, AQueueFileThatCannotBeTakenIsLoggedOnceUntilItCan) {
  // A link in place of the queue file is refused, and left alone.
  scratch_.Write("elsewhere", "secret\n");
  ASSERT_EQ(symlink(scratch_.File("elsewhere").c_str(), queue_.c_str()), 0);
  Forwarder& f = MakeForwarder();
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(scratch_.Read("elsewhere"), "secret\n");
  EXPECT_EQ(spool_.next_seq(), 0u);
  EXPECT_EQ(Logged(queue_, LOG_ERR), 1u);

  ASSERT_EQ(unlink(queue_.c_str()), 0);
  AddToQueue({"a"});
  ASSERT_EQ(f.Step(kNoLimit), StepResult::kGoOn);
  EXPECT_EQ(publisher_.stored(), (Lines{"a"}));
  EXPECT_EQ(Logged("taking lines again", LOG_NOTICE), 1u);
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
