#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <utility>


namespace YULO {
namespace YULOTIFYD {
namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

TEST(UniqueFdTest, ClosesOnDestruction) {
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
  { UniqueFd read_end(fds[0]); }
  EXPECT_FALSE(IsOpen(fds[0]));
  ::close(fds[1]);
}

TEST(UniqueFdTest, MoveTransfersOwnership) {
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
  UniqueFd a(fds[0]);
  UniqueFd b(std::move(a));
  EXPECT_FALSE(a.Valid());
  EXPECT_EQ(fds[0], b.Get());
  UniqueFd c;
  c = std::move(b);
  EXPECT_EQ(fds[0], c.Get());
  EXPECT_TRUE(IsOpen(fds[0]));
  c = UniqueFd(fds[1]);  // closes the read end
  EXPECT_FALSE(IsOpen(fds[0]));
  EXPECT_TRUE(IsOpen(fds[1]));
}

TEST(UniqueFdTest, ReleaseKeepsItOpen) {
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
  int released;
  {
    UniqueFd a(fds[0]);
    released = a.Release();
    EXPECT_EQ(-1, a.Get());
  }
  EXPECT_TRUE(IsOpen(released));
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST(UniqueFdTest, ResetPreservesErrno) {
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
  UniqueFd a(fds[0]);
  errno = ENOENT;
  a.Reset(fds[1]);
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(IsOpen(fds[0]));
}

TEST(RetryOnEintrTest, RepeatsOnlyInterruptedCalls) {
  int calls = 0;
  const int r = RetryOnEintr([&] {
    if (++calls < 3) {
      errno = EINTR;
      return -1;
    }
    return 5;
  });
  EXPECT_EQ(5, r);
  EXPECT_EQ(3, calls);

  calls = 0;
  EXPECT_EQ(-1, RetryOnEintr([&] {
    ++calls;
    errno = EBADF;
    return -1;
  }));
  EXPECT_EQ(1, calls);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
