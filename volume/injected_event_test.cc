// injected_event_test.cc: what an injected event becomes on the queue.
#include "volume/injected_event.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

// Real files in a scratch directory: injected events are checked against
// the file system.
class InjectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = dir_.path();
    share_a_ = dir_.MakeDir("a");
    share_b_ = dir_.MakeDir("b");
    dir_.MakeDir("a/dir");
    dir_.Write("a/file", "");
    dir_.Write("b/file", "");
    dir_.Write("outside", "");
    shares_ = {share_a_, share_b_};
  }
  bool Build(uint32_t type, const std::string& path,
             const std::string& old = "") {
    records_.clear();
    return BuildInjected(type, path, old, shares_, root_, &cookie_, &records_);
  }

  testing::TempDir dir_{"inject"};
  std::string root_, share_a_, share_b_;
  std::vector<std::string> shares_;
  std::vector<NotifyEvent> records_;
  uint64_t cookie_ = 0;
};

TEST(InjectedEventTest, ConvertTypeMapsQueueCodesToKernelBits) {
  EXPECT_EQ(ConvertType(64, false), static_cast<uint32_t>(YULO_CREATE));
  EXPECT_EQ(ConvertType(128, false), static_cast<uint32_t>(YULO_DELETE));
  EXPECT_EQ(ConvertType(512, true),
            static_cast<uint32_t>(YULO_RESCAN | YULO_ISDIR));
  EXPECT_EQ(ConvertType(0x3f, false), 0x3fu);
  // 256 (a rename) has no single-record form.
  EXPECT_EQ(ConvertType(256, false), 0u);
}

TEST_F(InjectTest, CreateInAShareIsOneRecordBelowTheShare) {
  ASSERT_TRUE(Build(64, share_a_ + "/file"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_CREATE));
  EXPECT_EQ(records_[0].watch, share_a_);
  EXPECT_EQ(records_[0].path, "/file");
  EXPECT_EQ(records_[0].root, -1);
  EXPECT_EQ(records_[0].cookie, 0u);
}

TEST_F(InjectTest, DirectoryGetsTheDirectoryFlag) {
  ASSERT_TRUE(Build(128, share_a_ + "/dir"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_DELETE | YULO_ISDIR));
}

TEST_F(InjectTest, MissingPathOrNoShareGivesNothing) {
  EXPECT_FALSE(Build(64, share_a_ + "/missing"));
  EXPECT_FALSE(Build(64, root_ + "/outside"));
  EXPECT_TRUE(records_.empty());
}

TEST_F(InjectTest, RenameWithinOneShareIsAPairWithOneCookie) {
  ASSERT_TRUE(Build(256, share_a_ + "/file", share_a_ + "/old"));
  ASSERT_EQ(records_.size(), 2u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_MOVE_FROM));
  EXPECT_EQ(records_[0].path, "/old");
  EXPECT_EQ(records_[1].mask, static_cast<uint32_t>(YULO_MOVE_TO));
  EXPECT_EQ(records_[1].path, "/file");
  EXPECT_EQ(records_[0].cookie, 1u);
  EXPECT_EQ(records_[1].cookie, 1u);
  ASSERT_TRUE(Build(256, share_a_ + "/file", share_a_ + "/older"));
  EXPECT_EQ(records_[0].cookie, 2u);  // one more per rename
}

TEST_F(InjectTest, RenameAcrossSharesIsCreateThenDelete) {
  ASSERT_TRUE(Build(256, share_b_ + "/file", share_a_ + "/gone"));
  ASSERT_EQ(records_.size(), 2u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_CREATE));
  EXPECT_EQ(records_[0].watch, share_b_);
  EXPECT_EQ(records_[1].mask, static_cast<uint32_t>(YULO_DELETE));
  EXPECT_EQ(records_[1].watch, share_a_);
  EXPECT_EQ(records_[1].path, "/gone");
  EXPECT_EQ(cookie_, 0u);
}

TEST_F(InjectTest, RenameIntoOrOutOfAShareIsOneRecord) {
  ASSERT_TRUE(Build(256, share_a_ + "/file", root_ + "/elsewhere"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_CREATE));
  ASSERT_TRUE(Build(256, root_ + "/outside", share_a_ + "/was"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_DELETE));
  EXPECT_EQ(records_[0].path, "/was");
}

TEST_F(InjectTest, ShareRootIsAPlainPrefixInListOrder) {
  // No "/" boundary: a share /x/a claims /x/ab/... when listed first.
  const std::string ab = dir_.MakeDir("ab");
  dir_.Write("ab/f", "");
  ASSERT_TRUE(Build(64, ab + "/f"));
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].watch, share_a_);
  EXPECT_EQ(records_[0].path, "b/f");
}

TEST_F(InjectTest, CookiesSkipZeroAndKeepTheTopBitClear) {
  // The counter about to wrap into the top bit: the next cookie would be
  // 0x80000000, which keeps only 0 below the top bit, so 1 is taken.
  cookie_ = 0x7fffffffu;
  ASSERT_TRUE(Build(256, share_a_ + "/file", share_a_ + "/old"));
  ASSERT_EQ(records_.size(), 2u);
  EXPECT_EQ(records_[0].cookie, 1u);
  EXPECT_EQ(records_[1].cookie, 1u);
  EXPECT_EQ(cookie_, 0x80000001u);
}

TEST_F(InjectTest, PassThroughCodesKeepTheirBits) {
  ASSERT_TRUE(Build(2, share_a_ + "/file"));  // modify
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].mask, static_cast<uint32_t>(YULO_MODIFY));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
