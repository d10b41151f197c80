// Command line and configuration file of yulotify-sink.
//
// Every option can be given on the command line ("--key value" or
// "--key=value") or, with --config FILE, as "key=value" lines of a file
// (the unit's /etc/yulotifyd/sink/NAME.conf); the command line wins. Blank
// lines and lines starting with '#' are ignored. The connection options
// (servers, TLS, credentials) are those of yulotify-forward (connection.h).
// The file is read as the forwarder reads its own: refused unless only
// root or the user running the program can change it and others cannot
// read it.
//
// Thread-safety: plain functions on caller-owned values; no shared state.
#ifndef YULOTIFYD_FORWARD_SINK_OPTIONS_H_
#define YULOTIFYD_FORWARD_SINK_OPTIONS_H_

#include <string>
#include <vector>

#include "forward/connection.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

constexpr const char kDefaultDurable[] = "yulotify-sink";
constexpr const char kStateSuffix[] = ".sink-state";
constexpr int kDefaultSinkBatch = 1000;
constexpr int kMaxSinkBatch = 10000;
constexpr int kDefaultSinkIntervalMs = 1000;

struct SinkOptions {
  ConnectionOptions connection;
  std::string stream;
  // Only the stream's messages on these subjects (wildcards allowed);
  // empty: all of them.
  std::string subject;
  std::string durable = kDefaultDurable;
  std::string queue_file;
  // Empty: queue_file + kStateSuffix.
  std::string state_file;
  bool host_member = false;
  int batch = kDefaultSinkBatch;
  // The longest a fetch waits for messages; also how soon a stop is seen.
  int interval_ms = kDefaultSinkIntervalMs;
  std::string user;
  std::vector<std::string> hidden_dirs;
  bool help = false;
  bool version = false;
};

// Sets one option by its long name (without "--"), connection options
// included. False with a one-line `error`.
bool SetSinkOption(const std::string& key, const std::string& value,
                   SinkOptions* options, std::string* error);

// Applies the "key=value" lines of `text`; `origin` names it in errors.
bool ApplySinkConfigText(const std::string& text, const std::string& origin,
                         SinkOptions* options, std::string* error);

// Parses argv (argv[0] is the program), the --config file first. With
// --help or --version, sets `help` or `version` and checks nothing else.
// Otherwise requires the servers, the stream and the queue file, and
// checks the connection options as a whole.
bool ParseSinkCommandLine(int argc, const char* const* argv,
                          SinkOptions* options, std::string* error);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_SINK_OPTIONS_H_
