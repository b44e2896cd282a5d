// Where witnessctl and witnessd-agent find the daemon when their command
// line does not say: one set of defaults and environment variables for both.
#pragma once

#include <cstdint>
#include <string>

namespace Witnessd::Tools {

inline constexpr const char* kDefaultHost = "127.0.0.1";
inline constexpr uint16_t kDefaultPort = 7889;

// The variables as both tools' usage texts describe them.
inline constexpr const char* kDaemonAddressHelp =
    "The daemon is at --host, else 127.0.0.1, and --port, else WITNESSD_PORT, else 7889.\n";

struct DaemonAddress {
  std::string host = kDefaultHost;
  uint16_t port = kDefaultPort;
};

// ParsePort reads a TCP port number, 1 to 65535.
bool ParsePort(const std::string& text, uint16_t* out);

// DaemonAddressFromEnvironment gives the defaults, with the port from
// WITNESSD_PORT when it is set; false with |error| when that is not a port.
bool DaemonAddressFromEnvironment(DaemonAddress* out, std::string* error);

}  // namespace Witnessd::Tools
