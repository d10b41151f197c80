#include "notify/notify_event.h"

namespace YULO {
namespace YULOTIFYD {

const char* const kNotifyEventTypeNames[16] = {
    "YULO_ACCESS",
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
    "",
};

std::string GetFullPath(const NotifyEvent& event) {
  if (event.path == "/") return event.watch;
  return event.watch + event.path;
}

std::ostream& operator<<(std::ostream& out, const NotifyEvent& event) {
  out << "type: ";
  for (int bit = 0; bit < 16; ++bit) {
    if (event.mask & (1u << bit)) out << kNotifyEventTypeNames[bit] << ' ';
  }
  out << '(' << std::hex << (event.mask & 0xffffu) << "), ";
  out << "mask: " << ((event.mask & YULO_ISDIR) ? "directory" : "file") << " ("
      << event.mask << "), " << std::dec;
  out << "cookie: " << event.cookie << ", ";
  out << "root: " << event.root << ", ";
  out << "watch: " << event.watch << ", ";
  out << "path: " << event.path;
  return out;
}

}  // namespace YULOTIFYD
}  // namespace YULO
