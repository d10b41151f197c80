// Raw notification records, read and decoded by YULotify over the fake
// backend.
//
// The records are what a kernel backend writes on the descriptor; their
// paths are chosen by whoever writes to a share. The target watches a few
// fuzzed paths (mount points resolved against a made-up tree and mount
// table), hands the record stream to the fake backend cut into several
// reads at fuzzed places, and decodes with ReadEvent until everything is
// read, as the receiver thread does. A record cut by a read boundary, or
// claiming more bytes than were read, must be dropped, never read past.
//
// Checks: every decoded event names a watched path with its own id and a
// part below it that starts with "/" (overflows: root -1, no paths). Apart
// from the reads, each whole record of the stream is also decoded on its
// own with DecodeEvent and compared with the rule: a name is decoded when a
// watched path covers it (equal, or followed by "/"), the outer one wins,
// and for a kernel-shaped name (starting with "/", not only slashes) the
// watched path and the part below it give the name back without its
// trailing slashes.
//
// Input: u8 flags (1: remove the first watch half-way, 2: remove all at the
// end), u8 watch count (at most 4) and each watched path as u8 length +
// bytes, u8 read count (at most 8) and each read's size as u16, then the
// record stream; what the sizes leave is the last read.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/common/fuzz_support.h"
#include "notify/notify_event.h"
#include "notify/raw_record.h"
#include "notify/testing/fake_backend.h"
#include "notify/yulotify.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::FakeBackend;
using testing::FakeKernel;
using testing::FakeMountEnv;

constexpr uint32_t kAllBits = 0x47ff;

// Puts `path` and its ancestors in the made-up tree: "/" on device 1, all
// else on device 2, and lists the top directory as a mount point, so that
// the path's mount point is its first component.
void AddPath(FakeMountEnv* env, std::string* table, const std::string& path) {
  std::string dir = path;
  std::string top;
  for (int depth = 0; depth < 64; ++depth) {
    env->AddDir(dir, dir == "/" ? 1 : 2);
    const std::string parent = ParentDir(dir);
    if (parent == "/") top = dir;
    if (parent == dir) break;
    dir = parent;
  }
  env->AddDir("/", 1);
  if (!top.empty()) *table += "fake " + top + " tmpfs rw 0 0\n";
}

bool Covers(const std::string& watch, std::string_view name) {
  return name.compare(0, watch.size(), watch) == 0 &&
         (name.size() == watch.size() || name[watch.size()] == '/');
}

// Decodes one whole record on its own and checks the result against the
// covering rule.
void CheckDecode(const YULotify& notify, const RawNotifyRecord& raw) {
  NotifyEvent out;
  const int rc = notify.DecodeEvent(raw, out);
  if (raw.mask & YULO_Q_OVERFLOW) {
    FUZZ_CHECK(rc == 0 && out.root == -1 && out.watch.empty() &&
                   out.path.empty(),
               "overflow record decoded wrongly");
    return;
  }
  const std::string_view name(raw.name(), strnlen(raw.name(), raw.len));
  std::string_view stripped = name;
  const size_t last = name.find_last_not_of('/');
  if (last != std::string_view::npos && last != 0) {
    stripped = name.substr(0, last + 1);
  }
  const std::string* outer = nullptr;
  for (const auto& entry : notify.watched_paths()) {
    if (!Covers(entry.first, stripped)) continue;
    if (outer == nullptr || entry.first.size() < outer->size()) {
      outer = &entry.first;
    }
  }
  if (outer == nullptr) {
    FUZZ_CHECK(rc == -1, "decoded a name no watched path covers: " +
                             std::string(name));
    return;
  }
  FUZZ_CHECK(rc == 0, "no event for a covered name: " + std::string(name));
  FUZZ_CHECK(out.watch == *outer,
             "watch " + out.watch + " instead of the outer " + *outer);
  FUZZ_CHECK(out.root == notify.watched_paths().at(out.watch), "wrong id");
  FUZZ_CHECK(out.mask == raw.mask && out.cookie == raw.cookie,
             "mask or cookie changed");
  if (!name.empty() && name[0] == '/' && last != std::string_view::npos) {
    FUZZ_CHECK(GetFullPath(out) == stripped,
               "name " + std::string(name) + " came back as " +
                   GetFullPath(out));
  }
}

void CheckRead(const YULotify& notify, const NotifyEvent& event) {
  if (event.mask & YULO_Q_OVERFLOW) {
    FUZZ_CHECK(event.root == -1 && event.watch.empty() && event.path.empty(),
               "overflow event");
    return;
  }
  const auto it = notify.watched_paths().find(event.watch);
  FUZZ_CHECK(it != notify.watched_paths().end(),
             "event names an unwatched path: " + event.watch);
  FUZZ_CHECK(it->second == event.root, "event carries another watch's id");
  FUZZ_CHECK(!event.path.empty() && event.path[0] == '/',
             "part below the watch: " + event.path);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace YULO::YULOTIFYD;
  // Debug level: the decode path's log lines are built from record names.
  LOG_LEVEL = 7;
  fuzz::ByteReader in(fuzz::AsText(data, size));
  const uint8_t flags = in.U8();

  auto kernel = std::make_shared<FakeKernel>();
  FakeMountEnv env;
  std::string table;
  std::vector<std::string> watches;
  const size_t watch_count = in.U8() % 5;
  for (size_t i = 0; i < watch_count; ++i) {
    watches.emplace_back(in.ShortString(96));
    AddPath(&env, &table, watches.back());
  }
  env.SetMountTable(table);

  std::vector<size_t> read_sizes;
  const size_t read_count = in.U8() % 9;
  for (size_t i = 0; i < read_count; ++i) read_sizes.push_back(in.U16());
  const std::string_view stream = in.Rest();
  std::string_view left = stream;
  for (size_t n : read_sizes) {
    if (left.empty()) break;
    const std::string_view chunk = left.substr(0, n);
    kernel->reads.emplace_back(chunk);
    left.remove_prefix(chunk.size());
  }
  if (!left.empty()) kernel->reads.emplace_back(left);
  const size_t total_reads = kernel->reads.size();

  YULotify notify(kAllBits, std::make_unique<FakeBackend>(kernel), &env);
  std::vector<int> ids;
  for (const std::string& path : watches) ids.push_back(notify.AddWatch(path));

  // Every whole record of the stream, decoded on its own.
  const std::vector<char> copy(stream.begin(), stream.end());
  for (size_t pos = 0; copy.size() - pos >= kRawRecordHeaderSize;) {
    const auto& raw = *reinterpret_cast<const RawNotifyRecord*>(&copy[pos]);
    if (raw.size() > copy.size() - pos) break;
    CheckDecode(notify, raw);
    pos += raw.size();
  }

  // The same stream as the receiver reads it. Each ReadEvent takes one
  // record or one read, so this many calls cannot fall short.
  const size_t max_calls = stream.size() + total_reads + 2;
  for (size_t calls = 0; calls < max_calls; ++calls) {
    if (kernel->reads.empty() && notify.buffer_pending() == 0) break;
    if ((flags & 1) && !ids.empty() &&
        kernel->reads.size() == total_reads / 2) {
      notify.RemoveWatch(ids[0]);
      ids.clear();
    }
    NotifyEvent event;
    if (notify.ReadEvent(event)) CheckRead(notify, event);
  }
  FUZZ_CHECK(kernel->reads.empty() && notify.buffer_pending() == 0,
             "records left unread");
  if (flags & 2) notify.RemoveAllWatches();
  LOG_LEVEL = 3;
  testing::TakeLogLines();
  return 0;
}
