#include "base/testing/temp_dir.h"

#include <ftw.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "base/errno_text.h"
#include "base/file_io.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

namespace {

int RemoveOne(const char* path, const struct stat*, int, struct FTW*) {
  ::remove(path);
  return 0;
}

}  // namespace

TempDir::TempDir(const std::string& tag) {
  const char* base = getenv("TMPDIR");
  const std::string pattern =
      std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") +
      "/yulo-" + tag + "-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp " << pattern << ": " << ErrnoText(errno);
    return;
  }
  path_ = buf.data();
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  // Depth first, without following the symbolic links tests create; a
  // directory a test made unreadable is given back first.
  chmod(path_.c_str(), 0700);
  nftw(path_.c_str(), RemoveOne, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempDir::File(const std::string& name) const {
  return path_ + "/" + name;
}

std::string TempDir::Write(const std::string& name,
                           const std::string& contents) const {
  const std::string path = File(name);
  if (!WriteWholeFile(path, contents, 0644)) {
    ADD_FAILURE() << "cannot write " << path << ": " << ErrnoText(errno);
  }
  return path;
}

std::string TempDir::MakeDir(const std::string& name) const {
  for (size_t slash = name.find('/'); slash != std::string::npos;
       slash = name.find('/', slash + 1)) {
    const std::string parent = File(name.substr(0, slash));
    if (::mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) {
      ADD_FAILURE() << "mkdir " << parent << ": " << ErrnoText(errno);
    }
  }
  const std::string path = File(name);
  if (::mkdir(path.c_str(), 0755) != 0) {
    ADD_FAILURE() << "mkdir " << path << ": " << ErrnoText(errno);
  }
  return path;
}

std::string TempDir::Read(const std::string& name) const {
  std::string text;
  ReadWholeFile(File(name), kNoReadLimit, &text);
  return text;
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
