// share_conf_test.cc: shares from Samba's configuration.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "platform_internal.h"
#include "base/testing/temp_dir.h"

namespace yulo_platform {
namespace {

using ::YULO::YULOTIFYD::testing::TempDir;
using Pairs = std::vector<std::pair<std::string, std::string>>;

class ShareConfTest : public ::testing::Test {
 protected:
  std::string SetConf(const std::string& text) {
    return conf_ = dir_.Write("smb.conf", text);
  }

  // name -> path of every share, in order.
  Pairs Shares() {
    std::vector<Share> shares;
    EXPECT_EQ(LoadShares(conf_, &shares, &complaints_), 0);
    Pairs out;
    for (const Share& s : shares) out.emplace_back(s.name, s.path);
    return out;
  }

  std::string PathOf(const char* name) {
    char buf[512];
    int rc = GetSharePath(conf_, name, buf, sizeof(buf), &complaints_);
    return rc == kShareOk ? std::string(buf)
                          : "<error " + std::to_string(rc) + ">";
  }

  TempDir dir_;
  std::string conf_;
  Complaints complaints_;
};

// What a Samba configuration looks like on an appliance: indented, several
// keys per section. inih on its own would read the indented lines as
// continuations of the first value in each section.
constexpr char kTypicalConf[] = R"(# Samba configuration
[global]
   workgroup = WORKGROUP
   server string = %h server
   path = /should/not/count
   log file = /var/log/samba/log.%m

[homes]
   comment = Home Directories
   path = /vol1/homes
   browseable = no

[printers]
   comment = All Printers
   path = /var/spool/samba
   printable = yes

[print$]
   comment = Printer Drivers
   path = /var/lib/samba/printers

[Public]
   comment = Everyone's files
   read only = no
   path = /vol1/Public
   guest ok = yes

[Media]
	comment = Tab-indented
	path = /vol2/media/
	valid users = @staff

[NoPath]
   comment = a section without a path is not a share
   read only = yes
)";

TEST_F(ShareConfTest, IndentedConfigurationWithSeveralKeysPerSection) {
  SetConf(kTypicalConf);
  EXPECT_EQ(Shares(),
            (Pairs{{"Public", "/vol1/Public"}, {"Media", "/vol2/media"}}));
  EXPECT_EQ(PathOf("Public"), "/vol1/Public");
  EXPECT_EQ(PathOf("Media"), "/vol2/media");
  EXPECT_TRUE(complaints_.empty());
}

TEST_F(ShareConfTest, SpecialSectionsAreNotSharesInAnyCase) {
  SetConf(
      "[GLOBAL]\npath = /a\n"
      "[Homes]\npath = /b\n"
      "[PRINTERS]\npath = /c\n"
      "[Print$]\npath = /d\n"
      "[printer]\npath = /e\n"
      "[global2]\npath = /f\n");
  EXPECT_EQ(Shares(), (Pairs{{"printer", "/e"}, {"global2", "/f"}}));
  EXPECT_NE(PathOf("homes"), "/b");
  EXPECT_NE(PathOf("global"), "/a");
  EXPECT_TRUE(IsSpecialSection("gLoBaL"));
  EXPECT_TRUE(IsSpecialSection("PRINT$"));
  EXPECT_FALSE(IsSpecialSection("print"));
}

TEST_F(ShareConfTest, SectionsWithoutPathAreNotShares) {
  SetConf("[a]\ncomment = x\n[b]\npath = /vol1/b\n[c]\n");
  EXPECT_EQ(Shares(), (Pairs{{"b", "/vol1/b"}}));
  EXPECT_EQ(PathOf("a"), "<error " + std::to_string(kShareNotFound) + ">");
}

TEST_F(ShareConfTest, TrailingSlashesAreStrippedButRootStays) {
  SetConf(
      "[one]\npath = /vol1/one/\n"
      "[two]\npath = /vol1/two///\n"
      "[root]\npath = /\n"
      "[slashes]\npath = ///\n"
      "[plain]\npath = /vol1/plain\n");
  EXPECT_EQ(Shares(), (Pairs{{"one", "/vol1/one"},
                             {"two", "/vol1/two"},
                             {"root", "/"},
                             {"slashes", "/"},
                             {"plain", "/vol1/plain"}}));
}

TEST_F(ShareConfTest, CommentsAreIgnored) {
  SetConf(
      "; leading comment\n"
      "# another\n"
      "[data]\n"
      "   # path = /commented/out\n"
      "   ; path = /also/commented\n"
      "#[hidden]\n"
      "# path = /vol1/hidden\n"
      "   path = /vol1/data\n"
      ";[gone]\n"
      ";path = /vol1/gone\n");
  EXPECT_EQ(Shares(), (Pairs{{"data", "/vol1/data"}}));
}

TEST_F(ShareConfTest, ShareNamesAreLookedUpCaseInsensitively) {
  SetConf("[Team Docs]\n  path = /vol1/team\n");
  EXPECT_EQ(PathOf("Team Docs"), "/vol1/team");
  EXPECT_EQ(PathOf("team docs"), "/vol1/team");
  EXPECT_EQ(PathOf("TEAM DOCS"), "/vol1/team");
  EXPECT_EQ(PathOf("Team"), "<error " + std::to_string(kShareNotFound) + ">");
  // Enumeration gives the name as written.
  EXPECT_EQ(Shares(), (Pairs{{"Team Docs", "/vol1/team"}}));
}

TEST_F(ShareConfTest, KeyNamesAreCaseInsensitiveAndDirectoryIsASynonym) {
  SetConf(
      "[a]\nPath = /vol1/a\n"
      "[b]\nPATH=/vol1/b\n"
      "[c]\n  directory = /vol1/c\n"
      "[d]\n  pathname = /vol1/d\n");
  EXPECT_EQ(Shares(),
            (Pairs{{"a", "/vol1/a"}, {"b", "/vol1/b"}, {"c", "/vol1/c"}}));
}

TEST_F(ShareConfTest, BlanksAroundNamesAndValuesAreTrimmed) {
  SetConf("  [  spaced  ]  \n   path   =   /vol1/spaced dir   \n");
  EXPECT_EQ(Shares(), (Pairs{{"spaced", "/vol1/spaced dir"}}));
}

TEST_F(ShareConfTest, RepeatedSectionsMergeAndTheLastPathWins) {
  SetConf(
      "[Data]\npath = /vol1/old\n"
      "[other]\npath = /vol1/other\n"
      "[DATA]\npath = /vol1/new\n");
  EXPECT_EQ(Shares(), (Pairs{{"Data", "/vol1/new"}, {"other", "/vol1/other"}}));
}

TEST_F(ShareConfTest, LongShareNameIsKeptWhole) {
  // inih itself cuts section names at 49 bytes.
  const std::string name(120, 'n');
  SetConf("[" + name + "]\n  path = /vol1/long\n[" + name.substr(0, 49) +
          "]\n  path = /vol1/short\n");
  EXPECT_EQ(Shares(),
            (Pairs{{name, "/vol1/long"}, {name.substr(0, 49), "/vol1/short"}}));
}

TEST_F(ShareConfTest, LongPathLineIsParsed) {
  // Longer than the line inih accepts; the path must still be whole, and a
  // long line of another key must not disturb anything.
  const std::string path = "/vol1/" + std::string(400, 'p');
  SetConf("[big]\n  comment = " + std::string(500, 'c') + "\n  path = " + path +
          "/ ; a comment\n  read only = no\n");
  EXPECT_EQ(Shares(), (Pairs{{"big", path}}));
}

TEST_F(ShareConfTest, BackslashContinuesALine) {
  SetConf("[cont]\n  path = /vol1/\\\nfolder\n  comment = x\n");
  EXPECT_EQ(Shares(), (Pairs{{"cont", "/vol1/folder"}}));
}

TEST_F(ShareConfTest, WindowsLineEndingsAndByteOrderMark) {
  SetConf("\xEF\xBB\xBF[bom]\r\n   path = /vol1/bom\r\n[crlf]\r\npath=/x/\r\n");
  EXPECT_EQ(Shares(), (Pairs{{"bom", "/vol1/bom"}, {"crlf", "/x"}}));
}

TEST_F(ShareConfTest, RelativeOrEmptyPathLeavesTheShareOut) {
  SetConf(
      "[rel]\npath = vol1/rel\n"
      "[empty]\npath =\n"
      "[fixed]\npath = relative\npath = /vol1/fixed\n"
      "[broken]\npath = /vol1/broken\npath = oops\n");
  EXPECT_EQ(Shares(), (Pairs{{"fixed", "/vol1/fixed"}}));
  EXPECT_EQ(complaints_.size(), 4u);
  for (const std::string& c : complaints_) {
    EXPECT_EQ(c.rfind("share_conf:", 0), 0u) << c;
  }
}

TEST_F(ShareConfTest, KeysAfterABrokenHeaderBelongToNoShare) {
  SetConf(
      "[good]\npath = /vol1/good\n[broken\npath = /vol1/broken\n"
      "[next]\npath = /vol1/next\n");
  EXPECT_EQ(Shares(), (Pairs{{"good", "/vol1/good"}, {"next", "/vol1/next"}}));
  EXPECT_EQ(complaints_.size(), 1u);
}

TEST_F(ShareConfTest, KeysBeforeAnySectionAreIgnored) {
  SetConf("path = /vol1/nowhere\n[s]\npath = /vol1/s\n");
  EXPECT_EQ(Shares(), (Pairs{{"s", "/vol1/s"}}));
}

TEST_F(ShareConfTest, LinesWithoutEqualsDoNotStopTheParse) {
  SetConf("[a]\nthis is not a setting\npath = /vol1/a\n[b]\npath = /vol1/b\n");
  EXPECT_EQ(Shares(), (Pairs{{"a", "/vol1/a"}, {"b", "/vol1/b"}}));
}

TEST_F(ShareConfTest, EmptyConfigurationHasNoShares) {
  SetConf("");
  EXPECT_EQ(Shares(), Pairs{});
  PYULO_SZ_LIST list = nullptr;
  EXPECT_EQ(EnumShares(conf_, &list, &complaints_), 0);
  EXPECT_EQ(YULOSzListCount(list), 0);
  YULOSzListFree(list);
}

TEST_F(ShareConfTest, EnumAppendsToTheList) {
  SetConf(kTypicalConf);
  PYULO_SZ_LIST list = YULOSzListAlloc(0);
  ASSERT_EQ(YULOSzListAdd(&list, "already there"), 0);
  EXPECT_EQ(EnumShares(conf_, &list, &complaints_), 2);
  ASSERT_EQ(YULOSzListCount(list), 3);
  EXPECT_STREQ(YULOSzListGet(list, 0), "already there");
  EXPECT_STREQ(YULOSzListGet(list, 1), "Public");
  EXPECT_STREQ(YULOSzListGet(list, 2), "Media");
  YULOSzListFree(list);
}

TEST_F(ShareConfTest, EnumGrowsTheListPastItsInitialSize) {
  std::string text = "[global]\n  workgroup = W\n";
  for (int i = 0; i < 300; ++i) {
    text += "[share" + std::to_string(i) + "]\n  comment = c\n  path = /vol1/" +
            std::to_string(i) + "\n";
  }
  SetConf(text);
  PYULO_SZ_LIST list = YULOSzListAlloc(1);
  EXPECT_EQ(EnumShares(conf_, &list, &complaints_), 300);
  ASSERT_EQ(YULOSzListCount(list), 300);
  EXPECT_STREQ(YULOSzListGet(list, 0), "share0");
  EXPECT_STREQ(YULOSzListGet(list, 299), "share299");
  EXPECT_EQ(PathOf("SHARE123"), "/vol1/123");
  YULOSzListFree(list);
}

TEST_F(ShareConfTest, UnreadableConfiguration) {
  conf_ = dir_.File("missing.conf");
  PYULO_SZ_LIST list = YULOSzListAlloc(0);
  EXPECT_LT(EnumShares(conf_, &list, &complaints_), 0);
  EXPECT_EQ(YULOSzListCount(list), 0);
  YULOSzListFree(list);
  char buf[64];
  EXPECT_EQ(GetSharePath(conf_, "data", buf, sizeof(buf), &complaints_),
            kShareConfUnreadable);
  EXPECT_EQ(complaints_.size(), 2u);
  std::vector<Share> shares;
  EXPECT_NE(LoadShares(dir_.path(), &shares, nullptr), 0);  // a directory
}

TEST_F(ShareConfTest, SmallBufferIsRefusedWithoutWritingPastIt) {
  SetConf("[data]\npath = /vol1/data\n");  // 10 bytes and a NUL
  char buf[32];
  memset(buf, 'X', sizeof(buf));
  EXPECT_EQ(GetSharePath(conf_, "data", buf, 10, &complaints_),
            kShareBufferTooSmall);
  for (size_t i = 10; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 'X') << i;
  EXPECT_EQ(buf[0], '\0');  // nothing stale left for a careless caller

  memset(buf, 'X', sizeof(buf));
  ASSERT_EQ(GetSharePath(conf_, "data", buf, 11, &complaints_), kShareOk);
  EXPECT_STREQ(buf, "/vol1/data");
  for (size_t i = 11; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 'X') << i;
}

TEST_F(ShareConfTest, PathGetArgumentChecks) {
  SetConf("[data]\npath = /vol1/data\n");
  char buf[32] = "stale";
  EXPECT_EQ(GetSharePath(conf_, nullptr, buf, sizeof(buf), nullptr),
            kShareBadArgument);
  EXPECT_STREQ(buf, "");
  strcpy(buf, "stale");
  EXPECT_EQ(GetSharePath(conf_, "unknown", buf, sizeof(buf), nullptr),
            kShareNotFound);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(GetSharePath(conf_, "data", nullptr, 32, nullptr),
            kShareBadArgument);
  EXPECT_EQ(GetSharePath(conf_, "data", buf, 0, nullptr), kShareBadArgument);
  EXPECT_EQ(GetSharePath(conf_, "data", buf, -1, nullptr), kShareBadArgument);
  EXPECT_EQ(EnumShares(conf_, nullptr, nullptr), kShareBadArgument);
}

TEST_F(ShareConfTest, ConfigurationIsReadOnEveryCall) {
  SetConf("[a]\npath = /vol1/a\n");
  EXPECT_EQ(Shares(), (Pairs{{"a", "/vol1/a"}}));
  SetConf("[a]\npath = /vol1/a\n[b]\npath = /vol2/b\n");
  EXPECT_EQ(PathOf("b"), "/vol2/b");
  SetConf("[b]\npath = /vol2/moved\n");
  EXPECT_EQ(Shares(), (Pairs{{"b", "/vol2/moved"}}));
}

// The compiled-in entry points with arguments that fail before the
// configuration is read.
TEST(ShareCApiTest, ArgumentChecks) {
  EXPECT_LT(YULOShareEnum(nullptr, 0), 0);
  char buf[16];
  EXPECT_NE(YULOSharePathGet(nullptr, buf, sizeof(buf)), 0);
  EXPECT_NE(YULOSharePathGet("data", nullptr, 16), 0);
  EXPECT_NE(YULOSharePathGet("data", buf, 0), 0);
}

}  // namespace
}  // namespace yulo_platform
