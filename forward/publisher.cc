#include "forward/publisher.h"

#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "forward/oversize.h"
#include "forward/redact.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"
#include "yulotifyd/monitor_queue.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr const char kMsgIdHeader[] = "Nats-Msg-Id";
constexpr const char kExpectedLastIdHeader[] = "Nats-Expected-Last-Msg-Id";
constexpr const char kHostHeader[] = "Yulotifyd-Host";
constexpr const char kEventHeader[] = "Yulotifyd-Event";

std::string StatusText(natsStatus s) { return natsStatus_GetText(s); }

// The library's last error text, which may quote a server URL.
std::string LastError() { return WithoutUserInfo(nats_GetLastError(nullptr)); }

std::string ConnectedUrl(natsConnection* nc) {
  char url[256] = "";
  natsConnection_GetConnectedUrl(nc, url, sizeof(url));
  return WithoutUserInfo(url);
}

}  // namespace

Publisher::~Publisher() {
  if (nc_ != nullptr) {
    closing_.store(true);
    natsConnection_Close(nc_);
    // The library calls our callbacks from its own thread, the closed one
    // last; `this` has to outlive it.
    std::unique_lock<std::mutex> lock(mu_);
    closed_cv_.wait_for(lock, std::chrono::seconds(5),
                        [this] { return closed_; });
  }
  if (js_ != nullptr) jsCtx_Destroy(js_);
  if (nc_ != nullptr) natsConnection_Destroy(nc_);
  if (opts_ != nullptr) natsOptions_Destroy(opts_);
}

std::string Publisher::EventOf(const std::string& line) {
  Json::Value v;
  if (!fromString(line, v) || !v.isObject()) return "";
  const Json::Value& event = v["event"];
  if (event.isUInt64()) return std::to_string(event.asUInt64());
  if (event.isInt64()) return std::to_string(event.asInt64());
  return "";
}

int64_t Publisher::ReconnectDelay(natsConnection* nc, int attempts,
                                  void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  int64_t delay = 100;
  for (int i = 1; i < attempts && delay < 5000; ++i) delay *= 2;
  delay = delay < 5000 ? delay : 5000;
  // Called once a round over the servers found none to take us back. A
  // line at the 1st, 2nd, 4th, 8th... round: a long outage shows without
  // filling the log.
  if (!self->closing_.load() && (attempts & (attempts - 1)) == 0) {
    const char* text = nullptr;
    natsConnection_GetLastError(nc, &text);
    const std::string why = text != nullptr && *text != '\0'
                                ? WithoutUserInfo(text)
                                : std::string("no server answered");
    YULO_LOG_WARNING("no server took the connection back (%s, round %d); "
                     "trying again in %lld ms, lines wait in the spool",
                     why.c_str(), attempts, static_cast<long long>(delay));
  }
  return delay;
}

void Publisher::OnDisconnected(natsConnection*, void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  if (self->connected_.exchange(false) && !self->closing_.load()) {
    YULO_LOG_WARNING("disconnected from the server; lines wait in the spool");
  }
}

void Publisher::OnReconnected(natsConnection* nc, void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  if (!self->connected_.exchange(true)) {
    YULO_LOG_NOTICE("connected to %s", ConnectedUrl(nc).c_str());
  }
}

void Publisher::OnClosed(natsConnection* nc, void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  self->connected_.store(false);
  // Why the library gave up (a certificate not verified, authorization
  // refused), for KeepUp's line.
  const char* text = nullptr;
  const natsStatus s = natsConnection_GetLastError(nc, &text);
  std::lock_guard<std::mutex> lock(self->mu_);
  self->closed_reason_ =
      WithoutUserInfo(text != nullptr && *text != '\0'
                          ? std::string(text)
                          : std::string(natsStatus_GetText(s)));
  self->closed_ = true;
  self->closed_cv_.notify_all();
}

