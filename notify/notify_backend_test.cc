#include "notify/notify_backend.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "notify/testing/fake_backend.h"
#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeBackend;
using testing::FakeKernel;

std::shared_ptr<FakeKernel> Kernel(int fd, int err) {
  auto kernel = std::make_shared<FakeKernel>();
  kernel->init_fd = fd;
  kernel->init_errno = err;
  return kernel;
}

TEST(OpenFirstBackendTest, FallsBackOnlyWhenTheCallIsMissing) {
  auto appliance = Kernel(-1, ENOSYS);
  auto fallback = Kernel(9, 0);
  std::vector<std::unique_ptr<NotifyBackend>> candidates;
  candidates.push_back(std::make_unique<FakeBackend>(appliance, "first"));
  candidates.push_back(std::make_unique<FakeBackend>(fallback, "second"));
  std::unique_ptr<NotifyBackend> chosen;
  EXPECT_EQ(9, OpenFirstBackend(std::move(candidates), &chosen));
  ASSERT_TRUE(chosen);
  EXPECT_STREQ("second", chosen->Name());
  EXPECT_TRUE(appliance->destroyed);
  EXPECT_FALSE(fallback->destroyed);
}

TEST(OpenFirstBackendTest, FirstThatWorksIsKept) {
  auto appliance = Kernel(5, 0);
  auto fallback = Kernel(9, 0);
  std::vector<std::unique_ptr<NotifyBackend>> candidates;
  candidates.push_back(std::make_unique<FakeBackend>(appliance, "first"));
  candidates.push_back(std::make_unique<FakeBackend>(fallback, "second"));
  std::unique_ptr<NotifyBackend> chosen;
  EXPECT_EQ(5, OpenFirstBackend(std::move(candidates), &chosen));
  EXPECT_STREQ("first", chosen->Name());
  EXPECT_TRUE(fallback->calls.empty());  // never initialised
}

TEST(OpenFirstBackendTest, OtherFailuresStopTheSearch) {
  auto appliance = Kernel(-1, EPERM);
  auto fallback = Kernel(9, 0);
  std::vector<std::unique_ptr<NotifyBackend>> candidates;
  candidates.push_back(std::make_unique<FakeBackend>(appliance, "first"));
  candidates.push_back(std::make_unique<FakeBackend>(fallback, "second"));
  std::unique_ptr<NotifyBackend> chosen;
  EXPECT_EQ(-1, OpenFirstBackend(std::move(candidates), &chosen));
  EXPECT_EQ(EPERM, errno);
  EXPECT_STREQ("first", chosen->Name());
  EXPECT_TRUE(fallback->calls.empty());
}

TEST(OpenFirstBackendTest, NoneWorksKeepsTheLastWithItsError) {
  std::vector<std::unique_ptr<NotifyBackend>> candidates;
  candidates.push_back(
      std::make_unique<FakeBackend>(Kernel(-1, ENOSYS), "first"));
  candidates.push_back(
      std::make_unique<FakeBackend>(Kernel(-1, EACCES), "second"));
  std::unique_ptr<NotifyBackend> chosen;
  EXPECT_EQ(-1, OpenFirstBackend(std::move(candidates), &chosen));
  EXPECT_EQ(EACCES, errno);
  EXPECT_STREQ("second", chosen->Name());
}

TEST(OpenFirstBackendTest, NoCandidates) {
  std::unique_ptr<NotifyBackend> chosen;
  EXPECT_EQ(-1, OpenFirstBackend({}, &chosen));
  EXPECT_EQ(ENOSYS, errno);
  EXPECT_FALSE(chosen);
}

class WaitFdReadableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
    read_end_.Reset(fds[0]);
    write_end_.Reset(fds[1]);
  }
  UniqueFd read_end_;
  UniqueFd write_end_;
};

TEST_F(WaitFdReadableTest, TimesOutWhenNothingIsThere) {
  bool readable = true;
  EXPECT_EQ(0, WaitFdReadable(read_end_.Get(), {0, 0}, &readable));
  EXPECT_FALSE(readable);
  EXPECT_EQ(0, WaitFdReadable(read_end_.Get(), {0, 1000}, &readable));
}

TEST_F(WaitFdReadableTest, ReportsData) {
  ASSERT_EQ(1, ::write(write_end_.Get(), "x", 1));
  bool readable = false;
  EXPECT_EQ(1, WaitFdReadable(read_end_.Get(), {5, 0}, &readable));
  EXPECT_TRUE(readable);
}

TEST_F(WaitFdReadableTest, HangUpCountsAsReadable) {
  write_end_.Reset();
  bool readable = false;
  EXPECT_EQ(1, WaitFdReadable(read_end_.Get(), {5, 0}, &readable));
  EXPECT_TRUE(readable);
}

TEST_F(WaitFdReadableTest, BadDescriptors) {
  bool readable = true;
  EXPECT_EQ(-1, WaitFdReadable(-1, {0, 0}, &readable));
  EXPECT_EQ(EBADF, errno);
  EXPECT_FALSE(readable);
  const int closed = read_end_.Get();
  read_end_.Reset();
  EXPECT_EQ(-1, WaitFdReadable(closed, {0, 0}, &readable));
  EXPECT_EQ(EBADF, errno);
}

TEST_F(WaitFdReadableTest, NegativeTimeoutIsInvalid) {
  bool readable = true;
  EXPECT_EQ(-1, WaitFdReadable(read_end_.Get(), {-1, 0}, &readable));
  EXPECT_EQ(EINVAL, errno);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
