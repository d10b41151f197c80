// RunStatusFile: the file that tells how the previous run of the daemon
// ended, and what this run leaves in it.
//
// Load reads it once at start (absent or "init": first start; "stop": clean
// stop; anything else, unreadable or malformed: recovery, answered with a
// rescan of every volume). MarkRunning replaces it with "running" once the
// daemon is ready, so that any end but a complete clean stop is seen as an
// unclean one by the next start. SaveStop writes "stop" on the way out,
// unless the file was never read, or a volume stopped with events unwritten
// after "running" was written, or the file owed a recovery and this start
// ended before "running" (before its volumes queued their rescans): a
// recovery is owed until a start has got that far. Writes replace the file
// atomically.
//
// Ownership: `platform` is not owned and outlives the object.
// Thread-safety: none; the daemon's main thread only. status() may be read
// by worker threads once Load has run, since nothing changes it afterwards.
#ifndef YULOTIFYD_DAEMON_RUN_STATUS_FILE_H_
#define YULOTIFYD_DAEMON_RUN_STATUS_FILE_H_

#include <cstdint>
#include <string>

#include "daemon/platform_api.h"
#include "volume/volume_context.h"

namespace YULO {
namespace YULOTIFYD {

class RunStatusFile {
 public:
  RunStatusFile(std::string path, PlatformApi* platform);

  RunStatusFile(const RunStatusFile&) = delete;
  RunStatusFile& operator=(const RunStatusFile&) = delete;

  // Reads the file into status().
  void Load();
  // A RunStatus value; RUN_STATUS_UNSET until Load.
  int32_t status() const { return status_; }

  // Replaces the file with {"status": `status`}; false, logged, when that
  // fails.
  bool Write(const char* status);
  // Writes "running"; only a complete clean stop may replace it afterwards.
  void MarkRunning();
  // Writes "stop" unless the file was never read, or "running" was written
  // and `all_written` is false (a volume stopped before writing all it had
  // read), or the file owed a recovery and "running" was never written.
  void SaveStop(bool all_written);

  const std::string& path() const { return path_; }

 private:
  const std::string path_;
  PlatformApi* const platform_;
  int32_t status_ = RUN_STATUS_UNSET;
  bool marked_running_ = false;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_RUN_STATUS_FILE_H_
