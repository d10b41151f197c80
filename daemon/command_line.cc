#include "daemon/command_line.h"

#include <cstring>

#include "yulo_build_config.h"

namespace YULO {
namespace YULOTIFYD {

namespace {

const char kHelp[] =
    "usage: yulotifyd\n"
    "       yulotifyd --help | --version\n"
    "\n"
    "The file-change notification daemon. It is run by the service manager\n"
    "(yulotifyd.service) and takes no arguments: it watches the data\n"
    "volumes of the volume table " YULO_VOLUME_TABLE_PATH "\n"
    "and appends the changes the monitor queues under\n"
    YULOTIFYD_CONF_DIR "/{system,app,user}.d ask for to their\n"
    "queue files. It reports readiness to the service manager, logs to\n"
    "syslog, is driven over " YULOTIFYD_SOCKET_PATH " (see yulotifyctl(1)),\n"
    "reloads on SIGHUP and stops on SIGTERM or SIGINT. Only one runs at a\n"
    "time.\n"
    "\n"
    "  --help     this text\n"
    "  --version  the daemon's version\n"
    "\n"
    "See yulotifyd(8) and yulotifyd-queues(5).\n";

}  // namespace

CommandLineAction ParseDaemonCommandLine(int argc, const char* const* argv,
                                         std::FILE* out, std::FILE* err) {
  if (argc <= 1) return CommandLineAction::kRun;
  const char* arg = argv[1];
  if (argc == 2 && (std::strcmp(arg, "--help") == 0 ||
                    std::strcmp(arg, "-h") == 0)) {
    std::fputs(kHelp, out);
    return CommandLineAction::kExitOk;
  }
  if (argc == 2 && std::strcmp(arg, "--version") == 0) {
    std::fprintf(out, "yulotifyd %s\n", YULOTIFYD_VERSION);
    return CommandLineAction::kExitOk;
  }
  std::fprintf(err,
               "yulotifyd: takes no arguments, not \"%s\" (see yulotifyd "
               "--help); nothing was started\n",
               arg);
  return CommandLineAction::kExitUsage;
}

}  // namespace YULOTIFYD
}  // namespace YULO
