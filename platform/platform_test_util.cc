// platform_test_util.cc: scratch files for the platform library's tests.
#include "platform_test_util.h"

#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <vector>

namespace yulo_platform {
namespace testing {
namespace {

int RemoveOne(const char* path, const struct stat*, int, struct FTW*) {
  remove(path);
  return 0;
}

}  // namespace

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") +
      "/yuloplatform-test-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp " << pattern << " failed";
    return;
  }
  path_ = buf.data();
}

TempDir::~TempDir() {
  if (!path_.empty()) {
    // Depth first, without following symbolic links the tests create.
    nftw(path_.c_str(), RemoveOne, 16, FTW_DEPTH | FTW_PHYS);
  }
}

std::string TempDir::File(const std::string& name) const {
  return path_ + "/" + name;
}

std::string TempDir::Write(const std::string& name,
                           const std::string& contents) const {
  std::string path = File(name);
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    ADD_FAILURE() << "cannot create " << path;
    return path;
  }
  size_t done = 0;
  while (done < contents.size()) {
    ssize_t n = write(fd, contents.data() + done, contents.size() - done);
    if (n < 0) {
      ADD_FAILURE() << "cannot write " << path;
      break;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  return path;
}

}  // namespace testing
}  // namespace yulo_platform
