#include "forward/option_text.h"

#include <cstdlib>

#include "base/path.h"

namespace YULO {
namespace YULOTIFYD {
namespace FORWARD {

namespace {

std::string Trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

}  // namespace

bool ApplyKeyValueLines(const std::string& text, const std::string& origin,
                        const OptionSetter& set, std::string* error) {
  size_t pos = 0;
  int number = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    const std::string line = Trim(text.substr(pos, nl - pos));
    pos = nl + 1;
    ++number;
    if (line.empty() || line[0] == '#') continue;
    const size_t eq = line.find('=');
    std::string why = "expected key=value";
    if (eq != std::string::npos &&
        set(Trim(line.substr(0, eq)), Trim(line.substr(eq + 1)), &why)) {
      continue;
    }
    *error = origin + ":" + std::to_string(number) + ": " + why;
    return false;
  }
  return true;
}

bool WalkCommandLine(
    int argc, const char* const* argv,
    const std::function<bool(const std::string& path, std::string* error)>&
        apply_config,
    const OptionSetter& set, const std::string& operand_key,
    const std::string& operand_name, CommandLine* out, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      out->help = true;
      return true;
    }
    if (arg == "--version") {
      out->version = true;
      return true;
    }
  }
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string path;
    if (arg == "--config") {
      if (i + 1 >= argc) {
        *error = "--config needs a value";
        return false;
      }
      path = argv[++i];
    } else if (arg.rfind("--config=", 0) == 0) {
      path = arg.substr(9);
    } else {
      continue;
    }
    if (!apply_config(path, error)) return false;
  }
  std::vector<std::string> operands;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      operands.push_back(arg);
      continue;
    }
    std::string key = arg.substr(2);
    std::string value;
    const size_t eq = key.find('=');
    if (eq != std::string::npos) {
      value = key.substr(eq + 1);
      key.resize(eq);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      *error = arg + " needs a value";
      return false;
    }
    if (key == "config") continue;  // applied above
    if (!set(key, value, error)) {
      if (error->rfind("unknown option", 0) == 0) {
        *error = "unknown option --" + key;
      }
      return false;
    }
  }
  if (operands.size() > 1) {
    *error = "expects one " + operand_name;
    return false;
  }
  return operands.empty() || set(operand_key, operands[0], error);
}

bool IsPlainAbsolute(const std::string& path) {
  return !path.empty() && path[0] == '/' && !HasDotDotComponent(path);
}

bool ParseCount(const std::string& text, int low, int high, int* out) {
  if (text.empty() || text.size() > 9 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const long v = std::strtol(text.c_str(), nullptr, 10);
  if (v < low || v > high) return false;
  *out = static_cast<int>(v);
  return true;
}

SetResult SetRunAsOption(const std::string& key, const std::string& value,
                         std::string* user,
                         std::vector<std::string>* hidden_dirs,
                         std::string* error) {
  if (key == "user") {
    if (value.empty() || value.find_first_of(" \t/:") != std::string::npos) {
      *error = "user wants a user name";
      return SetResult::kBad;
    }
    *user = value;
    return SetResult::kSet;
  }
  if (key != "hidden-dirs") return SetResult::kUnknown;
  hidden_dirs->clear();
  for (const std::string& dir : SplitCommaList(value)) {
    if (!IsPlainAbsolute(dir)) {
      *error = "hidden-dirs wants absolute directories without \"..\"";
      return SetResult::kBad;
    }
    hidden_dirs->push_back(NormalisePath(dir));
  }
  return SetResult::kSet;
}

}  // namespace FORWARD
}  // namespace YULOTIFYD
}  // namespace YULO
