// Whole-file reads and whole-buffer writes over plain descriptors, with
// EINTR and short transfers handled, so callers see one result per call.
//
// Every descriptor opened here is O_CLOEXEC and closed before returning.
// Thread-safety: any thread; nothing is shared.
#ifndef YULOTIFYD_BASE_FILE_IO_H_
#define YULOTIFYD_BASE_FILE_IO_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace YULO {
namespace YULOTIFYD {

// No limit for ReadWholeFile.
constexpr size_t kNoReadLimit = SIZE_MAX;

// Replaces *out with the whole content of `path`. Returns 0, or an errno
// value: that of open/read, or EFBIG when the file holds more than
// `max_bytes` (nothing beyond max_bytes + 64 KiB is read). *out is empty on
// failure.
int ReadWholeFile(const std::string& path, size_t max_bytes, std::string* out);

// Replaces the content of `path` (created with `mode` if missing) with
// `data`. False with errno set on failure.
bool WriteWholeFile(const std::string& path, const std::string& data,
                    mode_t mode);

// The same from an open descriptor, from its position to the end of the
// file. The descriptor stays open.
int ReadToEnd(int fd, size_t max_bytes, std::string* out);

// Replaces *out with up to `count` bytes read from `offset` on (pread),
// fewer only where the file ends. The descriptor's position is left alone.
// Returns 0 or the errno of the failed read (*out is then empty).
int ReadAt(int fd, off_t offset, size_t count, std::string* out);

// Writes all `size` bytes at the descriptor's position. False with errno
// set when write fails; a write that takes nothing counts as EIO.
bool WriteAll(int fd, const char* data, size_t size);

// The same at `offset` (pwrite), leaving the descriptor's position alone.
bool WriteAllAt(int fd, const char* data, size_t size, off_t offset);

// fsync(fd), repeated when interrupted.
bool FsyncRetrying(int fd);

}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_FILE_IO_H_
