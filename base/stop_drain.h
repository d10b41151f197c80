// StopDrain: the stop-and-drain handshake of a worker thread.
//
// A worker asked to stop "with a drain" finishes its loop as on any stop,
// then does one last bounded piece of work (write what it holds, read what
// the kernel still has) before its thread ends, and reports whether that
// work got done before the deadline. The worker makes its StopDrain with
// that last step and with the way its stop flag is raised; the controlling
// thread calls RequestStop; the worker, once its loop has seen the flag,
// calls Finish.
//
// Ordering: the request's fields are plain. RequestStop writes them before
// it raises the stop flag, and the worker reads them only after it has seen
// the flag, so the flag's release/acquire ordering publishes them.
//
// Thread-safety: RequestStop on the controlling thread; Finish on the
// worker after it saw the flag; Drained on any thread.
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
  // `raise_stop` raises the worker's stop flag (and wakes it) without
  // waiting for it.
  StopDrain(Step step, std::function<void()> raise_stop)
      : step_(std::move(step)), raise_stop_(std::move(raise_stop)) {}

  StopDrain(const StopDrain&) = delete;
  StopDrain& operator=(const StopDrain&) = delete;

  // Asks the worker to stop and, before its thread ends, to drain until
  // `deadline`. Does not wait; the worker's owner joins it as on any stop.
  void RequestStop(TimePoint deadline);

  // Runs the step with the requested deadline when a drain was requested,
  // and records its result for Drained(); does nothing otherwise. Returns
  // whether a drain was requested.
  bool Finish();

  // False when the last drain did not get everything done; true before any.
  bool Drained() const { return drained_.load(); }

 private:
  const Step step_;
  const std::function<void()> raise_stop_;
  bool requested_ = false;
  TimePoint deadline_;
  std::atomic<bool> drained_{true};
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_STOP_DRAIN_H_
