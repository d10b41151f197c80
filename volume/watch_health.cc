#include "volume/watch_health.h"

namespace YULO {
namespace YULOTIFYD {

bool WatchHealth::Placed(const std::string& share) {
  std::lock_guard<std::mutex> lock(mutex_);
  watched_.insert(share);
  return refused_.erase(share) != 0;
}

bool WatchHealth::Refused(const std::string& share, int err,
                          const std::string& reason) {
  std::lock_guard<std::mutex> lock(mutex_);
  bool known = false;
  for (const auto& entry : refused_) {
    if (entry.second.err == err) known = true;
  }
  watched_.erase(share);
  refused_[share] = RefusedWatch{share, err, reason};
  return !known;
}

void WatchHealth::Forget(const std::string& share) {
  std::lock_guard<std::mutex> lock(mutex_);
  watched_.erase(share);
  refused_.erase(share);
}

void WatchHealth::KeepRefusalsOf(const std::set<std::string>& wanted) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = refused_.begin(); it != refused_.end();) {
    if (wanted.count(it->first) == 0) {
      it = refused_.erase(it);
    } else {
      ++it;
    }
  }
}

std::vector<std::string> WatchHealth::Watched() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::vector<std::string>(watched_.begin(), watched_.end());
}

std::vector<RefusedWatch> WatchHealth::Refusals() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<RefusedWatch> out;
  for (const auto& entry : refused_) out.push_back(entry.second);
  return out;
}

bool WatchHealth::AnyRefused() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !refused_.empty();
}

}  // namespace YULOTIFYD
}  // namespace YULO
