// YULotify: adding and removing watches, and finding the watch that covers
// a path.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "notify/yulotify.h"
#include "notify/yulotify_test_fixture.h"

namespace YULO {
namespace YULOTIFYD {
namespace {

using testing::RawRecordBytes;
using testing::TakeLogLines;
using testing::YULotifyTest;

// --- watches ----------------------------------------------------------

TEST_F(YULotifyTest, IdsCountUpInOrderOfSuccessfulAdds) {
  auto notify = Make();
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  EXPECT_EQ(1, notify->AddWatch("/vol1/photo"));
  EXPECT_EQ(2, notify->AddWatch("/vol2/share"));
  EXPECT_EQ(3, notify->next_watch_id());
  EXPECT_EQ((std::vector<std::string>{"init", "add 7 /vol1 0x3ce",
                                      "add 7 /vol2 0x3ce"}),
            kernel_->calls);
}

TEST_F(YULotifyTest, SamePathTwiceGivesSameIdAndNoReference) {
  auto notify = Make();
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
  EXPECT_EQ(1, notify->next_watch_id());
  EXPECT_EQ(1, kernel_->Count("add"));
  // One RemoveWatch then drops the kernel watch.
  notify->RemoveWatch(0);
  EXPECT_EQ(1, kernel_->Count("remove 7 /vol1 0x3ce"));
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_TRUE(notify->watched_paths().empty());
}

TEST_F(YULotifyTest, TwoPathsOnOneMountPointShareTheKernelWatch) {
  auto notify = Make();
  const int media = notify->AddWatch("/vol1/media");
  const int photo = notify->AddWatch("/vol1/photo");
  EXPECT_EQ(1, kernel_->Count("add"));
  EXPECT_EQ(2u, notify->mount_points().at("/vol1"));

  notify->RemoveWatch(media);
  EXPECT_EQ(0, kernel_->Count("remove"));
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
  EXPECT_EQ(1u, notify->watched_paths().size());

  notify->RemoveWatch(photo);
  EXPECT_EQ(1, kernel_->Count("remove 7 /vol1 0x3ce"));
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_TRUE(notify->watched_paths().empty());
}

TEST_F(YULotifyTest, FailedKernelAddChangesNothing) {
  auto notify = Make();
  ASSERT_EQ(0, notify->AddWatch("/vol2/share"));
  kernel_->add_errnos.push_back(EACCES);
  EXPECT_EQ(-1, notify->AddWatch("/vol1/media"));
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:589 yulotify(589): yulo_notify_add_watch: "
                "Permission denied (13)"}),
            TakeLogLines());
  EXPECT_EQ(1u, notify->watched_paths().size());
  EXPECT_EQ(1u, notify->mount_points().size());
  EXPECT_EQ(1, notify->next_watch_id());
  // The next successful add gets the id the failed one would have had.
  EXPECT_EQ(1, notify->AddWatch("/vol1/media"));
}

TEST_F(YULotifyTest, UnknownIdIsIgnored) {
  auto notify = Make();
  ASSERT_EQ(0, notify->AddWatch("/vol1/media"));
  const auto calls = kernel_->calls;
  notify->RemoveWatch(5);
  notify->RemoveWatch(-1);
  EXPECT_EQ(calls, kernel_->calls);
  EXPECT_EQ(1u, notify->watched_paths().size());
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
}

TEST_F(YULotifyTest, IdsAreNeverReused) {
  auto notify = Make();
  EXPECT_EQ(0, notify->AddWatch("/vol1/media"));
  notify->RemoveWatch(0);
  EXPECT_EQ(1, notify->AddWatch("/vol1/media"));
}

