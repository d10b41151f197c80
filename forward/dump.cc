// yulotify-forward-dump: prints the messages of a JetStream stream, one a
// line:
// "SEQ<TAB>Nats-Msg-Id<TAB>Yulotifyd-Host<TAB>Yulotifyd-Event<TAB>payload". For
// checking what a forwarder has delivered (and for its tests).
//
// It reaches the servers as the forwarder does (connection.h): the same
// TLS and credential options, or the forwarder's own --config file.
//
// Exit status: 0 done, 1 the stream cannot be read, 2 usage error,
// 3 the server cannot be reached, 4 a certificate, key or secret file is
// refused.
#include <stdio.h>
#include <string.h>

#include <nats/nats.h>

#include <string>

#include "forward/connection.h"
#include "forward/options.h"
#include "yulo_build_config.h"

namespace {

namespace fwd = YULO::YULOTIFYD::FORWARD;

const char kHelp[] =
    "usage: yulotify-forward-dump --server URL[,URL...] --stream NAME\n"
    "                             [--tls-ca FILE] [--tls-cert FILE\n"
    "                             --tls-key FILE] [--nats-user NAME\n"
    "                             --password-file FILE | --token-file FILE |\n"
    "                             --creds FILE] [--config FILE] [--count]\n"
    "       yulotify-forward-dump --help | --version\n"
    "\n"
    "Prints every message of stream NAME, one a line:\n"
    "SEQ, Nats-Msg-Id, Yulotifyd-Host, Yulotifyd-Event and the payload,\n"
    "separated by tabs. With --count, only the number of messages.\n"
    "The connection options are those of yulotify-forward; --config reads\n"
    "a forwarder's configuration file (its server, stream, TLS and\n"
    "credential keys), the command line winning.\n"
    "\n"
    "Exit status: 0 done, 1 the stream cannot be read, 2 usage error,\n"
    "3 the server cannot be reached, 4 a certificate, key or secret file\n"
    "is refused.\n";

const char* Header(natsMsg* msg, const char* key) {
  const char* v = nullptr;
  if (natsMsgHeader_Get(msg, key, &v) != NATS_OK || v == nullptr) return "";
  return v;
}

int Dump(const fwd::ConnectionOptions& connection, const std::string& stream,
         bool count) {
  natsConnection* nc = nullptr;
  std::string error;
  if (!fwd::ConnectOnce(connection, 5000, &nc, &error)) {
    fprintf(stderr, "yulotify-forward-dump: cannot connect: %s\n",
            error.c_str());
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
      natsStatus s = js_GetMsg(&msg, js, stream.c_str(), seq, nullptr, &jerr);
      // In a cluster the stream's leader may be changing: asked again.
      for (int retry = 0; retry < 5 && (s == NATS_TIMEOUT ||
                                         s == NATS_NO_RESPONDERS); ++retry) {
        s = js_GetMsg(&msg, js, stream.c_str(), seq, nullptr, &jerr);
      }
      if (s == NATS_NOT_FOUND) continue;  // deleted
      if (s != NATS_OK) {
        fprintf(stderr, "yulotify-forward-dump: cannot get message %llu: %s\n",
                static_cast<unsigned long long>(seq),
                fwd::LibraryError(s).c_str());
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
  // The forwarder's options, of which only the connection and the stream
  // matter here.
  fwd::Options options;
  bool count = false;
  std::string error;
  // The configuration file first, so that the command line wins.
  for (int i = 1; i + 1 < argc; ++i) {
    if (strcmp(argv[i], "--config") == 0 &&
        !fwd::ApplyConfigFile(argv[++i], &options, &error)) {
      fprintf(stderr, "yulotify-forward-dump: %s\n", error.c_str());
      return 2;
    }
  }
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
      continue;
    }
    if (arg.compare(0, 2, "--") != 0 || i + 1 >= argc) {
      fprintf(stderr, "yulotify-forward-dump: unexpected %s\n", arg.c_str());
      return 2;
    }
    const std::string key = arg.substr(2);
    const std::string value = argv[++i];
    if (key == "config") continue;  // applied above
    if (key == "stream") {
      options.stream = value;
      continue;
    }
    switch (fwd::SetConnectionOption(key, value, &options.connection,
                                     &error)) {
      case fwd::SetResult::kSet:
        continue;
      case fwd::SetResult::kBad:
        fprintf(stderr, "yulotify-forward-dump: %s\n", error.c_str());
        return 2;
      case fwd::SetResult::kUnknown:
        fprintf(stderr, "yulotify-forward-dump: unexpected %s\n",
                arg.c_str());
        return 2;
    }
  }
  if (options.stream.empty()) {
    fprintf(stderr, "yulotify-forward-dump: --stream is required\n");
    return 2;
  }
  if (!fwd::CheckConnectionOptions(options.connection, &error)) {
    fprintf(stderr, "yulotify-forward-dump: %s\n", error.c_str());
    return 2;
  }
  if (!fwd::LoadConnectionFiles(&options.connection, &error)) {
    fprintf(stderr, "yulotify-forward-dump: %s\n", error.c_str());
    return 4;
  }
  const int status = Dump(options.connection, options.stream, count);
  nats_Close();
  return status;
}
