// FanotifyBackend on the running kernel, below YULotify: the record stream
// it produces, its watch bookkeeping, and its error results.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "base/errno_text.h"
#include "notify/fanotify_backend.h"
#include "notify/notify_event.h"
#include "notify/raw_record.h"
#include "notify/testing/kernel_environment.h"
#include "notify/testing/scratch_mounts.h"
#include "base/unique_fd.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::ScratchMounts;

constexpr uint32_t kMask = 0x3ce;

struct Record {
  uint32_t mask;
  uint32_t cookie;
  std::string name;
};

// (mask, full path) of each record, in order.
std::vector<std::pair<uint32_t, std::string>> Changes(
    const std::vector<Record>& records) {
  std::vector<std::pair<uint32_t, std::string>> changes;
  for (const auto& record : records) {
    changes.emplace_back(record.mask, record.name);
  }
  return changes;
}

// Parses a buffer that must hold whole records only.
::testing::AssertionResult ParseWhole(const uint8_t* data, size_t n,
                                      std::vector<Record>* records) {
  size_t off = 0;
  while (off < n) {
    if (n - off < kRawRecordHeaderSize) {
      return ::testing::AssertionFailure() << "header split at " << off;
    }
    const auto& raw = *reinterpret_cast<const RawNotifyRecord*>(data + off);
    if (raw.size() > n - off) {
      return ::testing::AssertionFailure() << "record split at " << off;
    }
    if (raw.len == 0 || raw.name()[raw.len - 1] != '\0') {
      return ::testing::AssertionFailure() << "name not NUL-terminated";
    }
    records->push_back(Record{raw.mask, raw.cookie, raw.name()});
    off += raw.size();
  }
  return ::testing::AssertionSuccess();
}

class FanotifyBackendKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(scratch_.ok()) << scratch_.error();
    m1_ = scratch_.MountTmpfs("m1", "size=64m");
    ASSERT_FALSE(m1_.empty()) << scratch_.error();
    fd_ = backend_.Init();
    ASSERT_GE(fd_, 0) << "fanotify_init: " << ErrnoText(errno);
  }

  // Reads everything there is now, in reads of `capacity` bytes; the number
  // of records each read gave goes to *per_read.
  std::vector<Record> ReadAll(size_t capacity = YULO_READ_CAPACITY,
                              std::vector<size_t>* per_read = nullptr) {
    std::vector<Record> records;
    std::vector<uint8_t> buf(capacity);
    for (;;) {
      bool readable = false;
      const int r = backend_.WaitReadable(fd_, {0, 0}, &readable);
      EXPECT_GE(r, 0);
      if (r <= 0 || !readable) break;
      const ssize_t n = backend_.Read(fd_, buf.data(), buf.size());
      EXPECT_GE(n, 0) << ErrnoText(errno);
      if (n <= 0) break;
      const size_t before = records.size();
      EXPECT_TRUE(ParseWhole(buf.data(), static_cast<size_t>(n), &records));
      if (per_read != nullptr) per_read->push_back(records.size() - before);
    }
    return records;
  }

  static constexpr size_t YULO_READ_CAPACITY = 262976;

  ScratchMounts scratch_;
  std::string m1_;
  FanotifyBackend backend_;
  int fd_ = -1;
};

TEST_F(FanotifyBackendKernelTest, RecordsCarryFullPaths) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  EXPECT_TRUE(backend_.rename_events()) << "kernel without FAN_RENAME";
  ASSERT_TRUE(WriteWholeFile(m1_ + "/a", "", 0644));
  const auto records = ReadAll();
  // One merged kernel event, one record per kind of change.
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(static_cast<uint32_t>(YULO_CREATE), records[0].mask);
  EXPECT_EQ(static_cast<uint32_t>(YULO_CLOSE_WRITE), records[1].mask);
  for (const auto& record : records) {
    EXPECT_EQ(m1_ + "/a", record.name);
    EXPECT_EQ(0u, record.cookie);
  }
}

