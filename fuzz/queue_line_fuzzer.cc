// Queue lines and queue files: building a line, reading a path back with
// DecodeQueuePath, the consumer's line splitting, and the writer's check of
// the file's head.
//
// 1. Building. A line is made for a fuzzed path (a file name: any bytes)
//    and, for a move, an old path. It must be one line of ASCII without
//    control characters, equal what QueueLineText makes of the same object
//    (and so, for valid UTF-8, what JsonCpp writes), parse with JsonCpp,
//    and give the exact bytes back through DecodeQueuePath.
// 2. Consuming. Fuzzed file content goes through QueueConsumer::Consume on
//    a scratch file: the lines handed out must be the content's complete
//    lines without the empty ones, and the file must keep exactly the
//    unfinished last line.
// 3. Appending. A QueueOutbox with the built line(s) appends to an
//    in-memory queue file made of a fuzzed head and a hole of fuzzed size
//    (so "above 100 MiB" costs nothing), with fuzzed failures of the system
//    calls; then once more without failures. Checked: no descriptor stays
//    open; lines that are not written are kept, and the file is then as it
//    was (or emptied by a reset); a file headed by a reset marker takes
//    nothing; otherwise the file gets exactly the lines, or, when the size
//    rule says so, exactly the reset marker and the rescan lines.
//
// Input: u32 event code, u8 flags (1: directory, 2: a move, 4: failures),
// u32 hole size (28 bits), then parts cut at the separator line: path, old
// path, consumer file content, queue file head, failure script.
#include <sys/stat.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "fuzz/common/fuzz_support.h"
#include "fuzz/common/mem_queue_file_ops.h"
#include "output/queue_file.h"
#include "output/queue_line.h"
#include "output/queue_outbox.h"
#include "output/testing/fake_event_source.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/json_util.h"
#include "yulotifyd/log.h"
#include "yulotifyd/queue_consumer.h"
#include "yulotifyd/queue_path.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

constexpr char kQueueFile[] = "/q/events.queue";
constexpr char kResetMarker[] = "{\"event\":1024,\"is_dir\":false,\"path\":\"\"}";

