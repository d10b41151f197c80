#include "notify/fanotify_translator.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>

#include <cstring>
#include <map>
#include <vector>

#include "notify/notify_event.h"
#include "notify/raw_record.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::TakeLogLines;

constexpr uint64_t kFsid = 0x1122334455667788ull;

// One fanotify info record naming a directory (and perhaps a name).
struct Info {
  uint8_t type;
  std::string handle;  // handle bytes
  std::string name;    // appended with its NUL unless type is DFID
  uint64_t fsid = kFsid;
};

std::string InfoBytes(const Info& info) {
  std::string out(4, '\0');
  out[0] = static_cast<char>(info.type);
  const uint32_t fsid_lo = static_cast<uint32_t>(info.fsid);
  const uint32_t fsid_hi = static_cast<uint32_t>(info.fsid >> 32);
  out.append(reinterpret_cast<const char*>(&fsid_lo), 4);
  out.append(reinterpret_cast<const char*>(&fsid_hi), 4);
  const uint32_t bytes = static_cast<uint32_t>(info.handle.size());
  const int32_t handle_type = 1;
  out.append(reinterpret_cast<const char*>(&bytes), 4);
  out.append(reinterpret_cast<const char*>(&handle_type), 4);
  out.append(info.handle);
  if (info.type != FAN_EVENT_INFO_TYPE_DFID) {
    out.append(info.name);
    out.push_back('\0');
  }
  while (out.size() % 4 != 0) out.push_back('\0');
  const uint16_t len = static_cast<uint16_t>(out.size());
  std::memcpy(&out[2], &len, 2);
  return out;
}

std::string Event(uint64_t mask, const std::vector<Info>& infos) {
  std::string body;
  for (const auto& info : infos) body += InfoBytes(info);
  fanotify_event_metadata meta;
  std::memset(&meta, 0, sizeof(meta));
  meta.event_len = static_cast<uint32_t>(sizeof(meta) + body.size());
  meta.vers = FANOTIFY_METADATA_VERSION;
  meta.metadata_len = sizeof(meta);
  meta.mask = mask;
  meta.fd = FAN_NOFD;
  meta.pid = 1234;
  return std::string(reinterpret_cast<const char*>(&meta), sizeof(meta)) + body;
}

Info Dir(const std::string& handle, const std::string& name) {
  return Info{FAN_EVENT_INFO_TYPE_DFID_NAME, handle, name};
}

struct Record {
  uint32_t mask;
  uint32_t cookie;
  std::string name;
  uint32_t len;
};

std::vector<Record> Records(const std::vector<uint8_t>& out, size_t n) {
  std::vector<Record> records;
  for (size_t off = 0; off < n;) {
    const auto& raw = *reinterpret_cast<const RawNotifyRecord*>(&out[off]);
    records.push_back(
        Record{raw.mask, raw.cookie,
               std::string(raw.name(), strnlen(raw.name(), raw.len)), raw.len});
    off += raw.size();
  }
  return records;
}

class FakeResolver : public DirResolver {
 public:
  int ResolveDir(const DirHandle& dir, std::string* path) override {
    ++calls;
    EXPECT_EQ(1, dir.type);
    const std::string key(reinterpret_cast<const char*>(dir.bytes), dir.size);
    const auto it = paths.find(std::make_pair(dir.fsid, key));
    if (it == paths.end()) return ESTALE;
    *path = it->second;
    return 0;
  }
  void Set(const std::string& handle, const std::string& path,
           uint64_t fsid = kFsid) {
    paths[std::make_pair(fsid, handle)] = path;
  }

  std::map<std::pair<uint64_t, std::string>, std::string> paths;
  int calls = 0;
};

class FanotifyTranslatorTest : public ::testing::Test {
 protected:
  FanotifyTranslatorTest() : translator_(&resolver_) {}

  void SetUp() override {
    saved_level_ = LOG_LEVEL.load();
    LOG_LEVEL = 3;
    TakeLogLines();
    translator_.SetEventMask(0x3ce | YULO_ACCESS | YULO_OPEN);
    resolver_.Set("H-root", "/vol1");
    resolver_.Set("H-media", "/vol1/media");
    resolver_.Set("H-sub", "/vol1/media/sub");
  }
  void TearDown() override { LOG_LEVEL = saved_level_; }

