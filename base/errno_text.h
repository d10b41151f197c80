// errno's text, safe to call from any thread (strerror is not).
#ifndef YULOTIFYD_BASE_ERRNO_TEXT_H_
#define YULOTIFYD_BASE_ERRNO_TEXT_H_

#include <string>

namespace YULO {
namespace YULOTIFYD {

// strerror(err) without strerror's shared buffer.
std::string ErrnoText(int err);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_ERRNO_TEXT_H_
