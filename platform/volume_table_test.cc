// volume_table_test.cc: the volume table, filtered by what is mounted.
#include <gtest/gtest.h>
#include <stddef.h>
#include <string.h>

#include <string>
#include <tuple>
#include <vector>

#include "platform_internal.h"
#include "base/testing/temp_dir.h"

namespace yulo_platform {
namespace {

using ::YULO::YULOTIFYD::testing::TempDir;
using Volume = std::tuple<int, int, std::string>;  // id, kind, mount point

// Escapes a mount point the way the kernel writes it in /proc/mounts.
std::string KernelEscape(const std::string& path) {
  std::string out;
  for (char c : path) {
    switch (c) {
      case ' ':
        out += "\\040";
        break;
      case '\t':
        out += "\\011";
        break;
      case '\n':
        out += "\\012";
        break;
      case '\\':
        out += "\\134";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

class VolumeTableTest : public ::testing::Test {
 protected:
  void SetTable(const std::string& json) { dir_.Write("volumes.json", json); }

  void SetMounted(const std::vector<std::string>& mount_points) {
    std::string text = "/dev/root / ext4 rw,relatime 0 0\n";
    for (const std::string& mp : mount_points) {
      text += "/dev/sdx " + KernelEscape(mp) + " ext4 rw 0 0\n";
    }
    dir_.Write("mounts", text);
  }

  VolumeSources Sources() const {
    return VolumeSources{dir_.File("volumes.json"), dir_.File("mounts")};
  }

  // Runs EnumVolumes, checks the list's shape, and frees it.
  std::vector<Volume> Enum() {
    std::vector<Volume> out;
    YULO_VOLUME_INFO* list = EnumVolumes(Sources(), &complaints_);
    for (YULO_VOLUME_INFO* v = list; v != nullptr; v = v->next) {
      // The record's string must be terminated inside the record.
      EXPECT_NE(memchr(v->mount_point, '\0', sizeof(v->mount_point)), nullptr);
      for (char c : v->reserved) EXPECT_EQ(c, 0);
      out.emplace_back(v->vol_id, v->vol_kind, v->mount_point);
    }
    YULOMountVolInfoFree(list);
    return out;
  }

  int PathToId(const std::string& path, int* id) {
    return ParseVolumePath(Sources(), path.c_str(), id, &complaints_);
  }

  // Complaints that mention `text`.
  size_t ComplaintsAbout(const std::string& text) const {
    size_t n = 0;
    for (const std::string& c : complaints_) {
      if (c.find(text) != std::string::npos) ++n;
    }
    return n;
  }

  TempDir dir_;
  Complaints complaints_;
};

TEST_F(VolumeTableTest, MountedEntriesInTableOrder) {
  SetTable(R"({"volumes": [
      {"id": 7, "kind": 4, "mount_point": "/media/usb1"},
      {"id": 1, "kind": 0, "mount_point": "/vol1"},
      {"id": 3, "kind": 0, "mount_point": "/vol3"},
      {"id": 2, "kind": 0, "mount_point": "/vol2"}]})");
  SetMounted({"/vol2", "/vol1", "/media/usb1"});
  EXPECT_EQ(Enum(),
            (std::vector<Volume>{{7, YULO_VOLUME_KIND_USB, "/media/usb1"},
                                 {1, 0, "/vol1"},
                                 {2, 0, "/vol2"}}));
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(VolumeTableTest, ListIsLinkedAndEndsInNull) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"},
                           {"id": 2, "mount_point": "/vol2"}]})");
  SetMounted({"/vol1", "/vol2"});
  YULO_VOLUME_INFO* list = EnumVolumes(Sources(), &complaints_);
  ASSERT_NE(list, nullptr);
  ASSERT_NE(list->next, nullptr);
  EXPECT_EQ(list->next->vol_id, 2);
  EXPECT_EQ(list->next->next, nullptr);
  EXPECT_EQ(list->vol_kind, 0);  // "kind" may be left out
  YULOMountVolInfoFree(list);
}

TEST_F(VolumeTableTest, MountPointWithABlankIsMatchedThroughTheEscape) {
  SetTable(R"({"volumes": [{"id": 7, "kind": 4,
                            "mount_point": "/media/USB disk"}]})");
  SetMounted({"/media/USB disk"});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{7, 4, "/media/USB disk"}}));
}

