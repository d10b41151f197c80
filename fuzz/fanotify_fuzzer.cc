// fanotify event buffers, through FanotifyTranslator into appliance records.
//
// The buffer is what the kernel hands the fanotify backend; the names in it
// are chosen by whoever writes to a share. The target feeds the whole
// buffer to Translate the way the backend does, batch after batch into an
// output area of a fuzzed size, and when an event does not fit, once more
// with room for anything. Directory handles are resolved by a fake that
// turns the handle bytes into a path (and refuses handles starting with
// 0xFF, like a directory deleted meanwhile).
//
// Checks on every batch: no more input consumed than given, no more output
// than room, and the output parses as records: a name NUL-terminated at its
// very end, one event bit per record (or an overflow with an empty name),
// only bits the caller asked for, rename cookies in the translator's own
// cookie space, and every path under the resolver's prefix. A batch that
// consumes nothing must be for want of room.
//
// Input: u32 event mask (appliance bits), u16 output room, then the
// fanotify buffer.
#include <errno.h>

#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "fuzz/common/fuzz_support.h"
#include "notify/fanotify_translator.h"
#include "notify/notify_event.h"
#include "notify/raw_record.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

constexpr char kResolvedPrefix[] = "/mnt";

class FakeResolver : public DirResolver {
 public:
  int ResolveDir(const DirHandle& dir, std::string* path) override {
    if (dir.size == 0 || dir.bytes[0] == 0xFF) return ESTALE;
    path->assign(kResolvedPrefix);
    if (dir.fsid & 1) path->append("/odd");
    path->push_back('/');
    // Paths never hold a NUL; everything else may be in a name.
    for (uint32_t i = 0; i < dir.size; ++i) {
      if (dir.bytes[i] != 0) path->push_back(static_cast<char>(dir.bytes[i]));
    }
    return 0;
  }
  // What a directory holds is a function of the name, so that every
  // answer comes up: a file, a directory (empty or not, on the directory's
  // device or the root of another), nothing, or a directory out of reach.
  int StatName(const DirHandle& dir, std::string_view name,
               struct stat* st) override {
    if (dir.size == 0 || dir.bytes[0] == 0xFF) return ESTALE;
    const unsigned pick = name.empty() ? 0u
                                       : static_cast<unsigned char>(name[0]);
    switch (pick % 4) {
      case 0:
        return ENOENT;
      case 1:
        *st = {};
        st->st_mode = S_IFREG | 0644;
        return 0;
      case 2:
        *st = {};
        st->st_mode = S_IFDIR | 0755;
        st->st_dev = (pick >> 2) & 1;
        st->st_size = (pick >> 3) & 1 ? 64 : 0;
        return 0;
      default:
        return EACCES;
    }
  }
  // Directories live on device 0, or are out of reach.
  int StatDir(const DirHandle& dir, struct stat* st) override {
    if (dir.size == 0 || dir.bytes[0] == 0xFF || dir.bytes[0] == 0xFE) {
      return ESTALE;
    }
    *st = {};
    st->st_mode = S_IFDIR | 0755;
    return 0;
  }
};

constexpr uint32_t kTypeBits = YULO_ACCESS | YULO_MODIFY | YULO_ATTRIB |
                               YULO_CLOSE_WRITE | YULO_CLOSE_NOWRITE |
                               YULO_OPEN | YULO_MOVE_FROM | YULO_MOVE_TO |
                               YULO_CREATE | YULO_DELETE;

void CheckRecords(const std::vector<uint8_t>& out, size_t written,
                  uint32_t event_mask) {
  size_t pos = 0;
  while (pos < written) {
    FUZZ_CHECK(written - pos >= kRawRecordHeaderSize, "cut record header");
    RawNotifyRecord header;
    std::memcpy(&header, out.data() + pos, sizeof(header));
    FUZZ_CHECK(header.len >= 1 &&
                   header.len <= written - pos - kRawRecordHeaderSize,
               "record len " + std::to_string(header.len));
    const char* name =
        reinterpret_cast<const char*>(out.data() + pos + kRawRecordHeaderSize);
    FUZZ_CHECK(strnlen(name, header.len) == header.len - 1,
               "name not NUL-terminated at its end");
    const std::string path(name, header.len - 1);
    const uint32_t type = header.mask & ~static_cast<uint32_t>(YULO_ISDIR);
    if (type == YULO_Q_OVERFLOW) {
      FUZZ_CHECK(path.empty() && header.cookie == 0, "overflow record");
    } else if (type == YULO_RESCAN) {
      // A directory whose entries the translator could not put in order,
      // or one that arrived whole.
      FUZZ_CHECK(header.mask == (YULO_RESCAN | YULO_ISDIR) &&
                     header.cookie == kDerivedRescanCookie,
                 "rescan record mask or cookie");
      FUZZ_CHECK(path.compare(0, sizeof(kResolvedPrefix) - 1,
                              kResolvedPrefix) == 0,
                 "rescan path not from the resolver: " + path);
    } else {
      FUZZ_CHECK((type & kTypeBits) == type && __builtin_popcount(type) == 1,
                 "record mask " + std::to_string(header.mask));
      FUZZ_CHECK((type & event_mask) != 0, "record for a bit not asked for");
      if (type & (YULO_MOVE_FROM | YULO_MOVE_TO)) {
        FUZZ_CHECK(header.cookie & FanotifyTranslator::kCookieSpaceBit,
                   "move cookie outside the translator's space");
      } else {
        FUZZ_CHECK(header.cookie == 0, "cookie on a record that is no move");
      }
      FUZZ_CHECK(path.compare(0, sizeof(kResolvedPrefix) - 1,
                              kResolvedPrefix) == 0,
                 "path not from the resolver: " + path);
    }
    pos += kRawRecordHeaderSize + header.len;
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace YULO::YULOTIFYD;
  fuzz::ByteReader in(fuzz::AsText(data, size));
  const uint32_t event_mask = in.U32();
  const size_t room = in.U16();
  const std::string_view events = in.Rest();
  // Room for every record one event can make: ten of a path no longer than
  // the resolver's prefix, the handle and the name, all within the input.
  const size_t big_room = 32 * (events.size() + 64);

  FakeResolver resolver;
  FanotifyTranslator translator(&resolver);
  translator.SetEventMask(event_mask);
  FanotifyMarkMask(event_mask, (event_mask & 1) != 0);

  size_t offset = 0;
  while (offset < events.size()) {
    // A copy of exactly the bytes left, so that reading past them is caught.
    const std::vector<uint8_t> batch(events.begin() + offset, events.end());
    size_t used = 0;
    size_t written = 0;
    for (size_t area : {room, big_room}) {
      std::vector<uint8_t> out(area);
      used = translator.Translate(batch.data(), batch.size(), out.data(),
                                  area, &written);
      FUZZ_CHECK(used <= batch.size(), "consumed more than given");
      FUZZ_CHECK(written <= area, "wrote more than the room");
      CheckRecords(out, written, event_mask);
      if (used != 0) break;
      FUZZ_CHECK(area != big_room, "no progress with room for any event");
    }
    offset += used;
  }
  testing::TakeLogLines();
  return 0;
}
