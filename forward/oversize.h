// What takes the place of a queue line the server can never store (larger
// than its maximum payload or the stream's maximum message size).
//
// The line cannot be cut (a cut line would be wrong) and cannot wait (it
// would never go), so it becomes a rescan line, {"event": 512, "is_dir":
// true, "path": DIR}, published in its place under its message id. DIR is
// the directory that held the change: the parent of the line's "path", or
// for a move the deepest directory holding both "path" and "path_old". The
// forwarder does not know the shares of the queue, so it cannot name the
// share; a rescan of the directory covers the change all the same. When
// even that line does not fit, the directory's parents are tried in turn,
// up to "/". A line that is not a JSON object with a "path" becomes a
// rescan of "/".
//
// Thread-safety: plain functions, no shared state.
#ifndef YULOTIFYD_FORWARD_OVERSIZE_H_
#define YULOTIFYD_FORWARD_OVERSIZE_H_

#include <cstddef>
#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

// The rescan line for `line`, no longer than `max_bytes` (the payload's
// share of the message size the server takes). False when not even the
// rescan of "/" is that short.
bool RescanLineFor(const std::string& line, size_t max_bytes, std::string* out);

// The directory a rescan for `line` names (before any shortening): "/" when
// the line has no usable "path".
std::string RescanDirFor(const std::string& line);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_OVERSIZE_H_
