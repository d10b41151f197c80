// yulotifyctl consume and peek: the lines of a queue file, taken from it or
// left in it, through libyulotifyd's QueueConsumer.
#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/errno_text.h"
#include "tools/ctl.h"
#include "tools/peek_follow.h"
#include "yulotifyd/queue_consumer.h"

namespace YULO {
namespace YULOTIFYD {
namespace ctl {

namespace {

constexpr int kDefaultIntervalMs = 1000;

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) { g_stop = 1; }

// SIGINT and SIGTERM end --follow between two rounds; without SA_RESTART a
// pause is cut short at once.
void InstallStopHandlers() {
  struct sigaction sa;
  memset(&sa, 0, sizeof(sa));
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

void SleepMs(int ms) {
  struct timespec pause = {ms / 1000, static_cast<long>(ms % 1000) * 1000000};
  // An interrupting signal ends the pause; the caller checks g_stop.
  nanosleep(&pause, nullptr);
}

// Writes the lines to stdout. False when stdout failed.
bool PrintLines(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) {
    out += line;
    out += '\n';
  }
  size_t done = 0;
  while (done < out.size()) {
    const ssize_t n = write(STDOUT_FILENO, out.data() + done, out.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// A consumer of the one QUEUE_FILE with the options consume and peek share:
// --lock-timeout, --owner and --max-read. False, having reported, when one
// of them is not valid.
bool MakeConsumer(const std::string& cmd, const Args& args,
                  std::unique_ptr<QueueConsumer>* consumer, int* status) {
  long long ms = QueueConsumer::kDefaultLockTimeoutMs;
  auto it = args.options.find("--lock-timeout");
  if (it != args.options.end() &&
      !ParseNumber(it->second, 1, kMaxIntervalMs, &ms)) {
    *status = UsageError(cmd, "--lock-timeout wants milliseconds (1 or "
                              "more), not \"" + it->second + "\"");
    return false;
  }
  long long max_read = QueueConsumer::kDefaultMaxReadBytes;
  it = args.options.find("--max-read");
  if (it != args.options.end() &&
      !ParseNumber(it->second,
                   static_cast<long long>(QueueConsumer::kMinMaxReadBytes),
                   QueueConsumer::kMaxQueueFileBytes, &max_read)) {
    *status = UsageError(
        cmd, "--max-read wants a number of bytes from " +
                 std::to_string(QueueConsumer::kMinMaxReadBytes) + " to " +
                 std::to_string(QueueConsumer::kMaxQueueFileBytes) +
                 ", not \"" + it->second + "\"");
    return false;
  }
  *consumer = std::make_unique<QueueConsumer>(args.positional[0],
                                              static_cast<int>(ms));
  (*consumer)->set_max_read_bytes(static_cast<size_t>(max_read));
  it = args.options.find("--owner");
  if (it != args.options.end()) {
    long long uid = 0;
    if (const struct passwd* pw = getpwnam(it->second.c_str())) {
      uid = pw->pw_uid;
    } else if (!ParseNumber(it->second, 0, UINT32_MAX - 1, &uid)) {
      *status = UsageError(cmd, "--owner wants a user name or id, not \"" +
                                    it->second + "\"");
      return false;
    }
    (*consumer)->set_expected_owner(static_cast<uid_t>(uid));
  }
  return true;
}

// --follow, --interval and --wait, which consume and peek share. False,
// having reported, when they do not go together.
struct Rounds {
  bool follow = false;
  bool wait = false;
  int interval_ms = kDefaultIntervalMs;
};
bool ParseRounds(const std::string& cmd, const Args& args, Rounds* rounds,
                 int* status) {
  rounds->follow = args.options.count("--follow") != 0;
  rounds->wait = args.options.count("--wait") != 0;
  const auto it = args.options.find("--interval");
  if (it != args.options.end()) {
    long long interval = 0;
    if (!ParseNumber(it->second, 1, kMaxIntervalMs, &interval)) {
      *status = UsageError(cmd, "--interval wants milliseconds (1 or more), "
                                "not \"" + it->second + "\"");
      return false;
    }
    if (!rounds->follow) {
      *status = UsageError(cmd, "--interval goes with --follow");
      return false;
    }
    rounds->interval_ms = static_cast<int>(interval);
  }
  return true;
}

// Whether nothing is at `path` (ENOENT: neither the file nor, maybe, its
// directory). Any other failure is left for the consumer to report.
bool IsMissing(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) != 0 && errno == ENOENT;
}

std::string MissingText(const std::string& cmd, const std::string& path) {
  return "cannot " + cmd + " " + path +
         ": no such file (yulotifyd creates a queue file with its first "
         "line; --wait waits for it)";
}

}  // namespace

const char kConsumeHelp[] =
    "usage: yulotifyctl consume QUEUE_FILE [--follow] [--interval MS]\n"
    "                           [--wait] [--lock-timeout MS] [--owner USER]\n"
    "                           [--max-read BYTES]\n"
    "\n"
    "Takes every complete line from a queue file and prints it on stdout:\n"
    "locks the file (exclusive flock), reads it, empties it (an unfinished\n"
    "last line stays in the file), unlocks it, and only then prints. The\n"
    "lock is never held for longer than that one read and one truncation,\n"
    "since the daemon's lines wait for its next pass while it is locked.\n"
    "\n"
    "A missing file is an error (exit 1) unless --wait is given: then it\n"
    "has no lines yet (the daemon creates a queue file with its first\n"
    "line), and --follow waits for it. Lines are taken from the file\n"
    "before they are printed: if stdout fails they are lost, which is\n"
    "reported. A file larger than --max-read is taken a part at a time,\n"
    "until it is empty. Refused, without reading or changing it (exit 1):\n"
    "a symbolic link, anything but a regular file, a file with several\n"
    "hard links, one owned by another user than expected (see --owner),\n"
    "and one larger than a queue file ever gets.\n"
    "\n"
    "  --follow           repeat until interrupted (SIGINT or SIGTERM)\n"
    "  --interval MS      pause between two rounds with --follow "
    "(default 1000)\n"
    "  --wait             a missing file has no lines yet (with --follow:\n"
    "                     wait for the daemon to create it)\n"
    "  --lock-timeout MS  give up when others hold the lock this long\n"
    "                     (default 5000); with --follow the round is retried\n"
    "  --owner USER       the file must belong to USER (a name or an id);\n"
    "                     by default it must belong to the owner of its\n"
    "                     directory or to the caller\n"
    "  --max-read BYTES   read at most this much of the file at a time\n"
    "                     (default 16777216)\n";

const char kPeekHelp[] =
    "usage: yulotifyctl peek QUEUE_FILE [--follow] [--interval MS] [--wait]\n"
    "                        [--lock-timeout MS] [--owner USER]\n"
    "                        [--max-read BYTES]\n"
    "\n"
    "Prints the complete lines of a queue file on stdout and leaves them in\n"
    "the file: nothing is taken, the file is only read (its content and\n"
    "modification time stay as they were). It reads under a shared flock,\n"
    "so a line the daemon is writing is shown whole or not at all, and it\n"
    "holds the lock for that one read only. An unfinished last line is not\n"
    "shown (a note on stderr says it is there).\n"
    "\n"
    "Only the lines within the first --max-read bytes are shown (a note on\n"
    "stderr says when there are more).\n"
    "\n"
    "With --follow it looks again every --interval and prints the lines\n"
    "added since, as they arrive, until interrupted (SIGINT or SIGTERM).\n"
    "When the lines it showed are no longer the file's first lines (a\n"
    "consumer took them, the daemon reset the file), it says so on stderr\n"
    "and prints the file again from its start.\n"
    "\n"
    "A missing file is an error (exit 1) unless --wait is given (then it\n"
    "has no lines yet), as is a file that cannot be read or that consume\n"
    "would refuse.\n"
    "\n"
    "  --follow           print new lines as they arrive, until interrupted\n"
    "  --interval MS      pause between two looks with --follow "
    "(default 1000)\n"
    "  --wait             a missing file has no lines yet (with --follow:\n"
    "                     wait for the daemon to create it)\n"
    "  --lock-timeout MS  give up when others hold the lock this long\n"
    "                     (default 5000); with --follow the look is retried\n"
    "  --owner USER       the file must belong to USER (a name or an id);\n"
    "                     by default it must belong to the owner of its\n"
    "                     directory or to the caller\n"
    "  --max-read BYTES   read at most this much of the file at a time\n"
    "                     (default 16777216)\n";

int RunConsume(const Args& args) {
  const std::string cmd = "consume";
  if (args.positional.size() != 1) {
    return UsageError(cmd, "expects exactly one QUEUE_FILE");
  }
  Rounds rounds;
  int status = kExitOk;
  if (!ParseRounds(cmd, args, &rounds, &status)) return status;
  std::unique_ptr<QueueConsumer> made;
  if (!MakeConsumer(cmd, args, &made, &status)) return status;
  const QueueConsumer& consumer = *made;
  // QueueConsumer takes a missing file for one without lines yet, as a
  // consumer started before the daemon's first line needs; here a
  // misspelt path must not look like a quiet queue.
  if (!rounds.wait && IsMissing(consumer.queue_path())) {
    Error(MissingText(cmd, consumer.queue_path()));
    return kExitFailed;
  }
  // A closed stdout must not kill us between taking lines and reporting
  // that they could not be written.
  signal(SIGPIPE, SIG_IGN);
  if (rounds.follow) InstallStopHandlers();

  for (;;) {
    const QueueConsumer::Result result = consumer.Consume();
    if (!result.ok) {
      const bool retry = rounds.follow && result.error == EWOULDBLOCK;
      Error("cannot consume " + consumer.queue_path() + ": " +
            result.message +
            (retry ? " (retrying)" : " (nothing was taken from it)"));
      if (!retry) return kExitFailed;
    } else {
      if (!result.message.empty()) Error("warning: " + result.message);
      if (!PrintLines(result.lines)) {
        Error("cannot write to stdout: " + ErrnoText(errno) +
              "; " + std::to_string(result.lines.size()) +
              " line(s) taken from " + consumer.queue_path() + " are lost");
        return kExitFailed;
      }
      if (result.more && !g_stop) continue;  // the rest of a large file
    }
    if (!rounds.follow || g_stop) return kExitOk;
    SleepMs(rounds.interval_ms);
    if (g_stop) return kExitOk;
  }
}

int RunPeek(const Args& args) {
  const std::string cmd = "peek";
  if (args.positional.size() != 1) {
    return UsageError(cmd, "expects exactly one QUEUE_FILE");
  }
  Rounds rounds;
  int status = kExitOk;
  if (!ParseRounds(cmd, args, &rounds, &status)) return status;
  std::unique_ptr<QueueConsumer> made;
  if (!MakeConsumer(cmd, args, &made, &status)) return status;
  const QueueConsumer& queue = *made;
  const std::string& path = queue.queue_path();
  signal(SIGPIPE, SIG_IGN);  // a closed stdout is reported, not fatal
  if (rounds.follow) InstallStopHandlers();

  PeekFollow follow;
  bool more_noted = false;
  for (bool first = true;; first = false) {
    QueueConsumer::Result result = queue.Peek();
    // With --wait, and once following, a missing file is an empty one:
    // the daemon creates it with its next line.
    const bool missing = !result.ok && result.error == ENOENT &&
                         (rounds.wait || (rounds.follow && !first));
    if (missing) result = QueueConsumer::Result();
    if (!result.ok && !missing) {
      const bool retry = rounds.follow && result.error == EWOULDBLOCK;
      Error("cannot peek at " + path + ": " + result.message +
            (retry ? " (retrying)" : ""));
      if (!retry) return kExitFailed;
    } else {
      const PeekFollow::Step step = follow.Next(result.lines);
      if (step.started_over) {
        Error("note: the lines shown from " + path +
              " are gone (taken by a consumer, or the file was reset); "
              "showing it again from its start");
      }
      const std::vector<std::string> fresh(
          result.lines.begin() + static_cast<long>(step.first_new),
          result.lines.end());
      if (!PrintLines(fresh)) {
        Error("cannot write to stdout: " + ErrnoText(errno));
        return kExitFailed;
      }
      if (result.more && !more_noted) {
        Error("note: " + path + " holds more lines than the " +
              std::to_string(queue.max_read_bytes()) +
              " bytes read (see --max-read), not shown");
        more_noted = rounds.follow;
      }
      if (result.kept_partial_line && !rounds.follow) {
        Error("note: " + path + " ends in an unfinished line, not shown");
      }
    }
    if (!rounds.follow || g_stop) return kExitOk;
    SleepMs(rounds.interval_ms);
    if (g_stop) return kExitOk;
  }
}

}  // namespace ctl
}  // namespace YULOTIFYD
}  // namespace YULO
