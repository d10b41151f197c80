#include "forward/stderr_log.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "base/file_io.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

// Set once by SendLogToStderr, read by the sink on any thread.
std::atomic<const char*> g_program{""};
std::atomic<bool> g_to_journal{false};

void WriteToStderr(int priority, const char* line) {
  const std::string text =
      StderrLogLine(g_program.load(), priority, line, g_to_journal.load());
  // One write per line, so that lines from several threads do not mix. A
  // line that cannot be written has nowhere else to go: its failure is
  // not reported.
  WriteAll(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

std::string StderrLogLine(const char* program, int priority,
                          const char* line, bool to_journal) {
  std::string text;
  if (to_journal) {
    char level[8];
    snprintf(level, sizeof(level), "<%d>", priority & LOG_PRIMASK);
    text = level;
  }
  text += program;
  text += ": ";
  text += line;
  // A message that ends in a line feed keeps that one (see log.h).
  if (text.empty() || text.back() != '\n') text += '\n';
  return text;
}

bool StderrIsJournal(const char* journal_stream) {
  if (journal_stream == nullptr) return false;
  unsigned long long dev = 0;
  unsigned long long ino = 0;
  char end = 0;
  if (sscanf(journal_stream, "%llu:%llu%c", &dev, &ino, &end) != 2) {
    return false;
  }
  struct stat st;
  return fstat(STDERR_FILENO, &st) == 0 &&
         static_cast<unsigned long long>(st.st_dev) == dev &&
         static_cast<unsigned long long>(st.st_ino) == ino;
}

void SendLogToStderr(const char* program) {
  g_program.store(program);
  g_to_journal.store(StderrIsJournal(getenv("JOURNAL_STREAM")));
  SetLogSink(&WriteToStderr);
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
