// notify_bench: how fast the kernel notification layer is.
//
//  1. Decoding: raw records served from memory through ReadEvent (buffer
//     handling, record walk, watch lookup, NotifyEvent fill), records/s,
//     with 1 and with 100 watched paths.
//  2. End to end: file creations spread over 100 directories of a tmpfs,
//     read back as NotifyEvents through YULotify (fanotify backend, path
//     resolution and all) and, from the very same kernel events, by a bare
//     fanotify read loop that resolves nothing; changes/s of both and their
//     ratio. Each creation (open O_CREAT, close) is one fanotify event with
//     two type bits, FAN_CREATE | FAN_CLOSE_WRITE, which YULotify reports
//     as two NotifyEvents (one per kind of change). So that both readers
//     count the same thing, the bare loop counts the wanted type bits of
//     each event it reads, not the events: both must come to two changes
//     per file. The events are queued first and then drained, so the
//     figures are the readers' own, not the writer's.
//  3. Set-up: making a YULotify and watching the root of a tmpfs holding 10
//     directories, and one holding 100,000.
//
// Runs as root, in a private mount namespace, on tmpfs mounts of its own.
// Usage: notify_bench [events per round, default 200000]
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/errno_text.h"
#include "notify/fanotify_translator.h"
#include "notify/raw_record.h"
#include "notify/testing/fake_backend.h"
#include "notify/testing/scratch_mounts.h"
#include "base/unique_fd.h"
#include "notify/yulotify.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

[[noreturn]] void Die(const std::string& why) {
  std::fprintf(stderr, "notify_bench: %s\n", why.c_str());
  std::exit(1);
}

// --- 1. decoding ------------------------------------------------------

// Serves the same buffer of records on every read, as fast as memcpy.
class MemoryBackend : public NotifyBackend {
 public:
  explicit MemoryBackend(const std::vector<uint8_t>* records)
      : records_(records) {}
  const char* Name() const override { return "memory"; }
  int Init() override { return 1000; }
  int AddWatch(int, const std::string&, uint32_t) override { return 0; }
  int RemoveWatch(int, const std::string&, uint32_t) override { return 0; }
  int WaitReadable(int, const struct timeval&, bool* readable) override {
    *readable = true;
    return 1;
  }
  ssize_t Read(int, void* buffer, size_t capacity) override {
    const size_t n = std::min(capacity, records_->size());
    std::memcpy(buffer, records_->data(), n);
    return static_cast<ssize_t>(n);
  }

 private:
  const std::vector<uint8_t>* records_;
};

double DecodeRate(int watches) {
  testing::FakeMountEnv env;
  env.AddDir("/", 1);
  env.AddDir("/vol1", 2);
  env.SetMountTable("/dev/root / ext4 rw 0 0\n/dev/sdb1 /vol1 ext4 rw 0 0\n");
  std::vector<std::string> shares;
  for (int i = 0; i < watches; ++i) {
    char name[64];
    std::snprintf(name, sizeof(name), "/vol1/share%02d", i);
    shares.push_back(name);
    env.AddDir(name, 2);
  }

  // One read's worth of whole records, spread over the shares and over 100
  // directories in each.
  std::vector<uint8_t> records(YULotify::kReadBufferSize);
  size_t used = 0;
  size_t per_read = 0;
  for (int i = 0;; ++i) {
    char name[256];
    std::snprintf(name, sizeof(name), "%s/dir%02d/IMG_%06d.jpg",
                  shares[i % watches].c_str(), (i / watches) % 100, i);
    const size_t n = WriteRawRecord(
        records.data() + used, records.size() - used, YULO_CREATE, 0, name);
    if (n == 0) break;
    used += n;
    ++per_read;
  }
  records.resize(used);

  YULotify notify(0x3ce, std::make_unique<MemoryBackend>(&records), &env);
  for (const auto& share : shares) notify.AddWatch(share);
  NotifyEvent event;
  const size_t rounds = 400;
  size_t decoded = 0;
  const auto start = Clock::now();
  for (size_t i = 0; i < rounds * per_read; ++i) {
    if (notify.ReadEvent(event)) ++decoded;
  }
  const double elapsed = Seconds(start);
  if (decoded != rounds * per_read) Die("decoding lost records");
  return static_cast<double>(decoded) / elapsed;
}

