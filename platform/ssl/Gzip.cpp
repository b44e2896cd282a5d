#include <zlib.h>

#include <memory>

#include "platform/ssl/SslUtils.h"

namespace Orm::Common {
namespace {

constexpr int kGzipWindowBits = 31;  // 15 bits of window, gzip wrapper
constexpr size_t kChunk = 64 * 1024;

struct DeflateEnd {
  void operator()(z_stream* s) const { deflateEnd(s); }
};
struct InflateEnd {
  void operator()(z_stream* s) const { inflateEnd(s); }
};

}  // namespace

bool Gzip::CompressFromString(const std::string& text, std::vector<uint8_t>& out) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    return false;
  }
  std::unique_ptr<z_stream, DeflateEnd> guard(&stream);
  std::vector<uint8_t> result(deflateBound(&stream, text.size()));
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = result.data();
  stream.avail_out = static_cast<uInt>(result.size());
  if (text.size() != stream.avail_in || deflate(&stream, Z_FINISH) != Z_STREAM_END) {
    return false;
  }
  result.resize(stream.total_out);
  out = std::move(result);
  return true;
}

bool Gzip::DecompressToString(const std::vector<uint8_t>& in, std::string& out) {
  return Decompress(in.data(), in.size(), out).stage == Stage::kDone;
}

Gzip::Outcome Gzip::Decompress(const uint8_t* data, size_t size, std::string& out) {
  if (size == 0) {
    return {Stage::kEmptyInput, Z_OK};
  }
  if (size > UINT32_MAX) {
    return {Stage::kInflate, Z_MEM_ERROR};
  }
  z_stream stream{};
  int rc = inflateInit2(&stream, kGzipWindowBits);
  if (rc != Z_OK) {
    return {Stage::kInit, rc};
  }
  std::unique_ptr<z_stream, InflateEnd> guard(&stream);
  stream.next_in = const_cast<Bytef*>(data);
  stream.avail_in = static_cast<uInt>(size);
  std::string result;
  while (rc != Z_STREAM_END) {
    size_t have = result.size();
    if (have >= kMaxDecompressedBytes) {
      return {Stage::kInflate, Z_MEM_ERROR};
    }
    result.resize(have + kChunk);
    stream.next_out = reinterpret_cast<Bytef*>(result.data() + have);
    stream.avail_out = kChunk;
    rc = inflate(&stream, Z_NO_FLUSH);
    result.resize(have + kChunk - stream.avail_out);
    if (rc != Z_OK && rc != Z_STREAM_END) {
      return {Stage::kInflate, rc};  // corrupt data, or Z_BUF_ERROR: the input ends early
    }
  }
  if (stream.avail_in != 0) {
    return {Stage::kInflate, Z_DATA_ERROR};  // bytes after the gzip member
  }
  out = std::move(result);
  return {Stage::kDone, Z_OK};
}

}  // namespace Orm::Common
