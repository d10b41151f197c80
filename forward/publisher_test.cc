#include "forward/publisher.h"

#include <gtest/gtest.h>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

TEST(PublisherTest, EventHeaderIsTheLinesEventNumber) {
  EXPECT_EQ(Publisher::EventOf(R"({"event":64,"is_dir":false,"path":"/v/a"})"), "64");
  EXPECT_EQ(Publisher::EventOf(R"({"event": 1024, "is_dir": false, "path": ""})"), "1024");
  EXPECT_EQ(Publisher::EventOf("not json"), "");
  EXPECT_EQ(Publisher::EventOf(R"({"path":"/v/a"})"), "");
  EXPECT_EQ(Publisher::EventOf(R"({"event":"64"})"), "");
  EXPECT_EQ(Publisher::EventOf("[64]"), "");
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
