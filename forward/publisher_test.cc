#include "forward/publisher.h"

#include <gtest/gtest.h>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

TEST(PublisherTest, EventHeaderIsTheLinesEventNumber) {
  EXPECT_EQ(Publisher::EventOf(R"({"event":64,"is_dir":false,"path":"/v/a"})"),
            "64");
  EXPECT_EQ(
      Publisher::EventOf(R"({"event": 1024, "is_dir": false, "path": ""})"),
      "1024");
  EXPECT_EQ(Publisher::EventOf("not json"), "");
  EXPECT_EQ(Publisher::EventOf(R"({"path":"/v/a"})"), "");
  EXPECT_EQ(Publisher::EventOf(R"({"event":"64"})"), "");
  EXPECT_EQ(Publisher::EventOf("[64]"), "");
}

TEST(PublisherTest, MessageSizeCountsTheHeadersAsTheProtocolEncodesThem) {
  // "NATS/1.0\r\n" "Nats-Msg-Id: h:1\r\n" "\r\n" and 5 bytes of payload.
  EXPECT_EQ(Publisher::MessageBytes(5, {{"Nats-Msg-Id", "h:1"}}),
            10u + 11 + 2 + 3 + 2 + 2 + 5);
  EXPECT_EQ(Publisher::MessageBytes(0, {}), 12u);
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
