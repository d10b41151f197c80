// The yardstick of the pipeline benchmark: about the least work a program
// can do to turn creations under a tree into JSON lines with fanotify.
//
//   min_fanotify_reader DIR OUTPUT_FILE [--tree]
//
// One file-system mark (FAN_CREATE, FAN_REPORT_DFID_NAME) on the file system
// of DIR; each event's directory handle is resolved to a path once and kept
// in a cache (open_by_handle_at + readlink of /proc/self/fd); each event
// under DIR becomes one line {"event":64,"is_dir":false,"path":"..."} written
// with one write() to OUTPUT_FILE, opened once with O_APPEND. With --tree
// the mark also takes deletions and both halves of moves, and each of the
// four kinds an event carries becomes a line of its own (64 for a creation
// or a move in, 128 for a deletion or a move out), in that fixed order and
// unpaired: what a tree watcher reads at the least. No filtering
// beyond the path prefix, no locking, no batching, no escaping beyond what
// plain names need. Prints "ready" on stdout once the mark is in place and
// runs until SIGTERM or SIGINT. Needs CAP_SYS_ADMIN and
// CAP_DAC_READ_SEARCH.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>

namespace {

volatile sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

}  // namespace

int main(int argc, char** argv) {
  const bool tree = argc == 4 && std::strcmp(argv[3], "--tree") == 0;
  if (argc != 3 && !tree) {
    std::fprintf(stderr, "usage: %s DIR OUTPUT_FILE [--tree]\n", argv[0]);
    return 2;
  }
  const uint64_t mask =
      FAN_CREATE | (tree ? FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO : 0);
  const std::string root = argv[1];
  const int out = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const int mount_fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int fan = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_REPORT_DFID_NAME,
                                O_RDONLY | O_LARGEFILE);
  if (out < 0 || mount_fd < 0 || fan < 0 ||
      fanotify_mark(fan, FAN_MARK_ADD | FAN_MARK_FILESYSTEM,
                    mask | FAN_ONDIR, AT_FDCWD, root.c_str()) != 0) {
    std::perror("min_fanotify_reader: set-up");
    return 1;
  }
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  std::printf("ready\n");
  std::fflush(stdout);

  std::unordered_map<std::string, std::string> dirs;  // handle bytes -> path
  alignas(struct fanotify_event_metadata) char buf[65536];
  std::string line;
  while (!g_stop) {
    ssize_t n = read(fan, buf, sizeof(buf));
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      break;
    }
    for (auto* meta = reinterpret_cast<struct fanotify_event_metadata*>(buf);
         FAN_EVENT_OK(meta, n); meta = FAN_EVENT_NEXT(meta, n)) {
      auto* info = reinterpret_cast<struct fanotify_event_info_fid*>(meta + 1);
      if (info->hdr.info_type != FAN_EVENT_INFO_TYPE_DFID_NAME) continue;
      auto* handle = reinterpret_cast<struct file_handle*>(info->handle);
      const char* name = reinterpret_cast<const char*>(handle->f_handle) +
                         handle->handle_bytes;
      std::string key(reinterpret_cast<const char*>(handle),
                      sizeof(*handle) + handle->handle_bytes);
      auto it = dirs.find(key);
      if (it == dirs.end()) {
        const int dir = open_by_handle_at(mount_fd, handle, O_PATH | O_CLOEXEC);
        if (dir < 0) continue;
        char link[64], target[4096];
        std::snprintf(link, sizeof(link), "/proc/self/fd/%d", dir);
        const ssize_t len = readlink(link, target, sizeof(target));
        close(dir);
        if (len <= 0) continue;
        it = dirs.emplace(key, std::string(target, static_cast<size_t>(len))).first;
      }
      if (it->second.compare(0, root.size(), root) != 0) continue;
      static const struct {
        uint64_t bit;
        const char* code;
      } kKinds[] = {{FAN_CREATE, "64"}, {FAN_DELETE, "128"},
                    {FAN_MOVED_FROM, "128"}, {FAN_MOVED_TO, "64"}};
      for (const auto& kind : kKinds) {
        if ((meta->mask & kind.bit) == 0) continue;
        line.assign("{\"event\":");
        line += kind.code;
        line += ",\"is_dir\":";
        line += (meta->mask & FAN_ONDIR) ? "true" : "false";
        line += ",\"path\":\"";
        line += it->second;
        line += '/';
        line += name;
        line += "\"}\n";
        if (write(out, line.data(), line.size()) < 0) return 1;
      }
    }
  }
  return 0;
}
