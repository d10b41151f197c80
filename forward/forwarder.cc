#include "forward/forwarder.h"

#include <algorithm>
#include <string>

#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

Forwarder::Forwarder(const QueueConsumer& consumer, Spool* spool,
                     BatchPublisher* publisher, ForwardClock* clock,
                     const Limits& limits)
    : consumer_(consumer),
      spool_(spool),
      publisher_(publisher),
      clock_(clock),
      limits_(limits) {}

Forwarder::StepResult Forwarder::Step(std::chrono::milliseconds max_wait) {
  if (clock_->StopRequested()) return Stopped();
  std::string error;
  if (!publisher_->KeepUp(&error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return StepResult::kConnectFailed;
  }
  const bool took = TakeLines();
  bool more = false;
  if (publisher_->connected() &&
      clock_->NowMillis() >= next_publish_ms_ && !clock_->StopRequested()) {
    const StepResult result = PublishBatch(&more);
    if (result != StepResult::kGoOn) return result;
  }
  // Lines moved: there may be more right away.
  if (took || more) return StepResult::kGoOn;
  const int64_t wait =
      std::min<int64_t>(WaitMillis(), std::max<int64_t>(0, max_wait.count()));
  if (clock_->WaitForStop(wait)) return Stopped();
  return StepResult::kGoOn;
}

bool Forwarder::TakeLines() {
  if (spool_->size_bytes() >= limits_.spool_max_bytes) {
    if (!spool_full_) {
      YULO_LOG_WARNING("spool full (%llu bytes): not taking lines until the "
                       "server has acknowledged some",
                       static_cast<unsigned long long>(spool_->size_bytes()));
      spool_full_ = true;
    }
    return false;
  }
  if (spool_full_) {
    YULO_LOG_NOTICE("spool below its bound again: taking lines");
    spool_full_ = false;
  }
  // The lines leave the queue file only once the spool has them on disk.
  Spool* const spool = spool_;
  const QueueConsumer::Result r = consumer_.Consume(
      [spool](const std::vector<std::string>& lines, std::string* why) {
        return spool->Append(lines, why);
      });
  if (!r.ok) {
    if (!queue_failing_) YULO_LOG_ALWAYS("%s", r.message.c_str());
    queue_failing_ = true;
    return false;
  }
  if (queue_failing_) YULO_LOG_NOTICE("taking lines again");
  queue_failing_ = false;
  return !r.lines.empty();
}

Forwarder::StepResult Forwarder::PublishBatch(bool* more) {
  // The stream is made sure of with every batch: the publisher looks it
  // up once, and again after a refusal.
  std::string error;
  const BatchPublisher::StreamResult stream = publisher_->EnsureStream(&error);
  if (stream == BatchPublisher::StreamResult::kFailed) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return StepResult::kStreamRefused;
  }
  bool ok = stream == BatchPublisher::StreamResult::kReady;
  if (ok && spool_->unacked_bytes() > 0) {
    // From the first unacknowledged line, whatever an earlier batch that
    // failed handed out.
    spool_->Rewind();
    if (!spool_->ReadNext(limits_.batch_lines, limits_.batch_bytes, &batch_,
                          &error)) {
      YULO_LOG_ALWAYS("%s", error.c_str());
      return StepResult::kSpoolFailed;
    }
    const size_t acked =
        publisher_->PublishBatch(batch_, limits_.ack_timeout_ms, &error);
    Acknowledge(acked);
    ok = acked == batch_.size();
  }
  if (ok) {
    if (publish_failing_) YULO_LOG_NOTICE("publishing again");
    publish_failing_ = false;
    backoff_ms_ = 0;
    *more = spool_->unacked_bytes() > 0;
  } else {
    if (!publish_failing_) {
      YULO_LOG_WARNING("cannot publish: %s", error.c_str());
    }
    publish_failing_ = true;
    backoff_ms_ = backoff_ms_ == 0
                      ? kFirstBackoffMs
                      : std::min(backoff_ms_ * 2, limits_.max_backoff_ms);
    next_publish_ms_ = clock_->NowMillis() + backoff_ms_;
  }
  return StepResult::kGoOn;
}

void Forwarder::Acknowledge(size_t acked) {
  if (acked == 0) return;
  std::string why;
  if (!spool_->Acknowledge(batch_[acked - 1].seq, &why)) {
    // The lines were stored; they would only be sent again (and
    // de-duplicated) after a restart. The spool takes no new lines until
    // its state is saved.
    if (!state_failing_) YULO_LOG_ALWAYS("%s", why.c_str());
    state_failing_ = true;
  } else if (state_failing_) {
    YULO_LOG_NOTICE("spool state saved again");
    state_failing_ = false;
  }
}

int64_t Forwarder::WaitMillis() const {
  int64_t wait = limits_.interval_ms;
  // Lines waiting for the server: publish again once the back-off is over.
  if (spool_->unacked_bytes() > 0 && publisher_->connected()) {
    wait = std::max<int64_t>(
        1, std::min(wait, next_publish_ms_ - clock_->NowMillis()));
  }
  return wait;
}

Forwarder::StepResult Forwarder::Stopped() {
  YULO_LOG_NOTICE(
      "stopping: %llu lines left in the spool",
      static_cast<unsigned long long>(spool_->unacked_lines()));
  return StepResult::kStopped;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
