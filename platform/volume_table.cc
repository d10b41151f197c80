// volume_table.cc: the data volumes, from the volume table and /proc/mounts.
//
// The volume table is a JSON file the appliance keeps of every data volume
// it knows, mounted or not:
//   {"volumes": [{"id": 1, "kind": 0, "mount_point": "/vol1"}, ...]}
// Only the entries whose mount point is mounted at the time of the call are
// reported. Both files are read on every call, so volumes that come and go
// while the daemon runs are seen without any notification.
#include <json/json.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <new>
#include <unordered_set>

#include "platform_internal.h"
#include "yulo_build_config.h"

// Appliance code written against the C record reads these fields at fixed
// offsets, so the layout must never drift.
static_assert(offsetof(YULO_VOLUME_INFO, vol_id) == 0, "vol_id offset");
static_assert(offsetof(YULO_VOLUME_INFO, vol_kind) == 4, "vol_kind offset");
static_assert(offsetof(YULO_VOLUME_INFO, mount_point) == 52,
              "mount_point offset");
static_assert(offsetof(YULO_VOLUME_INFO, next) == 112, "next offset");
static_assert(sizeof(YULO_VOLUME_INFO) == 112 + sizeof(void*), "record size");

namespace yulo_platform {
namespace {

constexpr char kStem[] = "volume_table";
constexpr char kProcMounts[] = "/proc/mounts";

// A real table is a few kilobytes; anything this big is not one, and
// parsing it on every call would hurt.
constexpr size_t kMaxTableBytes = 16 * 1024 * 1024;

// Ids and kinds are int32_t in the record. JsonCpp's isInt() also accepts
// 1.0, which no table writer should produce, so insist on an integer token.
bool IsInt32(const Json::Value& v) {
  return (v.type() == Json::intValue || v.type() == Json::uintValue) &&
         v.isInt();
}

// Turns one element of "volumes" into an entry, or explains why not.
bool ParseEntry(const std::string& table_path, Json::ArrayIndex index,
                const Json::Value& v, VolumeEntry* entry,
                Complaints* complaints) {
  const char* table = table_path.c_str();
  unsigned n = index;
  if (!v.isObject()) {
    YULO_COMPLAIN(complaints, "%s: volumes[%u] is not an object; skipped",
                  table, n);
    return false;
  }
  const Json::Value& id = v["id"];
  if (!IsInt32(id)) {
    YULO_COMPLAIN(complaints, "%s: volumes[%u] has no integer \"id\"; skipped",
                  table, n);
    return false;
  }
  entry->id = id.asInt();
  const Json::Value& kind = v["kind"];
  if (kind.isNull()) {
    entry->kind = 0;
  } else if (IsInt32(kind)) {
    entry->kind = kind.asInt();
  } else {
    YULO_COMPLAIN(complaints,
                  "%s: volumes[%u] (id %d) has a \"kind\" that is not an "
                  "integer; skipped",
                  table, n, entry->id);
    return false;
  }
  const Json::Value& mp = v["mount_point"];
  if (!mp.isString()) {
    YULO_COMPLAIN(complaints,
                  "%s: volumes[%u] (id %d) has no string \"mount_point\"; "
                  "skipped",
                  table, n, entry->id);
    return false;
  }
  std::string raw = mp.asString();
  // An embedded NUL would silently shorten the path in the C record.
  if (raw.empty() || raw[0] != '/' || raw.find('\0') != std::string::npos) {
    YULO_COMPLAIN(complaints,
                  "%s: volume %d has mount point \"%s\", which is not an "
                  "absolute path; skipped",
                  table, entry->id, raw.c_str());
    return false;
  }
  entry->mount_point = NormalisePath(raw);
  if (entry->mount_point.size() > kMaxMountPointLength) {
    YULO_COMPLAIN(complaints,
                  "%s: volume %d has mount point \"%s\" of %zu bytes, longer "
                  "than the %zu a volume record holds; volume skipped",
                  table, entry->id, entry->mount_point.c_str(),
                  entry->mount_point.size(), kMaxMountPointLength);
    return false;
  }
  return true;
}

// The well-formed entries of the table, mounted or not, in file order.
bool ParseTable(const std::string& table_path, std::vector<VolumeEntry>* out,
                Complaints* complaints) {
  out->clear();
  std::string text;
  int err = ReadWholeFile(table_path, kMaxTableBytes, &text);
  if (err != 0) {
    YULO_COMPLAIN(complaints, "cannot read volume table %s: %s",
                  table_path.c_str(), ErrnoText(err).c_str());
    return false;
  }
  Json::Value root;
  std::string errors;
  try {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &root,
                       &errors)) {
      // JsonCpp's messages span lines; keep the log entry on one.
      for (char& c : errors) {
        if (c == '\n') c = ' ';
      }
      YULO_COMPLAIN(complaints, "volume table %s is not valid JSON: %s",
                    table_path.c_str(), errors.c_str());
      return false;
    }
  } catch (const Json::Exception& e) {
    // Raised for instance when nesting exceeds the reader's stack limit.
    YULO_COMPLAIN(complaints, "volume table %s is not valid JSON: %s",
                  table_path.c_str(), e.what());
    return false;
  }
  if (!root.isObject() || !root["volumes"].isArray()) {
    YULO_COMPLAIN(complaints,
                  "volume table %s has no \"volumes\" array at its top level",
                  table_path.c_str());
    return false;
  }
  const Json::Value& volumes = root["volumes"];
  std::unordered_set<std::string> seen_mount_points;
  std::unordered_set<int32_t> seen_ids;
  for (Json::ArrayIndex i = 0; i < volumes.size(); ++i) {
    VolumeEntry entry;
    if (!ParseEntry(table_path, i, volumes[i], &entry, complaints)) continue;
    // Lookups by id or by mount point must have one answer, so the first
    // entry claiming either wins.
    if (!seen_ids.insert(entry.id).second) {
      YULO_COMPLAIN(complaints,
                    "%s: volume id %d appears more than once; the entry for "
                    "%s is skipped",
                    table_path.c_str(), entry.id, entry.mount_point.c_str());
      continue;
    }
    if (!seen_mount_points.insert(entry.mount_point).second) {
      YULO_COMPLAIN(complaints,
                    "%s: mount point %s appears more than once; volume %d is "
                    "skipped",
                    table_path.c_str(), entry.mount_point.c_str(), entry.id);
      continue;
    }
    out->push_back(std::move(entry));
  }
  return true;
}

