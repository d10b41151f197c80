#include "notify/packed_events.h"

#include <gtest/gtest.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace {

NotifyEvent Make(uint32_t mask, const std::string& watch,
                 const std::string& path, uint32_t cookie = 0, int root = 1) {
  NotifyEvent event;
  event.mask = mask;
  event.cookie = cookie;
  event.root = root;
  event.watch = watch;
  event.path = path;
  return event;
}

void ExpectSame(const NotifyEvent& a, const NotifyEvent& b) {
  EXPECT_EQ(a.mask, b.mask);
  EXPECT_EQ(a.cookie, b.cookie);
  EXPECT_EQ(a.root, b.root);
  EXPECT_EQ(a.watch, b.watch);
  EXPECT_EQ(a.path, b.path);
}

TEST(PackedEventsTest, EventsComeBackAsTheyWentIn) {
  const std::vector<NotifyEvent> events = {
      Make(YULO_CREATE, "/vol1/a", "/x.jpg"),
      Make(YULO_MOVE_FROM | YULO_ISDIR, "/vol1/b", "/dir", 0x80000001u, 2),
      Make(YULO_Q_OVERFLOW, "", "", 0, -1),
      Make(YULO_DELETE, "/vol1/a", std::string("/bin\0ary\xff", 10)),
      Make(YULO_MODIFY, "/vol1/a", "/")};
  PackedEvents packed;
  for (const NotifyEvent& event : events) packed.Push(event);
  ASSERT_EQ(packed.size(), events.size());
  for (size_t i = 0; i < events.size(); ++i) {
    SCOPED_TRACE(i);
    ExpectSame(packed.ToEvent(i), events[i]);
    const PackedEvents::View view = packed.Get(i);
    EXPECT_EQ(view.path, events[i].path);
    EXPECT_EQ(view.watch, events[i].watch);
  }
  // The watched paths are kept once each.
  EXPECT_LT(packed.ByteCount(), 4096u);
}

TEST(PackedEventsTest, AppendKeepsOrderAndEmptiesTheOther) {
  PackedEvents a, b;
  a.Push(Make(YULO_CREATE, "/vol1/a", "/1"));
  b.Push(Make(YULO_CREATE, "/vol1/b", "/2"));
  b.Push(Make(YULO_CREATE, "/vol1/a", "/3"));
  a.Append(b);
  EXPECT_TRUE(b.empty());
  ASSERT_EQ(a.size(), 3u);
  ExpectSame(a.ToEvent(1), Make(YULO_CREATE, "/vol1/b", "/2"));
  ExpectSame(a.ToEvent(2), Make(YULO_CREATE, "/vol1/a", "/3"));

  PackedEvents empty;
  empty.Append(a);  // into an empty pack: a swap
  EXPECT_TRUE(a.empty());
  ASSERT_EQ(empty.size(), 3u);
  ExpectSame(empty.ToEvent(0), Make(YULO_CREATE, "/vol1/a", "/1"));
  a.Push(Make(YULO_DELETE, "/vol1/c", "/4"));
  ExpectSame(a.ToEvent(0), Make(YULO_DELETE, "/vol1/c", "/4"));
}

TEST(PackedEventsTest, TailAndClear) {
  PackedEvents packed;
  for (int i = 0; i < 5; ++i) {
    packed.Push(Make(YULO_CREATE, "/vol1/a", "/" + std::to_string(i)));
  }
  const PackedEvents tail = packed.Tail(3);
  ASSERT_EQ(tail.size(), 2u);
  EXPECT_EQ(tail.Get(0).path, "/3");
  EXPECT_EQ(tail.Get(1).path, "/4");
  packed.clear();
  EXPECT_TRUE(packed.empty());
  packed.Push(Make(YULO_CREATE, "/vol1/z", "/z"));
  ExpectSame(packed.ToEvent(0), Make(YULO_CREATE, "/vol1/z", "/z"));
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
