#include "yulotifyd/queue_path.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(QueuePathTest, DecodeLeavesOrdinaryTextAlone) {
  EXPECT_EQ(DecodeQueuePath("/vol1/\xc3\xa9/\xf0\x9f\x98\x80"),
            "/vol1/\xc3\xa9/\xf0\x9f\x98\x80");
  EXPECT_EQ(DecodeQueuePath("\xed\xb3\xbf\xed\xb2\x80"), "\xff\x80");
  // U+DC00..U+DC7F are not escapes of ours: kept.
  EXPECT_EQ(DecodeQueuePath("\xed\xb0\x80"), "\xed\xb0\x80");
}

TEST(QueuePathTest, IncompleteOrForeignTriplesAreKept) {
  EXPECT_EQ(DecodeQueuePath("a\xed\xb2"), "a\xed\xb2");
  EXPECT_EQ(DecodeQueuePath("\xed\xb2"), "\xed\xb2");
  EXPECT_EQ(DecodeQueuePath("\xed\xb2\x7f"), "\xed\xb2\x7f");
  EXPECT_EQ(DecodeQueuePath("\xed\xb4\x80"), "\xed\xb4\x80");
  EXPECT_EQ(DecodeQueuePath(""), "");
}

// Every escape the daemon can write, "\udc80" to "\udcff", parsed by
// JsonCpp as a consumer would, comes back as its single byte.
TEST(QueuePathTest, EveryEscapeParsedByJsonCppGivesItsByte) {
  for (unsigned byte = 0x80; byte <= 0xFF; ++byte) {
    char escape[8];
    std::snprintf(escape, sizeof(escape), "\\udc%02x", byte);
    const std::string line = std::string("{\"path\":\"/vol1/caf") + escape +
                             "/x\",\"event\":64}";
    Json::Value parsed;
    ASSERT_TRUE(fromString(line, parsed)) << line;
    EXPECT_EQ(DecodeQueuePath(parsed["path"].asString()),
              std::string("/vol1/caf") + static_cast<char>(byte) + "/x")
        << line;
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
