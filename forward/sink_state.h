// SinkState: what yulotify-sink keeps across restarts, in a state file
// beside the central queue file (QUEUE.sink-state unless told otherwise).
//
// The sink appends a batch of lines to the queue file and only then
// acknowledges their messages, so after a crash the server delivers again
// what the sink may already have written. `committed`, the highest stream
// sequence number whose line is in the file (or was dropped on purpose),
// lets it skip those. Between writing the lines and saving `committed` the
// sink can die too, so before it writes a batch it saves a `pending` record
// of the write it is about to make: where in which file, how long, and the
// file's times before it. On the way back up (Recover in sink_writer.h)
// the queue file then says whether the batch got in.
//
// `roots` names, for each appliance (host), the top directories of the
// paths its lines carried: what a rescan line after a reset of the file
// must cover.
//
// The file is JSON, replaced as a whole (temporary file, fsync, rename,
// fsync of the directory), so a crash leaves the old or the new state.
//
// Thread-safety: plain values and functions, no shared state.
#ifndef YULOTIFYD_FORWARD_SINK_STATE_H_
#define YULOTIFYD_FORWARD_SINK_STATE_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

// Host -> top directories ("/vol1", or "/" for all of it).
using HostRoots = std::map<std::string, std::set<std::string>>;

// Roots kept per host before they are summed up as "/", and hosts kept
// before further ones are summed up under the empty host name: the state
// stays small whatever the lines carry.
constexpr size_t kMaxRootsPerHost = 32;
constexpr size_t kMaxHosts = 4096;

// Adds `root` to `host`'s roots, summing up as above. True when the roots
// did not cover it yet.
bool AddRoot(HostRoots* roots, const std::string& host,
             const std::string& root);

struct PendingWrite {
  bool active = false;
  uint64_t last_seq = 0;  // committed once the write is known to be in
  // The file was emptied first and the text (a reset marker and rescan
  // lines) starts at offset 0.
  bool reset = false;
  uint64_t dev = 0;
  uint64_t ino = 0;
  int64_t offset = 0;
  uint64_t length = 0;
  // The file's modification and change times before the write.
  int64_t mtime_ns = 0;
  int64_t ctime_ns = 0;
  // The roots the batch's lines carried: rescanned when it cannot be told
  // whether they reached the file.
  HostRoots roots;
};

struct SinkState {
  std::string stream;
  // The stream's creation time as the server reports it: a stream deleted
  // and made again starts its sequence numbers over.
  std::string stream_created;
  uint64_t committed = 0;
  PendingWrite pending;
  HostRoots roots;
};

// Reads `path`. A missing file is a fresh state (true); anything that is
// not a state file this program wrote is an error.
bool LoadSinkState(const std::string& path, SinkState* state,
                   std::string* error);

// Replaces `path` with `state` durably (see above). Mode 0600.
bool SaveSinkState(const std::string& path, const SinkState& state,
                   std::string* error);

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_FORWARD_SINK_STATE_H_
