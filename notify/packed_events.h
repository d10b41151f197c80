// PackedEvents: NotifyEvents packed for the trip from a volume's receiver to
// its processor.
//
// A burst can put hundreds of thousands of events between the two threads,
// so they are not kept as separate heap objects with their own strings: each
// event is a small fixed record, its relative path sits in one shared byte
// buffer, and its watched path (a volume has a handful) is kept once and
// referred to by number. Pushing never allocates once the buffers have
// grown; moving a whole pack to another is a swap or one append.
//
// Ownership: a plain value owning its bytes. Views returned by Get point
// into it and stay valid until it is changed.
// Thread-safety: none; the event queue guards its pack with its mutex.
#ifndef YULOTIFYD_NOTIFY_PACKED_EVENTS_H_
#define YULOTIFYD_NOTIFY_PACKED_EVENTS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "notify/notify_event.h"

namespace YULO {
namespace YULOTIFYD {

class PackedEvents {
 public:
  // One event as stored: the fields of NotifyEvent, the strings as views.
  struct View {
    uint32_t mask;
    uint32_t cookie;
    int32_t root;
    std::string_view watch;
    std::string_view path;
  };

  void Push(const NotifyEvent& event);
  // Moves every event of `other` to the end of this pack, oldest first;
  // `other` is left empty. Push and Append change nothing when they throw
  // std::bad_alloc.
  void Append(PackedEvents& other);

  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  // Forgets the events, keeping the memory for the next ones.
  void clear();
  void swap(PackedEvents& other);

  // REQUIRES: i < size().
  View Get(size_t i) const;
  NotifyEvent ToEvent(size_t i) const;
  // The events from `first` on, as a new pack.
  PackedEvents Tail(size_t first) const;

  // Bytes held, for memory accounting.
  size_t ByteCount() const;

 private:
  struct Entry {
    uint32_t mask;
    uint32_t cookie;
    int32_t root;
    uint32_t watch;        // index into watches_
    uint64_t path_offset;  // into paths_
    uint32_t path_size;
  };

  uint32_t InternWatch(std::string_view watch);

  std::vector<Entry> entries_;
  std::string paths_;
  std::vector<std::string> watches_;
};

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_PACKED_EVENTS_H_