  // Translates `events` with `room` bytes of output.
  std::vector<Record> Run(const std::string& events, size_t room = 65536,
                          size_t* used = nullptr) {
    out_.assign(room, 0);
    size_t written = 0;
    const size_t consumed =
        translator_.Translate(reinterpret_cast<const uint8_t*>(events.data()),
                              events.size(), out_.data(), room, &written);
    if (used != nullptr) *used = consumed;
    return Records(out_, written);
  }

  FakeResolver resolver_;
  FanotifyTranslator translator_;
  std::vector<uint8_t> out_;
  int32_t saved_level_ = 3;
};

TEST(FanotifyMarkMaskTest, SharedBitsDirectoriesAndMoves) {
  EXPECT_EQ(0x30eu | FAN_ONDIR | FAN_RENAME, FanotifyMarkMask(0x3ce, true));
  EXPECT_EQ(0x30eu | FAN_ONDIR | FAN_MOVED_FROM | FAN_MOVED_TO,
            FanotifyMarkMask(0x3ce, false));
  // Moves are asked for even when no move record is wanted: renamed
  // directories must reach the path cache.
  EXPECT_EQ(0x100u | FAN_ONDIR | FAN_RENAME,
            FanotifyMarkMask(YULO_CREATE, true));
  // Rescan and overflow are not kernel mark bits.
  EXPECT_EQ(uint64_t{FAN_ONDIR | FAN_RENAME},
            FanotifyMarkMask(YULO_RESCAN | YULO_Q_OVERFLOW, true));
  EXPECT_EQ(0x33fu | FAN_ONDIR | FAN_RENAME, FanotifyMarkMask(0xffff, true));
}

