// yulotify-forward-dump: prints the messages of a JetStream stream, one a
// line: "SEQ<TAB>Nats-Msg-Id<TAB>Yulotifyd-Host<TAB>Yulotifyd-Event<TAB>payload".
// For checking what a forwarder has delivered (and for its tests).
//
// Exit status: 0 done, 1 the stream cannot be read, 2 usage error,
// 3 the server cannot be reached.
#include <stdio.h>
#include <string.h>

#include <nats/nats.h>

#include <string>

#include "forward/redact.h"
#include "yulo_build_config.h"

namespace {

using YULO::YULOTIFYD::FORWARD::WithoutUserInfo;

const char kHelp[] =
    "usage: yulotify-forward-dump --server URL --stream NAME [--count]\n"
    "       yulotify-forward-dump --help | --version\n"
    "\n"
    "Prints every message of stream NAME, one a line:\n"
    "SEQ, Nats-Msg-Id, Yulotifyd-Host, Yulotifyd-Event and the payload,\n"
    "separated by tabs. With --count, only the number of messages.\n"
    "\n"
    "Exit status: 0 done, 1 the stream cannot be read, 2 usage error,\n"
    "3 the server cannot be reached.\n";

const char* Header(natsMsg* msg, const char* key) {
  const char* v = nullptr;
  if (natsMsgHeader_Get(msg, key, &v) != NATS_OK || v == nullptr) return "";
  return v;
}

int Dump(const std::string& server, const std::string& stream, bool count) {
  natsConnection* nc = nullptr;
  if (natsConnection_ConnectTo(&nc, server.c_str()) != NATS_OK) {
    fprintf(stderr, "yulotify-forward-dump: cannot connect to %s\n",
            WithoutUserInfo(server).c_str());
    return 3;
  }
  jsCtx* js = nullptr;
  jsStreamInfo* si = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  int status = 0;
  if (natsConnection_JetStream(&js, nc, nullptr) != NATS_OK ||
      js_GetStreamInfo(&si, js, stream.c_str(), nullptr, &jerr) != NATS_OK) {
    fprintf(stderr, "yulotify-forward-dump: no stream %s\n", stream.c_str());
    status = 1;
  } else if (count) {
    printf("%llu\n", static_cast<unsigned long long>(si->State.Msgs));
    jsStreamInfo_Destroy(si);
  } else {
    for (uint64_t seq = si->State.FirstSeq;
         si->State.Msgs > 0 && seq <= si->State.LastSeq; ++seq) {
      natsMsg* msg = nullptr;
      const natsStatus s = js_GetMsg(&msg, js, stream.c_str(), seq, nullptr, &jerr);
      if (s == NATS_NOT_FOUND) continue;  // deleted
      if (s != NATS_OK) {
        fprintf(stderr, "yulotify-forward-dump: cannot get message %llu\n",
                static_cast<unsigned long long>(seq));
        status = 1;
        break;
      }
      printf("%llu\t%s\t%s\t%s\t%.*s\n", static_cast<unsigned long long>(seq),
             Header(msg, "Nats-Msg-Id"), Header(msg, "Yulotifyd-Host"),
             Header(msg, "Yulotifyd-Event"), natsMsg_GetDataLength(msg),
             natsMsg_GetData(msg));
      natsMsg_Destroy(msg);
    }
    jsStreamInfo_Destroy(si);
  }
  if (js != nullptr) jsCtx_Destroy(js);
  natsConnection_Destroy(nc);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  std::string server, stream;
  bool count = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      fputs(kHelp, stdout);
      return 0;
    }
    if (arg == "--version") {
      printf("yulotify-forward-dump %s\n", YULOTIFYD_VERSION);
      return 0;
    }
    if (arg == "--count") {
      count = true;
    } else if ((arg == "--server" || arg == "--stream") && i + 1 < argc) {
      (arg == "--server" ? server : stream) = argv[++i];
    } else {
      fprintf(stderr, "yulotify-forward-dump: unexpected %s\n", arg.c_str());
      return 2;
    }
  }
  if (server.empty() || stream.empty()) {
    fprintf(stderr, "yulotify-forward-dump: --server and --stream are required\n");
    return 2;
  }
  const int status = Dump(server, stream, count);
  nats_Close();
  return status;
}
