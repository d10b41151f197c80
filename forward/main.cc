// yulotify-forward: moves the lines of one queue file to a NATS JetStream
// subject without losing any.
//
// Lines go queue file -> spool (fsynced before the queue file is cut) ->
// server (removed from the spool once acknowledged). The server being away
// only makes the spool grow, up to its bound; the daemon's queue file keeps
// being emptied until then.
//
// Started as root for a queue file that is not root's, it first becomes
// the queue's owner (startup.h).
//
// Exit status: 0 stopped by SIGTERM or SIGINT, 1 a local failure (the spool
// cannot be opened, bad server options, the queue's directory is not
// there), 2 usage or configuration error, 3 the server refused to create
// the stream, 4 a certificate, key or secret file is refused (connection.h).
#include <errno.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <nats/nats.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "forward/log.h"
#include "forward/options.h"
#include "forward/publisher.h"
#include "forward/spool.h"
#include "forward/startup.h"
#include "forward/stop_signals.h"
#include "yulo_build_config.h"
#include "yulotifyd/log.h"
#include "yulotifyd/queue_consumer.h"

namespace {

using YULO::YULOTIFYD::QueueConsumer;
using namespace YULO::YULOTIFYD::FORWARD;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreachable = 3;
constexpr int kExitSecretFile = 4;

// Lines per batch published before waiting for their acknowledgements.
constexpr size_t kBatchLines = 1000;
constexpr size_t kBatchBytes = 1 << 20;
// How long a batch may wait for its acknowledgements; also what SIGTERM
// waits at most.
constexpr int64_t kAckTimeoutMs = 5000;
constexpr int64_t kMaxBackoffMs = 5000;

const char kHelp[] =
    "usage: yulotify-forward --server URL[,URL...] --subject SUBJECT\n"
    "                        [--stream NAME [--replicas N]\n"
    "                        [--duplicate-window D]] [--spool DIR]\n"
    "                        [--spool-max SIZE]\n"
    "                        [--interval MS] [--user NAME] [--hidden-dirs DIRS]\n"
    "                        [--tls-ca FILE] [--tls-cert FILE --tls-key FILE]\n"
    "                        [--nats-user NAME --password-file FILE |\n"
    "                         --token-file FILE | --creds FILE]\n"
    "                        [--config FILE] QUEUE_FILE\n"
    "\n"
    "Takes the lines of a yulotifyd queue file and publishes them, in order,\n"
    "to NATS JetStream on SUBJECT. A line leaves the queue file only once it\n"
    "is fsynced in the spool, and leaves the spool only once the server has\n"
    "acknowledged it. Each message carries the headers Nats-Msg-Id (stable per\n"
    "line, so a line sent twice is stored once), Yulotifyd-Host and\n"
    "Yulotifyd-Event.\n"
    "\n"
    "Options:\n"
    "  --server URL[,URL...]  NATS servers (nats://host:port, tls://host:port),\n"
    "                         tried in turn\n"
    "  --subject SUBJECT      subject to publish on, e.g. yulotifyd.HOST.QUEUE\n"
    "  --stream NAME          create this stream (file storage, SUBJECT) when\n"
    "                         it does not exist; otherwise use it as it is\n"
    "  --replicas N           copies of a stream it creates, in a cluster\n"
    "                         (1 to 5; default 1)\n"
    "  --duplicate-window D   how long a stream it creates recognises a line\n"
    "                         sent again (s, m, h or d; default 1d)\n"
    "  --spool DIR            spool directory (default /var/lib/yulotifyd/forward)\n"
    "  --spool-max SIZE       stop taking lines while the spool holds this much\n"
    "                         (bytes, or with K, M, G; default 1G)\n"
    "  --interval MS          how often the queue file is looked at (default 1000)\n"
    "  --user NAME            started as root, run as NAME (default: the owner\n"
    "                         of the queue file's directory, or of the queue\n"
    "                         file when the directory is root's); the spool is\n"
    "                         then SPOOL/NAME\n"
    "  --hidden-dirs DIR,...  directories this forwarder cannot see: a queue\n"
    "                         file under one is refused\n"
    "  --tls-ca FILE          CA certificates that verify the server (TLS)\n"
    "  --tls-cert FILE        client certificate (TLS), with --tls-key\n"
    "  --tls-key FILE         its private key\n"
    "  --nats-user NAME       NATS user name, with --password-file\n"
    "  --password-file FILE   file whose first line is the user's password\n"
    "  --token-file FILE      file whose first line is an authentication token\n"
    "  --creds FILE           NATS credentials file (user JWT and NKey seed)\n"
    "                         Key, password, token and credentials files must\n"
    "                         be root's or this user's, mode 600 or 400.\n"
    "  --config FILE          key=value lines: the options' names without\n"
    "                         \"--\"; the command line wins. Must not be\n"
    "                         readable or writable by others.\n"
    "  --help, --version      this text; the program's version\n"
    "\n"
    "Stops on SIGTERM or SIGINT, after waiting up to 5 s for the\n"
    "acknowledgements of what it has sent.\n"
    "\n"
    "Exit status: 0 stopped by a signal, 1 local failure (spool, options of\n"
    "the connection, the queue file's directory not there), 2 usage or\n"
    "configuration error, 3 the server refused to create the stream, 4 a\n"
    "certificate, key or secret file is refused.\n";

// The project's log lines go where the forwarder's own go: to stderr, for
// the service manager's journal.
void LogToStderr(int, const char* line) {
  fprintf(stderr, "yulotify-forward: %s\n", line);
}

int64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string HostName() {
  char buf[256] = "";
  if (gethostname(buf, sizeof(buf) - 1) != 0) return "unknown";
  return buf;
}

// Checks where the queue file is and, started as root, becomes the user
// the queue is forwarded as. Returns an exit status, or -1 to go on.
int TakeIdentity(Options* options) {
  std::string error;
  switch (CheckQueuePlace(options->queue_file, options->hidden_dirs, &error)) {
    case PlaceCheck::kOk:
      break;
    case PlaceCheck::kHidden:
      ForwardLog("%s", error.c_str());
      return kExitUsage;
    case PlaceCheck::kNotFound:
      ForwardLog("%s", error.c_str());
      return kExitFailed;
  }
  if (geteuid() != 0) {
    const struct passwd* pw = getpwuid(geteuid());
    if (!options->user.empty() &&
        (pw == nullptr || options->user != pw->pw_name)) {
      ForwardLog("cannot run as %s: only root can change user",
                 options->user.c_str());
      return kExitUsage;
    }
    return -1;
  }
  RunAs who;
  if (!ChooseUser(options->queue_file, options->user, &who, &error)) {
    ForwardLog("%s", error.c_str());
    return kExitUsage;
  }
  if (who.uid == 0) return -1;
  const std::string shared_dir = options->spool_dir;
  bool moved = false;
  if (!PrepareSpoolDir(shared_dir, options->queue_file, who,
                       &options->spool_dir, &moved, &error) ||
      !SwitchUser(who, &error)) {
    ForwardLog("%s", error.c_str());
    return kExitFailed;
  }
  if (moved) {
    ForwardLog("moved the spool of %s from %s to %s",
               options->queue_file.c_str(), shared_dir.c_str(),
               options->spool_dir.c_str());
  }
  ForwardLog("running as %s (%s)", who.name.c_str(), who.why.c_str());
  return -1;
}

int Run(const Options& options, const sigset_t& stop_set) {
  Spool spool;
  std::string error;
  if (!spool.Open(options.spool_dir, options.queue_file, &error)) {
    ForwardLog("%s", error.c_str());
    return kExitFailed;
  }
  ForwardLog("spool %s: %llu lines waiting", spool.spool_path().c_str(),
             static_cast<unsigned long long>(spool.next_seq() - spool.acked_seq()));

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
  auto publisher = std::make_unique<Publisher>();
  if (!publisher->Start(pc, &error)) {
    ForwardLog("%s", error.c_str());
    return kExitFailed;
  }

  QueueConsumer consumer(options.queue_file);
  bool spool_full = false;
  bool queue_failing = false;
  bool publish_failing = false;
  bool state_failing = false;
  int64_t backoff_ms = 0;
  int64_t next_publish_ms = 0;
  std::vector<SpooledLine> batch;

  for (;;) {
    if (StopRequested(stop_set)) break;
    if (!publisher->KeepUp(&error)) {
      ForwardLog("%s", error.c_str());
      return kExitFailed;
    }
    // Take what the queue file holds, unless the spool is at its bound.
    bool took = false;
    if (spool.size_bytes() < options.spool_max_bytes) {
      if (spool_full) {
        ForwardLog("spool below its bound again: taking lines");
        spool_full = false;
      }
      const QueueConsumer::Result r = consumer.Consume(
          [&spool](const std::vector<std::string>& lines, std::string* why) {
            return spool.Append(lines, why);
          });
      if (!r.ok) {
        if (!queue_failing) ForwardLog("%s", r.message.c_str());
        queue_failing = true;
      } else {
        if (queue_failing) ForwardLog("taking lines again");
        queue_failing = false;
        took = !r.lines.empty();
      }
    } else if (!spool_full) {
      ForwardLog("spool full (%llu bytes): not taking lines until the server "
                 "has acknowledged some",
                 static_cast<unsigned long long>(spool.size_bytes()));
      spool_full = true;
    }

    // Make sure of the stream as soon as there is a connection, then
    // publish one batch and wait for its acknowledgements.
    bool more = false;
    if (publisher->connected() && NowMs() >= next_publish_ms &&
        !StopRequested(stop_set)) {
      const Publisher::StreamResult sr = publisher->EnsureStream(&error);
      if (sr == Publisher::StreamResult::kFailed) {
        ForwardLog("%s", error.c_str());
        return kExitUnreachable;
      }
      bool ok = sr == Publisher::StreamResult::kReady;
      if (ok && spool.unacked_bytes() > 0) {
        spool.Rewind();
        if (!spool.ReadNext(kBatchLines, kBatchBytes, &batch, &error)) {
          ForwardLog("%s", error.c_str());
          return kExitFailed;
        }
        const size_t acked = publisher->PublishBatch(batch, kAckTimeoutMs, &error);
        std::string why;
        if (acked > 0 && !spool.Acknowledge(batch[acked - 1].seq, &why)) {
          // The lines were stored; they would only be sent again (and
          // de-duplicated) after a restart. The spool takes no new lines
          // until its state is saved.
          if (!state_failing) ForwardLog("%s", why.c_str());
          state_failing = true;
        } else if (acked > 0 && state_failing) {
          ForwardLog("spool state saved again");
          state_failing = false;
        }
        ok = acked == batch.size();
      }
      if (ok) {
        if (publish_failing) ForwardLog("publishing again");
        publish_failing = false;
        backoff_ms = 0;
        more = spool.unacked_bytes() > 0;
      } else {
        if (!publish_failing) ForwardLog("cannot publish: %s", error.c_str());
        publish_failing = true;
        backoff_ms = backoff_ms == 0 ? 100 : std::min(backoff_ms * 2, kMaxBackoffMs);
        next_publish_ms = NowMs() + backoff_ms;
      }
    }
    if (took || more) continue;
    int64_t wait = options.interval_ms;
    if (spool.unacked_bytes() > 0 && publisher->connected()) {
      wait = std::max<int64_t>(1, std::min(wait, next_publish_ms - NowMs()));
    }
    if (WaitForStop(stop_set, wait)) break;
  }
  ForwardLog("stopping: %llu lines left in the spool",
             static_cast<unsigned long long>(spool.next_seq() - spool.acked_seq()));
  publisher.reset();
  return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  YULO::YULOTIFYD::SetLogSink(LogToStderr);
  Options options;
  std::string error;
  if (!ParseCommandLine(argc, argv, &options, &error)) {
    fprintf(stderr, "yulotify-forward: %s\n(see yulotify-forward --help)\n",
            error.c_str());
    return kExitUsage;
  }
  if (options.help) {
    fputs(kHelp, stdout);
    return kExitOk;
  }
  if (options.version) {
    printf("yulotify-forward %s\n", YULOTIFYD_VERSION);
    return kExitOk;
  }
  // Read while still root: the files may be root's alone.
  if (!LoadConnectionFiles(&options.connection, &error)) {
    fprintf(stderr, "yulotify-forward: %s\n", error.c_str());
    return kExitSecretFile;
  }
  // Blocked before the library starts its threads, so that they inherit
  // the mask and the main thread takes the signals with sigtimedwait.
  sigset_t stop_set;
  BlockStopSignals(&stop_set);
  int status = TakeIdentity(&options);
  if (status < 0) status = Run(options, stop_set);
  nats_Close();
  return status;
}
