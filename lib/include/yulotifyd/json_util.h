// Small JSON helpers on top of JsonCpp, used for control commands, the
// run-status file, monitor-queue files and queue lines.
//
// Thread-safety: every function is reentrant; none keeps state.
#ifndef YULOTIFYD_JSON_UTIL_H_
#define YULOTIFYD_JSON_UTIL_H_

#include <json/json.h>

#include <string>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

// Parses `text` (a complete JSON document, nothing but blanks after it).
// Returns false and leaves `out` null on any syntax error.
YULOTIFYD_EXPORT bool fromString(const std::string& text, Json::Value& out);

// Reads the whole file at `path` and parses it like fromString. Returns false
// when the file cannot be read or does not parse.
YULOTIFYD_EXPORT bool fromFile(const std::string& path, Json::Value& out);

// Writes `value` to `path`, replacing the file as a whole: the text goes to a
// temporary file beside it that is then renamed over `path`, so a reader never
// sees half a file. The file gets mode `mode` whatever the umask.
YULOTIFYD_EXPORT bool toFile(const Json::Value& value, const std::string& path,
                             unsigned mode = 0644);

// Single-line text of `value`: no indentation, no line feed anywhere (line
// feeds inside strings are escaped). Keys come out in JsonCpp's order.
YULOTIFYD_EXPORT std::string toString(const Json::Value& value);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_JSON_UTIL_H_