// A watch's event bits change in place: new bits report at once, removed
// ones stop, and what both masks want keeps coming.
TEST_F(FanotifyBackendKernelTest, ChangeWatchMaskWidensAndNarrowsInPlace) {
  const uint32_t create = YULO_CREATE;
  const uint32_t create_delete = YULO_CREATE | YULO_DELETE;
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, create));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/a", "", 0644));
  ASSERT_EQ(0, unlink((m1_ + "/a").c_str()));
  EXPECT_EQ(Changes(ReadAll()),
            (std::vector<std::pair<uint32_t, std::string>>{{create, m1_ + "/a"}}));

  ASSERT_EQ(0, backend_.ChangeWatchMask(fd_, m1_, create, create_delete))
      << ErrnoText(errno);
  ASSERT_TRUE(WriteWholeFile(m1_ + "/b", "", 0644));
  ASSERT_EQ(0, unlink((m1_ + "/b").c_str()));
  EXPECT_EQ(Changes(ReadAll()),
            (std::vector<std::pair<uint32_t, std::string>>{
                {create, m1_ + "/b"}, {uint32_t{YULO_DELETE}, m1_ + "/b"}}));

  ASSERT_EQ(0, backend_.ChangeWatchMask(fd_, m1_, create_delete, create))
      << ErrnoText(errno);
  ASSERT_TRUE(WriteWholeFile(m1_ + "/c", "", 0644));
  ASSERT_EQ(0, unlink((m1_ + "/c").c_str()));
  EXPECT_EQ(Changes(ReadAll()),
            (std::vector<std::pair<uint32_t, std::string>>{{create, m1_ + "/c"}}));
  // The watch is still there to be removed.
  EXPECT_EQ(0, backend_.RemoveWatch(fd_, m1_, create));
}

TEST_F(FanotifyBackendKernelTest, ChangeWatchMaskOfAnUnknownWatchFails) {
  EXPECT_EQ(-1, backend_.ChangeWatchMask(fd_, m1_, 0, YULO_CREATE));
  EXPECT_EQ(ENOENT, errno);
}

// A bare fanotify group beside the backend's, with the same mark: shows
// what the kernel itself queued.
class RawGroup {
 public:
  bool Open(const std::string& mount, uint64_t mask) {
    fd_.Reset(::fanotify_init(
        FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_CLOEXEC | FAN_NONBLOCK,
        O_RDONLY | O_CLOEXEC));
    return fd_.Valid() &&
           ::fanotify_mark(fd_.Get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask,
                           AT_FDCWD, mount.c_str()) == 0;
  }
  // The masks of the events queued now.
  std::vector<uint64_t> Masks() {
    std::vector<uint64_t> masks;
    std::vector<uint8_t> buf(65536);
    for (;;) {
      const ssize_t n = ::read(fd_.Get(), buf.data(), buf.size());
      if (n <= 0) break;
      const auto* meta =
          reinterpret_cast<const fanotify_event_metadata*>(buf.data());
      ssize_t left = n;
      while (FAN_EVENT_OK(meta, left)) {
        masks.push_back(meta->mask);
        meta = FAN_EVENT_NEXT(meta, left);
      }
    }
    return masks;
  }

 private:
  UniqueFd fd_;
};

TEST_F(FanotifyBackendKernelTest, WrittenFileGivesCreateModifyCloseWrite) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  RawGroup raw;
  ASSERT_TRUE(raw.Open(m1_, FanotifyMarkMask(kMask, true))) << ErrnoText(errno);
  ASSERT_TRUE(WriteWholeFile(m1_ + "/f", "some bytes", 0644));
  // The kernel merged the three changes into one event...
  const auto masks = raw.Masks();
  ASSERT_EQ(1u, masks.size());
  EXPECT_EQ(uint64_t{FAN_CREATE | FAN_MODIFY | FAN_CLOSE_WRITE}, masks[0]);
  // ...which the backend reports as three records, in the order they
  // happened, all in one read.
  std::vector<size_t> per_read;
  const auto records = ReadAll(YULO_READ_CAPACITY, &per_read);
  const std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_CREATE, m1_ + "/f"},
      {YULO_MODIFY, m1_ + "/f"},
      {YULO_CLOSE_WRITE, m1_ + "/f"}};
  EXPECT_EQ(expected, Changes(records));
  EXPECT_EQ(std::vector<size_t>{3}, per_read);
  for (const auto& record : records) EXPECT_EQ(0u, record.cookie);
}

