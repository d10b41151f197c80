// LogRepeatLimiter: keeps a line that repeats from flooding the log.
//
// Lines are grouped by their text with every run of digits taken as one
// (so "Refused command from uid=65534, pid=4321" and the same with another
// pid are one kind). Of each kind, at most kBurst lines are written in a
// window of kWindowMillis that starts with the first of them; the rest of
// the window's lines of that kind are counted, not written, and once the
// window has passed one summary line says how many were left out. At most
// kKinds kinds are followed at once; the kind seen least recently makes
// room for a new one (its summary, if it owes one, comes out then).
//
// Not installed; log.cc keeps one for the process and its unit test drives
// one with made-up times.
//
// Thread-safety: none; log.cc serialises the calls.
#ifndef YULOTIFYD_LIB_LOG_REPEAT_H_
#define YULOTIFYD_LIB_LOG_REPEAT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

class LogRepeatLimiter {
 public:
  static constexpr int kBurst = 100;
  static constexpr int64_t kWindowMillis = 10000;
  static constexpr size_t kKinds = 64;

  // Whether `line` (without its "<source>:<line> " prefix) is to be
  // written at `now_ms` (monotonic milliseconds). Summaries of windows
  // that ended by now are appended to `summaries`, to be written before
  // the line.
  bool Admit(std::string_view line, int64_t now_ms,
             std::vector<std::string>* summaries);

  // What is grouped together: `line` with each run of digits as "#".
  static std::string KindOf(std::string_view line);

 private:
  struct Kind {
    std::string key;
    std::string last;       // the last line of the kind that was left out
    int64_t window_ms = 0;  // when the current window began
    int64_t seen_ms = 0;    // when a line of the kind last came
    int written = 0;        // in the current window
    uint64_t dropped = 0;   // in the current window
  };

  static std::string Summary(const Kind& kind);

  std::vector<Kind> kinds_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_LIB_LOG_REPEAT_H_
