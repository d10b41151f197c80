#include "yulotifyd/json_util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <sstream>

namespace YULO {
namespace YULOTIFYD {

namespace {

const Json::StreamWriterBuilder& SingleLineWriter() {
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return b;
  }();
  return builder;
}

bool ReadWholeFile(const std::string& path, std::string* out) {
  int fd;
  do {
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return false;
  out->clear();
  char buf[8192];
  bool ok = true;
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;
    out->append(buf, static_cast<size_t>(n));
  }
  const int saved = errno;
  close(fd);
  errno = saved;
  return ok;
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool fromString(const std::string& text, Json::Value& out) {
  // Building a reader is costly next to parsing one short line, and the
  // queue-file writer parses a head line for every event: keep one per
  // thread.
  thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  Json::Value parsed;
  std::string errors;
  bool ok = false;
  try {
    ok = reader->parse(text.data(), text.data() + text.size(), &parsed,
                       &errors);
  } catch (const std::exception&) {
    ok = false;  // e.g. nesting deeper than the reader allows
  }
  if (!ok) {
    out = Json::Value();
    return false;
  }
  out.swap(parsed);
  return true;
}

bool fromFile(const std::string& path, Json::Value& out) {
  std::string text;
  if (!ReadWholeFile(path, &text)) {
    out = Json::Value();
    return false;
  }
  return fromString(text, out);
}

bool toFile(const Json::Value& value, const std::string& path, unsigned mode) {
  const std::string text = toString(value) + "\n";
  std::string tmp = path + ".XXXXXX";
  int fd = mkostemp(&tmp[0], O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fchmod(fd, static_cast<mode_t>(mode)) == 0 && WriteAll(fd, text) &&
            fsync(fd) == 0;
  if (close(fd) != 0) ok = false;
  if (ok && rename(tmp.c_str(), path.c_str()) == 0) return true;
  const int saved = errno;
  unlink(tmp.c_str());
  errno = saved;
  return false;
}

std::string toString(const Json::Value& value) {
  return Json::writeString(SingleLineWriter(), value);
}

}  // namespace YULOTIFYD
}  // namespace YULO
