// The fixture of the YULotify unit tests: a scripted kernel behind a fake
// backend, and a fake mount environment with four mounted volumes.
//
// Thread-safety: test code; one fixture per test, used on its thread.
#ifndef YULOTIFYD_NOTIFY_YULOTIFY_TEST_FIXTURE_H_
#define YULOTIFYD_NOTIFY_YULOTIFY_TEST_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "lib/testing/log_capture.h"
#include "notify/testing/fake_backend.h"
#include "notify/yulotify.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

// The event mask the tests' YULotify objects are made with.
constexpr uint32_t kMask = 0x3ce;

class YULotifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_level_ = LOG_LEVEL.load();
    LOG_LEVEL = 3;
    kernel_ = std::make_shared<FakeKernel>();
    env_.AddDir("/", 1);
    env_.AddDir("/vol1", 2);
    env_.AddDir("/vol1/media", 2);
    env_.AddDir("/vol1/media2", 2);
    env_.AddDir("/vol1/photo", 2);
    env_.AddDir("/vol2", 3);
    env_.AddDir("/vol2/share", 3);
    env_.AddDir("/v", 4);
    env_.AddDir("/v/a", 4);
    env_.AddDir("/v/a/b", 4);
    env_.SetMountTable(
        "/dev/root / ext4 rw 0 0\n"
        "/dev/sdb1 /vol1 ext4 rw 0 0\n"
        "/dev/sdc1 /vol2 ext4 rw 0 0\n"
        "/dev/sdd1 /v ext4 rw 0 0\n");
    TakeLogLines();
  }
  void TearDown() override { LOG_LEVEL = saved_level_; }

  // A YULotify over the fixture's kernel and mount environment.
  std::unique_ptr<YULotify> Make(uint32_t mask = kMask) {
    return std::make_unique<YULotify>(
        mask, std::make_unique<FakeBackend>(kernel_), &env_);
  }

  // Adds `chunk` to what the kernel's reads return, after what is there.
  void Queue(const std::string& chunk) { kernel_->reads.push_back(chunk); }

  std::shared_ptr<FakeKernel> kernel_;
  FakeMountEnv env_;
  int32_t saved_level_ = 3;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_YULOTIFY_TEST_FIXTURE_H_
