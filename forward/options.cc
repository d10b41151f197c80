#include "forward/options.h"

#include <errno.h>

#include <cstdlib>
#include <limits>
#include <map>

#include "base/path.h"
#include "forward/option_text.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

// A configuration file holds a few options; anything larger is a mistake.
constexpr size_t kMaxConfigBytes = 64 * 1024;

// Sets one option by its long name (without "--"). `error` says why not.
bool SetOption(const std::string& key, const std::string& value,
               Options* o, std::string* error) {
  switch (SetConnectionOption(key, value, &o->connection, error)) {
    case SetResult::kSet:
      return true;
    case SetResult::kBad:
      return false;
    case SetResult::kUnknown:
      break;
  }
  if (key == "subject") {
    if (value.empty() || value.find_first_of(" \t*>") != std::string::npos) {
      *error = "subject must be a plain subject (no blanks, no wildcards)";
      return false;
    }
    o->subject = value;
  } else if (key == "stream") {
    if (value.empty() ||
        value.find_first_of(" \t.*>/\\") != std::string::npos) {
      *error = "stream must be a name without blanks, '.', '*', '>' or slashes";
      return false;
    }
    o->stream = value;
  } else if (key == "replicas") {
    if (value.size() != 1 || value[0] < '1' || value[0] > '0' + kMaxReplicas) {
      *error = "replicas wants a number of copies, 1 to " +
               std::to_string(kMaxReplicas);
      return false;
    }
    o->replicas = value[0] - '0';
  } else if (key == "duplicate-window") {
    if (!ParseDuration(value, kMaxDuplicateWindowSeconds,
                       &o->duplicate_window_s)) {
      *error = "duplicate-window wants a duration (suffix s, m, h or d), "
               "up to 30d";
      return false;
    }
  } else if (key == "spool") {
    if (value.empty() || value[0] != '/') {
      *error = "spool must be an absolute directory";
      return false;
    }
    o->spool_dir = value;
  } else if (key == "spool-max") {
    if (!ParseSize(value, &o->spool_max_bytes)) {
      *error = "spool-max wants a size in bytes (suffix K, M or G allowed)";
      return false;
    }
  } else if (key == "interval") {
    if (!ParseCount(value, 1, kMaxIntervalMs, &o->interval_ms)) {
      *error = "interval wants milliseconds, 1 to " +
               std::to_string(kMaxIntervalMs);
      return false;
    }
  } else if (key == "queue") {
    if (!IsPlainAbsolute(value)) {
      *error = "the queue file must be an absolute path without \"..\"";
      return false;
    }
    o->queue_file = value;
  } else {
    const SetResult r =
        SetRunAsOption(key, value, &o->user, &o->hidden_dirs, error);
    if (r == SetResult::kUnknown) *error = "unknown option " + key;
    return r == SetResult::kSet;
  }
  return true;
}

}  // namespace

bool ParseDuration(const std::string& text, int64_t max_seconds,
                   int64_t* seconds) {
  const size_t digits = text.find_first_not_of("0123456789");
  const size_t count = digits == std::string::npos ? text.size() : digits;
  if (count == 0 || count > 9) return false;
  const std::string unit = text.substr(count);
  int64_t scale = 1;
  if (unit == "m") scale = 60;
  else if (unit == "h") scale = 3600;
  else if (unit == "d") scale = 24 * 3600;
  else if (!unit.empty() && unit != "s") return false;
  const int64_t v =
      std::strtoll(text.substr(0, count).c_str(), nullptr, 10) * scale;
  if (v < 1 || v > max_seconds) return false;
  *seconds = v;
  return true;
}

bool ParseSize(const std::string& text, uint64_t* bytes) {
  const size_t digits = text.find_first_not_of("0123456789");
  const size_t count = digits == std::string::npos ? text.size() : digits;
  if (count == 0 || count > 20) return false;
  const std::string unit = text.substr(count);
  unsigned shift = 0;
  if (unit == "K" || unit == "k") shift = 10;
  else if (unit == "M") shift = 20;
  else if (unit == "G") shift = 30;
  else if (!unit.empty()) return false;
  errno = 0;
  const uint64_t v = std::strtoull(text.substr(0, count).c_str(), nullptr, 10);
  if (errno == ERANGE || v == 0 ||
      v > (std::numeric_limits<uint64_t>::max() >> shift))
    return false;
  *bytes = v << shift;
  return true;
}

bool ApplyConfigText(const std::string& text, const std::string& origin,
                     Options* options, std::string* error) {
  return ApplyKeyValueLines(
      text, origin,
      [options](const std::string& key, const std::string& value,
                std::string* why) {
        return SetOption(key, value, options, why);
      },
      error);
}

bool ApplyConfigFile(const std::string& path, Options* options,
                     std::string* error) {
  // The file may hold a server's password in a URL: its group may read it,
  // others may not.
  std::string text;
  if (!ReadProtectedFile(path, kMaxConfigBytes, true, &text, error)) {
    return false;
  }
  return ApplyConfigText(text, path, options, error);
}

bool ParseCommandLine(int argc, const char* const* argv, Options* options,
                      std::string* error) {
  CommandLine line;
  const bool ok = WalkCommandLine(
      argc, argv,
      [options](const std::string& path, std::string* why) {
        return ApplyConfigFile(path, options, why);
      },
      [options](const std::string& key, const std::string& value,
                std::string* why) {
        return SetOption(key, value, options, why);
      },
      "queue", "QUEUE_FILE", &line, error);
  if (!ok) return false;
  options->help = line.help;
  options->version = line.version;
  if (line.help || line.version) return true;
  if (!CheckConnectionOptions(options->connection, error)) return false;
  if (options->subject.empty()) {
    *error = "--subject is required";
    return false;
  }
  if (options->queue_file.empty()) {
    *error = "QUEUE_FILE is required";
    return false;
  }
  return true;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
