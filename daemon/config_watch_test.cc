#include "daemon/config_watch.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/testing/temp_dir.h"
#include "lib/testing/log_capture.h"
#include "yulotifyd/log.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::LinesWithMessage;
using testing::TempDir;
using testing::TakeLogLines;

class ConfigWatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TakeLogLines();
    for (const char* dir : {"conf/system.d", "conf/app.d", "conf/user.d"}) {
      dir_.MakeDir(dir);
    }
  }

  // Whether the watch has something to read now.
  bool Pending() {
    struct pollfd p = {watch_.fd(), POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }

  // Reads what is pending; false when nothing is.
  bool Reload() { return Pending() && watch_.ReadChanges(); }

  TempDir dir_;
  ConfigWatch watch_{dir_.File("conf")};
};

TEST_F(ConfigWatchTest, WatchesTheThreeDirectories) {
  EXPECT_EQ(-1, watch_.fd());
  ASSERT_TRUE(watch_.Open());
  EXPECT_GE(watch_.fd(), 0);
  EXPECT_EQ(3u, watch_.watch_count());
  EXPECT_TRUE(TakeLogLines().empty());
  watch_.Close();
  EXPECT_EQ(-1, watch_.fd());
  EXPECT_EQ(0u, watch_.watch_count());
}

