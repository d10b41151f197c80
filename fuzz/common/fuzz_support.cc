#include "fuzz/common/fuzz_support.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/file_io.h"

namespace YULO {
namespace YULOTIFYD {
namespace fuzz {

namespace {

std::string* g_scratch_root = nullptr;

int RemoveOne(const char* path, const struct stat*, int, struct FTW*) {
  remove(path);
  return 0;
}

void RemoveScratchRoot() {
  if (g_scratch_root != nullptr && !g_scratch_root->empty()) {
    // Depth first, without following any link a target made.
    nftw(g_scratch_root->c_str(), RemoveOne, 16, FTW_DEPTH | FTW_PHYS);
  }
}

}  // namespace

std::vector<std::string_view> SplitParts(std::string_view input,
                                         size_t max_parts) {
  std::vector<std::string_view> parts;
  while (parts.size() + 1 < max_parts) {
    const size_t at = input.find(kPartSeparator);
    if (at == std::string_view::npos) break;
    parts.push_back(input.substr(0, at));
    input.remove_prefix(at + kPartSeparator.size());
  }
  parts.push_back(input);
  parts.resize(max_parts);
  return parts;
}

std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    if (nl == std::string_view::npos) {
      lines.push_back(text);
      break;
    }
    lines.push_back(text.substr(0, nl));
    text.remove_prefix(nl + 1);
  }
  return lines;
}

std::string_view AsText(const uint8_t* data, size_t size) {
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

uint8_t ByteReader::U8() {
  if (rest_.empty()) return 0;
  const uint8_t b = static_cast<uint8_t>(rest_[0]);
  rest_.remove_prefix(1);
  return b;
}

uint16_t ByteReader::U16() {
  const uint16_t lo = U8();
  return static_cast<uint16_t>(lo | (U8() << 8));
}

uint32_t ByteReader::U32() {
  const uint32_t lo = U16();
  return lo | (static_cast<uint32_t>(U16()) << 16);
}

std::string_view ByteReader::Bytes(size_t n) {
  const std::string_view out = rest_.substr(0, n);
  rest_.remove_prefix(out.size());
  return out;
}

std::string_view ByteReader::ShortString(size_t max) {
  const size_t n = U8();
  return Bytes(n < max ? n : max);
}

std::string_view ByteReader::Rest() {
  const std::string_view out = rest_;
  rest_ = std::string_view();
  return out;
}

const std::string& ScratchRoot() {
  if (g_scratch_root == nullptr) {
    // tmpfs keeps the per-input file writes off the disk.
    const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : nullptr;
    if (base == nullptr) base = getenv("TMPDIR");
    if (base == nullptr || base[0] == '\0') base = "/tmp";
    std::string pattern = std::string(base) + "/yulotifyd-fuzz-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
      CheckFailed(__FILE__, __LINE__, "mkdtemp",
                  pattern + ": " + std::strerror(errno));
    }
    g_scratch_root = new std::string(pattern);
    atexit(RemoveScratchRoot);
  }
  return *g_scratch_root;
}

void WriteFileOrDie(const std::string& path, std::string_view bytes) {
  if (!WriteWholeFile(path, std::string(bytes), 0600)) {
    CheckFailed(__FILE__, __LINE__, "write",
                path + ": " + std::strerror(errno));
  }
}

void MakeDirOrDie(const std::string& path) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    CheckFailed(__FILE__, __LINE__, "mkdir",
                path + ": " + std::strerror(errno));
  }
}

void CheckFailed(const char* file, int line, const char* what,
                 const std::string& detail) {
  fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
  if (!detail.empty()) fprintf(stderr, "  %s\n", detail.c_str());
  fflush(stderr);
  abort();
}

}  // namespace fuzz
}  // namespace YULOTIFYD
}  // namespace YULO
