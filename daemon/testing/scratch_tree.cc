#include "daemon/testing/scratch_tree.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace YULO {
namespace YULOTIFYD {
namespace testing {

ScratchTree::ScratchTree() {
  char pattern[] = "/tmp/yulo-daemon-test-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
  path_ = pattern;
}

ScratchTree::~ScratchTree() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ScratchTree::Path(const std::string& name) const {
  return path_ + "/" + name;
}

void ScratchTree::MakeDir(const std::string& name) const {
  std::filesystem::create_directories(Path(name));
}

void ScratchTree::Write(const std::string& name, const std::string& text) const {
  std::ofstream out(Path(name), std::ios::trunc | std::ios::binary);
  out << text;
}

std::string ScratchTree::Read(const std::string& name) const {
  std::ifstream in(Path(name), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
