#include "notify/packed_events.h"

#include <utility>

namespace YULO {
namespace YULOTIFYD {

uint32_t PackedEvents::InternWatch(std::string_view watch) {
  // Events of one volume come from a few watched paths, mostly the same one
  // many times in a row: look from the newest.
  for (size_t i = watches_.size(); i-- > 0;) {
    if (watches_[i] == watch) return static_cast<uint32_t>(i);
  }
  watches_.emplace_back(watch);
  return static_cast<uint32_t>(watches_.size() - 1);
}

void PackedEvents::Push(const NotifyEvent& event) {
  // Everything that may fail to allocate comes before the entry goes in,
  // so that a failure leaves the pack as it was (a watched path interned
  // for nothing is harmless).
  const uint32_t watch = InternWatch(event.watch);
  paths_.reserve(paths_.size() + event.path.size());
  entries_.push_back(Entry{event.mask, event.cookie, event.root, watch,
                           paths_.size(),
                           static_cast<uint32_t>(event.path.size())});
  paths_ += event.path;
}

void PackedEvents::Append(PackedEvents& other) {
  if (other.empty()) return;
  if (empty()) {
    swap(other);
    other.clear();
    return;
  }
  // All or nothing: when memory runs out, both packs stay as they were.
  const size_t entries_before = entries_.size();
  const size_t watches_before = watches_.size();
  entries_.reserve(entries_.size() + other.entries_.size());
  paths_.reserve(paths_.size() + other.paths_.size());
  const uint64_t base = paths_.size();
  try {
    for (const Entry& entry : other.entries_) {
      Entry moved = entry;
      moved.watch = InternWatch(other.watches_[entry.watch]);
      moved.path_offset += base;
      entries_.push_back(moved);  // reserved: never throws
    }
  } catch (...) {
    entries_.resize(entries_before);
    watches_.resize(watches_before);
    throw;
  }
  paths_ += other.paths_;  // reserved: never throws
  other.clear();
}

void PackedEvents::clear() {
  entries_.clear();
  paths_.clear();
  watches_.clear();
}

void PackedEvents::swap(PackedEvents& other) {
  entries_.swap(other.entries_);
  paths_.swap(other.paths_);
  watches_.swap(other.watches_);
}

PackedEvents::View PackedEvents::Get(size_t i) const {
  const Entry& entry = entries_[i];
  return View{entry.mask, entry.cookie, entry.root, watches_[entry.watch],
              std::string_view(paths_).substr(entry.path_offset,
                                              entry.path_size)};
}

NotifyEvent PackedEvents::ToEvent(size_t i) const {
  const View view = Get(i);
  NotifyEvent event;
  event.mask = view.mask;
  event.cookie = view.cookie;
  event.root = view.root;
  event.path.assign(view.path);
  event.watch.assign(view.watch);
  return event;
}

PackedEvents PackedEvents::Tail(size_t first) const {
  PackedEvents tail;
  for (size_t i = first; i < size(); ++i) tail.Push(ToEvent(i));
  return tail;
}

size_t PackedEvents::ByteCount() const {
  size_t bytes = entries_.capacity() * sizeof(Entry) + paths_.capacity();
  for (const std::string& watch : watches_) bytes += watch.capacity();
  return bytes;
}

}  // namespace YULOTIFYD
}  // namespace YULO