TEST_F(FanotifyTranslatorTest, CreatedFile) {
  const auto records = Run(Event(FAN_CREATE, {Dir("H-media", "a.jpg")}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(YULO_CREATE, records[0].mask);
  EXPECT_EQ(0u, records[0].cookie);
  EXPECT_EQ("/vol1/media/a.jpg", records[0].name);
  EXPECT_EQ(records[0].name.size() + 1, records[0].len);
}

TEST_F(FanotifyTranslatorTest, DirectoryFlag) {
  const auto records =
      Run(Event(FAN_CREATE | FAN_ONDIR, {Dir("H-media", "d")}) +
          Event(FAN_DELETE | FAN_ONDIR, {Dir("H-media", "d")}));
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(YULO_CREATE | YULO_ISDIR, records[0].mask);
  EXPECT_EQ(YULO_DELETE | YULO_ISDIR, records[1].mask);
}

TEST_F(FanotifyTranslatorTest, MergedEventIsSplitOneRecordPerType) {
  // fanotify merged a create, open, write, chmod and close of one file.
  const auto records = Run(
      Event(FAN_CREATE | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_OPEN | FAN_ATTRIB,
            {Dir("H-media", "f")}));
  ASSERT_EQ(5u, records.size());
  const uint32_t order[] = {YULO_CREATE, YULO_OPEN, YULO_MODIFY, YULO_ATTRIB,
                            YULO_CLOSE_WRITE};
  for (size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(order[i], records[i].mask);
    EXPECT_EQ(0u, records[i].cookie);
    EXPECT_EQ("/vol1/media/f", records[i].name);
    EXPECT_EQ(records[i].name.size() + 1, records[i].len);
  }
  EXPECT_EQ(1, resolver_.calls);  // one path for all of them
}

TEST_F(FanotifyTranslatorTest, SplitOrderOfEveryTypeWithTheDirectoryFlag) {
  translator_.SetEventMask(0x3ff);
  const auto records =
      Run(Event(FAN_DELETE | FAN_MOVED_FROM | FAN_CLOSE_NOWRITE |
                    FAN_CLOSE_WRITE | FAN_ATTRIB | FAN_MODIFY | FAN_ACCESS |
                    FAN_OPEN | FAN_MOVED_TO | FAN_CREATE | FAN_ONDIR,
                {Dir("H-media", "d")}));
  // The order a file's life goes through: appear, open, use, close, vanish.
  const uint32_t order[] = {
      YULO_CREATE,    YULO_MOVE_TO, YULO_OPEN,        YULO_ACCESS,
      YULO_MODIFY,    YULO_ATTRIB,  YULO_CLOSE_WRITE, YULO_CLOSE_NOWRITE,
      YULO_MOVE_FROM, YULO_DELETE};
  ASSERT_EQ(10u, records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(order[i] | YULO_ISDIR, records[i].mask);
    EXPECT_EQ("/vol1/media/d", records[i].name);
    if (order[i] & (YULO_MOVE_FROM | YULO_MOVE_TO)) {
      EXPECT_NE(0u, records[i].cookie);
    } else {
      EXPECT_EQ(0u, records[i].cookie);
    }
  }
  // The move halves are unpaired: each has a cookie of its own.
  EXPECT_NE(records[1].cookie, records[8].cookie);
}

TEST_F(FanotifyTranslatorTest, SplitWritesOnlyTheWantedTypes) {
  translator_.SetEventMask(0x3ce);  // no open, no access, no close-nowrite
  const auto records =
      Run(Event(FAN_OPEN | FAN_CREATE | FAN_ACCESS | FAN_MODIFY |
                    FAN_CLOSE_WRITE | FAN_CLOSE_NOWRITE,
                {Dir("H-sub", "f")}));
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(YULO_CREATE, records[0].mask);
  EXPECT_EQ(YULO_MODIFY, records[1].mask);
  EXPECT_EQ(YULO_CLOSE_WRITE, records[2].mask);
  for (const auto& record : records) {
    EXPECT_EQ("/vol1/media/sub/f", record.name);
  }
}

TEST_F(FanotifyTranslatorTest, SplitRecordsThatDoNotFitWaitWhole) {
  const std::string first = Event(FAN_CREATE, {Dir("H-media", "a")});
  const std::string merged =
      Event(FAN_CREATE | FAN_MODIFY | FAN_CLOSE_WRITE, {Dir("H-media", "b")});
  const size_t one = 12 + 13 + 1;  // 12 + "/vol1/media/b" + NUL
  size_t used = 0;
  // Room for the first event and two of the three split records: the
  // merged event is left for the next read, whole.
  auto records = Run(first + merged, 3 * one, &used);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("/vol1/media/a", records[0].name);
  EXPECT_EQ(first.size(), used);
  // Alone, with room for all but one byte of its records: nothing at all.
  records = Run(merged, 3 * one - 1, &used);
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(0u, used);
  // With room for all three, they come together.
  records = Run(merged, 3 * one, &used);
  EXPECT_EQ(merged.size(), used);
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(YULO_CREATE, records[0].mask);
  EXPECT_EQ(YULO_MODIFY, records[1].mask);
  EXPECT_EQ(YULO_CLOSE_WRITE, records[2].mask);
  for (const auto& record : records) EXPECT_EQ("/vol1/media/b", record.name);
}

TEST_F(FanotifyTranslatorTest, SplitMoveHalvesEachGetACookieOfTheirOwn) {
  // Kernels before 5.17: something moved in under a name and moved out
  // again before the events were read.
  const std::string halves =
      Event(FAN_MOVED_FROM | FAN_MOVED_TO, {Dir("H-media", "m")});
  const std::string later = Event(FAN_MOVED_TO, {Dir("H-media", "n")});
  size_t used = 0;
  EXPECT_TRUE(Run(halves, 2 * (12 + 14) - 1, &used).empty());
  EXPECT_EQ(0u, used);
  const auto records = Run(halves + later, 65536, &used);
  EXPECT_EQ(halves.size() + later.size(), used);
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(YULO_MOVE_TO, records[0].mask);
  EXPECT_EQ("/vol1/media/m", records[0].name);
  EXPECT_EQ(YULO_MOVE_FROM, records[1].mask);
  EXPECT_EQ("/vol1/media/m", records[1].name);
  EXPECT_EQ(YULO_MOVE_TO, records[2].mask);
  for (const auto& record : records) {
    EXPECT_NE(0u, record.cookie);
    EXPECT_EQ(FanotifyTranslator::kCookieSpaceBit,
              record.cookie & FanotifyTranslator::kCookieSpaceBit)
        << "apart from injected cookies";
  }
  EXPECT_NE(records[0].cookie, records[1].cookie);
  EXPECT_NE(records[1].cookie, records[2].cookie);
  EXPECT_NE(records[0].cookie, records[2].cookie);
}

TEST_F(FanotifyTranslatorTest, UnwantedBitsAreDropped) {
  translator_.SetEventMask(YULO_CREATE);
  const auto records = Run(Event(FAN_OPEN | FAN_ACCESS, {Dir("H-media", "f")}) +
                           Event(FAN_OPEN | FAN_CREATE, {Dir("H-media", "g")}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(YULO_CREATE, records[0].mask);
  EXPECT_EQ("/vol1/media/g", records[0].name);
}

TEST_F(FanotifyTranslatorTest, EventOnTheDirectoryItself) {
  const auto records =
      Run(Event(FAN_ATTRIB | FAN_ONDIR, {Dir("H-media", ".")}) +
          Event(FAN_ATTRIB | FAN_ONDIR,
                {Info{FAN_EVENT_INFO_TYPE_DFID, "H-sub", ""}}));
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(YULO_ATTRIB | YULO_ISDIR, records[0].mask);
  EXPECT_EQ("/vol1/media", records[0].name);
  EXPECT_EQ("/vol1/media/sub", records[1].name);
}

TEST_F(FanotifyTranslatorTest, RootDirectoryJoinsWithoutDoubleSlash) {
  resolver_.Set("H-slash", "/");
  const auto records = Run(Event(FAN_CREATE, {Dir("H-slash", "top")}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("/top", records[0].name);
}

TEST_F(FanotifyTranslatorTest, NamesAreKeptByteForByte) {
  const std::string name = "a b\xc3\xa9\xff\x01.txt";
  const auto records = Run(Event(FAN_CREATE, {Dir("H-media", name)}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("/vol1/media/" + name, records[0].name);
}

TEST_F(FanotifyTranslatorTest, BurstInOneDirectoryResolvesOnce) {
  std::string events;
  for (int i = 0; i < 100; ++i) {
    events += Event(FAN_CREATE, {Dir("H-media", "f" + std::to_string(i))});
  }
  const auto records = Run(events);
  ASSERT_EQ(100u, records.size());
  EXPECT_EQ("/vol1/media/f99", records[99].name);
  EXPECT_EQ(1, resolver_.calls);
  EXPECT_EQ(1u, translator_.resolver_calls());
}

TEST_F(FanotifyTranslatorTest, RenameBecomesTwoRecordsWithOneCookie) {
  const auto records =
      Run(Event(FAN_RENAME,
                {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "a"},
                 Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-sub", "b"}}) +
          Event(FAN_RENAME | FAN_ONDIR,
                {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "d"},
                 Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "e"}}));
  ASSERT_EQ(4u, records.size());
  EXPECT_EQ(YULO_MOVE_FROM, records[0].mask);
  EXPECT_EQ("/vol1/media/a", records[0].name);
  EXPECT_EQ(YULO_MOVE_TO, records[1].mask);
  EXPECT_EQ("/vol1/media/sub/b", records[1].name);
  EXPECT_NE(0u, records[0].cookie);
  EXPECT_EQ(records[0].cookie, records[1].cookie);

  EXPECT_EQ(YULO_MOVE_FROM | YULO_ISDIR, records[2].mask);
  EXPECT_EQ("/vol1/media/d", records[2].name);
  EXPECT_EQ(YULO_MOVE_TO | YULO_ISDIR, records[3].mask);
  EXPECT_EQ("/vol1/media/e", records[3].name);
  EXPECT_EQ(records[2].cookie, records[3].cookie);
  EXPECT_NE(records[0].cookie, records[2].cookie);
}

TEST_F(FanotifyTranslatorTest, RenameWithOnlyOneHalfWanted) {
  translator_.SetEventMask(YULO_MOVE_TO);
  const auto records = Run(Event(
      FAN_RENAME, {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "a"},
                   Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "b"}}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(YULO_MOVE_TO, records[0].mask);
  EXPECT_NE(0u, records[0].cookie);
}

TEST_F(FanotifyTranslatorTest, RenameOutOfAVanishedDirectoryKeepsTheOtherHalf) {
  const auto records = Run(Event(
      FAN_RENAME, {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-gone", "a"},
                   Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "b"}}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(YULO_MOVE_TO, records[0].mask);
  EXPECT_EQ("/vol1/media/b", records[0].name);
  EXPECT_EQ(1u, translator_.dropped_events());
}

TEST_F(FanotifyTranslatorTest, RenameWithoutMoveBitsWritesNothing) {
  translator_.SetEventMask(YULO_CREATE);
  size_t used = 0;
  const std::string event = Event(
      FAN_RENAME, {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "a"},
                   Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "b"}});
  EXPECT_TRUE(Run(event, 65536, &used).empty());
  EXPECT_EQ(event.size(), used);
  EXPECT_EQ(0, resolver_.calls);
}

TEST_F(FanotifyTranslatorTest, DirectoryRenameForgetsCachedPaths) {
  Run(Event(FAN_CREATE, {Dir("H-sub", "x")}));
  ASSERT_EQ(1, resolver_.calls);
  // sub is renamed to sub2: its handle now resolves elsewhere.
  resolver_.Set("H-sub", "/vol1/media/sub2");
  const auto records =
      Run(Event(FAN_RENAME | FAN_ONDIR,
                {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "sub"},
                 Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "sub2"}}) +
          Event(FAN_CREATE, {Dir("H-sub", "y")}));
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ("/vol1/media/sub", records[0].name);
  EXPECT_EQ("/vol1/media/sub2", records[1].name);
  EXPECT_EQ("/vol1/media/sub2/y", records[2].name);
}

TEST_F(FanotifyTranslatorTest, DirectoryRenameForgetsEvenWhenNotReported) {
  translator_.SetEventMask(YULO_CREATE);
  Run(Event(FAN_CREATE, {Dir("H-sub", "x")}));
  resolver_.Set("H-sub", "/vol1/media/sub2");
  const auto records =
      Run(Event(FAN_RENAME | FAN_ONDIR,
                {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "sub"},
                 Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "sub2"}}) +
          Event(FAN_CREATE, {Dir("H-sub", "y")}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("/vol1/media/sub2/y", records[0].name);
}

TEST_F(FanotifyTranslatorTest, FileRenameKeepsCachedPaths) {
  Run(Event(FAN_CREATE, {Dir("H-media", "x")}));
  Run(Event(FAN_RENAME,
            {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "x"},
             Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "y"}}) +
      Event(FAN_CREATE, {Dir("H-media", "z")}));
  EXPECT_EQ(1, resolver_.calls);
}

TEST_F(FanotifyTranslatorTest, HalvesFromOlderKernels) {
  const auto records = Run(Event(FAN_MOVED_FROM, {Dir("H-media", "a")}) +
                           Event(FAN_MOVED_TO, {Dir("H-sub", "a")}) +
                           Event(FAN_CREATE, {Dir("H-media", "c")}));
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(YULO_MOVE_FROM, records[0].mask);
  EXPECT_EQ("/vol1/media/a", records[0].name);
  EXPECT_EQ(YULO_MOVE_TO, records[1].mask);
  EXPECT_EQ("/vol1/media/sub/a", records[1].name);
  // Nothing pairs the halves: each has a cookie of its own, never 0, so
  // that they cannot be taken for the partner of an unrelated event.
  EXPECT_NE(0u, records[0].cookie);
  EXPECT_NE(0u, records[1].cookie);
  EXPECT_NE(records[0].cookie, records[1].cookie);
  EXPECT_EQ(0u, records[2].cookie);
}

TEST_F(FanotifyTranslatorTest, DirectoryHalfForgetsCachedPaths) {
  Run(Event(FAN_CREATE, {Dir("H-sub", "x")}));
  resolver_.Set("H-sub", "/vol1/elsewhere");
  const auto records =
      Run(Event(FAN_MOVED_FROM | FAN_ONDIR, {Dir("H-media", "sub")}) +
          Event(FAN_CREATE, {Dir("H-sub", "y")}));
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(YULO_MOVE_FROM | YULO_ISDIR, records[0].mask);
  EXPECT_EQ("/vol1/elsewhere/y", records[1].name);
}

TEST_F(FanotifyTranslatorTest, OverflowIsOneRecordWithAnEmptyName) {
  translator_.SetEventMask(0);  // written whatever was asked for
  Run(Event(FAN_CREATE, {Dir("H-media", "x")}));
  const auto records = Run(Event(FAN_Q_OVERFLOW, {}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(YULO_Q_OVERFLOW, records[0].mask);
  EXPECT_EQ(0u, records[0].cookie);
  EXPECT_EQ("", records[0].name);
  EXPECT_EQ(1u, records[0].len);
  // Lost events may have held renames: cached paths are forgotten.
  EXPECT_EQ(0u, translator_.cache().size());
}

TEST_F(FanotifyTranslatorTest, UnresolvableDirectoryDropsTheEvent) {
  LOG_LEVEL = 7;
  const auto records = Run(Event(FAN_CREATE, {Dir("H-gone", "lost")}) +
                           Event(FAN_CREATE, {Dir("H-gone", "lost2")}) +
                           Event(FAN_CREATE, {Dir("H-media", "kept")}));
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("/vol1/media/kept", records[0].name);
  EXPECT_EQ(2u, translator_.dropped_events());
  EXPECT_EQ(3, resolver_.calls);  // failures are not cached
  const auto lines = TakeLogLines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_NE(std::string::npos,
            lines[0].find("skip event (lost): Stale file handle (116)"));
  EXPECT_EQ(0u, lines[0].rfind("fanotify_translator:", 0));
}

TEST_F(FanotifyTranslatorTest, UnresolvableIsSilentBelowLevel7) {
  Run(Event(FAN_CREATE, {Dir("H-gone", "lost")}));
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(FanotifyTranslatorTest, OtherFileSystemIsAnotherKey) {
  resolver_.Set("H-media", "/vol2/media", 99);
  const auto records =
      Run(Event(FAN_CREATE, {Dir("H-media", "a")}) +
          Event(FAN_CREATE,
                {Info{FAN_EVENT_INFO_TYPE_DFID_NAME, "H-media", "b", 99}}));
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("/vol1/media/a", records[0].name);
  EXPECT_EQ("/vol2/media/b", records[1].name);
}

TEST_F(FanotifyTranslatorTest, StopsBeforeAnEventThatDoesNotFit) {
  const std::string first = Event(FAN_CREATE, {Dir("H-media", "a")});
  const std::string second = Event(FAN_CREATE, {Dir("H-media", "b")});
  size_t used = 0;
  // Room for exactly one record of 12 + "/vol1/media/a" + NUL.
  auto records = Run(first + second, 12 + 13 + 1, &used);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(first.size(), used);
  // Not even one fits: nothing is consumed.
  records = Run(second, 20, &used);
  EXPECT_TRUE(records.empty());
  EXPECT_EQ(0u, used);
}

TEST_F(FanotifyTranslatorTest, RenameHalvesAreNeverSplit) {
  const std::string rename = Event(
      FAN_RENAME, {Info{FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, "H-media", "a"},
                   Info{FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, "H-media", "b"}});
  size_t used = 0;
  // Room for the first half only.
  EXPECT_TRUE(Run(rename, 30, &used).empty());
  EXPECT_EQ(0u, used);
  EXPECT_EQ(2u, Run(rename, 52, &used).size());
  EXPECT_EQ(rename.size(), used);
}

TEST_F(FanotifyTranslatorTest, MalformedEventsEndTheBatch) {
  std::string bad = Event(FAN_CREATE, {Dir("H-media", "a")});
  bad[4] = 99;  // vers
  size_t used = 0;
  EXPECT_TRUE(Run(Event(FAN_CREATE, {Dir("H-media", "ok")}) + bad +
                      Event(FAN_CREATE, {Dir("H-media", "after")}),
                  65536, &used)
                  .size() == 1);
  std::string overlong = Event(FAN_CREATE, {Dir("H-media", "a")});
  const uint32_t len = 5000;
  std::memcpy(&overlong[0], &len, 4);
  EXPECT_TRUE(Run(overlong, 65536, &used).empty());
  EXPECT_EQ(overlong.size(), used);
  // A trailing fragment shorter than the metadata is consumed too.
  EXPECT_EQ(1u,
            Run(Event(FAN_CREATE, {Dir("H-media", "a")}) + "xyz", 65536, &used)
                .size());
  EXPECT_EQ(Event(FAN_CREATE, {Dir("H-media", "a")}).size() + 3, used);
}

TEST_F(FanotifyTranslatorTest, BadInfoRecordsAreIgnored) {
  std::string event = Event(FAN_CREATE, {Dir("H-media", "a")});
  // Claim an info length beyond the event: the record is not parsed.
  const uint16_t len = 500;
  std::memcpy(&event[sizeof(fanotify_event_metadata) + 2], &len, 2);
  size_t used = 0;
  EXPECT_TRUE(Run(event, 65536, &used).empty());
  EXPECT_EQ(event.size(), used);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
