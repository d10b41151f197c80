#include "forward/sink_options.h"

#include "forward/option_text.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

constexpr size_t kMaxConfigBytes = 64 * 1024;

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
    if (!IsPlainAbsolute(value)) {
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
  } else {
    SetResult r =
        SetRunAsOption(key, value, &o->user, &o->hidden_dirs, error);
    if (r == SetResult::kUnknown) {
      r = SetConnectionOption(key, value, &o->connection, error);
    }
    if (r == SetResult::kUnknown) *error = "unknown option " + key;
    return r == SetResult::kSet;
  }
  return true;
}

bool ApplySinkConfigText(const std::string& text, const std::string& origin,
                         SinkOptions* options, std::string* error) {
  return ApplyKeyValueLines(
      text, origin,
      [options](const std::string& key, const std::string& value,
                std::string* why) {
        return SetSinkOption(key, value, options, why);
      },
      error);
}

bool ParseSinkCommandLine(int argc, const char* const* argv,
                          SinkOptions* options, std::string* error) {
  CommandLine line;
  const bool ok = WalkCommandLine(
      argc, argv,
      [options](const std::string& path, std::string* why) {
        // It may name a password file or hold a URL with one: its group
        // may read it, others may not.
        std::string text;
        return ReadProtectedFile(path, kMaxConfigBytes, true, &text, why) &&
               ApplySinkConfigText(text, path, options, why);
      },
      [options](const std::string& key, const std::string& value,
                std::string* why) {
        return SetSinkOption(key, value, options, why);
      },
      "queue", "QUEUE_FILE", &line, error);
  if (!ok) return false;
  options->help = line.help;
  options->version = line.version;
  if (line.help || line.version) return true;
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
