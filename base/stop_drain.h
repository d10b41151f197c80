// StopDrain: the stop-and-drain handshake of a worker thread.
//
// A worker asked to stop "with a drain" finishes its loop as on any stop,
// then does one last bounded piece of work (write what it holds, read what
// the kernel still has) before its thread ends, and reports whether that
// work got done before the deadline. The worker makes its StopDrain with
// that last step; the controlling thread calls Request and then raises the
// worker's stop flag; the worker, once its loop has seen the flag, calls
// Finish.
//
// Ordering: Request's fields are plain, written before the stop flag is
// raised and read by the worker only after it has seen the flag; the flag's
// release/acquire ordering publishes them. Drained() may be read from any
// thread.
//
// Thread-safety: Request on the controlling thread, before the stop flag is
// raised; Finish on the worker after it saw the flag; Drained on any thread.
#ifndef YULOTIFYD_BASE_STOP_DRAIN_H_
#define YULOTIFYD_BASE_STOP_DRAIN_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>

namespace YULO {
namespace YULOTIFYD {

class StopDrain {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  // The worker's last step: true when everything got done by `deadline`.
  using Step = std::function<bool(TimePoint deadline)>;

  // `step` is the worker's last piece of work; it is only called by Finish.
  explicit StopDrain(Step step) : step_(std::move(step)) {}

  StopDrain(const StopDrain&) = delete;
  StopDrain& operator=(const StopDrain&) = delete;

  // Asks for a drain up to `deadline` at the coming stop. REQUIRES: the
  // worker's stop flag is raised after this call, not before.
  void Request(TimePoint deadline);

  // Runs the step with the requested deadline when a drain was requested,
  // and records its result for Drained(); does nothing otherwise. Returns
  // whether a drain was requested.
  bool Finish();

  // False when the last drain did not get everything done; true before any.
  bool Drained() const { return drained_.load(); }

 private:
  const Step step_;
  bool requested_ = false;
  TimePoint deadline_;
  std::atomic<bool> drained_{true};
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_STOP_DRAIN_H_
