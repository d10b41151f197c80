// ReadAllShares: every share of the appliance's share configuration, as
// the platform library enumerates them. Used by the volume manager to list
// the shares on its volume, and by the daemon (through its PlatformApi) to
// notice share changes.
//
// Thread-safety: keeps no state; any thread.
#ifndef YULOTIFYD_VOLUME_SHARE_LIST_H_
#define YULOTIFYD_VOLUME_SHARE_LIST_H_

#include <string>
#include <utility>
#include <vector>

namespace YULO {
namespace YULOTIFYD {

// The flag word shares are enumerated with (passed to YULOShareEnum as it
// stands; its meaning is the platform library's).
constexpr int kShareEnumFlags = 0xA09;

// ReadAllShares results besides 0.
constexpr int kSharesNoMemory = -1;
constexpr int kSharesUnreadable = -2;

// Appends every share of the share configuration to `out` as (name, path),
// in the configuration's order, enumerating with `flags` (passed to
// YULOShareEnum). Returns 0, kSharesNoMemory or kSharesUnreadable (nothing
// appended then).
int ReadAllShares(int flags,
                  std::vector<std::pair<std::string, std::string>>* out);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_VOLUME_SHARE_LIST_H_
