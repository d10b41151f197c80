// What every fuzz target needs: cutting one input into the pieces a target
// feeds to different parsers, scratch files on tmpfs, and a check that
// crashes (so libFuzzer keeps the input) with a message saying what broke.
//
// Inputs. Text targets cut their input into parts at kPartSeparator, a
// line that no configuration file or path of ours is likely to hold, so a
// seed stays readable: a volume table, the separator, a mount table, and so
// on. Binary targets read small numbers and byte strings off the front with
// ByteReader, which never fails: past the end it hands out zeros and empty
// strings, so every input means something.
//
// Thread-safety: none; a fuzz target runs one input at a time.
#ifndef YULOTIFYD_FUZZ_COMMON_FUZZ_SUPPORT_H_
#define YULOTIFYD_FUZZ_COMMON_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace fuzz {

// The line between two parts of a text input.
constexpr std::string_view kPartSeparator = "\n--8<--\n";

// Cuts `input` at each kPartSeparator into at most `max_parts` parts (the
// last one keeps any further separators). Missing parts are empty, so the
// result always has `max_parts` entries.
std::vector<std::string_view> SplitParts(std::string_view input,
                                         size_t max_parts);

// The lines of `text` without their "\n"; a last line without one counts.
std::vector<std::string_view> SplitLines(std::string_view text);

std::string_view AsText(const uint8_t* data, size_t size);

// Reads little-endian numbers and byte strings from the front of an input.
class ByteReader {
 public:
  explicit ByteReader(std::string_view input) : rest_(input) {}

  uint8_t U8();
  uint16_t U16();
  uint32_t U32();
  // Up to `n` bytes (fewer at the end).
  std::string_view Bytes(size_t n);
  // A string of at most `max` bytes whose length is the next byte.
  std::string_view ShortString(size_t max = 255);
  // Everything not read yet.
  std::string_view Rest();
  size_t left() const { return rest_.size(); }

 private:
  std::string_view rest_;
};

// A directory for this process's scratch files, on tmpfs when /dev/shm is
// there, made on first use and removed with its contents at exit.
const std::string& ScratchRoot();

// Replaces the file at `path` with `bytes`; crashes when it cannot.
void WriteFileOrDie(const std::string& path, std::string_view bytes);

// Makes `path` (one level) unless it exists; crashes when it cannot.
void MakeDirOrDie(const std::string& path);

// Reports a broken expectation of a target and aborts, which libFuzzer
// records as a crash with the input that caused it.
[[noreturn]] void CheckFailed(const char* file, int line, const char* what,
                              const std::string& detail);

}  // namespace fuzz
}  // namespace YULOTIFYD
}  // namespace YULO

// Stops the run when `cond` is false; `detail` (a std::string expression)
// is printed with the condition.
#define FUZZ_CHECK(cond, detail)                                         \
  do {                                                                   \
    if (!(cond)) {                                                       \
      ::YULO::YULOTIFYD::fuzz::CheckFailed(__FILE__, __LINE__, #cond,    \
                                           std::string(detail));         \
    }                                                                    \
  } while (0)

#endif  // YULOTIFYD_FUZZ_COMMON_FUZZ_SUPPORT_H_