TEST_F(FanotifyBackendKernelTest, SplitRecordsOfADirectoryAllCarryItsFlag) {
  const uint32_t mask = kMask | YULO_OPEN | YULO_CLOSE_NOWRITE;
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, mask));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));
  ReadAll();
  RawGroup raw;
  ASSERT_TRUE(raw.Open(m1_, FanotifyMarkMask(mask, true))) << ErrnoText(errno);
  UniqueFd dir(::open((m1_ + "/d").c_str(), O_RDONLY | O_DIRECTORY));
  ASSERT_TRUE(dir.Valid());
  ASSERT_EQ(0, ::fchmod(dir.Get(), 0700));
  dir.Reset();
  const auto masks = raw.Masks();
  ASSERT_EQ(1u, masks.size());
  EXPECT_EQ(uint64_t{FAN_OPEN | FAN_ATTRIB | FAN_CLOSE_NOWRITE | FAN_ONDIR},
            masks[0]);
  const auto records = ReadAll();
  const std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_OPEN | YULO_ISDIR, m1_ + "/d"},
      {YULO_ATTRIB | YULO_ISDIR, m1_ + "/d"},
      {YULO_CLOSE_NOWRITE | YULO_ISDIR, m1_ + "/d"}};
  EXPECT_EQ(expected, Changes(records));
}

TEST_F(FanotifyBackendKernelTest, SmallReadsNeverSplitARecord) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  const std::string long_name(200, 'n');
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(WriteWholeFile(m1_ + "/" + long_name + std::to_string(i), "", 0644));
  }
  ASSERT_EQ(0, ::rename((m1_ + "/" + long_name + "0").c_str(),
                        (m1_ + "/renamed").c_str()));
  // Room for three of the longest records: every event gives two (create
  // and close-write, or the two halves of the rename), and the records of
  // one event never go to two reads, so each read holds exactly one event.
  const size_t one = kRawRecordHeaderSize + m1_.size() + 1 + 202 + 1;
  std::vector<size_t> per_read;
  auto records = ReadAll(3 * one, &per_read);
  ASSERT_EQ(102u, records.size());
  for (int i = 0; i < 50; ++i) {
    SCOPED_TRACE(i);
    const std::string name = m1_ + "/" + long_name + std::to_string(i);
    EXPECT_EQ(static_cast<uint32_t>(YULO_CREATE), records[2 * i].mask);
    EXPECT_EQ(name, records[2 * i].name);
    EXPECT_EQ(static_cast<uint32_t>(YULO_CLOSE_WRITE), records[2 * i + 1].mask);
    EXPECT_EQ(name, records[2 * i + 1].name);
  }
  EXPECT_EQ(static_cast<uint32_t>(YULO_MOVE_FROM), records[100].mask);
  EXPECT_EQ(static_cast<uint32_t>(YULO_MOVE_TO), records[101].mask);
  EXPECT_EQ(records[100].cookie, records[101].cookie);
  EXPECT_EQ(std::vector<size_t>(51, 2), per_read);
}

TEST_F(FanotifyBackendKernelTest, LeftoverRecordsKeepTheDescriptorReadable) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/a", "", 0644));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/b", "", 0644));
  // Room for the two records of one file (create, close-write).
  std::vector<uint8_t> buf(2 * (kRawRecordHeaderSize + m1_.size() + 3));
  ASSERT_EQ(static_cast<ssize_t>(buf.size()),
            backend_.Read(fd_, buf.data(), buf.size()));
  std::vector<Record> records;
  ASSERT_TRUE(ParseWhole(buf.data(), buf.size(), &records));
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(m1_ + "/a", records[1].name);
  // The kernel queue is empty now, b's records wait in the backend.
  bool readable = false;
  EXPECT_EQ(1, backend_.WaitReadable(fd_, {0, 0}, &readable));
  EXPECT_TRUE(readable);
  ASSERT_EQ(static_cast<ssize_t>(buf.size()),
            backend_.Read(fd_, buf.data(), buf.size()));
  records.clear();
  ASSERT_TRUE(ParseWhole(buf.data(), buf.size(), &records));
  const std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_CREATE, m1_ + "/b"}, {YULO_CLOSE_WRITE, m1_ + "/b"}};
  EXPECT_EQ(expected, Changes(records));
  EXPECT_EQ(0, backend_.WaitReadable(fd_, {0, 0}, &readable));
}

TEST_F(FanotifyBackendKernelTest, BufferTooSmallForOneRecord) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/a", "", 0644));
  uint8_t tiny[8];
  errno = 0;
  EXPECT_EQ(-1, backend_.Read(fd_, tiny, sizeof(tiny)));
  EXPECT_EQ(EINVAL, errno);
  // Room for one record, but the event gives two (create, close-write):
  // they are never split, so this is too small as well.
  std::vector<uint8_t> one(kRawRecordHeaderSize + m1_.size() + 3);
  errno = 0;
  EXPECT_EQ(-1, backend_.Read(fd_, one.data(), one.size()));
  EXPECT_EQ(EINVAL, errno);
  const auto records = ReadAll();  // nothing was lost
  const std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_CREATE, m1_ + "/a"}, {YULO_CLOSE_WRITE, m1_ + "/a"}};
  EXPECT_EQ(expected, Changes(records));
}

