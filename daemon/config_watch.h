// ConfigWatch: the inotify instance on the three monitor-queue configuration
// directories, and the decision whether what it reports calls for a reload.
//
// A configuration file (a non-directory whose name ends in ".json", as the
// loader reads them) written, renamed into or out of a directory, or
// removed, changes the configuration; so does a queue overflow, after which
// nobody knows what changed. One read is at most one reload, however many
// files changed. A directory that cannot be watched is logged and only
// loses its live reload.
//
// Ownership: owns its descriptor, closed by Close or on destruction.
// Thread-safety: none; the daemon's main thread only.
#ifndef YULOTIFYD_DAEMON_CONFIG_WATCH_H_
#define YULOTIFYD_DAEMON_CONFIG_WATCH_H_

#include <cstddef>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

class ConfigWatch {
 public:
  // 32 records of a 16-byte header and a 256-byte name.
  static constexpr size_t kBufferSize = 8704;

  explicit ConfigWatch(std::string conf_root);
  ~ConfigWatch();

  ConfigWatch(const ConfigWatch&) = delete;
  ConfigWatch& operator=(const ConfigWatch&) = delete;

  // Creates the inotify instance and watches the directories of the three
  // monitor-queue types. False only when the instance cannot be created.
  // REQUIRES: not open.
  bool Open();
  // Removes the watches and closes the instance; harmless when not open.
  void Close();
  // The descriptor to wait on; -1 when not open.
  int fd() const { return fd_.Get(); }
  // How many directories are watched.
  size_t watch_count() const { return watch_descriptors_.size(); }

  // Reads what the instance holds and returns whether it calls for a
  // reload. Blocks until something arrives: call it when fd() is readable.
  bool ReadChanges();

  // Whether the inotify records in `data` (`size` bytes, as read from the
  // instance) call for a reload. An incomplete last record is ignored.
  static bool RecordsCallForReload(const char* data, size_t size);

 private:
  void AddWatch(const std::string& path);

  const std::string conf_root_;
  UniqueFd fd_;
  std::vector<int> watch_descriptors_;
  std::vector<char> buffer_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_CONFIG_WATCH_H_
