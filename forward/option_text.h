// Options given as "key=value": the lines of a configuration file and the
// long options of a command line, as every program of the forwarder's
// family takes them. What a key means is the caller's `set`.
//
// Thread-safety: plain functions; no shared state.
#ifndef YULOTIFYD_FORWARD_OPTION_TEXT_H_
#define YULOTIFYD_FORWARD_OPTION_TEXT_H_

#include <functional>
#include <string>
#include <vector>

#include "forward/connection.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

// Sets option `key` (a long option's name without "--") to `value`; false
// with a one-line `error`. An unknown key's error starts with
// "unknown option".
using OptionSetter =
    std::function<bool(const std::string& key, const std::string& value,
                       std::string* error)>;

// Applies each "key=value" line of `text` with `set`; blank lines and
// lines starting with '#' are skipped, blanks around key and value
// dropped. `error` is "ORIGIN:LINE: why".
bool ApplyKeyValueLines(const std::string& text, const std::string& origin,
                        const OptionSetter& set, std::string* error);

struct CommandLine {
  bool help = false;     // --help or -h
  bool version = false;  // --version
};

// Walks argv (argv[0] is the program). With --help, -h or --version
// anywhere, says so and looks at nothing else. Otherwise calls
// `apply_config` with the FILE of each "--config FILE" first (so that the
// command line wins over the file), then `set` with each other
// "--key value" or "--key=value", and with `operand_key` and the one word
// that is not an option, if any ("expects one OPERAND_NAME" when there
// are more). False with a one-line `error`.
bool WalkCommandLine(
    int argc, const char* const* argv,
    const std::function<bool(const std::string& path, std::string* error)>&
        apply_config,
    const OptionSetter& set, const std::string& operand_key,
    const std::string& operand_name, CommandLine* out, std::string* error);

// "/a/b", not "a/b" nor "/a/../b": a path whose meaning does not depend on
// where ".." leads.
bool IsPlainAbsolute(const std::string& path);

// Digits only, from `low` to `high`.
bool ParseCount(const std::string& text, int low, int high, int* out);

// The options of who a program runs as and what it cannot see: "user"
// (started as root, become this user) and "hidden-dirs" (directories its
// unit hides: a queue file under one is refused). kUnknown for any other
// key.
SetResult SetRunAsOption(const std::string& key, const std::string& value,
                         std::string* user,
                         std::vector<std::string>* hidden_dirs,
                         std::string* error);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_OPTION_TEXT_H_
