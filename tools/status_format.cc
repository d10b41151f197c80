#include "tools/status_format.h"

#include <cstdio>
#include <ctime>
#include <sstream>
#include <vector>

#include "base/text_escape.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

// A member as table text. Strings (paths, error texts) may come from any
// user: their control characters are escaped before a terminal sees them.
std::string Text(const Json::Value& v, const char* key) {
  const Json::Value& m = v[key];
  if (m.isString()) return EscapeText(m.asString());
  if (m.isNull()) return "-";
  if (m.isBool()) return m.asBool() ? "yes" : "no";
  std::ostringstream out;
  if (m.isUInt64()) {
    out << m.asUInt64();
  } else if (m.isInt64()) {
    out << m.asInt64();
  } else {
    out << m.asDouble();
  }
  return out.str();
}

std::string Number(const Json::Value& v, const char* key) {
  const Json::Value& m = v[key];
  if (m.isUInt64()) return std::to_string(m.asUInt64());
  if (m.isInt64()) return std::to_string(m.asInt64());
  if (m.isBool()) return m.asBool() ? "1" : "0";
  return "0";
}

// A fraction (0.0 ... ) as Prometheus and the table write it.
std::string Fraction(const Json::Value& v, const char* key) {
  const Json::Value& m = v[key];
  if (!m.isNumeric()) return "0";
  std::ostringstream out;
  out << m.asDouble();
  return out.str();
}

// Whether the volume `v` misses a watch the kernel refused.
bool WatchFailed(const Json::Value& v) {
  return v["watch_state"].isString() && v["watch_state"].asString() == "failed";
}

// The shares of `v` the kernel refused to watch, escaped, one space apart.
std::string RefusedShares(const Json::Value& v) {
  std::string shares;
  for (const Json::Value& s : v["refused_shares"]) {
    if (!shares.empty()) shares += " ";
    shares += EscapeText(s.asString());
  }
  return shares;
}

std::string Pad(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string Time(const Json::Value& v, const char* key) {
  const Json::Value& m = v[key];
  if (!m.isInt64() || m.asInt64() <= 0) return "";
  const time_t t = static_cast<time_t>(m.asInt64());
  struct tm tm;
  char buf[32];
  if (gmtime_r(&t, &tm) == nullptr ||
      strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%SZ", &tm) == 0) {
    return "";
  }
  return buf;
}

// One metric family: HELP, TYPE and its samples.
class Family {
 public:
  Family(std::string name, const char* type, const char* help)
      : name_("yulotifyd_" + std::move(name)), type_(type), help_(help) {}
  void Add(const std::string& labels, const std::string& value) {
    samples_ += name_;
    if (!labels.empty()) samples_ += "{" + labels + "}";
    samples_ += " " + value + "\n";
  }
  void AppendTo(std::string* out) const {
    *out += "# HELP " + name_ + " " + help_ + "\n";
    *out += "# TYPE " + name_ + " " + type_ + "\n";
    *out += samples_;
  }

 private:
  std::string name_;
  const char* type_;
  const char* help_;
  std::string samples_;
};

}  // namespace

