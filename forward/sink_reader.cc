#include "forward/sink_reader.h"

#include <string.h>

#include <algorithm>
#include <utility>

#include "forward/redact.h"
#include "forward/sink_line.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr const char kHostHeader[] = "Yulotifyd-Host";
// How long the server waits for an acknowledgement before it delivers a
// message again: longer than a batch takes to be written and fsynced.
constexpr int64_t kAckWaitNs = int64_t{60} * 1000 * 1000 * 1000;
constexpr int64_t kRequestWaitMs = 5000;

}  // namespace

SinkReader::~SinkReader() {
  DropFetched();
  Unbind();
  if (js_ != nullptr) jsCtx_Destroy(js_);
  if (nc_ != nullptr) natsConnection_Destroy(nc_);
  if (opts_ != nullptr) natsOptions_Destroy(opts_);
}

bool SinkReader::Start(const Config& config, std::string* error) {
  config_ = config;
  // The options refer to config_.connection, which lives as long as we do.
  if (!BuildNatsOptions(config_.connection, &opts_, error)) return false;
  natsStatus s = natsOptions_SetMaxReconnect(opts_, -1);
  if (s == NATS_OK) s = natsOptions_SetReconnectWait(opts_, 1000);
  if (s == NATS_OK) s = natsOptions_SetTimeout(opts_, 2000);
  // The first connection is retried like a lost one.
  if (s == NATS_OK) {
    s = natsOptions_SetRetryOnFailedConnect(opts_, true, nullptr, nullptr);
  }
  if (s != NATS_OK) {
    *error = "bad server options: " + LibraryError(s);
    return false;
  }
  s = natsConnection_Connect(&nc_, opts_);
  if (s != NATS_OK && s != NATS_NOT_YET_CONNECTED) {
    *error = "cannot set up the connection: " + LibraryError(s);
    return false;
  }
  jsOptions jo;
  jsOptions_Init(&jo);
  jo.Wait = kRequestWaitMs;
  s = natsConnection_JetStream(&js_, nc_, &jo);
  if (s != NATS_OK) {
    *error = "cannot set up JetStream: " + LibraryError(s);
    return false;
  }
  return true;
}

bool SinkReader::connected() const {
  return nc_ != nullptr &&
         natsConnection_Status(nc_) == NATS_CONN_STATUS_CONNECTED;
}

std::string SinkReader::ServerUrl() const {
  char url[256] = "";
  if (nc_ != nullptr) natsConnection_GetConnectedUrl(nc_, url, sizeof(url));
  return WithoutUserInfo(url);
}

void SinkReader::Unbind() {
  if (sub_ == nullptr) return;
  // Destroyed without unsubscribing: the durable consumer stays on the
  // server with its place.
  natsSubscription_Destroy(sub_);
  sub_ = nullptr;
}

SinkReader::Result SinkReader::LookUpStream(std::string* created,
                                            uint64_t* first_seq,
                                            std::string* error) {
  jsErrCode jerr = static_cast<jsErrCode>(0);
  jsStreamInfo* si = nullptr;
  const natsStatus s =
      js_GetStreamInfo(&si, js_, config_.stream.c_str(), nullptr, &jerr);
  if (s != NATS_OK) {
    *error = s == NATS_NOT_FOUND
                 ? "no stream " + config_.stream + " on the server yet"
                 : "cannot look up stream " + config_.stream + ": " +
                       LibraryError(s);
    return Result::kRetry;
  }
  *created = std::to_string(si->Created);
  *first_seq = si->State.FirstSeq;
  jsStreamInfo_Destroy(si);
  return Result::kOk;
}