void Publisher::OnAck(jsCtx*, natsMsg* msg, jsPubAck* pa, jsPubAckErr* pae,
                      void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  const char* id = nullptr;
  if (natsMsgHeader_Get(msg, kMsgIdHeader, &id) == NATS_OK && id != nullptr) {
    const char* colon = strrchr(id, ':');
    const uint64_t seq =
        strtoull(colon != nullptr ? colon + 1 : id, nullptr, 10);
    std::lock_guard<std::mutex> lock(self->mu_);
    if (seq >= self->batch_first_seq_ &&
        seq - self->batch_first_seq_ < self->batch_status_.size()) {
      const size_t i = static_cast<size_t>(seq - self->batch_first_seq_);
      if (pa != nullptr) {
        self->batch_status_[i] = 1;
      } else {
        self->batch_status_[i] = -1;
        // The first refusal is the one that matters: in a stream of our
        // own the ones after it only follow from it.
        if (self->batch_error_.empty() && pae != nullptr) {
          self->batch_error_ =
              pae->ErrText != nullptr ? pae->ErrText : StatusText(pae->Err);
        }
        if (pae != nullptr && pae->ErrCode != 0) self->batch_refused_ = true;
        // Too large after all (the stream's limit changed, or counts what
        // we do not): no message that large is tried again.
        if (pae != nullptr &&
            pae->ErrCode == JSStreamMessageExceedsMaximumErr &&
            self->batch_bytes_[i] > 1 &&
            (self->refused_size_ == 0 ||
             self->batch_bytes_[i] <= self->refused_size_)) {
          self->refused_size_ = self->batch_bytes_[i] - 1;
        }
      }
    }
  }
  natsMsg_Destroy(msg);
}

bool Publisher::Start(const Config& config, std::string* error) {
  config_ = config;
  // The options refer to config_.connection, which lives as long as we do.
  if (!BuildNatsOptions(config_.connection, &opts_, error)) return false;
  natsStatus s = natsOptions_SetNoRandomize(opts_, false);
  if (s == NATS_OK) s = natsOptions_SetMaxReconnect(opts_, -1);
  if (s == NATS_OK)
    s = natsOptions_SetCustomReconnectDelay(opts_, ReconnectDelay, this);
  // The first connection is made by Connect, again and again until one
  // succeeds (KeepUp): the forwarder starts and spools whether or not a
  // server is up, and each failure comes back with its reason.
  if (s == NATS_OK)
    s = natsOptions_SetDisconnectedCB(opts_, OnDisconnected, this);
  if (s == NATS_OK)
    s = natsOptions_SetReconnectedCB(opts_, OnReconnected, this);
  if (s == NATS_OK) s = natsOptions_SetClosedCB(opts_, OnClosed, this);
  if (s == NATS_OK) s = natsOptions_SetTimeout(opts_, 2000);
  if (s != NATS_OK) {
    *error = "bad server options: " + StatusText(s) + " " + LastError();
    return false;
  }
  return Connect(error);
}

bool Publisher::Connect(std::string* error) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    closed_ = false;
    closed_reason_.clear();
  }
  nc_ = nullptr;
  natsStatus s = natsConnection_Connect(&nc_, opts_);
  if (s == NATS_OK) {
    failed_rounds_ = 0;
    backoff_ms_ = 0;
    connected_.store(true);
    YULO_LOG_NOTICE("connected to %s", ConnectedUrl(nc_).c_str());
  } else if (s == NATS_NO_SERVER || s == NATS_SSL_ERROR ||
             s == NATS_CONNECTION_AUTH_FAILED || s == NATS_NOT_PERMITTED ||
             s == NATS_TIMEOUT || s == NATS_IO_ERROR ||
             s == NATS_PROTOCOL_ERROR) {
    nc_ = nullptr;
    Failed(s == NATS_NO_SERVER || s == NATS_TIMEOUT || s == NATS_IO_ERROR,
           ConnectError(config_.connection, s));
    return true;
  } else {
    *error = "cannot set up the connection: " + LibraryError(s);
    return false;
  }
  jsOptions jo;
  jsOptions_Init(&jo);
  jo.Wait = 5000;
  jo.PublishAsync.AckHandler = OnAck;
  jo.PublishAsync.AckHandlerClosure = this;
  jo.PublishAsync.MaxPending = 4096;
  s = natsConnection_JetStream(&js_, nc_, &jo);
  if (s != NATS_OK) {
    *error = "cannot set up JetStream: " + StatusText(s);
    return false;
  }
  return true;
}