TEST_F(VolumeTableTest, TrailingSlashInTheTableIsNormalised) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1/"},
                           {"id": 9, "mount_point": "/"}]})");
  SetMounted({"/vol1"});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{1, 0, "/vol1"}, {9, 0, "/"}}));
}

TEST_F(VolumeTableTest, NothingMountedGivesNull) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"}]})");
  SetMounted({"/vol2"});
  EXPECT_EQ(EnumVolumes(Sources(), &complaints_), nullptr);
  // Not mounted is a normal state, not a fault worth a log line.
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(VolumeTableTest, UnreadableTableGivesNullAndOneComplaint) {
  SetMounted({"/vol1"});
  EXPECT_EQ(EnumVolumes(Sources(), &complaints_), nullptr);
  ASSERT_EQ(complaints_.size(), 1u);
  EXPECT_EQ(complaints_[0].rfind("volume_table:", 0), 0u) << complaints_[0];
  EXPECT_EQ(ComplaintsAbout("volumes.json"), 1u);
}

TEST_F(VolumeTableTest, InvalidTablesGiveNull) {
  SetMounted({"/vol1"});
  for (const char* text : {
           "",
           "not json",
           R"({"volumes": [{"id": 1, "mount_point": "/vol1"})",  // cut short
           R"([{"id": 1, "mount_point": "/vol1"}])",
           R"({"volume": [{"id": 1, "mount_point": "/vol1"}]})",
           R"({"volumes": {"id": 1, "mount_point": "/vol1"}})",
           R"({"volumes": null})",
           R"({"volumes": []})",
           "42",
       }) {
    SCOPED_TRACE(text);
    SetTable(text);
    complaints_.clear();
    EXPECT_EQ(EnumVolumes(Sources(), &complaints_), nullptr);
  }
}

TEST_F(VolumeTableTest, DeeplyNestedJsonIsRefusedWithoutThrowing) {
  // Past JsonCpp's nesting limit its reader throws; that must not escape.
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"}], "x": )" +
           std::string(5000, '[') + std::string(5000, ']') + "}");
  SetMounted({"/vol1"});
  YULO_VOLUME_INFO* list = nullptr;
  EXPECT_NO_THROW(list = EnumVolumes(Sources(), &complaints_));
  EXPECT_EQ(list, nullptr);
  YULOMountVolInfoFree(list);
  EXPECT_EQ(complaints_.size(), 1u);
}

TEST_F(VolumeTableTest, MalformedEntriesAreSkippedEachWithAComplaint) {
  SetTable(R"({"volumes": [
      "not an object",
      17,
      {"kind": 0, "mount_point": "/vol1"},
      {"id": "2", "mount_point": "/vol2"},
      {"id": 3.5, "mount_point": "/vol3"},
      {"id": 4294967296, "mount_point": "/vol4"},
      {"id": 5},
      {"id": 6, "mount_point": 6},
      {"id": 7, "kind": "usb", "mount_point": "/vol7"},
      {"id": 8, "mount_point": "vol8"},
      {"id": 9, "mount_point": ""},
      {"id": 10, "mount_point": "/vol\u000010"},
      {"id": 11, "kind": 0, "mount_point": "/vol11"}]})");
  SetMounted({"/vol1", "/vol2", "/vol3", "/vol4", "/vol6", "/vol7", "vol8",
              "/vol", "/vol11"});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{11, 0, "/vol11"}}));
  EXPECT_EQ(complaints_.size(), 12u);
  for (const std::string& c : complaints_) {
    EXPECT_EQ(c.rfind("volume_table:", 0), 0u) << c;
    EXPECT_NE(c.find("skipped"), std::string::npos) << c;
  }
}

TEST_F(VolumeTableTest, TooLongMountPointIsRefusedWithOneComplaintNamingIt) {
  // 59 bytes fit the record with their NUL; 60 do not.
  const std::string fits = "/" + std::string(58, 'a');
  const std::string too_long = "/" + std::string(59, 'b');
  ASSERT_EQ(fits.size(), YULO_VOLUME_MOUNT_POINT_SIZE - 1u);
  SetTable(R"({"volumes": [{"id": 1, "mount_point": ")" + too_long +
           R"("}, {"id": 2, "mount_point": ")" + fits + R"("}]})");
  SetMounted({too_long, fits});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{2, 0, fits}}));
  ASSERT_EQ(complaints_.size(), 1u);
  EXPECT_NE(complaints_[0].find(too_long), std::string::npos);

  YULO_VOLUME_INFO info;
  EXPECT_EQ(GetVolumeInfo(Sources(), too_long.c_str(), &info, nullptr),
            kVolumeNotFound);
  ASSERT_EQ(GetVolumeInfo(Sources(), fits.c_str(), &info, nullptr), kVolumeOk);
  EXPECT_EQ(strlen(info.mount_point), 59u);
}

