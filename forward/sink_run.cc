#include "forward/sink_run.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/clock.h"
#include "forward/sink_reader.h"
#include "forward/sink_writer.h"
#include "forward/startup.h"
#include "forward/stop_signals.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr int64_t kMaxBackoffMs = 5000;

// One failing condition, logged when it starts and when it ends, with a
// back-off that doubles from 100 ms to 5 s while it lasts.
class Trouble {
 public:
  explicit Trouble(const char* recovered) : recovered_(recovered) {}
  // Logs `why` if the trouble is new; returns how long to wait.
  int64_t Failed(const std::string& why) {
    if (!failing_) YULO_LOG_ALWAYS("%s", why.c_str());
    failing_ = true;
    backoff_ms_ = backoff_ms_ == 0 ? 100 : std::min(2 * backoff_ms_,
                                                    kMaxBackoffMs);
    return backoff_ms_;
  }
  void Ok() {
    if (failing_) YULO_LOG_NOTICE("%s", recovered_);
    failing_ = false;
    backoff_ms_ = 0;
  }

 private:
  const char* recovered_;
  bool failing_ = false;
  int64_t backoff_ms_ = 0;
};

}  // namespace

int TakeSinkIdentity(const SinkOptions& options) {
  RunAs who;
  switch (ChooseIdentity(options.queue_file, options.hidden_dirs,
                         options.user, &who)) {
    case IdentityChoice::kStay:
      return -1;
    case IdentityChoice::kSwitch:
      break;
    case IdentityChoice::kUsageError:
      return kSinkExitUsage;
    case IdentityChoice::kFailed:
      return kSinkExitFailed;
  }
  std::string error;
  if (!SwitchUser(who, &error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return kSinkExitFailed;
  }
  YULO_LOG_NOTICE("running as %s (%s)", who.name.c_str(), who.why.c_str());
  return -1;
}

int RunSink(const SinkOptions& options, const sigset_t& stop_set) {
  SinkWriter::Config wc;
  wc.queue_path = options.queue_file;
  wc.state_path = options.state_file;
  wc.host_member = options.host_member;
  SinkWriter writer(wc);
  std::string error;
  if (!writer.Open(&error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return kSinkExitFailed;
  }
  SinkReader::Config rc;
  rc.connection = options.connection;
  rc.stream = options.stream;
  rc.subject = options.subject;
  rc.durable = options.durable;
  rc.batch = options.batch;
  SinkReader reader;
  if (!reader.Start(rc, &error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return kSinkExitFailed;
  }
  YULO_LOG_NOTICE("writing stream %s%s%s into %s from sequence %llu on",
                  options.stream.c_str(), options.subject.empty() ? "" : " ",
                  options.subject.c_str(), options.queue_file.c_str(),
                  static_cast<unsigned long long>(writer.committed() + 1));

  Trouble server("taking messages again");
  Trouble queue("writing the queue file again");
  bool was_connected = false;
  std::vector<SinkMessage> batch;
  for (;;) {
    if (StopRequested(stop_set)) break;
    const bool connected = reader.connected();
    if (connected != was_connected) {
      if (connected) {
        YULO_LOG_NOTICE("connected to %s", reader.ServerUrl().c_str());
      } else {
        YULO_LOG_WARNING("disconnected from the server");
      }
      was_connected = connected;
    }
    if (!connected) {
      if (WaitForStop(stop_set, 100)) break;
      continue;
    }
    if (!reader.bound()) {
      std::string created;
      uint64_t first_seq = 0;
      SinkReader::Result r = reader.LookUpStream(&created, &first_seq, &error);
      if (r == SinkReader::Result::kOk) {
        const SinkWriter::Result w =
            writer.BindStream(options.stream, created, &error);
        if (w != SinkWriter::Result::kDone) {
          if (WaitForStop(stop_set, queue.Failed(error))) break;
          continue;
        }
        queue.Ok();
        // Nothing is owed for what the stream dropped before this sink
        // ever took from it.
        if (writer.committed() > 0 &&
            writer.SkipTo(first_seq, &error) != SinkWriter::Result::kDone) {
          if (WaitForStop(stop_set, queue.Failed(error))) break;
          continue;
        }
        r = reader.Subscribe(writer.committed() + 1, &error);
      }
      if (r != SinkReader::Result::kOk) {
        if (WaitForStop(stop_set, server.Failed(error))) break;
        continue;
      }
    }
    if (reader.Fetch(options.interval_ms, &batch, &error) !=
        SinkReader::Result::kOk) {
      if (WaitForStop(stop_set, server.Failed(error))) break;
      continue;
    }
    server.Ok();
    if (batch.empty()) continue;
    // Written before anything is acknowledged; until then the batch is
    // only held here, and a stop leaves it to the server.
    bool written = false;
    while (!written && !StopRequested(stop_set)) {
      const SinkWriter::Result w = writer.Write(batch, &error);
      written = w == SinkWriter::Result::kDone;
      if (written) {
        queue.Ok();
      } else if (WaitForStop(stop_set, queue.Failed(error))) {
        break;
      }
    }
    if (!written) break;
    if (!reader.AckFetched(&error)) {
      // Written: delivered again, they are recognised and skipped.
      YULO_LOG_INFO("%s", error.c_str());
    }
  }
  const SinkWriter::Counts& c = writer.counts();
  YULO_LOG_NOTICE("stopping: %llu lines written, %llu dropped by resets, "
                  "%llu resets; up to sequence %llu",
                  static_cast<unsigned long long>(c.lines),
                  static_cast<unsigned long long>(c.dropped),
                  static_cast<unsigned long long>(c.resets),
                  static_cast<unsigned long long>(writer.committed()));
  return kSinkExitOk;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
