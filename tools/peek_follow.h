// PeekFollow: which of a queue file's lines `peek --follow` has not shown
// yet.
//
// The daemon only ever appends to a queue file, until a consumer takes its
// lines and so cuts it (or the daemon resets it). Each round of --follow
// peeks at the whole file again; the lines shown before are then still its
// first lines, and whatever follows them is new. When they are not (the
// file was cut, reset or replaced), the file is shown again from its start.
// A file emptied and refilled with the very lines shown before, within one
// round, looks unchanged: the lines carry no sequence number to tell.
//
// Value type; not thread-safe (one follower per thread).
#ifndef YULOTIFYD_TOOLS_PEEK_FOLLOW_H_
#define YULOTIFYD_TOOLS_PEEK_FOLLOW_H_

#include <cstddef>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

class PeekFollow {
 public:
  struct Step {
    size_t first_new = 0;    // lines[first_new...] are to be shown
    bool started_over = false;  // the lines shown before are gone
  };

  // Takes the complete lines a peek returned, in file order (an empty
  // vector for an empty or missing file), and says which to show; from then
  // on they count as shown.
  Step Next(const std::vector<std::string>& lines);

  // How many lines count as shown.
  size_t shown() const { return shown_.size(); }

 private:
  std::vector<std::string> shown_;
};

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_TOOLS_PEEK_FOLLOW_H_
