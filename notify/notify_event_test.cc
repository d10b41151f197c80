#include "notify/notify_event.h"

#include <gtest/gtest.h>

#include <sstream>

namespace YULO {
namespace YULOTIFYD {
namespace {

std::string Dump(const NotifyEvent& event) {
  std::ostringstream out;
  out << event;
  return out.str();
}

NotifyEvent Event(uint32_t mask, uint32_t cookie, int32_t root,
                  const std::string& watch, const std::string& path) {
  NotifyEvent event;
  event.mask = mask;
  event.cookie = cookie;
  event.root = root;
  event.watch = watch;
  event.path = path;
  return event;
}

TEST(NotifyEventTypeTest, BitValues) {
  EXPECT_EQ(0x1u, YULO_ACCESS);
  EXPECT_EQ(0x2u, YULO_MODIFY);
  EXPECT_EQ(0x4u, YULO_ATTRIB);
  EXPECT_EQ(0x8u, YULO_CLOSE_WRITE);
  EXPECT_EQ(0x10u, YULO_CLOSE_NOWRITE);
  EXPECT_EQ(0x20u, YULO_OPEN);
  EXPECT_EQ(0x40u, YULO_MOVE_FROM);
  EXPECT_EQ(0x80u, YULO_MOVE_TO);
  EXPECT_EQ(0x100u, YULO_CREATE);
  EXPECT_EQ(0x200u, YULO_DELETE);
  EXPECT_EQ(0x400u, YULO_RESCAN);
  EXPECT_EQ(0x4000u, YULO_Q_OVERFLOW);
  EXPECT_EQ(0x40000000u, YULO_ISDIR);
}

TEST(NotifyEventTypeTest, NameTableIsIndexedByBitNumber) {
  const char* expected[16] = {"YULO_ACCESS",
                              "YULO_MODIFY",
                              "YULO_ATTRIB",
                              "YULO_CLOSE_WRITE",
                              "YULO_CLOSE_NOWRITE",
                              "YULO_OPEN",
                              "YULO_MOVE_FROM",
                              "YULO_MOVE_TO",
                              "YULO_CREATE",
                              "YULO_DELETE",
                              "YULO_RESCAN",
                              "",
                              "",
                              "",
                              "YULO_Q_OVERFLOW",
                              ""};
  for (int bit = 0; bit < 16; ++bit) {
    EXPECT_STREQ(expected[bit], kNotifyEventTypeNames[bit]) << "bit " << bit;
  }
}

TEST(NotifyEventTest, DefaultIsEmpty) {
  const NotifyEvent event;
  EXPECT_EQ(0u, event.mask);
  EXPECT_EQ(0u, event.cookie);
  EXPECT_TRUE(event.path.empty());
  EXPECT_TRUE(event.watch.empty());
}

TEST(GetFullPathTest, WatchedPathItself) {
  EXPECT_EQ("/vol1/media",
            GetFullPath(Event(YULO_ATTRIB, 0, 1, "/vol1/media", "/")));
}

TEST(GetFullPathTest, ObjectBelowTheWatch) {
  EXPECT_EQ("/vol1/media/a/b.jpg",
            GetFullPath(Event(YULO_CREATE, 0, 1, "/vol1/media", "/a/b.jpg")));
}

TEST(GetFullPathTest, OverflowGivesEmptyPath) {
  EXPECT_EQ("", GetFullPath(Event(YULO_Q_OVERFLOW, 0, -1, "", "")));
}

TEST(NotifyEventDumpTest, CreatedFile) {
  EXPECT_EQ(
      "type: YULO_CREATE (100), mask: file (100), cookie: 0, root: 3, "
      "watch: /vol1/media, path: /a.jpg",
      Dump(Event(YULO_CREATE, 0, 3, "/vol1/media", "/a.jpg")));
}

TEST(NotifyEventDumpTest, DirectoryWithSeveralBits) {
  EXPECT_EQ(
      "type: YULO_MOVE_FROM YULO_DELETE (240), mask: directory (40000240), "
      "cookie: 77, root: 0, watch: /v, path: /d",
      Dump(
          Event(YULO_MOVE_FROM | YULO_DELETE | YULO_ISDIR, 77, 0, "/v", "/d")));
}

TEST(NotifyEventDumpTest, UnnamedBitsPrintABlankEach) {
  // Bits 11, 12, 13 and 15 have no name: each still prints its blank.
  EXPECT_EQ(
      "type: YULO_ACCESS     (b801), mask: file (b801), cookie: 0, "
      "root: 2, watch: /w, path: /",
      Dump(Event(0x1 | 0x800 | 0x1000 | 0x2000 | 0x8000, 0, 2, "/w", "/")));
}

TEST(NotifyEventDumpTest, NoTypeBits) {
  EXPECT_EQ(
      "type: (0), mask: directory (40000000), cookie: 0, root: 1, watch: /w, "
      "path: /x",
      Dump(Event(YULO_ISDIR, 0, 1, "/w", "/x")));
}

TEST(NotifyEventDumpTest, Overflow) {
  EXPECT_EQ(
      "type: YULO_Q_OVERFLOW (4000), mask: file (4000), cookie: 0, root: -1, "
      "watch: , path: ",
      Dump(Event(YULO_Q_OVERFLOW, 0, -1, "", "")));
}

TEST(NotifyEventDumpTest, HighBitsOnlyInTheWholeMask) {
  EXPECT_EQ(
      "type: YULO_MODIFY (2), mask: file (10002), cookie: 4294967295, "
      "root: 5, watch: /w, path: /f",
      Dump(Event(0x10002, 0xffffffffu, 5, "/w", "/f")));
}

TEST(NotifyEventDumpTest, LeavesTheStreamDecimal) {
  std::ostringstream out;
  out << Event(YULO_CREATE, 0, 3, "/w", "/a") << " " << 255;
  const std::string text = out.str();
  EXPECT_EQ(" 255", text.substr(text.size() - 4));
}

TEST(NotifyEventDumpTest, NoTrailingNewline) {
  const std::string text = Dump(Event(YULO_DELETE, 0, 3, "/w", "/a"));
  EXPECT_EQ(std::string::npos, text.find('\n'));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
