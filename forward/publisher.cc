#include "forward/publisher.h"

#include <stdio.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "forward/log.h"
#include "yulotifyd/json_util.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr const char kMsgIdHeader[] = "Nats-Msg-Id";

std::string StatusText(natsStatus s) { return natsStatus_GetText(s); }

}  // namespace

Publisher::~Publisher() {
  if (nc_ != nullptr) {
    closing_.store(true);
    natsConnection_Close(nc_);
    // The library calls our callbacks from its own thread, the closed one
    // last; `this` has to outlive it.
    std::unique_lock<std::mutex> lock(mu_);
    closed_cv_.wait_for(lock, std::chrono::seconds(5), [this] { return closed_; });
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

int64_t Publisher::ReconnectDelay(natsConnection*, int attempts, void*) {
  int64_t delay = 100;
  for (int i = 1; i < attempts && delay < 5000; ++i) delay *= 2;
  return delay < 5000 ? delay : 5000;
}

void Publisher::OnDisconnected(natsConnection*, void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  if (self->connected_.exchange(false) && !self->closing_.load()) {
    ForwardLog("disconnected from the server; lines wait in the spool");
  }
}

void Publisher::OnReconnected(natsConnection* nc, void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  if (!self->connected_.exchange(true)) {
    char url[256] = "";
    natsConnection_GetConnectedUrl(nc, url, sizeof(url));
    ForwardLog("connected to %s", url);
  }
}

void Publisher::OnClosed(natsConnection*, void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  self->connected_.store(false);
  std::lock_guard<std::mutex> lock(self->mu_);
  self->closed_ = true;
  self->closed_cv_.notify_all();
}

void Publisher::OnAck(jsCtx*, natsMsg* msg, jsPubAck* pa, jsPubAckErr* pae,
                      void* closure) {
  auto* self = static_cast<Publisher*>(closure);
  const char* id = nullptr;
  if (natsMsgHeader_Get(msg, kMsgIdHeader, &id) == NATS_OK && id != nullptr) {
    const char* colon = strrchr(id, ':');
    const uint64_t seq = strtoull(colon != nullptr ? colon + 1 : id, nullptr, 10);
    std::lock_guard<std::mutex> lock(self->mu_);
    if (seq >= self->batch_first_seq_ &&
        seq - self->batch_first_seq_ < self->batch_status_.size()) {
      const size_t i = static_cast<size_t>(seq - self->batch_first_seq_);
      if (pa != nullptr) {
        self->batch_status_[i] = 1;
      } else {
        self->batch_status_[i] = -1;
        if (self->batch_error_.empty() && pae != nullptr) {
          self->batch_error_ =
              pae->ErrText != nullptr ? pae->ErrText : StatusText(pae->Err);
        }
      }
    }
  }
  natsMsg_Destroy(msg);
}

bool Publisher::Start(const Config& config, std::string* error) {
  config_ = config;
  std::vector<const char*> urls;
  for (const std::string& s : config_.servers) urls.push_back(s.c_str());
  natsStatus s = natsOptions_Create(&opts_);
  if (s == NATS_OK)
    s = natsOptions_SetServers(opts_, urls.data(), static_cast<int>(urls.size()));
  if (s == NATS_OK) s = natsOptions_SetNoRandomize(opts_, false);
  if (s == NATS_OK) s = natsOptions_SetMaxReconnect(opts_, -1);
  if (s == NATS_OK) s = natsOptions_SetCustomReconnectDelay(opts_, ReconnectDelay, this);
  // The first connection is retried like a lost one: the forwarder starts
  // and spools whether or not the server is up.
  if (s == NATS_OK) s = natsOptions_SetRetryOnFailedConnect(opts_, true, OnReconnected, this);
  if (s == NATS_OK) s = natsOptions_SetDisconnectedCB(opts_, OnDisconnected, this);
  if (s == NATS_OK) s = natsOptions_SetReconnectedCB(opts_, OnReconnected, this);
  if (s == NATS_OK) s = natsOptions_SetClosedCB(opts_, OnClosed, this);
  if (s == NATS_OK) s = natsOptions_SetTimeout(opts_, 2000);
  if (s != NATS_OK) {
    *error = "bad server options: " + StatusText(s) + " " + nats_GetLastError(nullptr);
    return false;
  }
  s = natsConnection_Connect(&nc_, opts_);
  if (s == NATS_OK) {
    connected_.store(true);
    char url[256] = "";
    natsConnection_GetConnectedUrl(nc_, url, sizeof(url));
    ForwardLog("connected to %s", url);
  } else if (s == NATS_NOT_YET_CONNECTED) {
    ForwardLog("server not reachable yet; lines wait in the spool");
  } else {
    *error = "cannot set up the connection: " + StatusText(s);
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

Publisher::StreamResult Publisher::EnsureStream(std::string* error) {
  if (config_.stream.empty() || stream_ready_) return StreamResult::kReady;
  if (!connected()) {
    *error = "not connected";
    return StreamResult::kRetry;
  }
  jsStreamInfo* si = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  natsStatus s = js_GetStreamInfo(&si, js_, config_.stream.c_str(), nullptr, &jerr);
  if (s == NATS_OK) {
    jsStreamInfo_Destroy(si);
    stream_ready_ = true;
    return StreamResult::kReady;
  }
  if (s != NATS_NOT_FOUND) {
    *error = "cannot look up stream " + config_.stream + ": " + StatusText(s);
    return StreamResult::kRetry;
  }
  jsStreamConfig cfg;
  jsStreamConfig_Init(&cfg);
  const char* subjects[] = {config_.subject.c_str()};
  cfg.Name = config_.stream.c_str();
  cfg.Subjects = subjects;
  cfg.SubjectsLen = 1;
  cfg.Storage = js_FileStorage;
  s = js_AddStream(&si, js_, &cfg, nullptr, &jerr);
  if (s == NATS_OK) {
    jsStreamInfo_Destroy(si);
    ForwardLog("created stream %s for subject %s", config_.stream.c_str(),
               config_.subject.c_str());
    stream_ready_ = true;
    return StreamResult::kReady;
  }
  *error = "cannot create stream " + config_.stream + ": " + StatusText(s) +
           " (" + nats_GetLastError(nullptr) + ")";
  // A server that answered and refused will refuse again.
  return jerr != 0 ? StreamResult::kFailed : StreamResult::kRetry;
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
    batch_error_.clear();
  }
  size_t sent = 0;
  natsStatus s = NATS_OK;
  for (const SpooledLine& line : lines) {
    natsMsg* msg = nullptr;
    s = natsMsg_Create(&msg, config_.subject.c_str(), nullptr, line.text.data(),
                       static_cast<int>(line.text.size()));
    const std::string id = config_.id_prefix + std::to_string(line.seq);
    const std::string event = EventOf(line.text);
    if (s == NATS_OK) s = natsMsgHeader_Set(msg, kMsgIdHeader, id.c_str());
    if (s == NATS_OK) s = natsMsgHeader_Set(msg, "Yulotifyd-Host", config_.host.c_str());
    if (s == NATS_OK) s = natsMsgHeader_Set(msg, "Yulotifyd-Event", event.c_str());
    if (s == NATS_OK) s = js_PublishMsgAsync(js_, &msg, nullptr);
    natsMsg_Destroy(msg);  // NULL when the library took it
    if (s != NATS_OK) break;
    ++sent;
  }
  jsPubOptions po;
  jsPubOptions_Init(&po);
  po.MaxWait = timeout_ms;
  const natsStatus done = js_PublishAsyncComplete(js_, &po);
  if (done != NATS_OK) {
    // Forget what is still outstanding: it is sent again under the same
    // ids, and a late acknowledgement must not count for the next batch.
    natsMsgList pending;
    if (js_PublishAsyncGetPendingList(&pending, js_) == NATS_OK) {
      natsMsgList_Destroy(&pending);
    }
  }
  std::lock_guard<std::mutex> lock(mu_);
  size_t acked = 0;
  while (acked < sent && batch_status_[acked] == 1) ++acked;
  if (acked < lines.size()) {
    if (!batch_error_.empty()) *error = batch_error_;
    else if (s != NATS_OK) *error = "publish failed: " + StatusText(s);
    else if (done != NATS_OK) *error = "no acknowledgement: " + StatusText(done);
    else *error = "not acknowledged";
  }
  batch_status_.clear();
  return acked;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