TEST_F(YULotifyTest, RemoveAllWatchesRemovesEachMountPointInOrder) {
  auto notify = Make();
  notify->AddWatch("/vol2/share");
  notify->AddWatch("/vol1/media");
  notify->AddWatch("/vol1/photo");
  notify->RemoveAllWatches();
  EXPECT_EQ((std::vector<std::string>{
                "init", "add 7 /vol2 0x3ce", "add 7 /vol1 0x3ce",
                "remove 7 /vol1 0x3ce", "remove 7 /vol2 0x3ce"}),
            kernel_->calls);
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_TRUE(notify->mount_points().empty());
  // The next id follows on; it does not restart at 0.
  EXPECT_EQ(3, notify->AddWatch("/vol1/media"));
}

TEST_F(YULotifyTest, RemoveAllWatchesDiscardsUndecodedRecords) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_CREATE, 0, "/vol1/media/a") +
        RawRecordBytes(YULO_CREATE, 0, "/vol1/media/b"));
  NotifyEvent event;
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_NE(0u, notify->buffer_pending());
  notify->RemoveAllWatches();
  EXPECT_EQ(0u, notify->buffer_pending());
  EXPECT_EQ(0u, notify->buffer_offset());
  notify->AddWatch("/vol1/media");
  Queue(RawRecordBytes(YULO_DELETE, 0, "/vol1/media/c"));
  ASSERT_TRUE(notify->ReadEvent(event));
  EXPECT_EQ("/c", event.path);
  EXPECT_EQ(2, kernel_->read_calls);
}

TEST_F(YULotifyTest, FailedKernelRemoveIsIgnoredSilently) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  kernel_->remove_errno = EINVAL;
  LOG_LEVEL = 7;
  TakeLogLines();
  notify->RemoveWatch(0);
  EXPECT_TRUE(notify->mount_points().empty());
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_TRUE(TakeLogLines().empty());
}

TEST_F(YULotifyTest, RemoveWatchResolvesTheMountPointAgain) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  env_.RemoveDir("/vol1/media");  // the share vanished meanwhile
  notify->RemoveWatch(0);
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:532 yulotify(532): stat('/vol1/media'): No such "
                "file or directory (2)\n"}),
            TakeLogLines());
  // The path is forgotten, but the count found at add time stays.
  EXPECT_TRUE(notify->watched_paths().empty());
  EXPECT_EQ(1u, notify->mount_points().at("/vol1"));
  EXPECT_EQ(0, kernel_->Count("remove"));
}

TEST_F(YULotifyTest, MountPointIsNotTestedForEmptiness) {
  auto notify = Make();
  // stat fails: the mount point is "", and the kernel is asked anyway.
  EXPECT_EQ(0, notify->AddWatch("/nowhere"));
  EXPECT_EQ(1, kernel_->Count("add 7  0x3ce"));
  EXPECT_EQ(1u, notify->mount_points().at(""));
}

TEST_F(YULotifyTest, DebugLinesOfTheWatchCalls) {
  auto notify = Make();
  LOG_LEVEL = 7;
  notify->AddWatch("/vol1/media");
  notify->AddWatch("/vol1/photo");
  notify->RemoveWatch(0);
  notify->RemoveWatch(1);
  EXPECT_EQ((std::vector<std::string>{
                "yulotify:332 find mount point, path=/vol1/media, "
                "mount_point=/vol1",
                "yulotify:585 yulotify(585): add mount point /vol1 to watch\n",
                "yulotify:332 find mount point, path=/vol1/photo, "
                "mount_point=/vol1",
                "yulotify:606 yulotify(606): remove mount point /vol1 from "
                "watch\n"}),
            TakeLogLines());
}

TEST_F(YULotifyTest, DebugLinesAreSilentBelowLevel7) {
  auto notify = Make();
  LOG_LEVEL = 6;
  notify->AddWatch("/vol1/media");
  notify->RemoveWatch(0);
  Queue(RawRecordBytes(YULO_CREATE, 0, "/elsewhere/x"));
  NotifyEvent event;
  EXPECT_FALSE(notify->ReadEvent(event));
  EXPECT_TRUE(TakeLogLines().empty());
}