TEST_F(FanotifyBackendKernelTest, NothingToReadGivesZero) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  uint8_t buf[4096];
  EXPECT_EQ(0, backend_.Read(fd_, buf, sizeof(buf)));
}

TEST_F(FanotifyBackendKernelTest, ErrorResults) {
  errno = 0;
  EXPECT_EQ(-1, backend_.RemoveWatch(fd_, m1_, kMask));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, backend_.AddWatch(fd_, m1_ + "/missing", kMask));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, backend_.AddWatch(fd_, "", kMask));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, backend_.AddWatch(fd_ + 1000, m1_, kMask));
  EXPECT_EQ(EBADF, errno);
  uint8_t buf[64];
  EXPECT_EQ(-1, backend_.Read(fd_ + 1000, buf, sizeof(buf)));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, backend_.Init());  // only once
  EXPECT_EQ(EBUSY, errno);
}

TEST_F(FanotifyBackendKernelTest, UninitialisedBackendFailsWithEbadf) {
  FanotifyBackend fresh;
  errno = 0;
  EXPECT_EQ(-1, fresh.AddWatch(-1, m1_, kMask));
  EXPECT_EQ(EBADF, errno);
  bool readable = true;
  EXPECT_EQ(-1, fresh.WaitReadable(-1, {0, 0}, &readable));
  EXPECT_EQ(EBADF, errno);
}

TEST_F(FanotifyBackendKernelTest, FileSystemMountedTwiceIsWatchedOnce) {
  const std::string bind = scratch_.root() + "/bind";
  ASSERT_EQ(0, ::mkdir(bind.c_str(), 0755));
  ASSERT_EQ(0, ::mount(m1_.c_str(), bind.c_str(), nullptr, MS_BIND, nullptr))
      << ErrnoText(errno);
  struct Unmount {
    std::string path;
    ~Unmount() {
      ::umount2(path.c_str(), MNT_DETACH);
      ::rmdir(path.c_str());
    }
  } unmount{bind};

  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_EQ(0, backend_.AddWatch(fd_, bind, kMask));
  ASSERT_TRUE(WriteWholeFile(bind + "/x", "", 0644));
  auto records = ReadAll();
  // Each change reported once, named under the mount point watched first.
  std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_CREATE, m1_ + "/x"}, {YULO_CLOSE_WRITE, m1_ + "/x"}};
  EXPECT_EQ(expected, Changes(records));

  ASSERT_EQ(0, backend_.RemoveWatch(fd_, m1_, kMask));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/y", "", 0644));
  records = ReadAll();
  expected = {{YULO_CREATE, bind + "/y"}, {YULO_CLOSE_WRITE, bind + "/y"}};
  EXPECT_EQ(expected, Changes(records));

  ASSERT_EQ(0, backend_.RemoveWatch(fd_, bind, kMask));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/z", "", 0644));
  bool readable = true;
  EXPECT_EQ(0, backend_.WaitReadable(fd_, {0, 0}, &readable));
}

TEST_F(FanotifyBackendKernelTest, PathsAreSpeltAsTheCallerWatchesThem) {
  const std::string link = scratch_.root() + "/link";
  ASSERT_EQ(0, ::symlink(m1_.c_str(), link.c_str()));
  ASSERT_EQ(0, backend_.AddWatch(fd_, link, kMask));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/d/f", "", 0644));
  const auto records = ReadAll();
  ::unlink(link.c_str());
  const std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_CREATE | YULO_ISDIR, link + "/d"},
      {YULO_CREATE, link + "/d/f"},
      {YULO_CLOSE_WRITE, link + "/d/f"}};
  EXPECT_EQ(expected, Changes(records));
}

