// FakeVolumes: volume managers that start no thread and touch no kernel,
// for the daemon core's tests. Every call a fake volume gets is written to
// one journal, as "<volume id> <operation>[ <arguments>]", so that tests
// can check which volume was asked what, and in which order.
//
// Ownership: the fakes the factory makes belong to whoever holds them (the
// registry); the FakeVolumes object must outlive them.
// Thread-safety: none.
#ifndef YULOTIFYD_DAEMON_TESTING_FAKE_VOLUME_H_
#define YULOTIFYD_DAEMON_TESTING_FAKE_VOLUME_H_

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "volume/managed_volume.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

class FakeVolumes {
 public:
  // A factory that makes fakes journaling here.
  VolumeFactory Factory();

  // Everything journaled so far, oldest first; clears it.
  std::vector<std::string> TakeJournal();

  // Volume ids whose manager cannot be set up (the factory throws).
  std::set<int32_t> failing;
  // Volume ids whose drains report lines left unwritten.
  std::set<int32_t> undrained;
  // Whether a fake acknowledges a reload as soon as it is asked to re-add
  // its watches or to drain its kernel queue (as a receiver does once it
  // has).
  bool acknowledge_reloads = true;
  // The watches each volume reports refused by the kernel, by volume id.
  std::map<int32_t, std::vector<RefusedWatch>> refused;
  // What each volume reports about its queue files, by volume id.
  std::map<int32_t, std::vector<QueueFileStatus>> queue_files;
  // How many fakes were made, and with which rescan flag, by volume id
  // (the last one made for the id).
  int made = 0;
  std::map<int32_t, bool> rescan_at_start;
  // The monitor queues the context gave each ProcessQueued, in order.
  std::vector<std::vector<MonitorQueue>> queues_when_processing;

 private:
  friend class FakeVolume;
  std::vector<std::string> journal_;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_TESTING_FAKE_VOLUME_H_
