// Fields of the kernel's mount tables (/proc/mounts, /proc/self/mountinfo).
//
// The kernel separates a line's fields with blanks and writes a blank, tab,
// newline or backslash inside a field as "\" and three octal digits
// ("/media/my\040disk").
//
// Thread-safety: any thread; pure functions.
#ifndef YULOTIFYD_BASE_MOUNT_FIELD_H_
#define YULOTIFYD_BASE_MOUNT_FIELD_H_

#include <string>
#include <string_view>

namespace YULO {
namespace YULOTIFYD {

// The field numbered `index` (from 0) of a mount-table line, split at blanks
// and tabs; empty when the line has fewer fields.
std::string_view MountTableField(std::string_view line, int index);

// What DecodeMountField does with a "\" that does not start an escape.
enum class BadEscape {
  // Ends the field: the rest is dropped. Escapes above \377 keep their low
  // eight bits. The kernel layer's mount-point lookup compares fields this
  // way, and its results depend on it.
  kCut,
  // Is copied as it stands, and so are escapes above \377.
  kKeep,
};

// `field` with every "\ooo" (three octal digits) turned into that byte.
std::string DecodeMountField(std::string_view field, BadEscape bad);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_MOUNT_FIELD_H_
