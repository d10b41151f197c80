// mount_table.cc: which directories are mount points right now.
//
// A volume table entry only counts while its mount point is mounted, so a
// volume that is unplugged or failed to mount never reaches the daemon. The
// kernel's list (/proc/mounts) is read afresh on every question.
#include "base/mount_field.h"
#include "platform_internal.h"

namespace yulo_platform {
namespace {

constexpr char kStem[] = "mount_table";

}  // namespace

int ReadMountPoints(const std::string& mounts_path,
                    std::unordered_set<std::string>* out,
                    Complaints* complaints) {
  out->clear();
  LineReader reader;
  int err = reader.Open(mounts_path);
  if (err != 0) {
    YULO_COMPLAIN(complaints, "cannot open %s: %s", mounts_path.c_str(),
                  ErrnoText(err).c_str());
    return err;
  }
  std::string line;
  bool overlong;
  while (reader.Next(&line, &overlong)) {
    // A cut line would yield a wrong mount point; the kernel never writes
    // lines anywhere near the limit, so just leave it out.
    if (overlong) continue;
    const std::string_view field = ::YULO::YULOTIFYD::MountTableField(line, 1);
    if (field.empty()) continue;
    out->insert(NormalisePath(::YULO::YULOTIFYD::DecodeMountField(
        field, ::YULO::YULOTIFYD::BadEscape::kKeep)));
  }
  if (reader.error() != 0) {
    YULO_COMPLAIN(complaints, "cannot read %s: %s", mounts_path.c_str(),
                  ErrnoText(reader.error()).c_str());
    out->clear();
    return reader.error();
  }
  return 0;
}

}  // namespace yulo_platform
