// The monotonic clock, in the units the project counts time outs and
// intervals in.
//
// Thread-safety: any thread.
#ifndef YULOTIFYD_BASE_CLOCK_H_
#define YULOTIFYD_BASE_CLOCK_H_

#include <stdint.h>

namespace YULO {
namespace YULOTIFYD {

// Milliseconds on CLOCK_MONOTONIC (since an unspecified start).
int64_t MonotonicMillis();

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_CLOCK_H_
