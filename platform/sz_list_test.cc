// sz_list_test.cc: the YULO_SZ_LIST C functions.
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include <string>

#include "yulo_platform.h"

namespace {

TEST(SzListTest, NewListIsEmpty) {
  PYULO_SZ_LIST list = YULOSzListAlloc(256);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(YULOSzListCount(list), 0);
  EXPECT_EQ(YULOSzListGet(list, 0), nullptr);
  YULOSzListFree(list);
}

TEST(SzListTest, AddKeepsOrderAndCopiesText) {
  PYULO_SZ_LIST list = YULOSzListAlloc(64);
  char text[16];
  strcpy(text, "first");
  ASSERT_EQ(YULOSzListAdd(&list, text), 0);
  strcpy(text, "second");
  ASSERT_EQ(YULOSzListAdd(&list, text), 0);
  strcpy(text, "changed");
  ASSERT_EQ(YULOSzListCount(list), 2);
  EXPECT_STREQ(YULOSzListGet(list, 0), "first");
  EXPECT_STREQ(YULOSzListGet(list, 1), "second");
  EXPECT_EQ(list->count, 2);
  YULOSzListFree(list);
}

TEST(SzListTest, GetOutOfRange) {
  PYULO_SZ_LIST list = YULOSzListAlloc(0);
  ASSERT_EQ(YULOSzListAdd(&list, "only"), 0);
  EXPECT_EQ(YULOSzListGet(list, -1), nullptr);
  EXPECT_EQ(YULOSzListGet(list, 1), nullptr);
  EXPECT_EQ(YULOSzListGet(nullptr, 0), nullptr);
  EXPECT_STREQ(YULOSzListGet(list, 0), "only");
  YULOSzListFree(list);
}

TEST(SzListTest, GrowsFarPastItsInitialSize) {
  PYULO_SZ_LIST list = YULOSzListAlloc(1);
  ASSERT_NE(list, nullptr);
  const int initial_capacity = list->capacity;
  const int n = 5000;
  for (int i = 0; i < n; ++i) {
    ASSERT_EQ(YULOSzListAdd(&list, ("item" + std::to_string(i)).c_str()), 0);
  }
  ASSERT_EQ(YULOSzListCount(list), n);
  EXPECT_GT(list->capacity, initial_capacity);
  for (int i = 0; i < n; ++i) {
    ASSERT_STREQ(YULOSzListGet(list, i), ("item" + std::to_string(i)).c_str());
  }
  YULOSzListFree(list);
}

TEST(SzListTest, AddToNullListAllocatesOne) {
  PYULO_SZ_LIST list = nullptr;
  ASSERT_EQ(YULOSzListAdd(&list, "a"), 0);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(YULOSzListCount(list), 1);
  EXPECT_STREQ(YULOSzListGet(list, 0), "a");
  YULOSzListFree(list);
}

TEST(SzListTest, AddRejectsNullArguments) {
  PYULO_SZ_LIST list = YULOSzListAlloc(0);
  EXPECT_LT(YULOSzListAdd(nullptr, "a"), 0);
  EXPECT_LT(YULOSzListAdd(&list, nullptr), 0);
  EXPECT_EQ(YULOSzListCount(list), 0);
  YULOSzListFree(list);
}

TEST(SzListTest, EmptyStringIsAnElement) {
  PYULO_SZ_LIST list = YULOSzListAlloc(0);
  ASSERT_EQ(YULOSzListAdd(&list, ""), 0);
  EXPECT_EQ(YULOSzListCount(list), 1);
  EXPECT_STREQ(YULOSzListGet(list, 0), "");
  YULOSzListFree(list);
}

TEST(SzListTest, NullListIsHarmless) {
  EXPECT_EQ(YULOSzListCount(nullptr), 0);
  YULOSzListFree(nullptr);
}

TEST(SzListTest, SizeHintDoesNotPreallocateWithoutBound) {
  PYULO_SZ_LIST big = YULOSzListAlloc(INT_MAX);
  ASSERT_NE(big, nullptr);
  EXPECT_LE(big->capacity, 64 * 1024);
  EXPECT_EQ(YULOSzListCount(big), 0);
  YULOSzListFree(big);

  PYULO_SZ_LIST negative = YULOSzListAlloc(-5);
  ASSERT_NE(negative, nullptr);
  EXPECT_EQ(YULOSzListAdd(&negative, "x"), 0);
  EXPECT_EQ(YULOSzListCount(negative), 1);
  YULOSzListFree(negative);
}

}  // namespace
