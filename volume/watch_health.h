// WatchHealth: which of a volume's shares have their kernel watch, and which
// the kernel refused, with why.
//
// The receiver's thread keeps it up to date as it places and removes
// watches; the daemon's main thread reads it for the "status" reply and the
// service manager's STATUS= line, and to know which volumes to try again.
// It exists so that a share is never shown as watched unless its kernel
// watch is in place.
//
// Ownership: a plain value object, owned by its EventReceiver.
// Thread-safety: every operation may be called from any thread; a leaf
// mutex guards the state.
#ifndef YULOTIFYD_VOLUME_WATCH_HEALTH_H_
#define YULOTIFYD_VOLUME_WATCH_HEALTH_H_

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

// A share whose kernel watch could not be placed.
struct RefusedWatch {
  std::string share;
  int err = 0;         // errno of the refusal; 0 when there was no call
  std::string reason;  // what to show: the errno text, or why no call
};

class WatchHealth {
 public:
  // `share` has its kernel watch now. True when it was refused before: what
  // changed in it meanwhile was never seen.
  bool Placed(const std::string& share);
  // The kernel refused the watch of `share` (`err`, shown as `reason`).
  // True when no share of the volume was refused for that errno before:
  // a new failure, to be said at error priority; repeats are not.
  bool Refused(const std::string& share, int err, const std::string& reason);
  // `share` is neither watched nor wanted any more.
  void Forget(const std::string& share);
  // Forgets every refusal of a share that is not in `wanted`.
  void KeepRefusalsOf(const std::set<std::string>& wanted);

  // The watched shares, in byte-wise order.
  std::vector<std::string> Watched() const;
  // The refusals, by share in byte-wise order.
  std::vector<RefusedWatch> Refusals() const;
  bool AnyRefused() const;

 private:
  mutable std::mutex mutex_;
  std::set<std::string> watched_;
  std::map<std::string, RefusedWatch> refused_;  // by share
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_WATCH_HEALTH_H_
