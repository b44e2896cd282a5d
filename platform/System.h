// Small platform services: randomness, clocks, host name, process-wide
// initialisation hooks and the sysroot-aware path and port helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Random_Crypto fills |buf| with |len| bytes from the OpenSSL CSPRNG. Returns
// false when the generator fails; |buf| is then unspecified.
bool Random_Crypto(size_t len, void* buf);

// Random_Fast returns a fast, non-cryptographic 32-bit value from a per-thread
// generator seeded from Random_Crypto.
uint32_t Random_Fast();

// Monotonic nanoseconds since an arbitrary start.
uint64_t Hostinfo_SystemTimerNS();

// Microseconds since the Unix epoch.
void Hostinfo_GetTimeOfDay(int64_t* out_usec);

// Hostinfo_HostName returns the host name, or an empty text when it is unknown.
std::string Hostinfo_HostName();

// Process-wide OpenSSL initialisation: error strings, ciphers and digests.
void SSL_Init();

namespace Hearth {

// SysrootPath prefixes an absolute path with $WITNESSD_SYSROOT when it is set,
// so tests and local runs never touch the host's /etc, /usr or /var.
std::string SysrootPath(const std::string& absolute_path);

// ServicePort returns $WITNESSD_PORT when set, otherwise |default_port|.
// Throws std::runtime_error when the variable is not a port number 1-65535.
uint16_t ServicePort(uint16_t default_port);

}  // namespace Hearth