TEST_F(VolumeTableTest, TrailingSlashDoesNotCountTowardsTheLimit) {
  const std::string mp = "/" + std::string(58, 'a');
  SetTable(R"({"volumes": [{"id": 1, "mount_point": ")" + mp + R"(/"}]})");
  SetMounted({mp});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{1, 0, mp}}));
}

TEST_F(VolumeTableTest, DuplicatesKeepTheFirstEntry) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"},
                           {"id": 1, "mount_point": "/vol2"},
                           {"id": 3, "mount_point": "/vol1/"},
                           {"id": 4, "mount_point": "/vol4"}]})");
  SetMounted({"/vol1", "/vol2", "/vol4"});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{1, 0, "/vol1"}, {4, 0, "/vol4"}}));
  EXPECT_EQ(complaints_.size(), 2u);
}

TEST_F(VolumeTableTest, UnreadableMountsFileMeansNothingIsMounted) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"}]})");
  EXPECT_EQ(EnumVolumes(Sources(), &complaints_), nullptr);
  EXPECT_EQ(ComplaintsAbout("mounts"), 1u);
}

TEST_F(VolumeTableTest, BothFilesAreReadOnEveryCall) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"}]})");
  SetMounted({"/vol1"});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{1, 0, "/vol1"}}));

  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"},
                           {"id": 7, "kind": 4, "mount_point": "/usb"}]})");
  EXPECT_EQ(Enum(), (std::vector<Volume>{{1, 0, "/vol1"}}));
  SetMounted({"/vol1", "/usb"});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{1, 0, "/vol1"}, {7, 4, "/usb"}}));
  SetMounted({"/usb"});
  EXPECT_EQ(Enum(), (std::vector<Volume>{{7, 4, "/usb"}}));
}

TEST_F(VolumeTableTest, InfoGetFindsTheExactMountPoint) {
  SetTable(R"({"volumes": [{"id": 1, "kind": 0, "mount_point": "/vol1"},
                           {"id": 7, "kind": 4, "mount_point": "/usb"}]})");
  SetMounted({"/vol1", "/usb"});
  YULO_VOLUME_INFO info;
  memset(&info, 0x5a, sizeof(info));
  ASSERT_EQ(GetVolumeInfo(Sources(), "/usb", &info, &complaints_), kVolumeOk);
  EXPECT_EQ(info.vol_id, 7);
  EXPECT_EQ(info.vol_kind, YULO_VOLUME_KIND_USB);
  EXPECT_STREQ(info.mount_point, "/usb");
  EXPECT_EQ(info.next, nullptr);
  for (char c : info.reserved) EXPECT_EQ(c, 0);

  ASSERT_EQ(GetVolumeInfo(Sources(), "/vol1/", &info, &complaints_), kVolumeOk);
  EXPECT_EQ(info.vol_id, 1);
}

TEST_F(VolumeTableTest, InfoGetFailures) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"},
                           {"id": 2, "mount_point": "/vol2"}]})");
  SetMounted({"/vol1"});
  YULO_VOLUME_INFO info;
  EXPECT_EQ(GetVolumeInfo(Sources(), "/vol2", &info, nullptr),
            kVolumeNotFound);  // in the table, not mounted
  EXPECT_EQ(GetVolumeInfo(Sources(), "/vol1/sub", &info, nullptr),
            kVolumeNotFound);  // under a volume is not a volume
  EXPECT_EQ(GetVolumeInfo(Sources(), "/vol", &info, nullptr), kVolumeNotFound);
  EXPECT_EQ(GetVolumeInfo(Sources(), "", &info, nullptr), kVolumeNotFound);
  EXPECT_EQ(GetVolumeInfo(Sources(), nullptr, &info, nullptr),
            kVolumeBadArgument);
  EXPECT_EQ(GetVolumeInfo(Sources(), "/vol1", nullptr, nullptr),
            kVolumeBadArgument);
  SetTable("{");
  EXPECT_EQ(GetVolumeInfo(Sources(), "/vol1", &info, &complaints_),
            kVolumeTableUnreadable);
}

