#include "daemon/daemon.h"

int main() {
  YULO::YULOTIFYD::Daemon daemon;
  return daemon.Run();
}
