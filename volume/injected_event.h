// Injected events: what a change reported by another service ("notify"
// command) becomes on a volume's event queue, built in the form the kernel
// layer would have produced it, so that the processor treats both alike.
//
// Thread-safety: plain functions without shared state; BuildInjected looks
// at the file system (lstat) and logs.
#ifndef YULOTIFYD_VOLUME_INJECTED_EVENT_H_
#define YULOTIFYD_VOLUME_INJECTED_EVENT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "notify/notify_event.h"

namespace YULO {
namespace YULOTIFYD {

// Queue event code `type` (as written in queue lines) -> kernel mask bits:
// the pass-through codes stay, 64, 128 and 512 become YULO_CREATE,
// YULO_DELETE and YULO_RESCAN, and `is_dir` adds YULO_ISDIR. A rename (256)
// has no single-record form and adds nothing.
uint32_t ConvertType(uint32_t type, bool is_dir);

// Appends to `out` the records an injected event becomes: queue event code
// `type` for `path` and, for a rename (256), its old path `path_old`;
// `share_paths` are the volume's shares in list order, `mount_point` the
// volume's (for the log). Each record is watched from the share holding
// its path, found by a plain prefix test in list order. A rename within one
// share is a YULO_MOVE_FROM/YULO_MOVE_TO pair sharing a cookie drawn from
// `*cookie` (incremented); across shares it is a creation in the one and a
// deletion in the other. Returns whether something was offered: false,
// with nothing appended, when neither path lies in a share, when `path`
// does not exist (it is dropped silently), or when a non-rename's path lies
// in no share.
bool BuildInjected(uint32_t type, const std::string& path,
                   const std::string& path_old,
                   const std::vector<std::string>& share_paths,
                   const std::string& mount_point, uint64_t* cookie,
                   std::vector<NotifyEvent>* out);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_INJECTED_EVENT_H_
