// Builds tar archives byte by byte so each test can break exactly one field.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace Witnessd::Testing {

struct TarHeaderSpec {
  std::string name;
  std::string data;
  char type = '0';
  std::string magic = std::string("ustar  \0", 8);
  std::string mode = "0000644";
  std::string size;           // empty: octal of data.size(), 11 digits
  int checksum_delta = 0;     // added to the correct checksum
  char prefix_first = '\0';
  bool raw_name = false;      // name fills all 100 bytes without NUL
};

class TarBuilder {
 public:
  TarBuilder& Add(const TarHeaderSpec& entry) {
    uint8_t h[512] = {};
    memcpy(h, entry.name.data(), std::min<size_t>(entry.name.size(), 100));
    PutText(h + 100, entry.mode, 8);
    PutText(h + 108, "0001750", 8);
    PutText(h + 116, "0001750", 8);
    char size[16];
    snprintf(size, sizeof(size), "%011llo", static_cast<unsigned long long>(entry.data.size()));
    PutText(h + 124, entry.size.empty() ? size : entry.size, 12);
    PutText(h + 136, "14567123456", 12);
    h[156] = static_cast<uint8_t>(entry.type);
    memcpy(h + 257, entry.magic.data(), std::min<size_t>(entry.magic.size(), 8));
    h[345] = static_cast<uint8_t>(entry.prefix_first);
    memset(h + 148, ' ', 8);
    unsigned sum = 0;
    for (uint8_t b : h) {
      sum += b;
    }
    sum += entry.checksum_delta;
    char chk[8];
    snprintf(chk, sizeof(chk), "%06o", sum);
    memcpy(h + 148, chk, 7);  // six digits, NUL, then the blank left in place
    bytes_.insert(bytes_.end(), h, h + 512);
    bytes_.insert(bytes_.end(), entry.data.begin(), entry.data.end());
    bytes_.resize((bytes_.size() + 511) / 512 * 512, 0);
    return *this;
  }
  TarBuilder& AddFile(const std::string& name, const std::string& data) {
    TarHeaderSpec s;
    s.name = name;
    s.data = data;
    return Add(s);
  }
  TarBuilder& End(size_t zero_bytes = 1024) {
    bytes_.resize(bytes_.size() + zero_bytes, 0);
    return *this;
  }
  TarBuilder& Append(const std::string& raw) {
    bytes_.insert(bytes_.end(), raw.begin(), raw.end());
    return *this;
  }
  const std::vector<uint8_t>& Bytes() const { return bytes_; }

 private:
  static void PutText(uint8_t* field, const std::string& text, size_t width) {
    memcpy(field, text.data(), std::min(text.size(), width));
  }
  std::vector<uint8_t> bytes_;
};

}  // namespace Witnessd::Testing
