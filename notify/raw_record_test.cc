#include "notify/raw_record.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(RawRecordTest, SizeIsHeaderNameAndNul) {
  EXPECT_EQ(12u, kRawRecordHeaderSize);
  EXPECT_EQ(12u + 5u + 1u, RawRecordSize("/v/ab"));
  EXPECT_EQ(13u, RawRecordSize(""));
}

TEST(RawRecordTest, WritesTheKernelLayout) {
  std::vector<uint8_t> buf(64, 0xee);
  ASSERT_EQ(17u, WriteRawRecord(buf.data(), buf.size(), 0x40000100, 9, "/v/a"));
  uint32_t mask, cookie, len;
  std::memcpy(&mask, &buf[0], 4);
  std::memcpy(&cookie, &buf[4], 4);
  std::memcpy(&len, &buf[8], 4);
  EXPECT_EQ(0x40000100u, mask);
  EXPECT_EQ(9u, cookie);
  EXPECT_EQ(5u, len);
  EXPECT_EQ(0, std::memcmp(&buf[12], "/v/a", 5));  // with its NUL
  EXPECT_EQ(0xee, buf[17]);                        // nothing beyond
}

TEST(RawRecordTest, OverlaysAnyOffset) {
  std::vector<uint8_t> buf(64, 0);
  const size_t first = WriteRawRecord(buf.data(), buf.size(), 1, 0, "/x");
  ASSERT_EQ(15u, first);  // the next record starts at an odd offset
  ASSERT_EQ(
      16u, WriteRawRecord(buf.data() + first, buf.size() - first, 2, 3, "/yz"));
  const auto& second =
      *reinterpret_cast<const RawNotifyRecord*>(buf.data() + first);
  EXPECT_EQ(2u, second.mask);
  EXPECT_EQ(3u, second.cookie);
  EXPECT_EQ(4u, second.len);
  EXPECT_STREQ("/yz", second.name());
  EXPECT_EQ(16u, second.size());
}

TEST(RawRecordTest, RefusesWhenItDoesNotFit) {
  std::vector<uint8_t> buf(17, 0xee);
  EXPECT_EQ(0u, WriteRawRecord(buf.data(), buf.size(), 1, 0, "/abcd"));
  for (uint8_t b : buf) EXPECT_EQ(0xee, b);
  EXPECT_EQ(17u, WriteRawRecord(buf.data(), buf.size(), 1, 0, "/abc"));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
