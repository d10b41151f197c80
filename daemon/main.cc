#include <cstdio>

#include "daemon/command_line.h"
#include "daemon/daemon.h"

int main(int argc, char** argv) {
  using YULO::YULOTIFYD::CommandLineAction;
  switch (YULO::YULOTIFYD::ParseDaemonCommandLine(argc, argv, stdout, stderr)) {
    case CommandLineAction::kExitOk:
      return 0;
    case CommandLineAction::kExitUsage:
      return YULO::YULOTIFYD::kDaemonExitUsage;
    case CommandLineAction::kRun:
      break;
  }
  YULO::YULOTIFYD::Daemon daemon;
  return daemon.Run();
}