// --- lookup -----------------------------------------------------------

TEST_F(YULotifyTest, LookupWatchFindsTheCoveringPath) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  std::string watch, relative;
  int id = -5;
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media/a/b.jpg", watch, relative, id));
  EXPECT_EQ("/vol1/media", watch);
  EXPECT_EQ("/a/b.jpg", relative);
  EXPECT_EQ(0, id);
}

TEST_F(YULotifyTest, LookupWatchNeedsASlashAfterTheKey) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  std::string watch = "untouched", relative = "untouched";
  int id = -5;
  EXPECT_EQ(-1, notify->LookupWatch("/vol1/media2/x", watch, relative, id));
  EXPECT_EQ(-1, notify->LookupWatch("/vol1/medi", watch, relative, id));
  EXPECT_EQ(-1, notify->LookupWatch("/vol1", watch, relative, id));
  EXPECT_EQ("untouched", watch);
  EXPECT_EQ("untouched", relative);
  EXPECT_EQ(-5, id);
}

TEST_F(YULotifyTest, LookupWatchOfTheWatchedPathItself) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  for (const char* name : {"/vol1/media", "/vol1/media/", "/vol1/media///"}) {
    std::string watch, relative;
    int id = -1;
    ASSERT_EQ(0, notify->LookupWatch(name, watch, relative, id)) << name;
    EXPECT_EQ("/vol1/media", watch) << name;
    EXPECT_EQ("/", relative) << name;
  }
}

TEST_F(YULotifyTest, LookupWatchStripsTrailingSlashes) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  std::string watch, relative;
  int id = -1;
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media/dir//", watch, relative, id));
  EXPECT_EQ("/dir", relative);
}

TEST_F(YULotifyTest, LookupWatchKeepsSlashesOfAOneCharacterName) {
  env_.AddDir("x", 1);
  auto notify = Make();
  ASSERT_EQ(0, notify->AddWatch("x"));
  std::string watch, relative;
  int id = -1;
  // "x//": its last character other than "/" is its first: kept whole.
  ASSERT_EQ(0, notify->LookupWatch("x//", watch, relative, id));
  EXPECT_EQ("x", watch);
  EXPECT_EQ("//", relative);
  // Empty and all-slash names are kept whole too.
  EXPECT_EQ(-1, notify->LookupWatch("", watch, relative, id));
  EXPECT_EQ(-1, notify->LookupWatch("///", watch, relative, id));
}

TEST_F(YULotifyTest, LookupWatchPrefersTheOuterOfNestedWatches) {
  auto notify = Make();
  const int inner = notify->AddWatch("/v/a/b");
  const int outer = notify->AddWatch("/v/a");
  std::string watch, relative;
  int id = -1;
  ASSERT_EQ(0, notify->LookupWatch("/v/a/b/c", watch, relative, id));
  EXPECT_EQ("/v/a", watch);
  EXPECT_EQ("/b/c", relative);
  EXPECT_EQ(outer, id);
  notify->RemoveWatch(outer);
  ASSERT_EQ(0, notify->LookupWatch("/v/a/b/c", watch, relative, id));
  EXPECT_EQ("/v/a/b", watch);
  EXPECT_EQ("/c", relative);
  EXPECT_EQ(inner, id);
}

TEST_F(YULotifyTest, LookupWatchOfAnAdjacentNameIsNotConfused) {
  auto notify = Make();
  notify->AddWatch("/vol1/media");
  notify->AddWatch("/vol1/media2");
  std::string watch, relative;
  int id = -1;
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media2/x", watch, relative, id));
  EXPECT_EQ("/vol1/media2", watch);
  EXPECT_EQ(1, id);
  ASSERT_EQ(0, notify->LookupWatch("/vol1/media/x", watch, relative, id));
  EXPECT_EQ("/vol1/media", watch);
  EXPECT_EQ(0, id);
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
