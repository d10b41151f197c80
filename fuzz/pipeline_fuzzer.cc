// The pipeline: raw records through YULotify and the EventProcessor into
// queue files whose heads and sizes are fuzzed.
//
// One volume, /vol1, with two watched shares, /vol1/Multimedia and
// /vol1/Docs. Three monitor queues write two files: media.queue gets
// everything on Multimedia plus, from a second queue, the fuzzed events of
// Docs/sub; docs.queue gets the fuzzed events of a fuzzed directory of Docs,
// recursive or not. The record stream is read as the receiver reads it
// (fake backend, fuzzed read sizes), and the processor runs a pass after
// each read, so the halves of a rename can land in different passes. The
// queue files live in memory (MemQueueFileOps) with a fuzzed head, a hole
// of fuzzed size and fuzzed failures of the file calls; the volume may come
// up in recovery. A last pass without failures must write or drop
// everything.
//
// Checks: after the last pass nothing is pending or kept; every byte the
// pipeline put in a file is whole lines of JSON objects with a known event
// code and a path on the volume (a watched share, or the mount point for a
// rescan), or "" in a reset marker; MemQueueFileOps checks that every write
// and truncation is done under the lock.
//
// Input: u8 flags (1: recovery, 2: failures, 4: log at info level), u16
// events of the Docs queues, u8 options (1: recursive), u8 length + bytes
// of the Docs directory, for each file u16 head length + head and u32 hole
// (28 bits), u8 read count (at most 8) + u16 sizes, u8 length + bytes of
// the failure script, then the record stream.
#include <memory>
#include <string>
#include <vector>

#include "fuzz/common/fuzz_support.h"
#include "fuzz/common/mem_queue_file_ops.h"
#include "notify/notify_event.h"
#include "notify/testing/fake_backend.h"
#include "notify/yulotify.h"
#include "output/event_processor.h"
#include "output/queue_line.h"
#include "output/testing/fake_event_source.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"
#include "yulotifyd/queue_path.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

constexpr char kMount[] = "/vol1";
constexpr char kMedia[] = "/vol1/Multimedia";
constexpr char kDocs[] = "/vol1/Docs";
const std::string kFiles[] = {"/q/media.queue", "/q/docs.queue"};

bool StartsWithDir(const std::string& path, const std::string& dir) {
  return path.compare(0, dir.size(), dir) == 0 &&
         (path.size() == dir.size() || path[dir.size()] == '/');
}

// Every line the pipeline wrote to one file.
void CheckLines(const std::string& file, const std::string& bytes) {
  FUZZ_CHECK(bytes.empty() || bytes.back() == '\n',
             file + " ends in an unfinished line");
  for (std::string_view text : fuzz::SplitLines(bytes)) {
    Json::Value line;
    FUZZ_CHECK(fromString(std::string(text), line) && line.isObject(),
               file + " has a line that is no JSON object: " +
                   std::string(text));
    FUZZ_CHECK(line["event"].isUInt() && line["is_dir"].isBool() &&
                   line["path"].isString(),
               file + " line members: " + std::string(text));
    const uint32_t code = line["event"].asUInt();
    const bool known = code == QUEUE_EVENT_MOVE || code == QUEUE_EVENT_RESET ||
                       (code != 0 && (code & ~0x2FFu) == 0);
    FUZZ_CHECK(known, file + " event code " + std::to_string(code));
    const std::string path = DecodeQueuePath(line["path"].asString());
    if (code == QUEUE_EVENT_RESET) {
      FUZZ_CHECK(path.empty(), "reset marker with a path");
      continue;
    }
    FUZZ_CHECK(path == kMount || StartsWithDir(path, kMedia) ||
                   StartsWithDir(path, kDocs),
               file + " names a path off the shares: " + path);
    if (code == QUEUE_EVENT_MOVE) {
      const std::string old_path = DecodeQueuePath(line["path_old"].asString());
      FUZZ_CHECK(StartsWithDir(old_path, kMedia) ||
                     StartsWithDir(old_path, kDocs),
                 file + " moves from a path off the shares: " + old_path);
    }
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace YULO::YULOTIFYD;
  fuzz::ByteReader in(fuzz::AsText(data, size));
  const uint8_t flags = in.U8();
  const uint32_t docs_events = in.U16() & QUEUE_EVENT_ALL;
  const bool recursive = in.U8() & 1;
  const std::string docs_dir(in.ShortString(32));
  fuzz::MemQueueFileOps ops;
  for (const std::string& file : kFiles) {
    const std::string_view head = in.Bytes(in.U16() % 4096);
    ops.SetFile(file, head, in.U32() & 0x0FFFFFFF);
  }
  std::vector<size_t> read_sizes;
  const size_t read_count = in.U8() % 9;
  for (size_t i = 0; i < read_count; ++i) read_sizes.push_back(in.U16());
  const std::string_view faults = in.ShortString(64);
  if (flags & 2) ops.SetFaults(faults);
  std::string_view stream = in.Rest();

  LOG_LEVEL = (flags & 4) ? 6 : 3;
  auto kernel = std::make_shared<testing::FakeKernel>();
  for (size_t n : read_sizes) {
    if (stream.empty()) break;
    kernel->reads.emplace_back(stream.substr(0, n));
    stream.remove_prefix(kernel->reads.back().size());
  }
  if (!stream.empty()) kernel->reads.emplace_back(stream);
  const size_t total_reads = kernel->reads.size();

  testing::FakeMountEnv env;
  env.AddDir("/", 1);
  for (const char* dir : {kMount, kMedia, kDocs}) env.AddDir(dir, 2);
  env.SetMountTable("fake /vol1 tmpfs rw 0 0\n");
  YULotify notify(0x7ff, std::make_unique<testing::FakeBackend>(kernel), &env);
  notify.AddWatch(kMedia);
  notify.AddWatch(kDocs);

  testing::FakeEventSource source(kMount);
  source.SetQueues(
      {testing::MakeQueue(kFiles[0], kMedia),
       testing::MakeQueue(kFiles[0], kDocs, docs_events, "sub"),
       testing::MakeQueue(kFiles[1], kDocs, docs_events, docs_dir, recursive)});
  source.SetRecovery(flags & 1);
  {
    EventProcessor processor(&source, &ops);
    processor.SendRecoveryRescan();
    size_t calls = 0;
    while (!kernel->reads.empty() || notify.buffer_pending() != 0) {
      FUZZ_CHECK(++calls <= total_reads + size + 2,
                 "the reads never end");
      NotifyEvent event;
      if (notify.ReadEvent(event)) source.Push(event);
      if (notify.buffer_pending() == 0) processor.RunOnePass();
    }
    ops.ClearFaults();
    processor.RunOnePass();
    FUZZ_CHECK(processor.PendingCount() == 0, "events left pending");
    FUZZ_CHECK(processor.KeptLineCount() == 0,
               "lines kept after a pass without failures");
  }
  FUZZ_CHECK(ops.open_descriptors() == 0, "descriptor left open");

  for (const auto& entry : ops.files()) {
    const fuzz::MemQueueFile& file = entry.second;
    if (file.intact == file.original) {
      CheckLines(entry.first, file.Content(file.original));
    } else {
      FUZZ_CHECK(file.intact == 0, entry.first + " partly overwritten");
      CheckLines(entry.first, file.Content(0));
    }
  }
  LOG_LEVEL = 3;
  testing::TakeLogLines();
  return 0;
}
