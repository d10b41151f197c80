// smb.conf: share parsing and share lookups, too-small buffers included.
//
// The target writes the fuzzed configuration to a scratch file and runs the
// platform library's parser on it (LoadShares, EnumShares), then looks every
// share up with GetSharePath: by its name and by its name in another letter
// case, into buffers of exactly the path's length (one byte short for the
// NUL) and one more, and looks up each line of the second part with a
// buffer of a fuzzed size. Buffers are heap blocks of exactly the size
// claimed, so a write past them is caught.
//
// Checks: every share has a trimmed, non-special name, names are unique
// ignoring case, and paths are clean absolute paths; EnumShares lists the
// same names in the same order; a lookup fills a buffer that is big enough
// with the share's path, answers -4 for one that is not, and on every
// failure leaves the buffer holding "".
//
// Input: the configuration, the separator line, lookup names (one a line;
// the first byte of each sets the buffer size).
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "fuzz/common/fuzz_support.h"
#include "platform_internal.h"

namespace yulo_platform {
namespace {

namespace fuzz = ::YULO::YULOTIFYD::fuzz;

std::string FlipCase(const std::string& s) {
  std::string out = s;
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') {
      c = static_cast<char>(c - 'a' + 'A');
    } else if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return out;
}

std::string Folded(const std::string& s) {
  std::string out = s;
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

// Looks `name` up into a heap buffer of exactly `size` bytes.
int Lookup(const std::string& conf, const std::string& name, int size,
           std::string* found) {
  std::unique_ptr<char[]> buf(new char[size > 0 ? size : 1]);
  std::memset(buf.get(), 'x', size > 0 ? size : 1);
  Complaints complaints;
  const int rc = GetSharePath(conf, name.c_str(), buf.get(), size, &complaints);
  if (size > 0) {
    FUZZ_CHECK(std::memchr(buf.get(), '\0', size) != nullptr,
               "buffer left without a NUL");
    if (rc != kShareOk) {
      FUZZ_CHECK(buf[0] == '\0', "failed lookup left text in the buffer");
    }
    *found = buf.get();
  }
  return rc;
}

}  // namespace
}  // namespace yulo_platform

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace yulo_platform;
  const std::vector<std::string_view> parts =
      fuzz::SplitParts(fuzz::AsText(data, size), 2);
  const std::string conf = fuzz::ScratchRoot() + "/smb.conf";
  fuzz::WriteFileOrDie(conf, parts[0]);

  std::vector<Share> shares;
  Complaints complaints;
  if (LoadShares(conf, &shares, &complaints) != 0) return 0;

  std::unordered_set<std::string> folded;
  for (const Share& share : shares) {
    FUZZ_CHECK(!share.name.empty() && !IsBlank(share.name.front()) &&
                   !IsBlank(share.name.back()),
               "share name [" + share.name + "]");
    FUZZ_CHECK(!IsSpecialSection(share.name), "special section " + share.name);
    FUZZ_CHECK(folded.insert(Folded(share.name)).second,
               "share listed twice: " + share.name);
    const std::string& path = share.path;
    FUZZ_CHECK(!path.empty() && path[0] == '/' &&
                   (path == "/" || path.back() != '/') &&
                   path.find("//") == std::string::npos,
               "share path " + path);
  }

  PYULO_SZ_LIST list = nullptr;
  const int listed = EnumShares(conf, &list, &complaints);
  FUZZ_CHECK(listed == static_cast<int>(shares.size()), "EnumShares count");
  for (int i = 0; i < listed; ++i) {
    // The list holds C strings: a name is listed up to a NUL it may hold.
    FUZZ_CHECK(std::string(shares[i].name.c_str()) == YULOSzListGet(list, i),
               "EnumShares order");
  }
  YULOSzListFree(list);

  for (const Share& share : shares) {
    // Names with a NUL cannot be asked for through the C interface, and a
    // path with one comes back cut there.
    if (share.name.find('\0') != std::string::npos ||
        share.path.find('\0') != std::string::npos) {
      continue;
    }
    const int exact = static_cast<int>(share.path.size()) + 1;
    std::string found;
    const std::string other_case = FlipCase(share.name);
    // A later share of the same name ignoring case cannot exist (checked
    // above), so both spellings find this one.
    for (const std::string& name : {share.name, other_case}) {
      FUZZ_CHECK(Lookup(conf, name, exact, &found) == kShareOk &&
                     found == share.path,
                 "lookup of " + name + " gave " + found);
      FUZZ_CHECK(Lookup(conf, name, exact - 1, &found) ==
                     (exact - 1 > 0 ? kShareBufferTooSmall : kShareBadArgument),
                 "lookup of " + name + " into a buffer one byte short");
    }
  }

  const std::vector<std::string_view> lines = fuzz::SplitLines(parts[1]);
  for (size_t i = 0; i < lines.size() && i < 32; ++i) {
    if (lines[i].empty()) continue;
    const int buf_size = static_cast<uint8_t>(lines[i][0]) % 80;
    const std::string name(lines[i].substr(1));
    std::string found;
    const int rc = Lookup(conf, name, buf_size, &found);
    FUZZ_CHECK(rc <= 0 && rc >= kShareNoMemory, "lookup result");
    if (rc == kShareOk) {
      FUZZ_CHECK(static_cast<int>(found.size()) < buf_size, "path overflow");
    }
  }
  return 0;
}
