#include "platform/System.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

bool Random_Crypto(size_t len, void* buf) {
  if (len > INT_MAX) {
    return false;
  }
  return RAND_bytes(static_cast<unsigned char*>(buf), static_cast<int>(len)) == 1;
}

uint32_t Random_Fast() {
  // xorshift64*: fast and good enough for jitter and test data; never for secrets.
  thread_local uint64_t state = 0;
  while (state == 0) {
    if (!Random_Crypto(sizeof(state), &state)) {
      state = Hostinfo_SystemTimerNS() | 1;
    }
  }
  state ^= state >> 12;
  state ^= state << 25;
  state ^= state >> 27;
  return static_cast<uint32_t>((state * 0x2545F4914F6CDD1DULL) >> 32);
}

uint64_t Hostinfo_SystemTimerNS() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

void Hostinfo_GetTimeOfDay(int64_t* out_usec) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  *out_usec = static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

std::string Hostinfo_HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof(name) - 1) != 0) {
    return "";
  }
  return name;
}

void SSL_Init() {
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_ADD_ALL_CIPHERS |
                          OPENSSL_INIT_ADD_ALL_DIGESTS,
                      nullptr);
}

namespace Hearth {

std::string SysrootPath(const std::string& absolute_path) {
  const char* root = getenv("WITNESSD_SYSROOT");
  if (root == nullptr || *root == '\0' || absolute_path.empty() || absolute_path[0] != '/') {
    return absolute_path;
  }
  std::string prefix(root);
  while (!prefix.empty() && prefix.back() == '/') {
    prefix.pop_back();
  }
  return prefix + absolute_path;
}

uint16_t ServicePort(uint16_t default_port) {
  const char* text = getenv("WITNESSD_PORT");
  if (text == nullptr) {
    return default_port;
  }
  errno = 0;
  char* end = nullptr;
  long value = strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || errno != 0 || value < 1 || value > 65535) {
    throw std::runtime_error(std::string("WITNESSD_PORT '") + text +
                             "' is not a TCP port number (1-65535)");
  }
  return static_cast<uint16_t>(value);
}

}  // namespace Hearth
