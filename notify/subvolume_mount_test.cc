#include "notify/subvolume_mount.h"

#include <endian.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>

#include <cstring>
#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace {

TEST(PathRemapTest, SubvolumeRootAndWhatLiesBelowIt) {
  const PathRemap paths("/vol", "/data");
  std::string out;
  ASSERT_TRUE(paths.Map("/data", &out));
  EXPECT_EQ("/vol", out);
  ASSERT_TRUE(paths.Map("/data/share/a.jpg", &out));
  EXPECT_EQ("/vol/share/a.jpg", out);
}

TEST(PathRemapTest, NestedSubvolumesLieBelowTheMountedOne) {
  // A share that is a subvolume of its own, inside the mounted one, and a
  // snapshot inside that.
  const PathRemap paths("/vol", "/pool/data");
  std::string out;
  ASSERT_TRUE(paths.Map("/pool/data/share/.snap/1/x", &out));
  EXPECT_EQ("/vol/share/.snap/1/x", out);
}

TEST(PathRemapTest, TheRestOfTheFileSystemIsRefused) {
  const PathRemap paths("/vol", "/data");
  std::string out = "unchanged";
  EXPECT_FALSE(paths.Map("/", &out));
  EXPECT_FALSE(paths.Map("/other/x", &out));
  EXPECT_FALSE(paths.Map("/database/x", &out)) << "a name that only starts so";
  EXPECT_FALSE(paths.Map("/dat", &out));
  EXPECT_FALSE(paths.Map("", &out));
  EXPECT_EQ("unchanged", out);
}

TEST(PathRemapTest, RenamedSubvolume) {
  PathRemap paths("/vol", "/data");
  std::string out;
  // Read back after the rename: no longer under the known root.
  EXPECT_FALSE(paths.Map("/data-old/x", &out));
  paths.SetKernelRoot("/data-old");
  ASSERT_TRUE(paths.Map("/data-old/x", &out));
  EXPECT_EQ("/vol/x", out);
  EXPECT_FALSE(paths.Map("/data/x", &out)) << "whatever took the old name";
}

TEST(PathRemapTest, MountPointSpellings) {
  std::string out;
  ASSERT_TRUE(PathRemap("/", "/data").Map("/data/x", &out));
  EXPECT_EQ("/x", out);
  ASSERT_TRUE(PathRemap("/vol/", "/data").Map("/data/x", &out));
  EXPECT_EQ("/vol/x", out);
  // A plain watch: the kernel's spelling of the mount point itself.
  ASSERT_TRUE(PathRemap("/vol/", "/vol").Map("/vol/a/b", &out));
  EXPECT_EQ("/vol/a/b", out);
  ASSERT_TRUE(PathRemap("/mnt/vol", "/").Map("/a", &out));
  EXPECT_EQ("/mnt/vol/a", out);
}

// One item of a tree search answer: its header, then `item`.
std::string SearchItem(uint64_t objectid, uint32_t type,
                       const std::string& item) {
  struct btrfs_ioctl_search_header header = {};
  header.objectid = objectid;
  header.type = type;
  header.len = static_cast<uint32_t>(item.size());
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) +
         item;
}

std::string InodeItem(uint64_t generation) {
  struct btrfs_inode_item item = {};
  item.generation = htole64(generation);
  return std::string(reinterpret_cast<const char*>(&item), sizeof(item));
}

TEST(FindRootGenerationTest, TheRootDirectorysInodeItem) {
  const std::string answer =
      SearchItem(255, BTRFS_INODE_ITEM_KEY, InodeItem(1)) +
      SearchItem(256, BTRFS_INODE_ITEM_KEY, InodeItem(0x123456789ull));
  uint64_t generation = 0;
  ASSERT_TRUE(FindRootGeneration(
      reinterpret_cast<const uint8_t*>(answer.data()), answer.size(), 2,
      &generation));
  EXPECT_EQ(0x123456789ull, generation);
}

TEST(FindRootGenerationTest, NoItemOrACutAnswer) {
  uint64_t generation = 7;
  const std::string other =
      SearchItem(256, BTRFS_INODE_ITEM_KEY + 1, InodeItem(3));
  const auto* bytes = reinterpret_cast<const uint8_t*>(other.data());
  EXPECT_FALSE(FindRootGeneration(bytes, other.size(), 1, &generation));
  EXPECT_FALSE(FindRootGeneration(bytes, other.size(), 0, &generation));
  const std::string whole = SearchItem(256, BTRFS_INODE_ITEM_KEY, InodeItem(3));
  EXPECT_FALSE(FindRootGeneration(
      reinterpret_cast<const uint8_t*>(whole.data()), whole.size() - 1, 1,
      &generation))
      << "an item longer than the answer";
  EXPECT_FALSE(FindRootGeneration(
      reinterpret_cast<const uint8_t*>(whole.data()), 10, 1, &generation))
      << "a cut header";
  EXPECT_EQ(7u, generation);
}

TEST(TopLevelRootHandleTest, ObjectSubvolumeAndGeneration) {
  const std::string bytes = TopLevelRootHandle(0x100000005ull);
  ASSERT_EQ(sizeof(struct file_handle) + 20, bytes.size());
  struct file_handle head;
  std::memcpy(&head, bytes.data(), sizeof(head));
  EXPECT_EQ(20u, head.handle_bytes);
  EXPECT_EQ(0x4d, head.handle_type);
  uint64_t object = 0, root = 0;
  uint32_t generation = 0;
  const char* handle = bytes.data() + sizeof(struct file_handle);
  std::memcpy(&object, handle, 8);
  std::memcpy(&root, handle + 8, 8);
  std::memcpy(&generation, handle + 16, 4);
  EXPECT_EQ(256u, object);
  EXPECT_EQ(5u, root);
  EXPECT_EQ(5u, generation) << "the low 32 bits";
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
