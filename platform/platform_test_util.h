// platform_test_util.h: scratch files for the platform library's tests.
#ifndef YULO_PLATFORM_TEST_UTIL_H_
#define YULO_PLATFORM_TEST_UTIL_H_

#include <string>

namespace yulo_platform {
namespace testing {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string File(const std::string& name) const;
  // Writes `contents` to File(name) and returns that path. Fails the test
  // on error.
  std::string Write(const std::string& name, const std::string& contents) const;

 private:
  std::string path_;
};

}  // namespace testing
}  // namespace yulo_platform

#endif  // YULO_PLATFORM_TEST_UTIL_H_
