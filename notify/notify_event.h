// NotifyEvent and NotifyEventType: one decoded kernel notification.
//
// A NotifyEvent says what happened (`mask`), pairs the two halves of a move
// (`cookie`), and names the changed object as the watched path that covers
// it (`watch`, with its watch id in `root`) plus the part below that watch
// (`path`, "/" for the watched path itself). A queue-overflow event has root
// -1 and empty paths.
//
// Ownership: plain copyable value, owned by whoever holds it.
// Thread-safety: none needed; free functions here touch only their arguments.
#ifndef YULOTIFYD_NOTIFY_NOTIFY_EVENT_H_
#define YULOTIFYD_NOTIFY_NOTIFY_EVENT_H_

#include <cstdint>
#include <ostream>
#include <string>

namespace YULO {
namespace YULOTIFYD {

// Event-type bits (the low 16 bits of a mask) and the directory flag. A
// mask may carry several type bits at once; test the bits you care about.
enum NotifyEventType : uint32_t {
  YULO_ACCESS = 0x1,
  YULO_MODIFY = 0x2,
  YULO_ATTRIB = 0x4,
  YULO_CLOSE_WRITE = 0x8,
  YULO_CLOSE_NOWRITE = 0x10,
  YULO_OPEN = 0x20,
  YULO_MOVE_FROM = 0x40,
  YULO_MOVE_TO = 0x80,
  YULO_CREATE = 0x100,
  YULO_DELETE = 0x200,
  YULO_RESCAN = 0x400,
  YULO_Q_OVERFLOW = 0x4000,
  YULO_ISDIR = 0x40000000,  // not a type: set when the object is a directory
};

// The cookie of a YULO_RESCAN event that the kernel layer derived itself,
// for a directory whose changes the kernel's report leaves in doubt (merged
// events, late names, a directory moved in), as opposed to a rescan reported
// as such. No move cookie equals it.
constexpr uint32_t kDerivedRescanCookie = 0x80000000u;

// Names of the 16 type bits, indexed by bit number; "" for unnamed bits.
extern const char* const kNotifyEventTypeNames[16];

struct NotifyEvent {
  uint32_t mask = 0;    // NotifyEventType bits, plus YULO_ISDIR
  uint32_t cookie = 0;  // equal in the two halves of one move
  int32_t root = 0;     // watch id of `watch`; -1 for a queue overflow
  std::string path;     // below `watch`, starting with "/"; "/" for `watch`
  std::string watch;    // the watched path that covers the object
};

// `watch` and `path` joined again: `watch` alone when `path` is "/".
std::string GetFullPath(const NotifyEvent& event);

// One-line dump for debug logs, e.g.
// "type: YULO_CREATE (100), mask: file (100), cookie: 0, root: 3,
//  watch: /vol1/media, path: /a.jpg" (on one line, no newline).
// Leaves the stream's integer base at decimal.
std::ostream& operator<<(std::ostream& out, const NotifyEvent& event);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_NOTIFY_NOTIFY_EVENT_H_
