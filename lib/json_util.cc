#include "yulotifyd/json_util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <memory>
#include <sstream>

#include "base/file_io.h"

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
  const int err = ReadWholeFile(path, kNoReadLimit, &text);
  if (err != 0) {
    out = Json::Value();
    errno = err;
    return false;
  }
  return fromString(text, out);
}

bool toFile(const Json::Value& value, const std::string& path, unsigned mode) {
  const std::string text = toString(value) + "\n";
  std::string tmp = path + ".XXXXXX";
  int fd = mkostemp(&tmp[0], O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fchmod(fd, static_cast<mode_t>(mode)) == 0 &&
            WriteAll(fd, text.data(), text.size()) && FsyncRetrying(fd);
  // Kept by hand rather than in a UniqueFd: a failing close can be the
  // first report of a lost write, and then the file must not replace the
  // old one.
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