std::string PrometheusLabel(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::string StatusTable(const Json::Value& status) {
  std::ostringstream out;
  const Json::Value& backend = status["backend"];
  out << "yulotifyd " << Text(status, "version") << ", pid "
      << Text(status, "pid") << ", up " << Text(status, "uptime_seconds")
      << " s, log level " << Text(status, "log_level") << "\n";
  out << "started after: " << Text(status, "run_status_at_start")
      << ", kernel backend: " << Text(backend, "name")
      << (backend["paired_renames"].asBool() ? " (renames paired)"
                                              : " (renames unpaired)")
      << ", monitor queues: " << Text(status, "monitor_queues") << "\n";
  out << "\n"
      << Pad("VOLUME", 8) << Pad("MOUNT POINT", 20) << Pad("READ", 12)
      << Pad("QUEUED", 9) << Pad("LINES", 12) << Pad("OVERFLOWS", 11)
      << Pad("RESCANS", 9) << "SHARES\n";
  for (const Json::Value& v : status["volumes"]) {
    std::string shares;
    for (const Json::Value& s : v["watched_shares"]) {
      if (!shares.empty()) shares += " ";
      shares += EscapeText(s.asString());
    }
    out << Pad(Text(v, "id"), 8) << Pad(Text(v, "mount_point"), 20)
        << Pad(Number(v, "events_read"), 12)
        << Pad(Number(v, "events_queued"), 9)
        << Pad(Number(v, "lines_written"), 12)
        << Pad(Number(v, "kernel_overflows"), 11)
        << Pad(Number(v, "rescan_lines"), 9)
        << (shares.empty() ? "(none watched)" : shares) << "\n";
    if (WatchFailed(v)) {
      out << "        not watched, refused by the kernel: "
          << EscapeText(v["watch_error"].asString()) << ": "
          << RefusedShares(v) << "\n";
    }
  }
  out << "\n"
      << Pad("STATE", 9) << Pad("LINES", 12) << Pad("KEPT", 8)
      << Pad("BYTES", 12) << Pad("LIMIT", 7) << Pad("OLDEST", 9)
      << "QUEUE FILE\n";
  for (const Json::Value& f : status["queue_files"]) {
    char used[16];
    std::snprintf(used, sizeof(used), "%.0f%%",
                  100.0 * f["limit_used"].asDouble());
    out << Pad(Text(f, "state"), 9) << Pad(Number(f, "lines_written"), 12)
        << Pad(Number(f, "lines_kept"), 8) << Pad(Number(f, "bytes"), 12)
        << Pad(used, 7) << Pad(Number(f, "oldest_line_age") + "s", 9)
        << Text(f, "path") << "\n";
    const std::string error = EscapeText(f["last_error"].asString());
    if (!error.empty()) {
      out << "         last error " << Time(f, "last_error_time") << ": "
          << error << "\n";
    }
  }
  return out.str();
}

std::string StatusPrometheus(const Json::Value& status) {
  const Json::Value& backend = status["backend"];
  Family info("info", "gauge",
              "The daemon's version, kernel backend and how it started.");
  info.Add("version=\"" + PrometheusLabel(Text(status, "version")) +
               "\",backend=\"" + PrometheusLabel(Text(backend, "name")) +
               "\",paired_renames=\"" +
               (backend["paired_renames"].asBool() ? "true" : "false") +
               "\",run_status_at_start=\"" +
               PrometheusLabel(Text(status, "run_status_at_start")) + "\"",
           "1");
  Family uptime("uptime_seconds", "gauge", "Seconds since the daemon started.");
  uptime.Add("", Number(status, "uptime_seconds"));
  Family queues("monitor_queues", "gauge", "Monitor queues loaded.");
  queues.Add("", Number(status, "monitor_queues"));

  Family read("events_read_total", "counter",
              "Events read from the kernel, per volume.");
  Family injected("events_injected_total", "counter",
                  "Events injected by notify commands, per volume.");
  Family queued("events_queued", "gauge",
                "Events waiting for the volume's processor.");
  Family lines("lines_written_total", "counter",
               "Queue lines written, per volume.");
  Family overflows("kernel_overflows_total", "counter",
                   "Kernel event queue overflows, per volume.");
  Family rescans("rescan_lines_total", "counter",
                 "Rescan lines produced, per volume.");
  Family watch_failed("volume_watch_failed", "gauge",
                      "1 while the kernel refuses the watch of a share the "
                      "volume should watch, else 0.");
  for (const Json::Value& v : status["volumes"]) {
    const std::string labels =
        "volume=\"" + PrometheusLabel(Text(v, "id")) + "\",mount_point=\"" +
        PrometheusLabel(Text(v, "mount_point")) + "\"";
    read.Add(labels, Number(v, "events_read"));
    injected.Add(labels, Number(v, "events_injected"));
    queued.Add(labels, Number(v, "events_queued"));
    lines.Add(labels, Number(v, "lines_written"));
    overflows.Add(labels, Number(v, "kernel_overflows"));
    rescans.Add(labels, Number(v, "rescan_lines"));
    watch_failed.Add(labels, WatchFailed(v) ? "1" : "0");
  }

  Family file_lines("queue_file_lines_written_total", "counter",
                    "Lines that reached the queue file.");
  Family file_kept("queue_file_lines_kept", "gauge",
                   "Lines waiting for a queue file that did not take them.");
  Family file_state("queue_file_state", "gauge",
                    "1 for the queue file's state, 0 for the others.");
  Family file_bytes("queue_file_bytes", "gauge",
                    "Bytes waiting in the queue file for its consumer.");
  Family file_limit("queue_file_limit_used_ratio", "gauge",
                    "The queue file's size as a share of the size past "
                    "which it is reset (its consumer then rescans).");
  Family file_age("queue_file_oldest_line_age_seconds", "gauge",
                  "Age of the oldest line waiting in the queue file; 0 when "
                  "it is empty.");
  for (const Json::Value& f : status["queue_files"]) {
    const std::string path = "path=\"" + PrometheusLabel(Text(f, "path")) + "\"";
    file_lines.Add(path, Number(f, "lines_written"));
    file_kept.Add(path, Number(f, "lines_kept"));
    file_bytes.Add(path, Number(f, "bytes"));
    file_limit.Add(path, Fraction(f, "limit_used"));
    file_age.Add(path, Number(f, "oldest_line_age"));
    for (const char* state : {"ok", "busy", "failing", "reset"}) {
      file_state.Add(path + ",state=\"" + state + "\"",
                     Text(f, "state") == state ? "1" : "0");
    }
  }

  std::string out = StatusPrometheusUp(true);
  for (const Family* family :
       {&info, &uptime, &queues, &read, &injected, &queued, &lines,
        &overflows, &rescans, &watch_failed, &file_lines, &file_kept, &file_state,
        &file_bytes, &file_limit, &file_age}) {
    family->AppendTo(&out);
  }
  return out;
}

std::string StatusPrometheusUp(bool up) {
  Family family("up", "gauge", "1 when the daemon answered, 0 when not.");
  family.Add("", up ? "1" : "0");
  std::string out;
  family.AppendTo(&out);
  return out;
}

std::vector<std::string> StatusProblems(const Json::Value& status) {
  std::vector<std::string> problems;
  for (const Json::Value& v : status["volumes"]) {
    if (!WatchFailed(v)) continue;
    problems.push_back("volume " + Text(v, "mount_point") +
                       " is not watched: the kernel refused the watch of " +
                       RefusedShares(v) + ": " +
                       EscapeText(v["watch_error"].asString()));
  }
  for (const Json::Value& f : status["queue_files"]) {
    const std::string path = Text(f, "path");
    const std::string state = Text(f, "state");
    if (state == "failing") {
      problems.push_back(path + " is failing: " +
                         EscapeText(f["last_error"].asString()));
    } else if (f["lines_kept"].asUInt64() > 0) {
      problems.push_back(path + " keeps " + Number(f, "lines_kept") +
                         " lines it has not taken (" + state + ")");
    }
    if (f["limit_used"].asDouble() > kLimitWarning) {
      char used[16];
      std::snprintf(used, sizeof(used), "%.0f%%",
                    100.0 * f["limit_used"].asDouble());
      problems.push_back(path + " is at " + used +
                         " of the size past which it is reset: is its "
                         "consumer running?");
    }
  }
  return problems;
}

}  // namespace YULOTIFYD
}  // namespace YULO
