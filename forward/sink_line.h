// The lines yulotify-sink writes into a central queue file: the forwarded
// lines themselves (optionally with the appliance's host name added), and
// the reset marker and rescan lines it writes in their place when the file
// passes its size limit.
//
// A forwarded line is a queue line of an appliance: one JSON object on one
// line. The host member is added as text, at the end of the object, so the
// line's other bytes (paths written as "\udcXX" escapes included) stay
// exactly as the appliance's daemon wrote them. Consumers that ignore
// members they do not know keep working.
//
// Thread-safety: plain functions, no shared state.
#ifndef YULOTIFYD_FORWARD_SINK_LINE_H_
#define YULOTIFYD_FORWARD_SINK_LINE_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

// The name of the member that carries the appliance's host name.
constexpr const char kHostMember[] = "host";

// What the sink learns of one forwarded line.
struct LineFacts {
  // A JSON object on one line (no line feed, no NUL): a queue line the
  // sink may write as it is.
  bool valid = false;
  // It has a member named kHostMember already.
  bool has_host = false;
  // The top directory its "path" lies in ("/vol1" for "/vol1/a/b"), the
  // part of an appliance a rescan line names; "/" when the path has no
  // such component or one that is not plain printable ASCII.
  std::string root = "/";
};

LineFacts InspectLine(const std::string& line);

// A host name as a member value: every byte but letters, digits, '.', '-'
// and '_' becomes '_', and at most 255 bytes are kept.
std::string CleanHostName(const std::string& host);

// `line` (a valid line) with ,"host":"HOST" added before its closing
// brace. REQUIRES: `host` is a CleanHostName result.
std::string WithHostMember(const std::string& line, const std::string& host);

// The marker that starts a reset queue file: the daemon's own.
std::string ResetMarkerLine();

// {"event":512,"is_dir":true,"path":ROOT}, with the host member when
// `host` is not empty. REQUIRES: `root` is a LineFacts::root.
std::string RescanLine(const std::string& root, const std::string& host);

// Whether `line` is a reset marker: an object whose "event" is 1024.
bool IsResetMarker(const std::string& line);

// Whether a line of `line_bytes` bytes (its line feed included) must not
// go into a queue file of `file_bytes` bytes, which is then reset instead:
// the file is already past the reset size, or the line would take it past
// the largest size consumers accept.
bool NeedsReset(off_t file_bytes, size_t line_bytes);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_SINK_LINE_H_
