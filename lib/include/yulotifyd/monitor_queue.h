// MonitorQueue: one consumer's subscription to file-system changes.
//
// A monitor queue is a queue file (where the daemon appends one JSON line per
// wanted change) and a list of monitors, each naming a share, a directory
// below it, whether subdirectories count, and the queue event codes wanted.
// Queues are configured as one JSON file each in the three directories given
// by GetConfDir(); docs/monitor-queues.md describes the format.
//
// Whose rights a queue file is written with: every queue remembers the owner
// of the configuration file it was loaded from (GetOwnerUid/GetOwnerGid).
// For a queue whose owner is not root, every operation on its queue file
// (open, lock, read, write, truncate) must run with that owner's file-system
// user and group ids (setfsuid/setfsgid on the calling thread, restored
// right after; ScopedFsIds in yulotifyd/fs_ids.h does that), so that a
// subscription writes only where its owner could; and no queue file's last
// path component may be followed as a symbolic link (O_NOFOLLOW).
// Supplementary groups count in those permission checks too, so the writing
// process must have none. Loading refuses configuration files that someone
// other than their owner could change (see LoadFile).
//
// Value type: copyable, no shared state. Thread-safety: const members and the
// static queries may run concurrently on different objects; copying must be
// serialised against LoadAll() on the same vector by the caller.
#ifndef YULOTIFYD_MONITOR_QUEUE_H_
#define YULOTIFYD_MONITOR_QUEUE_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "yulotifyd/export.h"

namespace YULO {
namespace YULOTIFYD {

// Kinds of monitor queue, each with its own configuration directory.
enum _tag_monitor_queue_type_ {
  MONITOR_QUEUE_TYPE_SYSTEM = 0,  // appliance services: <root>/system.d
  MONITOR_QUEUE_TYPE_APP = 1,     // installed applications: <root>/app.d
  MONITOR_QUEUE_TYPE_USER = 2,    // per-user subscriptions: <root>/user.d
};
typedef enum _tag_monitor_queue_type_ MONITOR_QUEUE_TYPE;

// Queue event codes: the "event" member of a queue line and the bits of a
// monitor's "events" mask.
enum : uint32_t {
  QUEUE_EVENT_ACCESS = 1,
  QUEUE_EVENT_MODIFY = 2,
  QUEUE_EVENT_ATTRIB = 4,
  QUEUE_EVENT_CLOSE_WRITE = 8,
  QUEUE_EVENT_CLOSE_NOWRITE = 16,
  QUEUE_EVENT_OPEN = 32,
  QUEUE_EVENT_CREATE = 64,
  QUEUE_EVENT_DELETE = 128,
  QUEUE_EVENT_MOVE = 256,
  QUEUE_EVENT_RESCAN = 512,
  QUEUE_EVENT_RESET = 1024,
  QUEUE_EVENT_ALL = 1023,  // every code a monitor can ask for
};

// The names a monitor-queue file gives the codes a monitor can ask for, in
// an "events" list.
struct QueueEventName {
  const char* name;
  uint32_t code;
};
inline constexpr QueueEventName kQueueEventNames[] = {
    {"access", QUEUE_EVENT_ACCESS},
    {"modify", QUEUE_EVENT_MODIFY},
    {"attrib", QUEUE_EVENT_ATTRIB},
    {"close_write", QUEUE_EVENT_CLOSE_WRITE},
    {"close_nowrite", QUEUE_EVENT_CLOSE_NOWRITE},
    {"open", QUEUE_EVENT_OPEN},
    {"create", QUEUE_EVENT_CREATE},
    {"delete", QUEUE_EVENT_DELETE},
    {"move", QUEUE_EVENT_MOVE},
    {"rescan", QUEUE_EVENT_RESCAN},
};

class YULOTIFYD_EXPORT MonitorQueue {
 public:
  // One monitor of a queue.
  struct MonitorQueueConfig {
    std::string share;       // share name as configured; "" for a monitor
                             // given by "path"
    std::string share_path;  // its absolute path, no trailing "/" (the
                             // "path" of a monitor given by path)
    std::string dir;         // directory below the share root, "/" = root
    std::string directory;   // share_path joined with dir, normalised
    bool recursive = true;
    uint32_t events = QUEUE_EVENT_ALL;
    // Shell globs of names left out (see lib/exclude_match.h): a pattern
    // without "/" matches any component below `directory`, one with "/"
    // the relative path; an excluded directory excludes what it holds.
    std::vector<std::string> exclude;
  };

  // Maps a share name to its absolute path; false for an unknown share.
  using ShareResolver =
      std::function<bool(const std::string& share_name, std::string* path)>;

  MonitorQueue() = default;
  // `configs` are kept as given; build them with MakeConfig. `owner_uid` and
  // `owner_gid` are the ids the queue file is written with (root by default).
  MonitorQueue(std::string queue_path, std::vector<MonitorQueueConfig> configs,
               uid_t owner_uid = 0, gid_t owner_gid = 0);

  // Builds a monitor from its parts; `directory` is computed from
  // `share_path` and `dir` (normalised: no repeated "/", no "." component,
  // no trailing "/"). It is left empty, so the monitor matches nothing, when
  // `share_path` is relative or either part has a ".." component.
  static MonitorQueueConfig MakeConfig(const std::string& share,
                                       const std::string& share_path,
                                       const std::string& dir, bool recursive,
                                       uint32_t events);

