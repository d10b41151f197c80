#include "log_repeat.h"

#include <algorithm>

namespace YULO {
namespace YULOTIFYD {

std::string LogRepeatLimiter::KindOf(std::string_view line) {
  std::string key;
  key.reserve(line.size());
  bool in_digits = false;
  for (const char c : line) {
    const bool digit = c >= '0' && c <= '9';
    if (digit && !in_digits) key += '#';
    if (!digit) key += c;
    in_digits = digit;
  }
  return key;
}

std::string LogRepeatLimiter::Summary(const Kind& kind) {
  return "left out " + std::to_string(kind.dropped) +
         " more lines like this one within " +
         std::to_string(kWindowMillis / 1000) + " seconds: " + kind.last;
}

bool LogRepeatLimiter::Admit(std::string_view line, int64_t now_ms,
                             std::vector<std::string>* summaries) {
  // Windows that ended owe their summary now, whatever kind this line is.
  for (Kind& kind : kinds_) {
    if (kind.dropped > 0 && now_ms - kind.window_ms >= kWindowMillis) {
      summaries->push_back(Summary(kind));
      kind.dropped = 0;
    }
  }
  const std::string key = KindOf(line);
  auto it = std::find_if(kinds_.begin(), kinds_.end(),
                         [&](const Kind& k) { return k.key == key; });
  if (it == kinds_.end()) {
    if (kinds_.size() < kKinds) {
      kinds_.emplace_back();
      it = kinds_.end() - 1;
    } else {
      it = std::min_element(kinds_.begin(), kinds_.end(),
                            [](const Kind& a, const Kind& b) {
                              return a.seen_ms < b.seen_ms;
                            });
      if (it->dropped > 0) summaries->push_back(Summary(*it));
      *it = Kind();
    }
    it->key = key;
    it->window_ms = now_ms;
  }
  Kind& kind = *it;
  kind.seen_ms = now_ms;
  if (now_ms - kind.window_ms >= kWindowMillis) {
    kind.window_ms = now_ms;
    kind.written = 0;
  }
  if (kind.written < kBurst) {
    ++kind.written;
    return true;
  }
  ++kind.dropped;
  kind.last.assign(line.data(), line.size());
  return false;
}

}  // namespace YULOTIFYD
}  // namespace YULO
