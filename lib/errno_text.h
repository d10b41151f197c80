// Small helpers shared by the library's sources and by the daemon's kernel
// notification layer (notify/), which links the library; not installed.
#ifndef YULOTIFYD_LIB_ERRNO_TEXT_H_
#define YULOTIFYD_LIB_ERRNO_TEXT_H_

#include <cstdint>
#include <string>

namespace YULO {
namespace YULOTIFYD {

// strerror(err), safe to call from any thread.
std::string ErrnoText(int err);

// Milliseconds on the monotonic clock.
int64_t MonotonicMillis();

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_LIB_ERRNO_TEXT_H_
