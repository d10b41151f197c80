#include "daemon/clock.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

class SteadyClock : public MonotonicClock {
 public:
  std::chrono::steady_clock::time_point Now() const override {
    return std::chrono::steady_clock::now();
  }
};

}  // namespace

const MonotonicClock& SystemClock() {
  static const SteadyClock* const clock = new SteadyClock;
  return *clock;
}

}  // namespace YULOTIFYD
}  // namespace YULO
