#include "daemon/command_line.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace YULO {
namespace YULOTIFYD {
namespace {

struct Outcome {
  CommandLineAction action;
  std::string out;
  std::string err;
};

Outcome Parse(std::vector<const char*> args) {
  args.insert(args.begin(), "yulotifyd");
  char* out_text = nullptr;
  char* err_text = nullptr;
  size_t out_size = 0;
  size_t err_size = 0;
  std::FILE* out = open_memstream(&out_text, &out_size);
  std::FILE* err = open_memstream(&err_text, &err_size);
  const CommandLineAction action = ParseDaemonCommandLine(
      static_cast<int>(args.size()), args.data(), out, err);
  std::fclose(out);
  std::fclose(err);
  Outcome outcome{action, out_text, err_text};
  free(out_text);
  free(err_text);
  return outcome;
}

TEST(DaemonCommandLineTest, NoArgumentsRuns) {
  const Outcome o = Parse({});
  EXPECT_EQ(o.action, CommandLineAction::kRun);
  EXPECT_EQ(o.out, "");
  EXPECT_EQ(o.err, "");
}

TEST(DaemonCommandLineTest, HelpAndVersionAnswerAndEnd) {
  for (const char* help : {"--help", "-h"}) {
    const Outcome o = Parse({help});
    EXPECT_EQ(o.action, CommandLineAction::kExitOk);
    EXPECT_EQ(o.out.rfind("usage: yulotifyd\n", 0), 0u) << o.out;
    EXPECT_EQ(o.err, "");
  }
  const Outcome v = Parse({"--version"});
  EXPECT_EQ(v.action, CommandLineAction::kExitOk);
  EXPECT_EQ(v.out.rfind("yulotifyd ", 0), 0u);
  EXPECT_EQ(v.out.back(), '\n');
}

TEST(DaemonCommandLineTest, AnythingElseIsRefusedWithoutRunning) {
  for (const std::vector<const char*>& args :
       std::vector<std::vector<const char*>>{
           {"-d"}, {"start"}, {"--version", "x"}, {"--help", "--version"}}) {
    const Outcome o = Parse(args);
    EXPECT_EQ(o.action, CommandLineAction::kExitUsage) << args[0];
    EXPECT_EQ(o.out, "");
    EXPECT_NE(o.err.find("takes no arguments"), std::string::npos) << o.err;
  }
}

}  // namespace
}  // namespace YULOTIFYD
}  // namespace YULO
