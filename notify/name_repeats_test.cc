#include "notify/name_repeats.h"

#include <gtest/gtest.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace {

uint64_t Key(const std::string& handle, const std::string& name,
             uint64_t fsid = 7) {
  return NameKey(fsid, 1, reinterpret_cast<const uint8_t*>(handle.data()),
                 handle.size(), name);
}

TEST(NameKeyTest, EveryPartCounts) {
  const uint64_t base = Key("H1", "a");
  EXPECT_NE(0u, base);
  EXPECT_EQ(base, Key("H1", "a"));
  EXPECT_NE(base, Key("H2", "a"));
  EXPECT_NE(base, Key("H1", "b"));
  EXPECT_NE(base, Key("H1", "a", 8));
  // The boundary between handle and name is part of the key.
  EXPECT_NE(Key("H1", "ab"), Key("H1a", "b"));
}

TEST(NameRepeatsTest, SecondTouchIsARepeat) {
  NameRepeats repeats;
  EXPECT_TRUE(repeats.empty());
  EXPECT_FALSE(repeats.Touch(Key("H", "a")));
  EXPECT_FALSE(repeats.Touch(Key("H", "b")));
  EXPECT_TRUE(repeats.Touch(Key("H", "a")));
  EXPECT_TRUE(repeats.Touch(Key("H", "a")));
  EXPECT_EQ(2u, repeats.size());
  repeats.Clear();
  EXPECT_TRUE(repeats.empty());
  EXPECT_FALSE(repeats.Touch(Key("H", "a")));
}

TEST(NameRepeatsTest, BoundedToMaxNames) {
  NameRepeats repeats;
  for (size_t i = 0; i < NameRepeats::kMaxNames; ++i) {
    EXPECT_FALSE(repeats.Touch(Key("H", std::to_string(i))));
  }
  EXPECT_TRUE(repeats.Full());
  // Known names are still found; new ones are not kept.
  EXPECT_TRUE(repeats.Touch(Key("H", "17")));
  EXPECT_FALSE(repeats.Touch(Key("H", "new")));
  EXPECT_FALSE(repeats.Touch(Key("H", "new")));
  EXPECT_EQ(NameRepeats::kMaxNames, repeats.size());
  repeats.Clear();
  EXPECT_FALSE(repeats.Full());
  EXPECT_FALSE(repeats.Touch(Key("H", "17")));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
