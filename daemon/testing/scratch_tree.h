// ScratchTree: a temporary directory for one test, removed with everything
// in it when the object goes.
#ifndef YULOTIFYD_DAEMON_TESTING_SCRATCH_TREE_H_
#define YULOTIFYD_DAEMON_TESTING_SCRATCH_TREE_H_

#include <string>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

class ScratchTree {
 public:
  ScratchTree();
  ~ScratchTree();
  ScratchTree(const ScratchTree&) = delete;
  ScratchTree& operator=(const ScratchTree&) = delete;

  const std::string& path() const { return path_; }
  // `name` inside the directory.
  std::string Path(const std::string& name) const;
  // Makes directory `name` (and its parents) inside the directory.
  void MakeDir(const std::string& name) const;
  // Writes `text` to `name` (replacing it) and closes it.
  void Write(const std::string& name, const std::string& text) const;
  // The whole of file `name`; "" when it cannot be read.
  std::string Read(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO

#endif  // YULOTIFYD_DAEMON_TESTING_SCRATCH_TREE_H_
