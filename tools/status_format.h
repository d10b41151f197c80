// How yulotifyctl shows the daemon's "status" object: a table for a person
// and the Prometheus text exposition format for node_exporter's textfile
// collector. docs/control.md lists the object's members.
//
// Thread-safety: pure functions.
#ifndef YULOTIFYD_TOOLS_STATUS_FORMAT_H_
#define YULOTIFYD_TOOLS_STATUS_FORMAT_H_

#include <json/json.h>

#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

// A few aligned lines: the daemon, then one line per volume and per queue
// file. Members the object lacks show as "-" or 0. Texts are escaped
// (EscapeText): a queue path with a line feed or an escape sequence stays
// on its line and cannot drive the terminal.
std::string StatusTable(const Json::Value& status);

// Every counter and gauge, names prefixed "yulotifyd_", each with its HELP
// and TYPE lines; labels name the volume or queue file. Begins with
// StatusPrometheusUp(true).
std::string StatusPrometheus(const Json::Value& status);

// The "yulotifyd_up" gauge alone: 1 when the daemon answered, 0 when not.
std::string StatusPrometheusUp(bool up);

// A queue file past this share of its reset size counts as a problem.
constexpr double kLimitWarning = 0.8;

// What calls for a look, one line each: volumes not watched because the
// kernel refused a watch, queue files failing, keeping lines they have not
// taken, or past kLimitWarning of their reset size (their consumer may have
// stopped). Empty when all is well.
std::vector<std::string> StatusProblems(const Json::Value& status);

// `text` as a Prometheus label value: backslash, double quote and line feed
// escaped.
std::string PrometheusLabel(const std::string& text);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_TOOLS_STATUS_FORMAT_H_