void Publisher::Failed(bool unreachable, const std::string& reason) {
  ++failed_rounds_;
  // Unreachable: tried again soon (0.1 s doubling up to 5 s), as the
  // library does after a lost connection; a line at the 1st, 2nd, 4th,
  // 8th... round. Refused (a certificate, the credentials): that waits on
  // an operator, so 1 s doubling up to 60 s, and a line each time.
  const int64_t first = unreachable ? 100 : 1000;
  const int64_t most = unreachable ? 5000 : 60000;
  backoff_ms_ = backoff_ms_ == 0 ? first : std::min(backoff_ms_ * 2, most);
  retry_at_ms_ = MonotonicMillis() + backoff_ms_;
  if (!unreachable || (failed_rounds_ & (failed_rounds_ - 1)) == 0) {
    YULO_LOG_WARNING("cannot connect: %s; trying again in %lld ms, lines "
                     "wait in the spool",
                     reason.c_str(), static_cast<long long>(backoff_ms_));
  }
}

bool Publisher::KeepUp(std::string* error) {
  if (nc_ != nullptr) {
    std::string reason;
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (!closed_ || closing_.load()) return true;
      reason = closed_reason_;
    }
    // The library gave up the connection (it does when a server refuses
    // our certificate or credentials); its closed callback has run, so it
    // calls nothing of ours for it any more.
    if (js_ != nullptr) jsCtx_Destroy(js_);
    natsConnection_Destroy(nc_);
    js_ = nullptr;
    nc_ = nullptr;
    stream_ready_ = false;
    Failed(false, reason);
    return true;
  }
  if (MonotonicMillis() < retry_at_ms_) return true;
  return Connect(error);
}

bool Publisher::FindStream(std::string* name, std::string* error) {
  Json::Value request(Json::objectValue);
  request["subject"] = config_.subject;
  natsMsg* reply = nullptr;
  const natsStatus s = natsConnection_RequestString(
      &reply, nc_, "$JS.API.STREAM.NAMES", toString(request).c_str(), 2000);
  if (s != NATS_OK) {
    *error = "cannot look up the stream of " + config_.subject + ": " +
             StatusText(s);
    return false;
  }
  Json::Value answer;
  const std::string text(natsMsg_GetData(reply),
                         static_cast<size_t>(natsMsg_GetDataLength(reply)));
  natsMsg_Destroy(reply);
  if (!fromString(text, answer) || !answer.isObject() ||
      answer.isMember("error")) {
    *error = "cannot look up the stream of " + config_.subject;
    return false;
  }
  name->clear();
  const Json::Value& streams = answer["streams"];
  if (streams.isArray() && !streams.empty() && streams[0].isString()) {
    *name = streams[0].asString();
  }
  return true;
}

