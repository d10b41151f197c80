#include "base/clock.h"

#include <time.h>

namespace YULO {
namespace YULOTIFYD {

int64_t MonotonicMillis() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace YULOTIFYD
}  // namespace YULO