TEST_F(FanotifyBackendKernelTest, ResolvingPathsRaisesNoEventsOfItsOwn) {
  const uint32_t everything = YULO_ACCESS | YULO_MODIFY | YULO_ATTRIB |
                              YULO_CLOSE_WRITE | YULO_CLOSE_NOWRITE |
                              YULO_OPEN | YULO_MOVE_FROM | YULO_MOVE_TO |
                              YULO_CREATE | YULO_DELETE;
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, everything));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d/e").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/d/e/f", "", 0644));
  const auto records = ReadAll();
  const std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_CREATE | YULO_ISDIR, m1_ + "/d"},
      {YULO_CREATE | YULO_ISDIR, m1_ + "/d/e"},
      {YULO_CREATE, m1_ + "/d/e/f"},
      {YULO_OPEN, m1_ + "/d/e/f"},
      {YULO_CLOSE_WRITE, m1_ + "/d/e/f"}};
  EXPECT_EQ(expected, Changes(records));
  // Looking the directories up opened nothing that the mark could see.
  bool readable = true;
  EXPECT_EQ(0, backend_.WaitReadable(fd_, {0, 0}, &readable));
  EXPECT_GE(backend_.translator().resolver_calls(), 2u);
}

// A volume the backend watches can be unmounted: between calls the backend
// holds nothing on it. The kernel drops the mark with the file system, and
// a new file system mounted at the same place is not watched.
TEST_F(FanotifyBackendKernelTest, WatchedFileSystemCanBeUnmounted) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/d/f", "", 0644));
  // Reading resolves the directories, which opens the mount point for a
  // moment.
  ASSERT_EQ(3u, ReadAll().size());
  ASSERT_EQ(0, ::umount2(m1_.c_str(), 0)) << ErrnoText(errno);

  const std::string again = scratch_.MountTmpfs("m1", "size=64m");
  ASSERT_EQ(m1_, again) << scratch_.error();
  ASSERT_TRUE(WriteWholeFile(m1_ + "/g", "", 0644));
  EXPECT_TRUE(ReadAll().empty());
  // Its mark went with it: removing the watch has nothing left to do.
  EXPECT_EQ(0, backend_.RemoveWatch(fd_, m1_, kMask));
  // The new file system can be watched in its place.
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/h", "", 0644));
  const std::vector<std::pair<uint32_t, std::string>> expected = {
      {YULO_CREATE, m1_ + "/h"}, {YULO_CLOSE_WRITE, m1_ + "/h"}};
  EXPECT_EQ(expected, Changes(ReadAll()));
  ASSERT_EQ(0, ::umount2(m1_.c_str(), 0)) << ErrnoText(errno);
}

// Merged events make the backend look names up in their directory, which
// it keeps open while such events keep coming; once the reader waits for
// more, nothing is left open on the volume.
TEST_F(FanotifyBackendKernelTest, LookedUpDirectoryLeavesTheVolumeFree) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/d/f", "1", 0644));
  ASSERT_FALSE(ReadAll().empty());
  // (The directory's create was looked up too: did it arrive whole?)
  const uint64_t stat_calls = backend_.translator().stat_calls();
  ASSERT_EQ(0, ::unlink((m1_ + "/d/f").c_str()));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/d/f", "2", 0644));
  const auto records = ReadAll();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ((std::pair<uint32_t, std::string>{YULO_DELETE, m1_ + "/d/f"}),
            Changes(records).front());
  EXPECT_EQ(stat_calls + 1, backend_.translator().stat_calls());
  ASSERT_EQ(0, ::umount2(m1_.c_str(), 0)) << ErrnoText(errno);
}

// Events still queued when their file system went away cannot be named any
// more: they are dropped, never reported under whatever is mounted there
// now.
TEST_F(FanotifyBackendKernelTest, EventsOfAnUnmountedFileSystemAreDropped) {
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/d/f", "", 0644));
  ASSERT_EQ(0, ::umount2(m1_.c_str(), 0)) << ErrnoText(errno);
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));  // on the parent now
  EXPECT_TRUE(ReadAll().empty());
  EXPECT_GE(backend_.translator().dropped_events(), 2u);
  ::rmdir((m1_ + "/d").c_str());
}

// Lookups borrow the working directory of the reading thread for a moment
// and give it back.
TEST_F(FanotifyBackendKernelTest, ReadingLeavesTheWorkingDirectoryAlone) {
  char before[PATH_MAX];
  ASSERT_NE(nullptr, ::getcwd(before, sizeof(before)));
  ASSERT_EQ(0, backend_.AddWatch(fd_, m1_, kMask));
  ASSERT_EQ(0, ::mkdir((m1_ + "/d").c_str(), 0755));
  ASSERT_TRUE(WriteWholeFile(m1_ + "/d/f", "", 0644));
  ASSERT_EQ(3u, ReadAll().size());
  char after[PATH_MAX];
  ASSERT_NE(nullptr, ::getcwd(after, sizeof(after)));
  EXPECT_STREQ(before, after);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