void FillRecord(const VolumeEntry& entry, YULO_VOLUME_INFO* info) {
  memset(info, 0, sizeof(*info));
  info->vol_id = entry.id;
  info->vol_kind = entry.kind;
  // ParseEntry guarantees the mount point and its NUL fit.
  memcpy(info->mount_point, entry.mount_point.c_str(),
         entry.mount_point.size() + 1);
  info->next = nullptr;
}

VolumeSources SystemSources() {
  return VolumeSources{YULO_VOLUME_TABLE_PATH, kProcMounts};
}

}  // namespace

bool LoadMountedVolumes(const VolumeSources& src, std::vector<VolumeEntry>* out,
                        Complaints* complaints) {
  out->clear();
  std::vector<VolumeEntry> entries;
  if (!ParseTable(src.table_path, &entries, complaints)) return false;
  std::unordered_set<std::string> mounted;
  // Without the kernel's list nothing can be shown to be mounted; that
  // leaves no volumes rather than a broken table.
  if (ReadMountPoints(src.mounts_path, &mounted, complaints) != 0) return true;
  for (VolumeEntry& entry : entries) {
    if (mounted.count(entry.mount_point) != 0) out->push_back(std::move(entry));
  }
  return true;
}

YULO_VOLUME_INFO* EnumVolumes(const VolumeSources& src,
                              Complaints* complaints) {
  std::vector<VolumeEntry> volumes;
  if (!LoadMountedVolumes(src, &volumes, complaints)) return nullptr;
  YULO_VOLUME_INFO* head = nullptr;
  YULO_VOLUME_INFO** tail = &head;
  for (const VolumeEntry& entry : volumes) {
    auto* info =
        static_cast<YULO_VOLUME_INFO*>(malloc(sizeof(YULO_VOLUME_INFO)));
    if (info == nullptr) {
      YULOMountVolInfoFree(head);
      return nullptr;
    }
    FillRecord(entry, info);
    *tail = info;
    tail = &info->next;
  }
  return head;
}

int GetVolumeInfo(const VolumeSources& src, const char* mount_point,
                  YULO_VOLUME_INFO* info, Complaints* complaints) {
  if (mount_point == nullptr || info == nullptr) return kVolumeBadArgument;
  std::string wanted = NormalisePath(mount_point);
  std::vector<VolumeEntry> volumes;
  if (!LoadMountedVolumes(src, &volumes, complaints)) {
    return kVolumeTableUnreadable;
  }
  for (const VolumeEntry& entry : volumes) {
    if (entry.mount_point == wanted) {
      FillRecord(entry, info);
      return kVolumeOk;
    }
  }
  return kVolumeNotFound;
}

int ParseVolumePath(const VolumeSources& src, const char* path, int* vol_id,
                    Complaints* complaints) {
  if (path == nullptr || vol_id == nullptr || path[0] != '/') return -1;
  std::string wanted = NormalisePath(path);
  std::vector<VolumeEntry> volumes;
  if (!LoadMountedVolumes(src, &volumes, complaints)) return -1;
  // Volumes can be mounted inside one another (a USB disk under /vol1/usb),
  // so the deepest mount point holding the path is the one it lives on.
  const VolumeEntry* best = nullptr;
  for (const VolumeEntry& entry : volumes) {
    if (PathAtOrBelow(entry.mount_point, wanted) &&
        (best == nullptr ||
         entry.mount_point.size() > best->mount_point.size())) {
      best = &entry;
    }
  }
  if (best == nullptr) return 0;
  *vol_id = best->id;
  return 1;
}

}  // namespace yulo_platform

// The C entry points. Nothing may unwind into C callers, so each one turns
// any exception (std::bad_alloc above all) into its failure value.

extern "C" YULO_VOLUME_INFO* YULOMountVolAllEnum(int /*reserved1*/,
                                                 int /*reserved2*/,
                                                 int /*reserved3*/) {
  try {
    return yulo_platform::EnumVolumes(yulo_platform::SystemSources(), nullptr);
  } catch (...) {
    return nullptr;
  }
}

extern "C" int YULOMountVolInfoGet(const char* mount_point,
                                   YULO_VOLUME_INFO* info) {
  try {
    return yulo_platform::GetVolumeInfo(yulo_platform::SystemSources(),
                                        mount_point, info, nullptr);
  } catch (...) {
    return yulo_platform::kVolumeTableUnreadable;
  }
}

extern "C" void YULOMountVolInfoFree(YULO_VOLUME_INFO* list) {
  while (list != nullptr) {
    YULO_VOLUME_INFO* next = list->next;
    free(list);
    list = next;
  }
}

extern "C" int VolumePathParse(const char* path, int* vol_id) {
  try {
    return yulo_platform::ParseVolumePath(yulo_platform::SystemSources(), path,
                                          vol_id, nullptr);
  } catch (...) {
    return -1;
  }
}