std::string Show(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char hex[8];
      snprintf(hex, sizeof(hex), "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

// Step 1; returns the line.
std::string BuildLine(uint32_t code, const std::string& path, bool is_dir,
                      const std::string* old_path, std::string* quoted_old) {
  quoted_old->clear();
  if (old_path != nullptr) *quoted_old = QuoteQueueString(*old_path);
  std::string line;
  AppendQueueLine(line, code, path, is_dir, *quoted_old);
  for (unsigned char c : line) {
    FUZZ_CHECK(c >= 0x20 && c < 0x80, "control or non-ASCII byte in " +
                                          Show(line));
  }
  Json::Value object(Json::objectValue);
  object["event"] = code;
  object["is_dir"] = is_dir;
  object["path"] = path;
  if (old_path != nullptr) object["path_old"] = *old_path;
  FUZZ_CHECK(QueueLineText(object) == line,
             "QueueLineText " + Show(QueueLineText(object)) + " vs " +
                 Show(line));

  Json::Value parsed;
  FUZZ_CHECK(fromString(line, parsed) && parsed.isObject(),
             "line does not parse: " + Show(line));
  FUZZ_CHECK(parsed["event"].asUInt() == code &&
                 parsed["is_dir"].asBool() == is_dir,
             "event or is_dir changed");
  const std::string back = DecodeQueuePath(parsed["path"].asString());
  FUZZ_CHECK(back == path, "path " + Show(path) + " came back as " +
                               Show(back));
  if (old_path != nullptr) {
    FUZZ_CHECK(DecodeQueuePath(parsed["path_old"].asString()) == *old_path,
               "old path did not come back");
  }
  const uint32_t queue_code = QueueEventCode(code);
  FUZZ_CHECK((queue_code & (QUEUE_EVENT_MOVE | QUEUE_EVENT_RESET)) == 0,
             "QueueEventCode made a move or reset code");
  return line;
}

// Step 2.
void Consume(const std::string& content) {
  const std::string path = fuzz::ScratchRoot() + "/consumer.queue";
  fuzz::WriteFileOrDie(path, content);
  const QueueConsumer consumer(path, 100);
  const QueueConsumer::Result result = consumer.Consume();
  FUZZ_CHECK(result.ok, "Consume failed: " + result.message);
  const size_t nl = content.rfind('\n');
  const size_t complete = nl == std::string::npos ? 0 : nl + 1;
  std::vector<std::string> expected;
  for (std::string_view line :
       fuzz::SplitLines(std::string_view(content).substr(0, complete))) {
    if (!line.empty()) expected.emplace_back(line);
  }
  FUZZ_CHECK(result.lines == expected, "lines handed out differ");
  FUZZ_CHECK(result.kept_partial_line == (complete < content.size()),
             "kept_partial_line");
  const std::string left = testing::ReadFileText(path);
  FUZZ_CHECK(left == (complete == 0 ? content : content.substr(complete)),
             "file keeps " + Show(left));
}

// The marker and rescan lines a reset writes, keeping `quoted_old`.
std::string ResetText(const std::vector<MonitorQueue>& queues,
                      const std::string& quoted_old) {
  std::set<std::string> shares = MonitorQueue::GetShareSet(queues);
  std::string text;
  AppendQueueLine(text, QUEUE_EVENT_RESET, "", false, quoted_old);
  text += '\n';
  for (const std::string& share : shares) {
    AppendQueueLine(text, QUEUE_EVENT_RESCAN, share, true, quoted_old);
    text += '\n';
  }
  return text;
}

struct Pending {
  std::string text;
  std::string quoted_old;
};

// Step 3.
void Append(const std::vector<Pending>& lines, std::string_view head,
            uint64_t hole, std::string_view faults) {
  const std::vector<MonitorQueue> queues = {
      testing::MakeQueue(kQueueFile, "/vol1/Multimedia"),
      testing::MakeQueue(kQueueFile, "/vol1/Docs", QUEUE_EVENT_CREATE)};
  fuzz::MemQueueFileOps ops;
  ops.SetFile(kQueueFile, head, hole);
  ops.SetFaults(faults);
  QueueOutbox outbox(kQueueFile);
  for (const Pending& line : lines) outbox.AddLine(line.text, line.quoted_old);

  // What the documented rules make of it when nothing fails.
  const bool marker_head =
      head.substr(0, sizeof(kResetMarker)) == std::string(kResetMarker) + "\n";
  std::string expected;
  bool expect_reset = false;
  uint64_t size = head.size() + hole;
  for (const Pending& line : lines) {
    if (size > static_cast<uint64_t>(kQueueFileMaxSize)) {
      expected = ResetText(queues, line.quoted_old);
      expect_reset = true;
      break;
    }
    expected += line.text + "\n";
    size += line.text.size() + 1;
  }

  const bool first_empty = outbox.AppendToQueue(queues, ops);
  FUZZ_CHECK(ops.open_descriptors() == 0, "descriptor left open");
  FUZZ_CHECK(first_empty == outbox.empty(), "AppendToQueue result");
  const fuzz::MemQueueFile* file = ops.Find(kQueueFile);
  if (!outbox.empty()) {
    // Kept: the file is as it was, or was emptied by a reset whose marker
    // did not go in.
    FUZZ_CHECK((file == nullptr) || (file->intact == file->original &&
                                     file->size() == file->original) ||
                   (file->size() == 0 && outbox.LineCount() >= 1),
               "kept lines but changed the file");
    ops.ClearFaults();
    FUZZ_CHECK(outbox.AppendToQueue(queues, ops), "lines kept without faults");
    FUZZ_CHECK(ops.open_descriptors() == 0, "descriptor left open");
    file = ops.Find(kQueueFile);
  }
  FUZZ_CHECK(file != nullptr, "no queue file");
  const bool reset_state = outbox.state() == QueueOutbox::State::kReset;
  if (faults.empty() && marker_head) {
    FUZZ_CHECK(reset_state && file->size() == file->original &&
                   file->intact == file->original,
               "a file headed by a reset marker took lines");
  }
  auto is_reset_text = [&](const std::string& content) {
    for (const Pending& line : lines) {
      if (content == ResetText(queues, line.quoted_old)) return true;
    }
    return false;
  };
  if (file->intact == file->original) {
    // Appended to, or left alone; or, when it was empty, perhaps reset
    // (which then cannot be told by what is left of the old content).
    const std::string added = file->Content(file->original);
    if (file->original == 0 && is_reset_text(added)) {
      FUZZ_CHECK(!faults.empty() || added == expected,
                 "an empty file was reset");
    } else if (reset_state) {
      FUZZ_CHECK(added.empty(), "lines added to a reset file");
    } else {
      FUZZ_CHECK(!expect_reset && added == expected,
                 "appended " + Show(added) + ", expected " + Show(expected));
    }
  } else {
    // Reset: the file holds the marker and the rescan lines of one of the
    // lines (which one depends on the size the writer saw), nothing else.
    FUZZ_CHECK(file->intact == 0, "a reset left part of the old content");
    const std::string content = file->Content(0);
    FUZZ_CHECK(is_reset_text(content), "reset file holds " + Show(content));
    if (faults.empty()) {
      FUZZ_CHECK(expect_reset && content == expected,
                 "reset gave " + Show(content) + ", expected " +
                     Show(expected));
    }
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace YULO::YULOTIFYD;
  fuzz::ByteReader in(fuzz::AsText(data, size));
  const uint32_t code = in.U32();
  const uint8_t flags = in.U8();
  const uint64_t hole = in.U32() & 0x0FFFFFFF;
  const std::vector<std::string_view> parts = fuzz::SplitParts(in.Rest(), 5);
  const std::string path(parts[0]);
  const std::string old_path(parts[1]);
  const bool is_dir = flags & 1;
  const bool move = flags & 2;

  std::string quoted_old;
  std::vector<Pending> lines;
  const std::string line =
      BuildLine(code, path, is_dir, move ? &old_path : nullptr, &quoted_old);
  lines.push_back({line, quoted_old});
  std::string ignored;
  lines.push_back({BuildLine(code ^ 1, old_path, !is_dir, nullptr, &ignored),
                   std::string()});

  Consume(std::string(parts[2]));
  Append(lines, parts[3], hole,
         (flags & 4) ? parts[4] : std::string_view());
  testing::TakeLogLines();
  return 0;
}
