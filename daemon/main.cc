#include "daemon/daemon.h"

int main() {
  YULO::YULOTIFYD::Daemon daemon;
  daemon.Run();
  return 0;
}