Publisher::StreamResult Publisher::EnsureStream(std::string* error) {
  if (stream_ready_) return StreamResult::kReady;
  if (!connected()) {
    *error = "not connected";
    return StreamResult::kRetry;
  }
  std::string name = config_.stream;
  if (name.empty()) {
    if (!FindStream(&name, error)) {
      // Perhaps not allowed to list streams: publish all the same, one
      // message at a time, which keeps the order in any stream.
      own_stream_ = false;
      stream_max_msg_ = 0;
      stream_ready_ = true;
      return StreamResult::kReady;
    }
    if (name.empty()) {
      *error = "no stream takes subject " + config_.subject;
      return StreamResult::kRetry;
    }
  }
  jsStreamInfo* si = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  natsStatus s = js_GetStreamInfo(&si, js_, name.c_str(), nullptr, &jerr);
  if (s == NATS_NOT_FOUND && !config_.stream.empty()) {
    jsStreamConfig cfg;
    jsStreamConfig_Init(&cfg);
    const char* subjects[] = {config_.subject.c_str()};
    cfg.Name = config_.stream.c_str();
    cfg.Subjects = subjects;
    cfg.SubjectsLen = 1;
    cfg.Storage = js_FileStorage;
    cfg.Replicas = config_.replicas;
    cfg.Duplicates = config_.duplicate_window_s * int64_t{1000000000};
    s = js_AddStream(&si, js_, &cfg, nullptr, &jerr);
    if (s != NATS_OK) {
      *error = "cannot create stream " + config_.stream + ": " + StatusText(s) +
               " (" + LastError() + ")";
      // A server that answered and refused will refuse again.
      return jerr != 0 ? StreamResult::kFailed : StreamResult::kRetry;
    }
    YULO_LOG_NOTICE("created stream %s for subject %s",
                    config_.stream.c_str(), config_.subject.c_str());
    YULO_LOG_NOTICE("stream %s: %d replicas, duplicate window %lld s",
                    config_.stream.c_str(), config_.replicas,
                    static_cast<long long>(config_.duplicate_window_s));
  } else if (s == NATS_OK && !config_.stream.empty() && !stream_warned_ &&
             si->Config != nullptr &&
             (si->Config->Replicas < config_.replicas ||
              si->Config->Duplicates <
                  config_.duplicate_window_s * int64_t{1000000000})) {
    // Not ours to change: the operator may have chosen less on purpose.
    // Said once, not at each look after a refusal.
    stream_warned_ = true;
    YULO_LOG_WARNING("stream %s keeps %lld replicas and a duplicate window "
                     "of %lld s, where %d and %lld s were asked for; left as "
                     "it is",
                     name.c_str(),
                     static_cast<long long>(si->Config->Replicas),
                     static_cast<long long>(si->Config->Duplicates /
                                            1000000000),
                     config_.replicas,
                     static_cast<long long>(config_.duplicate_window_s));
  } else if (s != NATS_OK) {
    *error = "cannot look up stream " + name + ": " + StatusText(s);
    return StreamResult::kRetry;
  }
  const jsStreamConfig* cfg = si->Config;
  own_stream_ = cfg != nullptr && cfg->SubjectsLen == 1 &&
                cfg->Subjects[0] != nullptr &&
                config_.subject == cfg->Subjects[0];
  stream_max_msg_ = cfg != nullptr && cfg->MaxMsgSize > 0 ? cfg->MaxMsgSize : 0;
  jsStreamInfo_Destroy(si);
  stream_ready_ = true;
  return StreamResult::kReady;
}

int64_t Publisher::LearnedLimit() {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<int64_t>(refused_size_);
}

size_t Publisher::MessageBytes(
    size_t payload_bytes,
    const std::vector<std::pair<std::string, std::string>>& headers) {
  // "NATS/1.0\r\n", then "Key: Value\r\n" each, then "\r\n".
  size_t bytes = payload_bytes + 10 + 2;
  for (const auto& h : headers)
    bytes += h.first.size() + 2 + h.second.size() + 2;
  return bytes;
}