TEST_F(VolumeTableTest, PathParseUsesSlashBoundaries) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"}]})");
  SetMounted({"/vol1"});
  int id = -7;
  EXPECT_EQ(PathToId("/vol10/x", &id), 0);
  EXPECT_EQ(PathToId("/vol10", &id), 0);
  EXPECT_EQ(PathToId("/vol", &id), 0);
  EXPECT_EQ(PathToId("/elsewhere/vol1", &id), 0);
  EXPECT_EQ(id, -7);  // untouched on failure
  EXPECT_GT(PathToId("/vol1", &id), 0);
  EXPECT_EQ(id, 1);
  id = 0;
  EXPECT_GT(PathToId("/vol1/", &id), 0);
  EXPECT_EQ(id, 1);
  id = 0;
  EXPECT_GT(PathToId("/vol1/a/b c/d.txt", &id), 0);
  EXPECT_EQ(id, 1);
}

TEST_F(VolumeTableTest, PathParsePicksTheLongestMountedPrefix) {
  // The nested volume comes first so that table order cannot be what wins.
  SetTable(R"({"volumes": [{"id": 7, "kind": 4, "mount_point": "/vol1/usb"},
                           {"id": 1, "mount_point": "/vol1"},
                           {"id": 10, "mount_point": "/vol10"}]})");
  SetMounted({"/vol1", "/vol1/usb", "/vol10"});
  int id = 0;
  EXPECT_GT(PathToId("/vol1/usb/photos/a.jpg", &id), 0);
  EXPECT_EQ(id, 7);
  EXPECT_GT(PathToId("/vol1/usbstick/a", &id), 0);
  EXPECT_EQ(id, 1);
  EXPECT_GT(PathToId("/vol10/x", &id), 0);
  EXPECT_EQ(id, 10);

  // Once the USB volume is unmounted its directory belongs to /vol1 again.
  SetMounted({"/vol1", "/vol10"});
  EXPECT_GT(PathToId("/vol1/usb/photos/a.jpg", &id), 0);
  EXPECT_EQ(id, 1);
}

TEST_F(VolumeTableTest, PathParseWithRootVolume) {
  SetTable(R"({"volumes": [{"id": 9, "mount_point": "/"},
                           {"id": 1, "mount_point": "/vol1"}]})");
  SetMounted({"/vol1"});
  int id = 0;
  EXPECT_GT(PathToId("/etc/passwd", &id), 0);
  EXPECT_EQ(id, 9);
  EXPECT_GT(PathToId("/vol1/x", &id), 0);
  EXPECT_EQ(id, 1);
}

TEST_F(VolumeTableTest, PathParseFailures) {
  SetTable(R"({"volumes": [{"id": 1, "mount_point": "/vol1"}]})");
  SetMounted({"/vol1"});
  int id = 0;
  EXPECT_LE(PathToId("vol1/x", &id), 0);
  EXPECT_LE(PathToId("", &id), 0);
  EXPECT_LE(ParseVolumePath(Sources(), nullptr, &id, nullptr), 0);
  EXPECT_LE(ParseVolumePath(Sources(), "/vol1/x", nullptr, nullptr), 0);
  SetTable("[]");
  EXPECT_LE(PathToId("/vol1/x", &id), 0);
  EXPECT_EQ(id, 0);
}

// The compiled-in entry points with arguments that fail before any file is
// read, so these hold on any machine.
TEST(VolumeCApiTest, ArgumentChecks) {
  int id = 0;
  EXPECT_LE(VolumePathParse(nullptr, &id), 0);
  EXPECT_LE(VolumePathParse("relative/path", &id), 0);
  EXPECT_LE(VolumePathParse("/vol1", nullptr), 0);
  YULO_VOLUME_INFO info;
  EXPECT_LT(YULOMountVolInfoGet(nullptr, &info), 0);
  EXPECT_LT(YULOMountVolInfoGet("/vol1", nullptr), 0);
  YULOMountVolInfoFree(nullptr);
}

TEST(VolumeCApiTest, RecordLayout) {
  EXPECT_EQ(offsetof(YULO_VOLUME_INFO, vol_id), 0u);
  EXPECT_EQ(offsetof(YULO_VOLUME_INFO, vol_kind), 4u);
  EXPECT_EQ(offsetof(YULO_VOLUME_INFO, mount_point), 52u);
  EXPECT_EQ(offsetof(YULO_VOLUME_INFO, next), 112u);
}

}  // namespace
}  // namespace yulo_platform
