// witnessd: the attestation daemon. It takes no arguments; everything comes
// from the settings file and the configuration store.
#include "daemon/Daemon.h"

int main() {
  return Witnessd::Daemon::Main();
}
