// The volume table with a fuzzed mount table, and the mount-table field
// decoding of both layers (the platform library's and the kernel
// notification layer's).
//
// The target writes the fuzzed volume table and mount table to scratch
// files and runs the platform library on them (LoadMountedVolumes,
// EnumVolumes, GetVolumeInfo, ParseVolumePath) with explicit sources, so no
// system file is read. Each line of the third part is then looked up as a
// mount point and as a path, decoded as a mount-table field by both layers,
// and resolved to its mount point by the notification layer against the
// fuzzed mount table in a made-up directory tree.
//
// Checks: the enumerated records equal the loaded entries (ids, kinds,
// NUL-terminated mount points of at most 59 bytes, zeroed reserved bytes);
// ids and mount points are unique and normalised; every entry is found by
// its mount point (also with a trailing "/") and owns its own mount point
// as a path; a path is placed on the deepest mounted entry holding it. Both
// decoders leave a field without "\" as it is, never lengthen one, and give
// back any bytes after the kernel's escaping of blanks, tabs, line feeds
// and backslashes; such an escaped field in a mounts line is read as a
// mount point. A mount point found by climbing the tree is the highest
// directory on the path's device or the first one off it.
//
// Input: volume table, separator line, mount table, separator line, query
// lines.
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

#include "fuzz/common/fuzz_support.h"
#include "base/mount_field.h"
#include "notify/mount_point.h"
#include "notify/testing/fake_backend.h"
#include "lib/testing/log_capture.h"
#include "platform_internal.h"

namespace yulo_platform {
namespace {

namespace fuzz = ::YULO::YULOTIFYD::fuzz;
namespace notify = ::YULO::YULOTIFYD;

// A mounts-file field as the kernel writes it.
std::string KernelEscape(std::string_view raw) {
  std::string out;
  for (char c : raw) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
      char esc[5];
      snprintf(esc, sizeof(esc), "\\%03o", static_cast<unsigned char>(c));
      out += esc;
    } else {
      out += c;
    }
  }
  return out;
}

void CheckDecoders(const std::string& field) {
  const std::string platform =
      notify::DecodeMountField(field, notify::BadEscape::kKeep);
  const std::string kernel_layer =
      notify::DecodeMountField(field, notify::BadEscape::kCut);
  FUZZ_CHECK(platform.size() <= field.size() &&
                 kernel_layer.size() <= field.size(),
             "decoding lengthened a field");
  if (field.find('\\') == std::string::npos) {
    FUZZ_CHECK(platform == field && kernel_layer == field,
               "a field without escapes changed");
  }
  const std::string escaped = KernelEscape(field);
  FUZZ_CHECK(notify::DecodeMountField(escaped, notify::BadEscape::kKeep) ==
                 field,
             "platform decoding of " + escaped);
  FUZZ_CHECK(notify::DecodeMountField(escaped, notify::BadEscape::kCut) ==
                 field,
             "notify decoding of " + escaped);
}

// A mounts line naming `field` (escaped) is read back as that mount point.
void CheckMountLine(const std::string& field) {
  if (field.empty()) return;
  const std::string mounts = fuzz::ScratchRoot() + "/mounts-one";
  fuzz::WriteFileOrDie(mounts,
                       "dev " + KernelEscape(field) + " tmpfs rw 0 0\n");
  std::unordered_set<std::string> points;
  Complaints complaints;
  FUZZ_CHECK(ReadMountPoints(mounts, &points, &complaints) == 0, "read");
  FUZZ_CHECK(points.count(NormalisePath(field)) == 1,
             "escaped mount point not read back: " + field);
}

