#include "notify/dir_path_cache.h"

#include <gtest/gtest.h>

namespace YULO {
namespace YULOTIFYD {
namespace {

const uint8_t kHandleA[] = {1, 2, 3, 4, 5, 6, 7, 8};
const uint8_t kHandleB[] = {1, 2, 3, 4, 5, 6, 7, 9};

TEST(DirPathCacheTest, FindsWhatWasInserted) {
  DirPathCache cache;
  EXPECT_EQ(nullptr, cache.Find(1, 1, kHandleA, sizeof(kHandleA)));
  cache.Insert(1, 1, kHandleA, sizeof(kHandleA), "/vol1/a");
  const std::string* path = cache.Find(1, 1, kHandleA, sizeof(kHandleA));
  ASSERT_NE(nullptr, path);
  EXPECT_EQ("/vol1/a", *path);
}

TEST(DirPathCacheTest, KeyIsFsidTypeAndBytes) {
  DirPathCache cache;
  cache.Insert(1, 1, kHandleA, sizeof(kHandleA), "/vol1/a");
  EXPECT_EQ(nullptr, cache.Find(2, 1, kHandleA, sizeof(kHandleA)));
  EXPECT_EQ(nullptr, cache.Find(1, 2, kHandleA, sizeof(kHandleA)));
  EXPECT_EQ(nullptr, cache.Find(1, 1, kHandleB, sizeof(kHandleB)));
  EXPECT_EQ(nullptr, cache.Find(1, 1, kHandleA, 4));
}

TEST(DirPathCacheTest, InsertReplaces) {
  DirPathCache cache;
  cache.Insert(1, 1, kHandleA, sizeof(kHandleA), "/old");
  cache.Insert(1, 1, kHandleA, sizeof(kHandleA), "/new");
  EXPECT_EQ(1u, cache.size());
  EXPECT_EQ("/new", *cache.Find(1, 1, kHandleA, sizeof(kHandleA)));
}

TEST(DirPathCacheTest, ClearForgetsAll) {
  DirPathCache cache;
  cache.Insert(1, 1, kHandleA, sizeof(kHandleA), "/a");
  cache.Insert(1, 1, kHandleB, sizeof(kHandleB), "/b");
  cache.Clear();
  EXPECT_EQ(0u, cache.size());
  EXPECT_EQ(nullptr, cache.Find(1, 1, kHandleA, sizeof(kHandleA)));
}

TEST(DirPathCacheTest, EmptiesItselfAtItsBound) {
  DirPathCache cache(2);
  cache.Insert(1, 1, kHandleA, sizeof(kHandleA), "/a");
  cache.Insert(1, 1, kHandleB, sizeof(kHandleB), "/b");
  EXPECT_EQ(0u, cache.overflows());
  cache.Insert(2, 1, kHandleA, sizeof(kHandleA), "/c");
  EXPECT_EQ(1u, cache.overflows());
  EXPECT_EQ(1u, cache.size());
  EXPECT_EQ("/c", *cache.Find(2, 1, kHandleA, sizeof(kHandleA)));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