TEST_F(ConfigWatchTest, MissingDirectoryIsLoggedOnceAtInfoLevel) {
  ASSERT_EQ(0, rmdir(dir_.File("conf/app.d").c_str()));
  LOG_LEVEL = 6;
  ASSERT_TRUE(watch_.Open());
  LOG_LEVEL = 3;
  EXPECT_EQ(2u, watch_.watch_count());
  const std::vector<std::string> lines = TakeLogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(1u, LinesWithMessage(lines,
                                 "Configuration directory not there yet, "
                                 "path=" + dir_.File("conf/app.d"),
                                 "config_watch")
                    .size());
  // Not a failure: at the default level nothing is said.
  watch_.Close();
  ASSERT_TRUE(watch_.Open());
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(ConfigWatchTest, DirectoryMadeLaterIsWatchedAndCallsForReload) {
  ASSERT_EQ(0, rmdir(dir_.File("conf/user.d").c_str()));
  ASSERT_TRUE(watch_.Open());
  EXPECT_EQ(2u, watch_.watch_count());
  dir_.MakeDir("conf/user.d");
  EXPECT_TRUE(Reload()) << "it may already hold files";
  EXPECT_EQ(3u, watch_.watch_count());
  dir_.Write("conf/user.d/a.json", "{}");
  EXPECT_TRUE(Reload());
  // Other directories in the root are nothing to us.
  dir_.MakeDir("conf/other.d");
  EXPECT_FALSE(Reload());
}

TEST_F(ConfigWatchTest, DirectoryRemovedAndMadeAgainIsWatchedAgain) {
  dir_.Write("conf/app.d/a.json", "{}");
  ASSERT_TRUE(watch_.Open());
  ASSERT_EQ(0, unlink(dir_.File("conf/app.d/a.json").c_str()));
  ASSERT_EQ(0, rmdir(dir_.File("conf/app.d").c_str()));
  EXPECT_TRUE(Reload());
  EXPECT_EQ(2u, watch_.watch_count());
  dir_.MakeDir("conf/app.d");
  EXPECT_TRUE(Reload());
  EXPECT_EQ(3u, watch_.watch_count());
  dir_.Write("conf/app.d/b.json", "{}");
  EXPECT_TRUE(Reload());
}

TEST_F(ConfigWatchTest, DirectoryRenamedInOrAwayCallsForReload) {
  dir_.MakeDir("conf/staging");
  dir_.Write("conf/staging/a.json", "{}");
  ASSERT_EQ(0, rmdir(dir_.File("conf/system.d").c_str()));
  ASSERT_TRUE(watch_.Open());
  // Prepared elsewhere, then renamed into place whole.
  ASSERT_EQ(0, rename(dir_.File("conf/staging").c_str(),
                      dir_.File("conf/system.d").c_str()));
  EXPECT_TRUE(Reload());
  EXPECT_EQ(3u, watch_.watch_count());
  ASSERT_EQ(0, rename(dir_.File("conf/system.d").c_str(),
                      dir_.File("conf/old").c_str()));
  EXPECT_TRUE(Reload());
  EXPECT_EQ(2u, watch_.watch_count());
  // What happens in it now is none of our business.
  dir_.Write("conf/old/b.json", "{}");
  EXPECT_FALSE(Reload());
}

TEST_F(ConfigWatchTest, ConfigurationFileWrittenCallsForReload) {
  ASSERT_TRUE(watch_.Open());
  dir_.Write("conf/user.d/10-sync.json", "{}");
  EXPECT_TRUE(Reload());
  EXPECT_FALSE(Pending());
}

TEST_F(ConfigWatchTest, OtherNamesDoNotCallForReload) {
  ASSERT_TRUE(watch_.Open());
  dir_.Write("conf/system.d/10-x.json.tmp", "{}");
  dir_.Write("conf/system.d/.10-x.json.swp", "{}");
  EXPECT_FALSE(Reload());
  // A directory with a configuration file's name is not one.
  dir_.MakeDir("conf/app.d/dir.json");
  ASSERT_EQ(0, rmdir(dir_.File("conf/app.d/dir.json").c_str()));
  EXPECT_FALSE(Reload());
}

TEST_F(ConfigWatchTest, RenamesAndRemovalsCallForReload) {
  dir_.Write("conf/app.d/a.json", "{}");
  dir_.Write("conf/app.d/b.json.tmp", "{}");
  ASSERT_TRUE(watch_.Open());
  // Replaced by rename, as careful writers do.
  ASSERT_EQ(0, rename(dir_.File("conf/app.d/b.json.tmp").c_str(),
                      dir_.File("conf/app.d/b.json").c_str()));
  EXPECT_TRUE(Reload());
  // Renamed away.
  ASSERT_EQ(0, rename(dir_.File("conf/app.d/b.json").c_str(),
                      dir_.File("conf/app.d/b.off").c_str()));
  EXPECT_TRUE(Reload());
  ASSERT_EQ(0, unlink(dir_.File("conf/app.d/a.json").c_str()));
  EXPECT_TRUE(Reload());
}

TEST_F(ConfigWatchTest, ReadIsTracedAtDebugLevel) {
  ASSERT_TRUE(watch_.Open());
  dir_.Write("conf/user.d/a.json", "{}");
  LOG_LEVEL = 7;
  EXPECT_TRUE(Reload());
  LOG_LEVEL = 3;
  EXPECT_EQ(
      1u,
      LinesWithMessage(TakeLogLines(), "HandleInotify", "config_watch").size());
}

TEST_F(ConfigWatchTest, ManyChangesAreReadInOnePass) {
  ASSERT_TRUE(watch_.Open());
  // Far more records than one buffer holds.
  for (int i = 0; i < 200; ++i) {
    dir_.Write("conf/user.d/f" + std::to_string(i) + ".json", "{}");
  }
  watch_.Handle(1000);
  EXPECT_FALSE(Pending());
  EXPECT_EQ(ConfigWatch::kGatherMillis, watch_.MillisUntilDue(1000));
}

TEST(ConfigWatchPacingTest, ChangesAreGatheredThenReloadsKeepTheirDistance) {
  ConfigWatch watch("/nonexistent");
  EXPECT_EQ(-1, watch.MillisUntilDue(0));
  EXPECT_FALSE(watch.TakeDue(0));

  // Gathered for 200 ms from the first change; later ones join it.
  watch.Note(1000);
  watch.Note(1150);
  EXPECT_EQ(50, watch.MillisUntilDue(1150));
  EXPECT_FALSE(watch.TakeDue(1199));
  EXPECT_TRUE(watch.TakeDue(1200));
  EXPECT_EQ(-1, watch.MillisUntilDue(1200));
  watch.Reloaded(1300);  // the reload took 100 ms

  // The next change falls due a second after that reload ended.
  watch.Note(1310);
  EXPECT_EQ(990, watch.MillisUntilDue(1310));
  EXPECT_FALSE(watch.TakeDue(2299));
  EXPECT_TRUE(watch.TakeDue(2300));
  watch.Reloaded(2300);

  // Long after, only the gathering counts.
  watch.Note(9000);
  EXPECT_EQ(ConfigWatch::kGatherMillis, watch.MillisUntilDue(9000));
}

// Records as the kernel lays them out: header, then the name padded with
// zeros to `name_length` bytes.
std::string Record(uint32_t mask, const std::string& name,
                   uint32_t name_length) {
  struct inotify_event header;
  std::memset(&header, 0, sizeof(header));
  header.wd = 1;
  header.mask = mask;
  header.len = name_length;
  std::string out(reinterpret_cast<const char*>(&header), sizeof(header));
  std::string padded = name;
  padded.resize(name_length, '\0');
  return out + padded;
}

TEST(ConfigWatchRecordsTest, OverflowCallsForReload) {
  const std::string records = Record(IN_Q_OVERFLOW, "", 0);
  EXPECT_TRUE(
      ConfigWatch::RecordsCallForReload(records.data(), records.size()));
}

TEST(ConfigWatchRecordsTest, AnyConfigurationFileAmongOthers) {
  const std::string records = Record(IN_CLOSE_WRITE, "a.tmp", 16) +
                              Record(IN_DELETE, "b.json", 16) +
                              Record(IN_CLOSE_WRITE, "c.txt", 16);
  EXPECT_TRUE(
      ConfigWatch::RecordsCallForReload(records.data(), records.size()));
}

TEST(ConfigWatchRecordsTest, DirectoriesAndShortNamesDoNot) {
  const std::string records = Record(IN_MOVED_TO | IN_ISDIR, "d.json", 16) +
                              Record(IN_CLOSE_WRITE, "json", 16) +
                              Record(IN_CLOSE_WRITE, "", 0);
  EXPECT_FALSE(
      ConfigWatch::RecordsCallForReload(records.data(), records.size()));
  // ".json" alone is a configuration file.
  const std::string bare = Record(IN_CLOSE_WRITE, ".json", 16);
  EXPECT_TRUE(ConfigWatch::RecordsCallForReload(bare.data(), bare.size()));
}

TEST(ConfigWatchRecordsTest, IncompleteRecordIsIgnored) {
  const std::string whole = Record(IN_CLOSE_WRITE, "a.json", 16);
  // The name cut short, then the header cut short.
  EXPECT_FALSE(
      ConfigWatch::RecordsCallForReload(whole.data(), whole.size() - 1));
  EXPECT_FALSE(ConfigWatch::RecordsCallForReload(whole.data(), 8));
  // A complete record before an incomplete one still counts.
  const std::string both = whole + whole.substr(0, 20);
  EXPECT_TRUE(ConfigWatch::RecordsCallForReload(both.data(), both.size()));
}

TEST(ConfigWatchRecordsTest, NameWithoutTerminatingZeroIsBoundedByItsLength) {
  // The name fills its whole length; what follows must not be read as part
  // of it.
  const std::string records =
      Record(IN_CLOSE_WRITE, "abcdefgh.jso", 12) + Record(0, "n", 4);
  EXPECT_FALSE(
      ConfigWatch::RecordsCallForReload(records.data(), records.size()));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
