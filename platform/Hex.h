// Lower-case hexadecimal text of byte strings: the one encoder every layer
// uses for digests in logs, tokens, configuration and comparisons.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Hearth {

inline constexpr char kHexDigits[] = "0123456789abcdef";

// HexEncode writes the 2 * |len| lower-case hex digits of |data| to |out|,
// then a NUL; |out| holds at least 2 * |len| + 1 characters.
inline void HexEncode(const void* data, size_t len, char* out) {
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < len; ++i) {
    out[2 * i] = kHexDigits[bytes[i] >> 4];
    out[2 * i + 1] = kHexDigits[bytes[i] & 0x0f];
  }
  out[2 * len] = '\0';
}

// HexString returns the lower-case hex digits of |data|.
inline std::string HexString(const void* data, size_t len) {
  std::string out(2 * len, '\0');
  HexEncode(data, len, out.data());  // writes the NUL into the string's terminator slot
  return out;
}

}  // namespace Hearth
