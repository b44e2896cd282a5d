// The daemon's composition root: start-up in a fixed order, the main loop, and
// the two exit paths (normal end and termination signal).
#pragma once

namespace Witnessd::Daemon {

inline constexpr const char* kSettingsPath = "/etc/quarro/cpservices/witnessd/config.xml";
inline constexpr int kDefaultPort = 7889;
// The "maxConnections" setting may not exceed this.
inline constexpr int kMaxConnectionsLimit = 65536;
// The most the "headerTimeoutSeconds" and "idleTimeoutSeconds" settings may
// be; both are at least 1.
inline constexpr int kMaxHeaderTimeoutSeconds = 300;
inline constexpr int kMaxIdleTimeoutSeconds = 3600;

// Main never returns: it ends the process with status 0 or 1.
[[noreturn]] int Main();

}  // namespace Witnessd::Daemon
