#include "forward/sink_options.h"

#include <cstdlib>

#include "base/path.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr size_t kMaxConfigBytes = 64 * 1024;

bool PlainAbsolute(const std::string& path) {
  return !path.empty() && path[0] == '/' && !HasDotDotComponent(path);
}

bool ParseCount(const std::string& text, int low, int high, int* out) {
  if (text.empty() || text.size() > 9 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const long v = std::strtol(text.c_str(), nullptr, 10);
  if (v < low || v > high) return false;
  *out = static_cast<int>(v);
  return true;
}

std::string Trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

// A NATS name (stream, durable consumer): no blanks, dots, wildcards or
// path separators.
bool PlainName(const std::string& value) {
  return !value.empty() &&
         value.find_first_of(" \t.*>/\\") == std::string::npos;
}

}  // namespace

bool SetSinkOption(const std::string& key, const std::string& value,
                   SinkOptions* o, std::string* error) {
  if (key == "stream" || key == "durable") {
    if (!PlainName(value)) {
      *error = key + " must be a name without blanks, '.', '*', '>' or "
               "slashes";
      return false;
    }
    (key == "stream" ? o->stream : o->durable) = value;
  } else if (key == "subject") {
    if (value.empty() || value.find_first_of(" \t") != std::string::npos) {
      *error = "subject must be a subject without blanks (wildcards allowed)";
      return false;
    }
    o->subject = value;
  } else if (key == "queue" || key == "state") {
    if (!PlainAbsolute(value)) {
      *error = key + " must be an absolute path without \"..\"";
      return false;
    }
    (key == "queue" ? o->queue_file : o->state_file) = value;
  } else if (key == "host-member") {
    if (value != "yes" && value != "no") {
      *error = "host-member wants yes or no";
      return false;
    }
    o->host_member = value == "yes";
  } else if (key == "batch") {
    if (!ParseCount(value, 1, kMaxSinkBatch, &o->batch)) {
      *error = "batch wants a number of messages, 1 to " +
               std::to_string(kMaxSinkBatch);
      return false;
    }
  } else if (key == "interval") {
    if (!ParseCount(value, 10, 60000, &o->interval_ms)) {
      *error = "interval wants milliseconds, 10 to 60000";
      return false;
    }
  } else if (key == "user") {
    if (value.empty() || value.find_first_of(" \t/:") != std::string::npos) {
      *error = "user wants a user name";
      return false;
    }
    o->user = value;
  } else if (key == "hidden-dirs") {
    o->hidden_dirs.clear();
    for (const std::string& dir : SplitCommaList(value)) {
      if (!PlainAbsolute(dir)) {
        *error = "hidden-dirs wants absolute directories without \"..\"";
        return false;
      }
      o->hidden_dirs.push_back(NormalisePath(dir));
    }
  } else {
    switch (SetConnectionOption(key, value, &o->connection, error)) {
      case SetResult::kSet:
        return true;
      case SetResult::kBad:
        return false;
      case SetResult::kUnknown:
        *error = "unknown option " + key;
        return false;
    }
  }
  return true;
}

bool ApplySinkConfigText(const std::string& text, const std::string& origin,
                         SinkOptions* options, std::string* error) {
  size_t pos = 0;
  int number = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    const std::string line = Trim(text.substr(pos, nl - pos));
    pos = nl + 1;
    ++number;
    if (line.empty() || line[0] == '#') continue;
    const size_t eq = line.find('=');
    std::string why = "expected key=value";
    if (eq != std::string::npos &&
        SetSinkOption(Trim(line.substr(0, eq)), Trim(line.substr(eq + 1)),
                      options, &why)) {
      continue;
    }
    *error = origin + ":" + std::to_string(number) + ": " + why;
    return false;
  }
  return true;
}

bool ParseSinkCommandLine(int argc, const char* const* argv,
                          SinkOptions* options, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      options->help = true;
      return true;
    }
    if (arg == "--version") {
      options->version = true;
      return true;
    }
  }
  // The file first, so that the command line can override it.
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string path;
    if (arg == "--config") {
      if (i + 1 >= argc) {
        *error = "--config needs a value";
        return false;
      }
      path = argv[++i];
    } else if (arg.rfind("--config=", 0) == 0) {
      path = arg.substr(9);
    } else {
      continue;
    }
    // It may name a password file or hold a URL with one: its group may
    // read it, others may not.
    std::string text;
    if (!ReadProtectedFile(path, kMaxConfigBytes, true, &text, error) ||
        !ApplySinkConfigText(text, path, options, error)) {
      return false;
    }
  }
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      positional.push_back(arg);
      continue;
    }
    std::string key = arg.substr(2);
    std::string value;
    const size_t eq = key.find('=');
    if (eq != std::string::npos) {
      value = key.substr(eq + 1);
      key.resize(eq);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      *error = arg + " needs a value";
      return false;
    }
    if (key == "config") continue;  // applied above
    if (!SetSinkOption(key, value, options, error)) {
      if (error->rfind("unknown option", 0) == 0) {
        *error = "unknown option --" + key;
      }
      return false;
    }
  }
  if (positional.size() > 1) {
    *error = "expects one QUEUE_FILE";
    return false;
  }
  if (positional.size() == 1 &&
      !SetSinkOption("queue", positional[0], options, error)) {
    return false;
  }
  if (options->stream.empty()) {
    *error = "--stream is required";
    return false;
  }
  if (options->queue_file.empty()) {
    *error = "QUEUE_FILE is required";
    return false;
  }
  if (options->state_file.empty()) {
    options->state_file = options->queue_file + kStateSuffix;
  }
  return CheckConnectionOptions(options->connection, error);
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