// The notification layer's climb in a tree where the path's deepest
// `deep` directories are on device 2 and the rest on device 1.
void CheckClimb(const std::string& path, size_t deep,
                const std::string& table) {
  if (path.empty() || path[0] != '/' || path.find("//") != std::string::npos ||
      (path.size() > 1 && path.back() == '/')) {
    return;
  }
  notify::testing::FakeMountEnv env;
  env.SetMountTable(table);
  std::vector<std::string> chain;
  for (std::string dir = path;; dir = notify::ParentDir(dir)) {
    chain.push_back(dir);
    if (dir == "/" || chain.size() > 256) break;
  }
  std::map<std::string, dev_t> devs;
  for (size_t i = 0; i < chain.size(); ++i) {
    devs[chain[i]] = i < deep ? 2 : 1;
    env.AddDir(chain[i], devs[chain[i]]);
  }
  const std::string got = notify::GetMountPoint(path, env);
  // The highest directory on the path's device, and the one above it.
  std::string last = path;
  std::string cur = notify::ParentDir(path);
  while (cur != last && devs[cur] == devs[path]) {
    last = cur;
    cur = notify::ParentDir(cur);
  }
  FUZZ_CHECK(got == last || got == cur,
             "mount point of " + path + ": " + got + ", expected " + last +
                 " or " + cur);
}

}  // namespace
}  // namespace yulo_platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace yulo_platform;
  const std::vector<std::string_view> parts =
      fuzz::SplitParts(fuzz::AsText(data, size), 3);
  const VolumeSources src{fuzz::ScratchRoot() + "/volumes.json",
                          fuzz::ScratchRoot() + "/mounts"};
  fuzz::WriteFileOrDie(src.table_path, parts[0]);
  fuzz::WriteFileOrDie(src.mounts_path, parts[1]);
  Complaints complaints;

  std::unordered_set<std::string> mounted;
  if (ReadMountPoints(src.mounts_path, &mounted, &complaints) == 0) {
    for (const std::string& point : mounted) {
      FUZZ_CHECK(NormalisePath(point) == point, "mount point " + point);
    }
  }

  std::vector<VolumeEntry> entries;
  const bool table_ok = LoadMountedVolumes(src, &entries, &complaints);
  YULO_VOLUME_INFO* list = EnumVolumes(src, &complaints);
  YULO_VOLUME_INFO* record = list;
  std::unordered_set<int32_t> ids;
  std::unordered_set<std::string> points;
  for (const VolumeEntry& entry : entries) {
    FUZZ_CHECK(record != nullptr, "fewer records than entries");
    FUZZ_CHECK(record->vol_id == entry.id && record->vol_kind == entry.kind,
               "record differs from its entry");
    FUZZ_CHECK(std::memchr(record->mount_point, '\0',
                      sizeof(record->mount_point)) != nullptr &&
                   entry.mount_point == record->mount_point,
               "record mount point " + entry.mount_point);
    for (char c : record->reserved) FUZZ_CHECK(c == 0, "reserved bytes set");
    record = record->next;
    FUZZ_CHECK(ids.insert(entry.id).second, "id listed twice");
    FUZZ_CHECK(points.insert(entry.mount_point).second,
               "mount point listed twice: " + entry.mount_point);
    FUZZ_CHECK(entry.mount_point.size() <= kMaxMountPointLength &&
                   !entry.mount_point.empty() && entry.mount_point[0] == '/' &&
                   NormalisePath(entry.mount_point) == entry.mount_point,
               "mount point " + entry.mount_point);
    FUZZ_CHECK(mounted.count(entry.mount_point) == 1,
               "unmounted entry " + entry.mount_point);
  }
  FUZZ_CHECK(record == nullptr, "more records than entries");
  YULOMountVolInfoFree(list);

  for (const VolumeEntry& entry : entries) {
    for (const std::string& asked :
         {entry.mount_point, entry.mount_point + "/"}) {
      YULO_VOLUME_INFO info;
      FUZZ_CHECK(GetVolumeInfo(src, asked.c_str(), &info, &complaints) ==
                         kVolumeOk &&
                     info.vol_id == entry.id && info.next == nullptr,
                 "entry not found by its mount point " + asked);
    }
    int vol_id = -1;
    FUZZ_CHECK(ParseVolumePath(src, entry.mount_point.c_str(), &vol_id,
                               &complaints) == 1 &&
                   vol_id == entry.id,
               "entry does not own its mount point " + entry.mount_point);
  }

  // Every lookup reads both files again, as the library always does; a few
  // queries per input keep the target fast.
  const std::vector<std::string_view> lines = fuzz::SplitLines(parts[2]);
  for (size_t i = 0; i < lines.size() && i < 8; ++i) {
    const std::string line(lines[i]);
    YULO_VOLUME_INFO info;
    const int got = GetVolumeInfo(src, line.c_str(), &info, &complaints);
    FUZZ_CHECK(got == kVolumeOk || got == kVolumeNotFound ||
                   (!table_ok && got == kVolumeTableUnreadable),
               "GetVolumeInfo result " + std::to_string(got));
    int vol_id = -1;
    const int rc = ParseVolumePath(src, line.c_str(), &vol_id, &complaints);
    FUZZ_CHECK(rc >= -1 && rc <= 1, "ParseVolumePath result");
    const std::string wanted = NormalisePath(line);
    const VolumeEntry* deepest = nullptr;
    for (const VolumeEntry& entry : entries) {
      if (!PathAtOrBelow(entry.mount_point, wanted)) continue;
      if (deepest == nullptr ||
          entry.mount_point.size() > deepest->mount_point.size()) {
        deepest = &entry;
      }
    }
    if (table_ok && !line.empty() && line[0] == '/' &&
        line.find('\0') == std::string::npos) {
      FUZZ_CHECK(rc == (deepest != nullptr ? 1 : 0) &&
                     (deepest == nullptr || vol_id == deepest->id),
                 "path " + line + " placed on the wrong volume");
    }
    CheckDecoders(line);
    CheckMountLine(line);
    CheckClimb(line, line.size() % 5, std::string(parts[1]));
  }
  YULO::YULOTIFYD::testing::TakeLogLines();
  return 0;
}
