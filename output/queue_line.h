// Queue lines: the queue event code of a kernel event, and the one-line JSON
// text written for each event.
//
// A queue line is the single-line JsonCpp text of a small flat object
// ({"event":64,"is_dir":false,"path":"/vol1/Multimedia/a.jpg"}), keys in
// JsonCpp's order. Paths are Linux file names: any bytes but NUL, not
// necessarily UTF-8. JsonCpp turns every byte that is not part of valid UTF-8
// into U+FFFD, which would lose the name, so QueueLineText writes such bytes
// as the escape "\udcXX" (U+DC00 plus the byte, which is always 0x80 or
// more). This is the "surrogateescape" convention: a Python consumer gets the
// original bytes back with os.fsencode(json.loads(line)["path"]), a C++
// consumer parsing with JsonCpp with libyulotifyd's DecodeQueuePath
// (yulotifyd/queue_path.h). Strings that are valid UTF-8 come out exactly as
// JsonCpp writes them. docs/queue-files.md describes the format for
// consumers.
//
// Thread-safety: every function is reentrant and keeps no state. Nothing
// here logs.
#ifndef YULOTIFYD_OUTPUT_QUEUE_LINE_H_
#define YULOTIFYD_OUTPUT_QUEUE_LINE_H_

#include <json/json.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace YULO {
namespace YULOTIFYD {

// The kernel event bits YULO_ACCESS to YULO_OPEN and the queue event codes
// 1 to 32 have the same values: they pass through either way unchanged.
constexpr uint32_t kPassThroughEventBits = 0x3F;

// The queue event code for a kernel event mask (NotifyEventType bits):
// kPassThroughEventBits pass through; YULO_MOVE_TO or YULO_CREATE add 64;
// YULO_RESCAN adds 512; YULO_MOVE_FROM or YULO_DELETE add 128. Every other
// bit (YULO_Q_OVERFLOW, YULO_ISDIR, unnamed bits) is dropped, so 256 and
// 1024 never come out of here.
uint32_t QueueEventCode(uint32_t mask);

// True when `text` is well-formed UTF-8: shortest forms only, no UTF-16
// surrogates (U+D800..U+DFFF), nothing above U+10FFFF.
bool IsValidUtf8(const std::string& text);

// `text` as a quoted JSON string: valid UTF-8 exactly as JsonCpp 1.9.5's
// StreamWriter writes it (ASCII only, non-ASCII as lower-case \uXXXX,
// surrogate pairs above U+FFFF), every other byte B as \udcXX with XX = B.
std::string QuoteQueueString(const std::string& text);
// The same, appended to `out`.
void AppendQueueString(std::string& out, std::string_view text);

// Appends the text of the line {"event": code, "is_dir": is_dir, "path":
// path} to `out`, without its line feed; with a non-empty `quoted_old_path`
// (a QuoteQueueString result) the move line that also has "path_old". The
// bytes are those QueueLineText gives for the same object.
void AppendQueueLine(std::string& out, uint32_t code, std::string_view path,
                     bool is_dir, std::string_view quoted_old_path = {});

// The text of one queue line, without its line feed. REQUIRES: `object` is a
// JSON object whose keys are plain ASCII. Equals toString(object) when every
// string member is valid UTF-8; otherwise the invalid members are written
// with QuoteQueueString, keys and member order unchanged. Strings nested
// deeper than the top level are left to JsonCpp (queue lines have none).
std::string QueueLineText(const Json::Value& object);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_OUTPUT_QUEUE_LINE_H_
