// TempDir: a scratch directory for tests, removed with everything in it
// when the object goes away.
//
// Ownership: the object owns the directory. Thread-safety: none needed;
// tests create and destroy it on one thread.
#ifndef YULOTIFYD_BASE_TESTING_TEMP_DIR_H_
#define YULOTIFYD_BASE_TESTING_TEMP_DIR_H_

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

class TempDir {
 public:
  // Creates "<$TMPDIR or /tmp>/yulo-<tag>-XXXXXX"; a failure fails the
  // current test and leaves path() empty.
  explicit TempDir(const std::string& tag = "test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string File(const std::string& name) const;
  // Writes `contents` to File(name) (mode 0644, replacing it) and returns
  // that path; a failure fails the current test.
  std::string Write(const std::string& name, const std::string& contents) const;
  // Creates the directory File(name) (mode 0755) and any missing parents
  // below path(), and returns its path.
  std::string MakeDir(const std::string& name) const;
  // The whole content of File(name); "" when it cannot be read.
  std::string Read(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_BASE_TESTING_TEMP_DIR_H_
