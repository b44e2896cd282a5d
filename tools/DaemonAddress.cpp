#include "tools/DaemonAddress.h"

#include <cerrno>
#include <cstdlib>

namespace Witnessd::Tools {

bool ParsePort(const std::string& text, uint16_t* out) {
  errno = 0;
  char* end = nullptr;
  long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || v < 1 || v > 65535) {
    return false;
  }
  *out = static_cast<uint16_t>(v);
  return true;
}

bool DaemonAddressFromEnvironment(DaemonAddress* out, std::string* error) {
  *out = DaemonAddress();
  if (const char* env = std::getenv("WITNESSD_PORT"); env != nullptr && !ParsePort(env, &out->port)) {
    *error = std::string("WITNESSD_PORT is not a port: ") + env;
    return false;
  }
  return true;
}

}  // namespace Witnessd::Tools
