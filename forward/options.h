// Command line and configuration file of yulotify-forward.
//
// Every option can be given on the command line or, with --config FILE, as
// "key=value" lines of a file (the unit's /etc/yulotifyd/forward/NAME.conf).
// The command line wins over the file. Blank lines and lines starting with
// '#' are ignored. The file may hold the server's password: it is refused
// unless it is a regular file owned by root or the user running the
// forwarder, not readable by others and writable by nobody else.
//
// Thread-safety: plain functions on caller-owned values; no shared state.
#ifndef YULOTIFYD_FORWARD_OPTIONS_H_
#define YULOTIFYD_FORWARD_OPTIONS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "forward/connection.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

constexpr const char kDefaultSpoolDir[] = "/var/lib/yulotifyd/forward";
constexpr uint64_t kDefaultSpoolMaxBytes = uint64_t{1} << 30;  // 1 GiB
constexpr int kDefaultIntervalMs = 1000;
constexpr int kMaxIntervalMs = 3600 * 1000;
// How long a stream the forwarder creates remembers message ids, so that
// a line sent again after an outage of up to this long is stored once.
constexpr int64_t kDefaultDuplicateWindowSeconds = 24 * 3600;
constexpr int64_t kMaxDuplicateWindowSeconds = 30 * 24 * 3600;
constexpr int kMaxReplicas = 5;

struct Options {
  // Servers, TLS and credentials (connection.h); main loads its files.
  ConnectionOptions connection;
  std::string subject;
  std::string stream;  // empty: publish to whatever stream holds `subject`
  // For the stream the forwarder creates: copies kept in a cluster, and
  // its duplicate window.
  int replicas = 1;
  int64_t duplicate_window_s = kDefaultDuplicateWindowSeconds;
  std::string spool_dir = kDefaultSpoolDir;
  uint64_t spool_max_bytes = kDefaultSpoolMaxBytes;
  int interval_ms = kDefaultIntervalMs;
  std::string queue_file;
  // Run as this user (started as root); empty: as the queue's owner.
  std::string user;
  // Directories this process cannot see (its unit hides them): a queue
  // file under one is refused.
  std::vector<std::string> hidden_dirs;
  bool help = false;
  bool version = false;
};

// Parses argv (argv[0] is the program). Returns false with a one-line
// `error` on a usage error. With --help (or --version), returns true and
// sets `help` (or `version`) without checking the rest.
bool ParseCommandLine(int argc, const char* const* argv, Options* options,
                      std::string* error);

// Applies the "key=value" lines of `text` (keys: subject, stream,
// replicas, duplicate-window, spool, spool-max, interval, queue, user,
// hidden-dirs and those of SetConnectionOption) to `options`. `origin` names
// the file in error messages.
bool ApplyConfigText(const std::string& text, const std::string& origin,
                     Options* options, std::string* error);

// Reads the configuration file `path` (refused unless only root or the
// user running the program can change it and others cannot read it) and
// applies its lines to `options`.
bool ApplyConfigFile(const std::string& path, Options* options,
                     std::string* error);

// "90" or "90s", "15m", "2h", "1d": seconds, at least 1 and at most
// `max_seconds`.
bool ParseDuration(const std::string& text, int64_t max_seconds,
                   int64_t* seconds);

// "1048576", "64K", "100M", "1G" (binary units). False when not a positive
// size that fits in 64 bits, or anything but digits and one unit.
bool ParseSize(const std::string& text, uint64_t* bytes);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_OPTIONS_H_
