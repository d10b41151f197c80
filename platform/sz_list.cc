// sz_list.cc: YULO_SZ_LIST, a growable list of C strings.
//
// Plain malloc/realloc/free throughout: lists cross the C interface and
// callers free them with YULOSzListFree, possibly from C code.
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "yulo_platform.h"

namespace {

// YULOSzListAlloc takes a size in bytes of text; a share or volume name
// averages well under this, so the hint rarely undershoots.
constexpr int kAverageItemBytes = 32;
constexpr int kMinCapacity = 4;
// Never preallocate more than this from a hint, however large the hint.
constexpr int kMaxInitialCapacity = 64 * 1024;

// Makes room for one more item; false when out of memory.
bool Reserve(PYULO_SZ_LIST list) {
  if (list->count < list->capacity && list->items != nullptr) return true;
  int capacity = list->capacity;
  if (capacity == INT_MAX) return false;
  capacity = capacity < kMinCapacity  ? kMinCapacity
             : capacity > INT_MAX / 2 ? INT_MAX
                                      : capacity * 2;
  if (static_cast<size_t>(capacity) > SIZE_MAX / sizeof(char*)) return false;
  void* items =
      realloc(list->items, static_cast<size_t>(capacity) * sizeof(char*));
  if (items == nullptr) return false;
  list->items = static_cast<char**>(items);
  list->capacity = capacity;
  return true;
}

}  // namespace

extern "C" PYULO_SZ_LIST YULOSzListAlloc(int size) {
  int capacity = size > 0 ? size / kAverageItemBytes : 0;
  if (capacity < kMinCapacity) capacity = kMinCapacity;
  if (capacity > kMaxInitialCapacity) capacity = kMaxInitialCapacity;
  auto* list = static_cast<PYULO_SZ_LIST>(calloc(1, sizeof(YULO_SZ_LIST)));
  if (list == nullptr) return nullptr;
  list->items =
      static_cast<char**>(calloc(static_cast<size_t>(capacity), sizeof(char*)));
  if (list->items == nullptr) {
    free(list);
    return nullptr;
  }
  list->capacity = capacity;
  return list;
}

extern "C" const char* YULOSzListGet(PYULO_SZ_LIST list, int index) {
  if (list == nullptr || index < 0 || index >= list->count) return nullptr;
  return list->items[index];
}

extern "C" int YULOSzListAdd(PYULO_SZ_LIST* list, const char* text) {
  if (list == nullptr || text == nullptr) return -1;
  if (*list == nullptr) {
    *list = YULOSzListAlloc(0);
    if (*list == nullptr) return -1;
  }
  PYULO_SZ_LIST l = *list;
  if (l->count < 0 || l->count > l->capacity) return -1;  // not our list
  if (!Reserve(l)) return -1;
  char* copy = strdup(text);
  if (copy == nullptr) return -1;
  l->items[l->count++] = copy;
  return 0;
}

extern "C" int YULOSzListCount(PYULO_SZ_LIST list) {
  return list == nullptr ? 0 : list->count;
}

extern "C" void YULOSzListFree(PYULO_SZ_LIST list) {
  if (list == nullptr) return;
  for (int i = 0; i < list->count; ++i) free(list->items[i]);
  free(list->items);
  free(list);
}
