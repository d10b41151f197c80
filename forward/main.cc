// yulotify-forward: moves the lines of one queue file to a NATS JetStream
// subject without losing any.
//
// Lines go queue file -> spool (fsynced before the queue file is cut) ->
// server (removed from the spool once acknowledged). The server being away
// only makes the spool grow, up to its bound; the daemon's queue file keeps
// being emptied until then. The loop that moves them is the Forwarder
// (forwarder.h); this file settles the options and the identity, and wires
// the parts together.
//
// Started as root for a queue file that is not root's, it first becomes
// the queue's owner (startup.h).
//
// Exit status: 0 stopped by SIGTERM or SIGINT, 1 a local failure (the spool
// cannot be opened, bad server options, the queue's directory is not
// there), 2 usage or configuration error, 3 the server refused to create
// the stream, 4 a certificate, key or secret file is refused (connection.h).
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <nats/nats.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "forward/forward_clock.h"
#include "forward/forwarder.h"
#include "forward/options.h"
#include "forward/publisher.h"
#include "forward/spool.h"
#include "forward/startup.h"
#include "forward/stderr_log.h"
#include "forward/stop_signals.h"
#include "yulo_build_config.h"
#include "yulotifyd/log.h"
#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {
namespace {

constexpr char kProgram[] = "yulotify-forward";

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreachable = 3;
constexpr int kExitSecretFile = 4;

// Goes on after TakeIdentity.
constexpr int kGoOn = -1;

// The text of --help, as printed.
const char kHelp[] =
R"(usage: yulotify-forward --server URL[,URL...] --subject SUBJECT
                        [--stream NAME [--replicas N]
                        [--duplicate-window D]] [--spool DIR]
                        [--spool-max SIZE]
                        [--interval MS] [--user NAME] [--hidden-dirs DIRS]
                        [--tls-ca FILE] [--tls-cert FILE --tls-key FILE]
                        [--nats-user NAME --password-file FILE |
                         --token-file FILE | --creds FILE]
                        [--config FILE] QUEUE_FILE

Takes the lines of a yulotifyd queue file and publishes them, in order,
to NATS JetStream on SUBJECT. A line leaves the queue file only once it
is fsynced in the spool, and leaves the spool only once the server has
acknowledged it. Each message carries the headers Nats-Msg-Id (stable per
line, so a line sent twice is stored once), Yulotifyd-Host and
Yulotifyd-Event.

Options:
  --server URL[,URL...]  NATS servers (nats://host:port, tls://host:port),
                         tried in turn
  --subject SUBJECT      subject to publish on, e.g. yulotifyd.HOST.QUEUE
  --stream NAME          create this stream (file storage, SUBJECT) when
                         it does not exist; otherwise use it as it is
  --replicas N           copies of a stream it creates, in a cluster
                         (1 to 5; default 1)
  --duplicate-window D   how long a stream it creates recognises a line
                         sent again (s, m, h or d; default 1d)
  --spool DIR            spool directory (default /var/lib/yulotifyd/forward)
  --spool-max SIZE       stop taking lines while the spool holds this much
                         (bytes, or with K, M, G; default 1G)
  --interval MS          how often the queue file is looked at (default 1000)
  --user NAME            started as root, run as NAME (default: the owner
                         of the queue file's directory, or of the queue
                         file when the directory is root's); the spool is
                         then SPOOL/NAME
  --hidden-dirs DIR,...  directories this forwarder cannot see: a queue
                         file under one is refused
  --tls-ca FILE          CA certificates that verify the server (TLS)
  --tls-cert FILE        client certificate (TLS), with --tls-key
  --tls-key FILE         its private key
  --nats-user NAME       NATS user name, with --password-file
  --password-file FILE   file whose first line is the user's password
  --token-file FILE      file whose first line is an authentication token
  --creds FILE           NATS credentials file (user JWT and NKey seed)
                         Key, password, token and credentials files must
                         be root's or this user's, mode 600 or 400.
  --config FILE          key=value lines: the options' names without
                         "--"; the command line wins. Must not be
                         readable or writable by others.
  --help, --version      this text; the program's version

Stops on SIGTERM or SIGINT, after waiting up to 5 s for the
acknowledgements of what it has sent.

Exit status: 0 stopped by a signal, 1 local failure (spool, options of
the connection, the queue file's directory not there), 2 usage or
configuration error, 3 the server refused to create the stream, 4 a
certificate, key or secret file is refused.
)";

std::string HostName() {
  char buf[256] = "";
  if (gethostname(buf, sizeof(buf) - 1) != 0) return "unknown";
  return buf;
}

// As root, for a queue that is not root's: the spool directory of the
// user `who`, and then that user. Returns an exit status, or kGoOn.
int BecomeUser(const RunAs& who, Options* options) {
  const std::string shared_dir = options->spool_dir;
  bool moved = false;
  std::string error;
  if (!PrepareSpoolDir(shared_dir, options->queue_file, who,
                       &options->spool_dir, &moved, &error) ||
      !SwitchUser(who, &error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return kExitFailed;
  }
  if (moved) {
    YULO_LOG_NOTICE("moved the spool of %s from %s to %s",
                    options->queue_file.c_str(), shared_dir.c_str(),
                    options->spool_dir.c_str());
  }
  YULO_LOG_NOTICE("running as %s (%s)", who.name.c_str(), who.why.c_str());
  return kGoOn;
}

// Checks where the queue file is and, started as root, becomes the user
// the queue is forwarded as. Returns an exit status, or kGoOn.
int TakeIdentity(Options* options) {
  RunAs who;
  switch (ChooseIdentity(options->queue_file, options->hidden_dirs,
                         options->user, &who)) {
    case IdentityChoice::kStay:
      return kGoOn;
    case IdentityChoice::kSwitch:
      return BecomeUser(who, options);
    case IdentityChoice::kUsageError:
      return kExitUsage;
    case IdentityChoice::kFailed:
      break;
  }
  return kExitFailed;
}

// Opens the spool, starts the publisher and runs the Forwarder until it
// ends. Returns the exit status.
int Run(const Options& options, const sigset_t& stop_set) {
  Spool spool;
  std::string error;
  if (!spool.Open(options.spool_dir, options.queue_file, &error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return kExitFailed;
  }
  YULO_LOG_NOTICE("spool %s: %llu lines waiting", spool.spool_path().c_str(),
                  static_cast<unsigned long long>(spool.unacked_lines()));

  Publisher::Config pc;
  pc.connection = options.connection;
  pc.subject = options.subject;
  pc.stream = options.stream;
  pc.replicas = options.replicas;
  pc.duplicate_window_s = options.duplicate_window_s;
  pc.host = HostName();
  // Host, queue file, spool epoch and line number: the same line always
  // gets the same id, two lines never do.
  pc.id_prefix = pc.host + ":" + options.queue_file + ":" +
                 std::to_string(spool.epoch()) + ":";
  // Destroyed before the spool: it waits for the library's last callback.
  Publisher publisher;
  if (!publisher.Start(pc, &error)) {
    YULO_LOG_ALWAYS("%s", error.c_str());
    return kExitFailed;
  }

  const QueueConsumer consumer(options.queue_file);
  SignalClock clock(stop_set);
  Forwarder::Limits limits;
  limits.spool_max_bytes = options.spool_max_bytes;
  limits.interval_ms = options.interval_ms;
  Forwarder forwarder(consumer, &spool, &publisher, &clock, limits);
  Forwarder::StepResult result;
  do {
    result = forwarder.Step(std::chrono::milliseconds(options.interval_ms));
  } while (result == Forwarder::StepResult::kGoOn);
  switch (result) {
    case Forwarder::StepResult::kStreamRefused:
      return kExitUnreachable;
    case Forwarder::StepResult::kSpoolFailed:
    case Forwarder::StepResult::kConnectFailed:
      return kExitFailed;
    default:
      return kExitOk;
  }
}

int Main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!ParseCommandLine(argc, argv, &options, &error)) {
    fprintf(stderr, "%s: %s\n(see %s --help)\n", kProgram, error.c_str(),
            kProgram);
    return kExitUsage;
  }
  if (options.help) {
    fputs(kHelp, stdout);
    return kExitOk;
  }
  if (options.version) {
    printf("%s %s\n", kProgram, YULOTIFYD_VERSION);
    return kExitOk;
  }
  SendLogToStderr(kProgram);
  sigset_t stop_set;
  BlockStopSignals(&stop_set);
  // Read while still root: the files may be root's alone. After the mask:
  // checking a credentials file starts the library's threads.
  if (!LoadConnectionFiles(&options.connection, &error)) {
    fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
    return kExitSecretFile;
  }
  int status = TakeIdentity(&options);
  if (status == kGoOn) status = Run(options, stop_set);
  nats_Close();
  return status;
}

}  // namespace
}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

int main(int argc, char** argv) {
  return YULO::YULOTIFYD::FORWARD::Main(argc, argv);
}