  // Replaces `queues` with every queue configured under `conf_root` (the
  // daemon's is GetConfDir's compiled-in root), the share names of its
  // monitors mapped to paths by `resolve`: the library knows no share table
  // of its own. Returns how many queues were loaded.
  //
  // A subscription in user.d sees only what its owner could: a monitor
  // whose directory the file's owner cannot list (search and read, checked
  // by the kernel with the owner's user and group ids, as the queue file is
  // written) is dropped; access, open and close_nowrite, which tell who
  // reads what, are left out of its events (logged; a monitor left with no
  // event is dropped), and without "events" it gets every code but those
  // three. Each is logged (and reported by Describe) like any other drop.
  static int LoadAll(std::vector<MonitorQueue>& queues,
                     const std::string& conf_root,
                     const ShareResolver& resolve);

  // Parses one configuration file. Returns false, with `reason` set, when the
  // file is to be skipped; monitors naming unknown shares are dropped (and
  // logged) without failing the file. The queue's owner is the file's owner
  // (for a symbolic link made by anyone but root, the link's owner). A file
  // is refused as unsafe, whatever it holds, when it is writable by its group
  // or by others, or lies in a directory writable by others without the
  // sticky bit; `reason` then begins with "unsafe: ". The file is read as
  // one of system.d or app.d, without user.d's limits (see LoadAll).
  static bool LoadFile(const std::string& file, const ShareResolver& resolve,
                       MonitorQueue* out, std::string* reason);

  // What LoadAll would make of the configuration, file by file, with the
  // reason for everything it would skip; for diagnostics (`yulotifyctl
  // queues`). Nothing is logged.
  struct MonitorReport {
    unsigned index = 0;         // position in the file's "monitors" list
    bool loaded = false;        // false: LoadAll drops this monitor
    std::string reason;         // why it is dropped; for a loaded monitor,
                                // what was left out of it ("" when nothing)
    MonitorQueueConfig config;  // the monitor, when loaded
  };
  struct FileReport {
    std::string file;  // the configuration file's path
    _tag_monitor_queue_type_ type = MONITOR_QUEUE_TYPE_SYSTEM;
    bool loaded = false;      // false: LoadAll skips the whole file
    std::string reason;       // why it is skipped
    std::string queue_path;   // when loaded
    uid_t owner_uid = 0;      // when loaded: see GetOwnerUid
    gid_t owner_gid = 0;
    std::vector<MonitorReport> monitors;  // every entry of "monitors"
  };
  struct DirReport {
    _tag_monitor_queue_type_ type = MONITOR_QUEUE_TYPE_SYSTEM;
    std::string dir;
    bool exists = false;
    std::string error;  // set when the directory exists but cannot be read
  };
  // The files in LoadAll's order. `dirs`, when given, receives the three
  // configuration directories and whether they could be read.
  static std::vector<FileReport> Describe(const std::string& conf_root,
                                          const ShareResolver& resolve,
                                          std::vector<DirReport>* dirs);

  // The directory holding the configuration files of `type`.
  static std::string GetConfDir(_tag_monitor_queue_type_ type);
  static std::string GetConfDir(_tag_monitor_queue_type_ type,
                                const std::string& conf_root);

  // Absolute share paths of every monitor of every queue.
  static std::set<std::string> GetShareSet(
      const std::vector<MonitorQueue>& queues);
  // Whether any queue has a monitor on a share at or below `path`.
  static bool IsDirMonitoring(const std::vector<MonitorQueue>& queues,
                              const std::string& path);

  // Whether some monitor of this queue has a share at or below `path`.
  bool IsDirMonitoring(const std::string& path) const;
  // Whether this queue wants event code `mask` for `path`: some monitor
  // asks for the code, `path` is its directory or lies below it (directly
  // below it for a monitor that is not recursive), and no exclude pattern
  // of that monitor leaves it out.
  bool IsMonitoring(const std::string& path, const uint32_t& mask);
  // False when IsMonitoring is false for every path at or below `dir`,
  // whatever the code: no monitor's directory lies at, below or above it.
  // Lets a caller skip the queue for all events under one watched path.
  bool MayMonitorBelow(const std::string& dir) const;
  // The kernel event bits this queue wants on shares below `mount_point`.
  uint32_t GetUnionMask(const std::string& mount_point) const;
  // Adds this queue's share paths to `shares`.
  void CollectShareSet(std::set<std::string>& shares) const;

  const std::string& GetQueuePath() const { return queue_path_; }
  const std::vector<MonitorQueueConfig>& GetConfigs() const {
    return configs_;
  }
  // The owner (user and group) of the configuration file this queue was
  // loaded from; 0 (root) for a queue not loaded from a file. When it is not
  // root, the queue file must be opened, locked, read, written and truncated
  // only with these file-system ids, never followed as a symbolic link (see
  // the top of this file).
  uid_t GetOwnerUid() const { return owner_uid_; }
  gid_t GetOwnerGid() const { return owner_gid_; }

 private:
  std::string queue_path_;
  std::vector<MonitorQueueConfig> configs_;
  uid_t owner_uid_ = 0;
  gid_t owner_gid_ = 0;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_MONITOR_QUEUE_H_
