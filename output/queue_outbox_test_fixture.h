// The fixture of the QueueOutbox tests: one outbox for a queue file in a
// scratch directory, appended through scripted file operations, and the
// queue lines the tests expect.
//
// Thread-safety: test code; one fixture per test, used on its thread.
#ifndef YULOTIFYD_OUTPUT_QUEUE_OUTBOX_TEST_FIXTURE_H_
#define YULOTIFYD_OUTPUT_QUEUE_OUTBOX_TEST_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"
#include "lib/testing/log_capture.h"
#include "output/queue_line.h"
#include "output/queue_outbox.h"
#include "output/testing/fake_event_source.h"
#include "output/testing/scripted_file_ops.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// A try of the exclusive lock, as the outbox takes it.
constexpr int kTryLock = LOCK_EX | LOCK_NB;

// The queue line of a create of /vol1/M/a.
const char kLine64[] = "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/M/a\"}";

// The queue line of event `code` on `path`.
inline std::string Line(uint32_t code, const std::string& path,
                        bool is_dir = false) {
  std::string text;
  AppendQueueLine(text, code, path, is_dir);
  return text;
}

// Each test starts with an empty scratch directory, `file_` in it for the
// queue file (not created yet), one queue naming it and an empty outbox.
class QueueFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    file_ = dir_.File("queue");
    LOG_LEVEL = 3;
    TakeLogLines();
    queues_ = {MakeQueue(file_, "/vol1/M")};
    outbox_ = std::make_unique<QueueOutbox>(file_);
  }
  void TearDown() override { LOG_LEVEL = 3; }

  // Adds one line to the outbox and appends what it holds.
  bool Send(const std::string& path, uint32_t code = 64, bool is_dir = false) {
    Add(path, code, is_dir);
    return Flush();
  }
  void Add(const std::string& path, uint32_t code = 64, bool is_dir = false) {
    outbox_->AddLine(Line(code, path, is_dir));
  }
  void AddMove(const std::string& old_path, const std::string& new_path) {
    const std::string quoted = QuoteQueueString(old_path);
    std::string text;
    AppendQueueLine(text, QUEUE_EVENT_MOVE, new_path, false, quoted);
    outbox_->AddLine(text, quoted);
  }
  bool Flush() { return outbox_->AppendToQueue(queues_, ops_); }

  // A file of `size` bytes that starts with `head` (zeros after it).
  void MakeFile(const std::string& head, off_t size) {
    WriteFileText(file_, head);
    ASSERT_EQ(truncate(file_.c_str(), size), 0);
  }

  TempDir dir_;
  std::string file_;
  std::vector<MonitorQueue> queues_;
  ScriptedFileOps ops_;
  std::unique_ptr<QueueOutbox> outbox_;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_QUEUE_OUTBOX_TEST_FIXTURE_H_
