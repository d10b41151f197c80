// platform_internal.h: the C++ pieces behind yulo_platform.h.
//
// The C entry points only bind these functions to the compiled-in file
// paths. Keeping the paths as parameters lets the unit tests run the real
// parsers against files they write into a temporary directory.
#ifndef YULO_PLATFORM_INTERNAL_H_
#define YULO_PLATFORM_INTERNAL_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/path.h"
#include "base/unique_fd.h"
#include "yulo_platform.h"

namespace yulo_platform {

// ---------------------------------------------------------------------------
// Complaints (diag.cc)
//
// Problems found in the configuration files are reported as one line each,
// "<source file stem>:<line> <message>". They go to syslog(LOG_ERR) unless
// the caller passes a vector to collect them, which is what the tests do.
using Complaints = std::vector<std::string>;

void Complain(Complaints* out, const char* stem, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// The base layer's helpers this library uses.
using ::YULO::YULOTIFYD::ErrnoText;
using ::YULO::YULOTIFYD::NormalisePath;
using ::YULO::YULOTIFYD::PathAtOrBelow;
using ::YULO::YULOTIFYD::ReadWholeFile;
using ::YULO::YULOTIFYD::RetryOnEintr;
using ::YULO::YULOTIFYD::UniqueFd;

// Each .cc using this defines kStem, its own base name without extension.
#define YULO_COMPLAIN(out, ...) \
  ::yulo_platform::Complain((out), kStem, __LINE__, __VA_ARGS__)

// ---------------------------------------------------------------------------
// File reading (file_util.cc)

// Hands out the lines of a file one at a time, without their "\n". Lines
// longer than `max_line` bytes are cut to that length and flagged, so a
// file without newlines cannot make us buffer all of it.
class LineReader {
 public:
  explicit LineReader(size_t max_line = 1 << 20);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // Returns 0 or an errno value.
  int Open(const std::string& path);
  // False at end of file or on a read error (see error()).
  bool Next(std::string* line, bool* overlong);
  int error() const { return error_; }

 private:
  bool Fill();

  UniqueFd fd_;
  int error_ = 0;
  bool eof_ = false;
  size_t max_line_;
  std::string buf_;
  size_t pos_ = 0;
};

// ---------------------------------------------------------------------------
// Mount points (mount_table.cc)

// The normalised mount points (second field) listed in a mounts file such
// as /proc/mounts. Returns 0 or an errno value.
int ReadMountPoints(const std::string& mounts_path,
                    std::unordered_set<std::string>* out,
                    Complaints* complaints);

// ---------------------------------------------------------------------------
// Volume table (volume_table.cc)

struct VolumeEntry {
  int32_t id = 0;
  int32_t kind = 0;
  std::string mount_point;  // normalised, at most kMaxMountPointLength bytes
};

constexpr size_t kMaxMountPointLength = YULO_VOLUME_MOUNT_POINT_SIZE - 1;

// The volume table and the kernel's mount list, both read on every call.
struct VolumeSources {
  std::string table_path;
  std::string mounts_path;
};

// The usable, currently mounted entries of the table, in table order.
// Returns false when the table cannot be read or is not a volume table.
bool LoadMountedVolumes(const VolumeSources& src, std::vector<VolumeEntry>* out,
                        Complaints* complaints);

// The C entry points with explicit sources.
YULO_VOLUME_INFO* EnumVolumes(const VolumeSources& src, Complaints* complaints);

enum VolumeResult {
  kVolumeOk = 0,
  kVolumeBadArgument = -1,
  kVolumeTableUnreadable = -2,
  kVolumeNotFound = -3,
};
int GetVolumeInfo(const VolumeSources& src, const char* mount_point,
                  YULO_VOLUME_INFO* info, Complaints* complaints);
// 1 with *vol_id set, 0 when no mounted volume holds `path`, -1 on a bad
// argument (including a relative path) or an unreadable table.
int ParseVolumePath(const VolumeSources& src, const char* path, int* vol_id,
                    Complaints* complaints);

// ---------------------------------------------------------------------------
// Shares (share_conf.cc)

struct Share {
  std::string name;  // as first spelled in the configuration
  std::string path;  // absolute, no trailing "/" (except "/" itself)
};

// The shares of a Samba configuration file, in order of first appearance.
// Returns 0 or an errno value.
int LoadShares(const std::string& smb_conf_path, std::vector<Share>* out,
               Complaints* complaints);

// True for the sections Samba gives a special meaning, which are not shares.
bool IsSpecialSection(std::string_view name);

enum ShareResult {
  kShareOk = 0,
  kShareBadArgument = -1,
  kShareConfUnreadable = -2,
  kShareNotFound = -3,
  kShareBufferTooSmall = -4,
  kShareNoMemory = -5,
};
// The C entry points with an explicit configuration file.
int EnumShares(const std::string& smb_conf_path, PYULO_SZ_LIST* list,
               Complaints* complaints);
int GetSharePath(const std::string& smb_conf_path, const char* name, char* buf,
                 int size, Complaints* complaints);

}  // namespace yulo_platform

#endif  // YULO_PLATFORM_INTERNAL_H_
