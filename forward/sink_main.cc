// yulotify-sink: appends the messages of a NATS JetStream stream, the lines
// yulotify-forward sent from the appliances, to a queue file on a central
// host, so that its consumers read them as they read any queue file.
//
// Exit status: 0 stopped by SIGTERM or SIGINT, 1 a local failure (the
// state file, another sink on the same queue file, the queue's directory
// not there), 2 usage or configuration error, 4 a certificate, key or
// secret file is refused (connection.h).
#include <signal.h>
#include <stdio.h>

#include <nats/nats.h>

#include <string>

#include "forward/sink_options.h"
#include "forward/sink_run.h"
#include "forward/stderr_log.h"
#include "forward/stop_signals.h"
#include "yulo_build_config.h"
#include "yulotifyd/log.h"

namespace {

namespace fwd = YULO::YULOTIFYD::FORWARD;

const char kHelp[] =
    "usage: yulotify-sink --server URL[,URL...] --stream NAME\n"
    "                     [--subject FILTER] [--durable NAME] [--state FILE]\n"
    "                     [--host-member yes|no] [--batch N] [--interval MS]\n"
    "                     [--user NAME] [--hidden-dirs DIRS]\n"
    "                     [--tls-ca FILE] [--tls-cert FILE --tls-key FILE]\n"
    "                     [--nats-user NAME --password-file FILE |\n"
    "                      --token-file FILE | --creds FILE]\n"
    "                     [--config FILE] QUEUE_FILE\n"
    "\n"
    "Appends the lines that yulotify-forward sent to stream NAME, in the\n"
    "stream's order, to QUEUE_FILE, under the queue file's lock, as the\n"
    "daemon does; a message is acknowledged only once its line is written\n"
    "and fsynced. Killed at any point, it writes no line twice and loses\n"
    "none when it starts again. Past 100 MiB the queue file is reset: a\n"
    "reset marker, then a rescan line per top directory of each appliance.\n"
    "\n"
    "Options:\n"
    "  --server URL[,URL...]  NATS servers (nats://host:port, tls://...)\n"
    "  --stream NAME          the stream to read\n"
    "  --subject FILTER       only its messages on these subjects\n"
    "                         (wildcards allowed; default: all)\n"
    "  --durable NAME         the sink's consumer (default yulotify-sink);\n"
    "                         one sink per name: it is made afresh at start\n"
    "  --state FILE           state file (default QUEUE_FILE.sink-state)\n"
    "  --host-member yes|no   add \"host\": the appliance's name (from the\n"
    "                         Yulotifyd-Host header) to each line (default\n"
    "                         no)\n"
    "  --batch N              messages per write, 1 to 10000 (default 1000)\n"
    "  --interval MS          longest wait for messages (default 1000)\n"
    "  --user NAME            started as root, run as NAME (default: the\n"
    "                         owner of the queue file's directory, or of the\n"
    "                         queue file when the directory is root's)\n"
    "  --hidden-dirs DIR,...  directories this sink cannot see: a queue\n"
    "                         file under one is refused\n"
    "  --tls-ca FILE          CA certificates that verify the server\n"
    "  --tls-cert FILE, --tls-key FILE  client certificate and its key\n"
    "  --nats-user NAME, --password-file FILE  user and password\n"
    "  --token-file FILE      a token\n"
    "  --creds FILE           a credentials file (user JWT and NKey seed)\n"
    "  --config FILE          key=value lines of the options above; the\n"
    "                         command line wins. Must not be readable by\n"
    "                         others.\n"
    "  --help, --version      this text; the program's version\n"
    "\n"
    "Stops on SIGTERM or SIGINT.\n"
    "\n"
    "Exit status: 0 stopped by a signal, 1 local failure (state file,\n"
    "another sink on the queue file, its directory not there), 2 usage or\n"
    "configuration error, 4 a certificate, key or secret file refused.\n";

}  // namespace

int main(int argc, char** argv) {
  fwd::SinkOptions options;
  std::string error;
  if (!fwd::ParseSinkCommandLine(argc, argv, &options, &error)) {
    fprintf(stderr, "yulotify-sink: %s\n(see yulotify-sink --help)\n",
            error.c_str());
    return fwd::kSinkExitUsage;
  }
  if (options.help) {
    fputs(kHelp, stdout);
    return fwd::kSinkExitOk;
  }
  if (options.version) {
    printf("yulotify-sink %s\n", YULOTIFYD_VERSION);
    return fwd::kSinkExitOk;
  }
  fwd::SendLogToStderr("yulotify-sink");
  YULO::YULOTIFYD::LOG_LEVEL.store(LOG_INFO);
  // Blocked before the library starts its threads (checking a credentials
  // file starts them), so that they inherit the mask and the main thread
  // takes the signals with sigtimedwait.
  sigset_t stop_set;
  fwd::BlockStopSignals(&stop_set);
  // Read while still root: the files may be root's alone.
  if (!fwd::LoadConnectionFiles(&options.connection, &error)) {
    fprintf(stderr, "yulotify-sink: %s\n", error.c_str());
    return fwd::kSinkExitSecretFile;
  }
  int status = fwd::TakeSinkIdentity(options);
  if (status < 0) status = fwd::RunSink(options, stop_set);
  nats_Close();
  return status;
}
