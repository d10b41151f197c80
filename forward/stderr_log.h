// Where the forwarding programs' log lines go: standard error, which the
// service manager hands to the journal, instead of syslog, where the
// project's log seam (yulotifyd/log.h) sends them by default.
//
// Each line comes out as "PROGRAM: SOURCE:LINE MESSAGE". When standard
// error is the journal's stream (the service manager says so in
// JOURNAL_STREAM), the line starts with its syslog priority ("<3>"), which
// the journal keeps as the line's priority, so that `journalctl -p err`
// shows the forwarder's failures and not its progress.
//
// Thread-safety: SendLogToStderr is called once, before any thread that
// logs starts; the lines may then come from any thread (one write each).
#ifndef YULOTIFYD_FORWARD_STDERR_LOG_H_
#define YULOTIFYD_FORWARD_STDERR_LOG_H_

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

// Sends every later log line of the process to standard error, prefixed
// with `program`, which must outlive the process's last log line (a string
// literal).
void SendLogToStderr(const char* program);

// The text written for one log line, its line feed included.
std::string StderrLogLine(const char* program, int priority,
                          const char* line, bool to_journal);

// Whether standard error is the journal stream named by `journal_stream`
// (JOURNAL_STREAM's "DEVICE:INODE"; null when unset).
bool StderrIsJournal(const char* journal_stream);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_STDERR_LOG_H_
