// Bounded cursor over untrusted bytes: the one reader every parser of wire
// and log formats uses (TPM structures are big-endian, firmware event logs
// little-endian). Every read compares the length it needs with what is left
// before touching the bytes; a failed read leaves the cursor unchanged.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Hearth {

class ByteCursor {
 public:
  ByteCursor() = default;
  // A null |data| is an empty input, whatever |len| says.
  ByteCursor(const uint8_t* data, size_t len) : data_(data), remaining_(data != nullptr ? len : 0) {}

  // Bytes points |out| at the next |n| bytes and moves past them.
  bool Bytes(size_t n, const uint8_t** out) {
    if (remaining_ < n) {
      return false;
    }
    *out = data_;
    data_ += n;
    remaining_ -= n;
    consumed_ += n;
    return true;
  }
  // Sub is a cursor over the next |n| bytes; this one moves past them.
  bool Sub(size_t n, ByteCursor* out) {
    const uint8_t* p;
    if (!Bytes(n, &p)) {
      return false;
    }
    *out = ByteCursor(p, n);
    return true;
  }

  bool U8(uint8_t* out) { return Read<1>(out, false); }
  bool U16Be(uint16_t* out) { return Read<2>(out, true); }
  bool U32Be(uint32_t* out) { return Read<4>(out, true); }
  bool U64Be(uint64_t* out) { return Read<8>(out, true); }
  bool U16Le(uint16_t* out) { return Read<2>(out, false); }
  bool U32Le(uint32_t* out) { return Read<4>(out, false); }

  size_t Remaining() const { return remaining_; }
  size_t Consumed() const { return consumed_; }

 private:
  template <size_t N, typename T>
  bool Read(T* out, bool big_endian) {
    static_assert(sizeof(T) == N);
    const uint8_t* p;
    if (!Bytes(N, &p)) {
      return false;
    }
    T v = 0;
    for (size_t i = 0; i < N; ++i) {
      v = static_cast<T>(v | T{p[big_endian ? N - 1 - i : i]} << (8 * i));
    }
    *out = v;
    return true;
  }

  const uint8_t* data_ = nullptr;
  size_t remaining_ = 0;
  size_t consumed_ = 0;
};

}  // namespace Hearth
