// Text from outside (file names, subscription texts, command arguments)
// made safe to print on one line of a log or a terminal.
//
// A file name may hold any byte but "/" and NUL: a line feed in it would
// forge a second log line, an escape sequence would drive the terminal of
// whoever reads the output. EscapeText writes every byte that is not
// printable text as "\xNN" (two lower-case hex digits), as the journal's
// tools do: the C0 controls (0x00-0x1f), DEL (0x7f), the C1 controls in
// their UTF-8 form (U+0080-U+009F, which some terminals obey like ESC
// sequences) and every byte that is not part of a well-formed UTF-8
// sequence. Well-formed UTF-8 text passes unchanged, and so do bytes listed
// in `keep` (a table's own line feeds, say).
//
// Thread-safety: any thread; pure functions.
#ifndef YULOTIFYD_BASE_TEXT_ESCAPE_H_
#define YULOTIFYD_BASE_TEXT_ESCAPE_H_

#include <string>
#include <string_view>

namespace YULO {
namespace YULOTIFYD {

// `text` with its non-printable bytes written as "\xNN"; the bytes in
// `keep` are left as they are.
std::string EscapeText(std::string_view text, std::string_view keep = {});

// Whether EscapeText(text, keep) would change anything. Cheap: callers on a
// hot path test first and copy only when needed.
bool NeedsEscape(std::string_view text, std::string_view keep = {});

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_TEXT_ESCAPE_H_