// --- 2. end to end ----------------------------------------------------

bool Touch(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

// The event types both readers are asked for (what the receiver asks for).
constexpr uint32_t kEndToEndMask = 0x3ce;

// A fanotify group that only counts what it reads.
class RawLoop {
 public:
  bool Open(const std::string& mount) {
    fd_.Reset(::fanotify_init(
        FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_CLOEXEC | FAN_NONBLOCK,
        O_RDONLY | O_CLOEXEC));
    if (!fd_.Valid()) return false;
    return ::fanotify_mark(fd_.Get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM,
                           FanotifyMarkMask(kEndToEndMask, true), AT_FDCWD,
                           mount.c_str()) == 0;
  }

  // Reads until the queue is empty; returns the number of changes: the
  // wanted type bits of each event (fanotify merges the changes of one
  // file into one event; YULotify reports each of them on its own). The
  // shared bits and the move halves have the same values in both masks.
  size_t Drain() {
    size_t changes = 0;
    for (;;) {
      const ssize_t n = ::read(fd_.Get(), buf_.data(), buf_.size());
      if (n <= 0) break;
      const auto* meta =
          reinterpret_cast<const fanotify_event_metadata*>(buf_.data());
      ssize_t left = n;
      while (FAN_EVENT_OK(meta, left)) {
        changes += static_cast<size_t>(
            __builtin_popcountll(meta->mask & uint64_t{kEndToEndMask}));
        meta = FAN_EVENT_NEXT(meta, left);
      }
    }
    return changes;
  }

 private:
  UniqueFd fd_;
  std::vector<uint8_t> buf_ = std::vector<uint8_t>(YULotify::kReadBufferSize);
};

struct Round {
  double create_per_s;
  double raw_per_s;
  double notify_per_s;
};

Round EndToEnd(testing::ScratchMounts* scratch, int round, size_t events) {
  const std::string mount =
      scratch->MountTmpfs("e2e" + std::to_string(round), "size=1g,nr_inodes=0");
  if (mount.empty()) Die(scratch->error());
  std::vector<std::string> dirs;
  for (int d = 0; d < 100; ++d) {
    dirs.push_back(mount + "/dir" + std::to_string(d));
    if (::mkdir(dirs.back().c_str(), 0755) != 0) Die("mkdir");
  }

  std::unique_ptr<YULotify> notify;
  RawLoop raw;
  {
    // Room for every event of the round in both queues. The limit is read
    // when a group is made, so it is put back right after.
    testing::SysctlOverride limit("/proc/sys/fs/fanotify/max_queued_events",
                                  std::to_string(events + 1000));
    if (!limit.ok()) Die(limit.error());
    notify = std::make_unique<YULotify>(kEndToEndMask);
    if (!raw.Open(mount)) Die("raw fanotify group: " + ErrnoText(errno));
  }
  if (notify->descriptor() < 0) Die("YULotify is inert");
  if (std::string(notify->backend()->Name()) != "fanotify") {
    Die("expected the fanotify backend");
  }
  notify->SetReadTimeout(0, 100000);
  if (notify->AddWatch(mount) != 0) Die("AddWatch");

  Round result;
  auto start = Clock::now();
  for (size_t i = 0; i < events; ++i) {
    if (!Touch(dirs[i % dirs.size()] + "/f" + std::to_string(i))) {
      Die("create: " + ErrnoText(errno));
    }
  }
  result.create_per_s = events / Seconds(start);

  // Every file was created and closed after writing: two changes each.
  const size_t changes = 2 * events;
  // Alternate which reader goes first, so neither always meets cold caches.
  auto run_raw = [&] {
    const auto t = Clock::now();
    const size_t n = raw.Drain();
    if (n != changes) Die("raw loop read " + std::to_string(n) + " changes");
    result.raw_per_s = n / Seconds(t);
  };
  auto run_notify = [&] {
    const auto t = Clock::now();
    size_t n = 0;
    NotifyEvent event;
    while (notify->HasEvent()) {
      if (notify->ReadEvent(event)) ++n;
    }
    if (n != changes) {
      Die("ReadEvent gave " + std::to_string(n) + " events, expected " +
          std::to_string(changes));
    }
    result.notify_per_s = n / Seconds(t);
  };
  if (round % 2 == 0) {
    run_raw();
    run_notify();
  } else {
    run_notify();
    run_raw();
  }
  return result;
}

// --- 3. set-up ----------------------------------------------------------

void MakeTree(const std::string& root, int dirs) {
  // 100 directories per level-one directory.
  int made = 0;
  for (int top = 0; made < dirs; ++top) {
    const std::string parent = root + "/t" + std::to_string(top);
    if (::mkdir(parent.c_str(), 0755) != 0) Die("mkdir " + parent);
    ++made;
    for (int i = 0; i < 99 && made < dirs; ++i, ++made) {
      const std::string child = parent + "/d" + std::to_string(i);
      if (::mkdir(child.c_str(), 0755) != 0) Die("mkdir " + child);
    }
  }
}

// Median time to make a YULotify, watch the tree's root and get the first
// event of a change at its deepest level.
double SetUpTime(const std::string& root, const std::string& deep) {
  std::vector<double> times;
  for (int i = 0; i < 21; ++i) {
    const auto start = Clock::now();
    YULotify notify(0x3ce);
    notify.SetReadTimeout(1, 0);
    if (notify.AddWatch(root) != 0) Die("AddWatch " + root);
    times.push_back(Seconds(start));
    // The watch works at once, even for the deepest directory.
    const std::string file = deep + "/probe" + std::to_string(i);
    if (!Touch(file)) Die("create " + file);
    NotifyEvent event;
    if (!notify.ReadEvent(event) || GetFullPath(event) != file) {
      Die("no event for " + file);
    }
  }
  return Median(times);
}

int Main(int argc, char** argv) {
  const size_t events = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 200000;
  const std::string not_root = testing::RequireRoot();
  if (!not_root.empty()) Die(not_root);
  const std::string ns = testing::EnterPrivateMountNamespace();
  if (!ns.empty()) Die(ns);
  testing::ScratchMounts scratch;
  if (!scratch.ok()) Die(scratch.error());

  std::printf("1. Decoding raw records through ReadEvent (from memory)\n");
  std::printf("   1 watched path:    %12.0f records/s\n", DecodeRate(1));
  std::printf("   100 watched paths: %12.0f records/s\n", DecodeRate(100));

  std::printf(
      "\n2. End to end, %zu creations over 100 directories of a tmpfs\n",
      events);
  std::vector<double> ratios;
  for (int round = 0; round < 3; ++round) {
    const Round r = EndToEnd(&scratch, round, events);
    ratios.push_back(r.notify_per_s / r.raw_per_s);
    std::printf(
        "   round %d: creating %9.0f/s | raw fanotify loop %10.0f "
        "changes/s | ReadEvent %10.0f changes/s | ratio %5.1f%%\n",
        round + 1, r.create_per_s, r.raw_per_s, r.notify_per_s,
        100.0 * ratios.back());
  }
  std::printf("   median ratio ReadEvent / raw loop: %.1f%% (target >= 50%%)\n",
              100.0 * Median(ratios));

  std::printf("\n3. Set-up: new YULotify + AddWatch on the root of a tmpfs\n");
  const std::string small = scratch.MountTmpfs("small", "size=64m");
  const std::string large = scratch.MountTmpfs("large", "size=1g,nr_inodes=0");
  if (small.empty() || large.empty()) Die(scratch.error());
  auto start = Clock::now();
  MakeTree(small, 10);
  MakeTree(large, 100000);
  std::printf("   (made the trees in %.2f s)\n", Seconds(start));
  const double small_time = SetUpTime(small, small + "/t0/d8");
  const double large_time = SetUpTime(large, large + "/t999/d98");
  std::printf("   10 directories:      %8.1f us (median of 21)\n",
              small_time * 1e6);
  std::printf("   100,000 directories: %8.1f us (median of 21)\n",
              large_time * 1e6);
  return 0;
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO

int main(int argc, char** argv) { return YULO::YULOTIFYD::Main(argc, argv); }