size_t Publisher::SendGroup(const std::vector<SpooledLine>& lines,
                            size_t first, size_t count, std::string* error) {
  int64_t limit = natsConnection_GetMaxPayload(nc_);
  for (const int64_t other : {stream_max_msg_, LearnedLimit()}) {
    if (other > 0 && (limit <= 0 || other < limit)) limit = other;
  }
  size_t sent = 0;
  for (size_t i = first; i < first + count; ++i) {
    const SpooledLine& line = lines[i];
    const std::string id = config_.id_prefix + std::to_string(line.seq);
    std::vector<std::pair<std::string, std::string>> headers = {
        {kMsgIdHeader, id},
        {kHostHeader, config_.host},
        {kEventHeader, EventOf(line.text)},
    };
    // Each message of a batch but the first names the one before it, so
    // that nothing is stored after a message the server refused.
    if (own_stream_ && !last_sent_id_.empty()) {
      headers.emplace_back(kExpectedLastIdHeader, last_sent_id_);
    }
    const std::string* payload = &line.text;
    std::string rescan;
    if (limit > 0 &&
        MessageBytes(line.text.size(), headers) > static_cast<size_t>(limit)) {
      headers[2].second = std::to_string(QUEUE_EVENT_RESCAN);
      const size_t overhead = MessageBytes(0, headers);
      const bool fits = overhead < static_cast<size_t>(limit) &&
                        RescanLineFor(line.text, limit - overhead, &rescan);
      const bool log = line.seq >= oversize_logged_end_;
      if (log) oversize_logged_end_ = line.seq + 1;
      if (!fits) {
        // Nothing of it can ever go; waiting would stop the queue for good.
        if (log) {
          YULO_LOG_ALWAYS("line %llu of the spool (%zu bytes) cannot be "
                          "published: the server takes messages of at most "
                          "%lld bytes, too few even for a rescan line; "
                          "dropped",
                          static_cast<unsigned long long>(line.seq),
                          line.text.size(), static_cast<long long>(limit));
        }
        std::lock_guard<std::mutex> lock(mu_);
        batch_status_[i] = 1;
        ++sent;
        continue;
      }
      if (log) {
        YULO_LOG_WARNING("line %llu of the spool (%zu bytes) is larger than "
                         "the server takes (%lld bytes a message): published "
                         "a rescan line in its place",
                         static_cast<unsigned long long>(line.seq),
                         line.text.size(), static_cast<long long>(limit));
      }
      payload = &rescan;
    }
    natsMsg* msg = nullptr;
    natsStatus s = natsMsg_Create(&msg, config_.subject.c_str(), nullptr,
                                  payload->data(),
                                  static_cast<int>(payload->size()));
    for (const auto& h : headers) {
      if (s == NATS_OK)
        s = natsMsgHeader_Set(msg, h.first.c_str(), h.second.c_str());
    }
    {
      std::lock_guard<std::mutex> lock(mu_);
      batch_bytes_[i] = MessageBytes(payload->size(), headers);
    }
    if (s == NATS_OK) s = js_PublishMsgAsync(js_, &msg, nullptr);
    natsMsg_Destroy(msg);  // NULL when the library took it
    if (s != NATS_OK) {
      *error = "publish failed: " + StatusText(s);
      break;
    }
    last_sent_id_ = id;
    ++sent;
  }
  return sent;
}

size_t Publisher::PublishBatch(const std::vector<SpooledLine>& lines,
                               int64_t timeout_ms, std::string* error) {
  if (lines.empty()) return 0;
  if (!connected()) {
    *error = "not connected";
    return 0;
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    batch_first_seq_ = lines.front().seq;
    batch_status_.assign(lines.size(), 0);
    batch_bytes_.assign(lines.size(), 0);
    batch_error_.clear();
    batch_refused_ = false;
  }
  last_sent_id_.clear();
  // In a stream of our own the whole batch is in flight at once; in a
  // shared one, one message at a time (see the header).
  const size_t window = own_stream_ ? lines.size() : 1;
  size_t acked = 0;
  std::string send_error;
  natsStatus done = NATS_OK;
  while (acked < lines.size()) {
    const size_t count = std::min(window, lines.size() - acked);
    const size_t sent = SendGroup(lines, acked, count, &send_error);
    // The library sends what it buffered a little later, to gather more;
    // one message that waits for its acknowledgement gathers nothing.
    if (window == 1 && sent > 0) natsConnection_FlushTimeout(nc_, timeout_ms);
    jsPubOptions po;
    jsPubOptions_Init(&po);
    po.MaxWait = timeout_ms;
    done = js_PublishAsyncComplete(js_, &po);
    if (done != NATS_OK) {
      // Forget what is still outstanding: it is sent again under the same
      // ids, and a late acknowledgement must not count for the next batch.
      natsMsgList pending;
      if (js_PublishAsyncGetPendingList(&pending, js_) == NATS_OK) {
        natsMsgList_Destroy(&pending);
      }
    }
    std::lock_guard<std::mutex> lock(mu_);
    const size_t end = acked + sent;
    while (acked < end && batch_status_[acked] == 1) ++acked;
    if (acked < end || sent < count || done != NATS_OK) break;
  }
  std::lock_guard<std::mutex> lock(mu_);
  if (acked < lines.size()) {
    if (!batch_error_.empty()) *error = batch_error_;
    else if (!send_error.empty()) *error = send_error;
    else if (done != NATS_OK)
      *error = "no acknowledgement: " + StatusText(done);
    else *error = "not acknowledged";
  }
  // A refusal may come from a stream whose configuration changed (its
  // maximum message size, its subjects): look again before the next batch.
  if (batch_refused_) stream_ready_ = false;
  batch_status_.clear();
  batch_bytes_.clear();
  return acked;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
