#include "forward/sink_line.h"

#include <gtest/gtest.h>

#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

TEST(SinkLineTest, HostMemberGoesAtTheEndAndKeepsTheRestByteForByte) {
  const std::string line =
      "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/a\\udcff\"}";
  EXPECT_EQ(WithHostMember(line, "nas-1"),
            "{\"event\":64,\"is_dir\":false,\"path\":\"/vol1/a\\udcff\","
            "\"host\":\"nas-1\"}");
  EXPECT_EQ(WithHostMember("{ }", "h"), "{ \"host\":\"h\"}");
}

TEST(SinkLineTest, InspectFindsTheRootAndAnExistingHost) {
  LineFacts f = InspectLine("{\"event\":64,\"path\":\"/vol1/Public/a\"}");
  EXPECT_TRUE(f.valid);
  EXPECT_FALSE(f.has_host);
  EXPECT_EQ(f.root, "/vol1");
  f = InspectLine("{\"event\":512,\"path\":\"/vol2\",\"host\":\"x\"}");
  EXPECT_TRUE(f.has_host);
  EXPECT_EQ(f.root, "/vol2");
  // Names a rescan line could not carry as they are: all of it.
  EXPECT_EQ(InspectLine("{\"path\":\"/v\\udcff/a\"}").root, "/");
  EXPECT_EQ(InspectLine("{\"path\":\"/a b/c\"}").root, "/");
  EXPECT_EQ(InspectLine("{\"path\":\"/../etc\"}").root, "/");
  EXPECT_EQ(InspectLine("{\"event\":1024,\"path\":\"\"}").root, "/");
}

TEST(SinkLineTest, OnlyOneObjectOnOneLineIsValid) {
  EXPECT_FALSE(InspectLine("").valid);
  EXPECT_FALSE(InspectLine("[1]").valid);
  EXPECT_FALSE(InspectLine("{\"a\":1}\n{\"b\":2}").valid);
  EXPECT_FALSE(InspectLine("{\"a\":1} ").valid);
  EXPECT_FALSE(InspectLine(std::string("{\"a\":\"\0\"}", 9)).valid);
  EXPECT_FALSE(InspectLine("not json").valid);
  EXPECT_TRUE(InspectLine("{}").valid);
}

TEST(SinkLineTest, HostNamesAreCleaned) {
  EXPECT_EQ(CleanHostName("nas-1.example_x"), "nas-1.example_x");
  EXPECT_EQ(CleanHostName("a\"b\\c d\n"), "a_b_c_d_");
  EXPECT_EQ(CleanHostName(std::string(300, 'h')).size(), 255u);
}

TEST(SinkLineTest, MarkerAndRescanLinesAreTheDaemons) {
  EXPECT_EQ(ResetMarkerLine(),
            "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}");
  EXPECT_EQ(RescanLine("/vol1", ""),
            "{\"event\":512,\"is_dir\":true,\"path\":\"/vol1\"}");
  EXPECT_EQ(RescanLine("/", "nas"),
            "{\"event\":512,\"is_dir\":true,\"path\":\"/\",\"host\":\"nas\"}");
  EXPECT_TRUE(IsResetMarker(ResetMarkerLine()));
  EXPECT_TRUE(IsResetMarker("{\"event\":1024.0}"));
  EXPECT_FALSE(IsResetMarker("{\"event\":\"1024\"}"));
  EXPECT_FALSE(IsResetMarker(RescanLine("/", "")));
}

TEST(SinkLineTest, ResetWhenPastTheResetSizeOrTheLineWouldPassTheMaximum) {
  const off_t reset = QueueConsumer::kQueueFileResetBytes;
  const off_t max = QueueConsumer::kMaxQueueFileBytes;
  EXPECT_FALSE(NeedsReset(0, 100));
  EXPECT_FALSE(NeedsReset(reset, 100));
  EXPECT_TRUE(NeedsReset(reset + 1, 1));
  EXPECT_FALSE(NeedsReset(reset, static_cast<size_t>(max - reset)));
  EXPECT_TRUE(NeedsReset(reset, static_cast<size_t>(max - reset) + 1));
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
