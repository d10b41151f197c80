// Paths of queue lines, as a C++ consumer parsing them with JsonCpp gets
// them back.
//
// A queue line's "path" (and "path_old") is a Linux file name: any bytes but
// NUL, not necessarily UTF-8. The daemon writes every byte that is not part
// of valid UTF-8 as the JSON escape "\udcXX", the code point U+DC00 plus the
// byte (always 0x80 or more); docs/queue-files.md describes the format.
// JsonCpp decodes such an escape into the three bytes ED B2 xx or ED B3 xx.
//
// Thread-safety: reentrant, no state. Nothing here logs.
#ifndef YULOTIFYD_QUEUE_PATH_H_
#define YULOTIFYD_QUEUE_PATH_H_

#include <string>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

// The file's original name from the string JsonCpp parsed out of a queue
// line's "path" or "path_old": each triple ED, B2 or B3, 80..BF (the escapes
// \udc80 to \udcff) becomes the single byte 0x80..0xFF; everything else is
// kept as it is, so names that are valid UTF-8 come back unchanged.
YULOTIFYD_EXPORT std::string DecodeQueuePath(const std::string& parsed);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_QUEUE_PATH_H_
