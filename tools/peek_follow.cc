#include "tools/peek_follow.h"

#include <algorithm>

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

PeekFollow::Step PeekFollow::Next(const std::vector<std::string>& lines) {
  Step step;
  const bool kept = lines.size() >= shown_.size() &&
                    std::equal(shown_.begin(), shown_.end(), lines.begin());
  if (kept) {
    step.first_new = shown_.size();
  } else {
    step.started_over = true;
    shown_.clear();
  }
  shown_.insert(shown_.end(), lines.begin() + static_cast<long>(step.first_new),
                lines.end());
  return step;
}

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
