#include "daemon/instance_lock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/file_io.h"
#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(InstanceLockTest, SecondTakerIsRefusedAndToldTheHolder) {
  testing::TempDir dir;
  const std::string path = dir.File("yulotifyd.lock");
  InstanceLock first;
  pid_t holder = -1;
  ASSERT_EQ(InstanceLock::Result::kTaken, first.Take(path, &holder));
  EXPECT_TRUE(first.held());
  // flock belongs to the open file: a second open in this same process
  // meets the lock as another process would.
  InstanceLock second;
  EXPECT_EQ(InstanceLock::Result::kHeld, second.Take(path, &holder));
  EXPECT_FALSE(second.held());
  EXPECT_EQ(getpid(), holder);
}

TEST(InstanceLockTest, ReleasedWithItsHolder) {
  testing::TempDir dir;
  const std::string path = dir.File("yulotifyd.lock");
  pid_t holder = 0;
  {
    InstanceLock first;
    ASSERT_EQ(InstanceLock::Result::kTaken, first.Take(path, &holder));
  }
  InstanceLock again;
  EXPECT_EQ(InstanceLock::Result::kTaken, again.Take(path, &holder));
}

TEST(InstanceLockTest, NeverThroughASymbolicLink) {
  testing::TempDir dir;
  const std::string target = dir.File("elsewhere");
  ASSERT_TRUE(WriteWholeFile(target, "keep", 0644));
  const std::string path = dir.File("yulotifyd.lock");
  ASSERT_EQ(0, symlink(target.c_str(), path.c_str()));
  InstanceLock lock;
  pid_t holder = 0;
  EXPECT_EQ(InstanceLock::Result::kFailed, lock.Take(path, &holder));
  std::string text;
  ASSERT_EQ(0, ReadWholeFile(target, 64, &text));
  EXPECT_EQ("keep", text);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