SinkReader::Result SinkReader::Subscribe(uint64_t start_seq,
                                         std::string* error) {
  Unbind();
  jsErrCode jerr = static_cast<jsErrCode>(0);
  natsStatus s = js_DeleteConsumer(js_, config_.stream.c_str(),
                                   config_.durable.c_str(), nullptr, &jerr);
  if (s != NATS_OK && s != NATS_NOT_FOUND) {
    *error = "cannot renew consumer " + config_.durable + " of stream " +
             config_.stream + ": " + LibraryError(s);
    return Result::kRetry;
  }
  jsConsumerConfig cc;
  jsConsumerConfig_Init(&cc);
  cc.Durable = config_.durable.c_str();
  cc.AckPolicy = js_AckExplicit;
  cc.DeliverPolicy = js_DeliverByStartSequence;
  cc.OptStartSeq = start_seq;
  cc.AckWait = kAckWaitNs;
  cc.MaxAckPending = 4 * config_.batch;
  if (!config_.subject.empty()) cc.FilterSubject = config_.subject.c_str();
  jsConsumerInfo* ci = nullptr;
  s = js_AddConsumer(&ci, js_, config_.stream.c_str(), &cc, nullptr, &jerr);
  if (s != NATS_OK) {
    *error = "cannot set up consumer " + config_.durable + " of stream " +
             config_.stream + ": " + LibraryError(s);
    return Result::kRetry;
  }
  jsConsumerInfo_Destroy(ci);
  jsSubOptions so;
  jsSubOptions_Init(&so);
  so.Stream = config_.stream.c_str();
  so.Consumer = config_.durable.c_str();
  so.ManualAck = true;
  s = js_PullSubscribe(
      &sub_, js_, config_.subject.empty() ? nullptr : config_.subject.c_str(),
      config_.durable.c_str(), nullptr, &so, &jerr);
  if (s != NATS_OK) {
    sub_ = nullptr;
    *error = "cannot subscribe to consumer " + config_.durable + ": " +
             LibraryError(s);
    return Result::kRetry;
  }
  return Result::kOk;
}

SinkReader::Result SinkReader::Fetch(int64_t timeout_ms,
                                     std::vector<SinkMessage>* out,
                                     std::string* error) {
  out->clear();
  DropFetched();
  if (sub_ == nullptr) {
    *error = "not subscribed";
    return Result::kRetry;
  }
  jsErrCode jerr = static_cast<jsErrCode>(0);
  const natsStatus s =
      natsSubscription_Fetch(&fetched_, sub_, config_.batch, timeout_ms, &jerr);
  if (s == NATS_TIMEOUT) return Result::kOk;
  if (s != NATS_OK) {
    *error = "cannot fetch messages: " + LibraryError(s);
    DropFetched();
    Unbind();
    return Result::kRetry;
  }
  out->reserve(static_cast<size_t>(fetched_.Count));
  for (int i = 0; i < fetched_.Count; ++i) {
    natsMsg* msg = fetched_.Msgs[i];
    jsMsgMetaData* meta = nullptr;
    if (natsMsg_GetMetaData(&meta, msg) != NATS_OK) {
      // Not a message of the consumer: never written, never acknowledged.
      continue;
    }
    SinkMessage m;
    m.seq = meta->Sequence.Stream;
    jsMsgMetaData_Destroy(meta);
    const char* host = nullptr;
    if (natsMsgHeader_Get(msg, kHostHeader, &host) == NATS_OK &&
        host != nullptr) {
      m.host = CleanHostName(host);
    }
    m.line.assign(natsMsg_GetData(msg),
                  static_cast<size_t>(natsMsg_GetDataLength(msg)));
    out->push_back(std::move(m));
  }
  // Messages delivered again after their acknowledgement wait may come
  // among later ones; the stream's order is the one that counts.
  std::stable_sort(out->begin(), out->end(),
                   [](const SinkMessage& a, const SinkMessage& b) {
                     return a.seq < b.seq;
                   });
  return Result::kOk;
}

bool SinkReader::AckFetched(std::string* error) {
  bool ok = true;
  for (int i = 0; i < fetched_.Count; ++i) {
    const natsStatus s = natsMsg_Ack(fetched_.Msgs[i], nullptr);
    if (s != NATS_OK && ok) {
      *error = "cannot acknowledge: " + LibraryError(s);
      ok = false;
    }
  }
  DropFetched();
  return ok;
}

void SinkReader::DropFetched() {
  if (fetched_.Count > 0 || fetched_.Msgs != nullptr) {
    natsMsgList_Destroy(&fetched_);
  }
  fetched_ = {nullptr, 0};
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
