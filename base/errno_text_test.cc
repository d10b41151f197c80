#include "base/errno_text.h"

#include <errno.h>
#include <gtest/gtest.h>

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(ErrnoTextTest, MatchesStrerror) {
  EXPECT_EQ("No such file or directory", ErrnoText(ENOENT));
  EXPECT_EQ("Success", ErrnoText(0));
}

TEST(ErrnoTextTest, UnknownNumbersStillGiveText) {
  EXPECT_FALSE(ErrnoText(123456).empty());
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
