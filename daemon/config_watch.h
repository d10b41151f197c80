// ConfigWatch: the inotify instance on the three monitor-queue configuration
// directories, and the decision whether what it reports calls for a reload.
//
// A configuration file (a non-directory whose name ends in ".json", as the
// loader reads them) written, renamed into or out of a directory, or
// removed, changes the configuration; so does a queue overflow, after which
// nobody knows what changed. A directory that cannot be watched is logged
// and only loses its live reload.
//
// The three directories may come and go while the daemon runs (a package
// installed after it, an administrator who removes one and makes it
// again): their parent, the configuration root, is watched too. A
// directory made or renamed into it is watched from then on and calls for
// a reload (it may already hold files); one removed or renamed away calls
// for a reload too, since its files are gone. One missing at start is
// logged once at info level and watched for, not counted as a failure.
//
// Reloads are paced, since anybody who may write in user.d can change the
// configuration as often as they like: changes are gathered for
// kGatherMillis after the first (an editor's temporary file and rename, a
// package installing several files, come as one reload), and a reload
// falls due no sooner than kReloadIntervalMillis after the previous one
// ended. However many changes come, the main loop reloads at most about
// once a second, and a change is never held back longer than that. The
// main loop asks how long it may wait (MillisUntilDue) and takes the
// reload when it is due (TakeDue); times are milliseconds on the monotonic
// clock, passed in, so that tests can step through them.
//
// Ownership: owns its descriptor, closed by Close or on destruction.
// Thread-safety: none; the daemon's main thread only.
#ifndef YULOTIFYD_DAEMON_CONFIG_WATCH_H_
#define YULOTIFYD_DAEMON_CONFIG_WATCH_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {

class ConfigWatch {
 public:
  // 32 records of a 16-byte header and a 256-byte name.
  static constexpr size_t kBufferSize = 8704;
  static constexpr int64_t kGatherMillis = 200;
  static constexpr int64_t kReloadIntervalMillis = 1000;

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
  // How many of the three directories are watched.
  size_t watch_count() const;

  // Reads everything the instance holds and returns whether it calls for a
  // reload. Never blocks.
  bool ReadChanges();

  // After select found fd() readable: reads the changes and, when they call
  // for a reload, notes one as wanted at `now_ms`.
  void Handle(int64_t now_ms);
  // Notes a reload as wanted at `now_ms`.
  void Note(int64_t now_ms);
  // Milliseconds until the wanted reload falls due (0: due now); -1 when
  // none is wanted.
  int64_t MillisUntilDue(int64_t now_ms) const;
  // Whether a wanted reload is due at `now_ms`; if so it is no longer
  // wanted, and the caller reloads and then calls Reloaded.
  bool TakeDue(int64_t now_ms);
  // The reload ended at `now_ms`: the next falls due kReloadIntervalMillis
  // later at the soonest. Reloads for other reasons (the shares changed)
  // count too.
  void Reloaded(int64_t now_ms);

  // Whether the inotify records in `data` (`size` bytes, as read from the
  // instance) call for a reload as far as configuration files go. An
  // incomplete last record is ignored.
  static bool RecordsCallForReload(const char* data, size_t size);

 private:
  static constexpr int kTypes = 3;

  // Watches the directory of queue type `type` if it is not watched yet;
  // `at_start` logs a missing one at info level rather than as a failure.
  void AddDirWatch(int type, bool at_start);
  // The records of one read: the files' rule above, and the directories
  // coming and going. True when they call for a reload.
  bool HandleRecords(const char* data, size_t size);
  // The queue type whose directory is named `name` (a record of the
  // root's), or -1.
  int TypeOfName(const char* name, size_t length) const;

  const std::string conf_root_;
  UniqueFd fd_;
  int root_wd_ = -1;
  int dir_wd_[kTypes] = {-1, -1, -1};
  std::string dir_name_[kTypes];
  std::vector<char> buffer_;
  bool wanted_ = false;
  int64_t first_ms_ = 0;  // when the first change of the wanted reload came
  bool reloaded_ = false;
  int64_t reloaded_ms_ = 0;  // when the last reload ended
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_CONFIG_WATCH_H_
