#include "platform/Jwt.h"

#include <jansson.h>
#include <openssl/bio.h>
#include <openssl/ecdsa.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "platform/JsonParse.h"

namespace Hearth::Jwt {
namespace {

constexpr size_t kEs256PartLen = 32;

struct JsonDecref {
  void operator()(json_t* json) const { json_decref(json); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDecref>;
struct FreeDeleter {
  void operator()(char* p) const { free(p); }
};
struct OpensslFree {
  void operator()(void* p) const { OPENSSL_free(p); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct SigFree {
  void operator()(ECDSA_SIG* s) const { ECDSA_SIG_free(s); }
};

// The JOSE headers, as the compact sorted JSON every token carries.
constexpr std::string_view kRs256Header = R"({"alg":"RS256","typ":"JWT"})";
constexpr std::string_view kEs256Header = R"({"alg":"ES256","typ":"JWT"})";

// Base64Url encodes |data| in the URL-safe alphabet without padding.
std::string Base64Url(std::string_view data) {
  std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
  int len = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                            reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()));
  out.resize(static_cast<size_t>(len));
  while (!out.empty() && out.back() == '=') {
    out.pop_back();
  }
  std::replace(out.begin(), out.end(), '+', '-');
  std::replace(out.begin(), out.end(), '/', '_');
  return out;
}

bool Base64UrlDecode(std::string_view text, std::string* out) {
  out->clear();
  uint32_t acc = 0;
  int bits = 0;
  for (char c : text) {
    int d;
    if (c >= 'A' && c <= 'Z') d = c - 'A';
    else if (c >= 'a' && c <= 'z') d = c - 'a' + 26;
    else if (c >= '0' && c <= '9') d = c - '0' + 52;
    else if (c == '-') d = 62;
    else if (c == '_') d = 63;
    else return false;  // padding and the standard alphabet are not base64url
    acc = (acc << 6) | static_cast<uint32_t>(d);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out->push_back(static_cast<char>((acc >> bits) & 0xff));
    }
  }
  // A single leftover character carries fewer than 8 bits: not a valid length.
  return bits < 6 && (acc & ((1u << bits) - 1)) == 0;
}

// JoseToDer turns the 64-byte r||s of an ES256 signature into DER.
bool JoseToDer(const std::string& raw, std::string* der) {
  if (raw.size() != 2 * kEs256PartLen) {
    return false;
  }
  std::unique_ptr<ECDSA_SIG, SigFree> sig(ECDSA_SIG_new());
  BIGNUM* r = BN_bin2bn(reinterpret_cast<const unsigned char*>(raw.data()), kEs256PartLen, nullptr);
  BIGNUM* s = BN_bin2bn(reinterpret_cast<const unsigned char*>(raw.data()) + kEs256PartLen, kEs256PartLen, nullptr);
  if (!sig || r == nullptr || s == nullptr || ECDSA_SIG_set0(sig.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return false;
  }
  unsigned char* buf = nullptr;
  int len = i2d_ECDSA_SIG(sig.get(), &buf);
  if (len <= 0) {
    return false;
  }
  std::unique_ptr<unsigned char, OpensslFree> owned(buf);
  der->assign(reinterpret_cast<char*>(buf), static_cast<size_t>(len));
  return true;
}

// DerToJose turns a DER ECDSA signature into the 64 bytes r||s of ES256.
bool DerToJose(const std::string& der, std::string* raw) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
  std::unique_ptr<ECDSA_SIG, SigFree> sig(d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(der.size())));
  if (!sig) {
    return false;
  }
  std::string out(2 * kEs256PartLen, '\0');
  unsigned char* bytes = reinterpret_cast<unsigned char*>(out.data());
  if (BN_bn2binpad(ECDSA_SIG_get0_r(sig.get()), bytes, kEs256PartLen) < 0 ||
      BN_bn2binpad(ECDSA_SIG_get0_s(sig.get()), bytes + kEs256PartLen, kEs256PartLen) < 0) {
    return false;
  }
  *raw = std::move(out);
  return true;
}

bool IsBase64Url(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
  });
}

// RsaPublicParts reads the modulus and public exponent of the RSA key |key|
// as base64url big-endian bytes.
bool RsaPublicParts(EVP_PKEY* key, std::string* n, std::string* e) {
  BIGNUM* bn_n = nullptr;
  BIGNUM* bn_e = nullptr;
  bool ok = key != nullptr && EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA &&
            EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &bn_n) == 1 &&
            EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &bn_e) == 1;
  auto bytes = [](const BIGNUM* bn) {
    std::string out(static_cast<size_t>(BN_num_bytes(bn)), '\0');
    BN_bn2bin(bn, reinterpret_cast<unsigned char*>(out.data()));
    return Base64Url(out);
  };
  if (ok) {
    *n = bytes(bn_n);
    *e = bytes(bn_e);
  }
  BN_free(bn_n);
  BN_free(bn_e);
  ERR_clear_error();
  return ok;
}

bool IsP256(EVP_PKEY* key) {
  char name[64] = {0};
  size_t len = 0;
  return EVP_PKEY_get_group_name(key, name, sizeof(name), &len) == 1 && std::string(name) == "prime256v1";
}

// SignSha256 signs |input| with SHA-256 by |key| (PKCS#1 v1.5 for RSA, DER
// for EC).
bool SignSha256(EVP_PKEY* key, const std::string& input, std::string& out_signature) {
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  size_t len = 0;
  bool ok = ctx != nullptr && EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
            EVP_DigestSign(ctx.get(), nullptr, &len, nullptr, 0) == 1;
  std::string signature(len, '\0');
  ok = ok && EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &len,
                            reinterpret_cast<const unsigned char*>(input.data()), input.size()) == 1;
  ERR_clear_error();
  if (!ok) {
    return false;
  }
  signature.resize(len);
  out_signature = std::move(signature);
  return true;
}

bool VerifySha256(EVP_PKEY* key, const std::string& signed_part, const std::string& sig) {
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
    return false;
  }
  return EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(sig.data()), sig.size(),
                          reinterpret_cast<const unsigned char*>(signed_part.data()), signed_part.size()) == 1;
}

}  // namespace

void KeyFree::operator()(EVP_PKEY* key) const {
  EVP_PKEY_free(key);
}

KeyPtr PrivateKeyFromPem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  KeyPtr key(PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr));
  BIO_free(bio);
  return key;
}

std::optional<Alg> AlgFor(EVP_PKEY* key) {
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) {
    return Alg::kRs256;
  }
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_EC && IsP256(key)) {
    return Alg::kEs256;
  }
  return std::nullopt;
}

Claims::Claims() : json_(json_object()) {}

Claims::~Claims() {
  json_decref(json_);
}

bool Claims::SetInt(const char* name, int64_t value) {
  return json_ != nullptr && json_object_set_new(json_, name, json_integer(value)) == 0;
}

bool Claims::SetString(const char* name, const std::string& value) {
  return json_ != nullptr && json_object_set_new(json_, name, json_string(value.c_str())) == 0;
}

bool Claims::SetStrings(const char* name, const std::vector<std::string>& values) {
  JsonPtr array(json_array());
  for (const std::string& v : values) {
    if (array == nullptr || json_array_append_new(array.get(), json_string(v.c_str())) != 0) {
      return false;
    }
  }
  return json_ != nullptr && array != nullptr && json_object_set(json_, name, array.get()) == 0;
}

bool Claims::Merge(const nlohmann::json& object) {
  JsonPtr parsed(json_loads(object.dump().c_str(), JSON_REJECT_DUPLICATES, nullptr));
  return json_ != nullptr && parsed != nullptr && json_object_update(json_, parsed.get()) == 0;
}

std::string Claims::Compact(const char* name) const {
  json_t* value = json_ != nullptr ? json_object_get(json_, name) : nullptr;
  std::unique_ptr<char, FreeDeleter> text(value != nullptr ? json_dumps(value, JSON_COMPACT) : nullptr);
  return text != nullptr ? text.get() : "";
}

std::optional<std::string> Sign(EVP_PKEY* key, Alg alg, const Claims& claims, KeyOrder order,
                                std::string_view kid) {
  if (claims.json_ == nullptr || key == nullptr || !IsBase64Url(kid)) {
    return std::nullopt;
  }
  std::unique_ptr<char, FreeDeleter> payload(
      json_dumps(claims.json_, JSON_COMPACT | (order == KeyOrder::kSorted ? JSON_SORT_KEYS : 0)));
  if (payload == nullptr) {
    return std::nullopt;
  }
  std::string_view header = alg == Alg::kEs256 ? kEs256Header : kRs256Header;
  std::string with_kid;
  if (!kid.empty()) {  // {"alg":"..." then ,"kid":"..." then ,"typ":"JWT"}: still sorted
    size_t after_alg = header.find(',');
    with_kid = std::string(header.substr(0, after_alg)) + ",\"kid\":\"" + std::string(kid) + "\"" +
               std::string(header.substr(after_alg));
    header = with_kid;
  }
  std::string token = Base64Url(header) + "." + Base64Url(payload.get());
  std::string signature;
  if (!SignSha256(key, token, signature) || (alg == Alg::kEs256 && !DerToJose(signature, &signature))) {
    return std::nullopt;
  }
  return token + "." + Base64Url(signature);
}

std::optional<std::string> Thumbprint(EVP_PKEY* key) {
  std::string n, e;
  if (!RsaPublicParts(key, &n, &e)) {
    return std::nullopt;
  }
  // The required members in lexical order, no white space.
  std::string canonical = R"({"e":")" + e + R"(","kty":"RSA","n":")" + n + R"("})";
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(canonical.data(), canonical.size(), digest, &len, EVP_sha256(), nullptr) != 1) {
    return std::nullopt;
  }
  return Base64Url(std::string_view(reinterpret_cast<const char*>(digest), len));
}

std::optional<nlohmann::json> PublicJwk(EVP_PKEY* key) {
  std::string n, e;
  std::optional<std::string> kid = Thumbprint(key);
  if (!kid || !RsaPublicParts(key, &n, &e)) {
    return std::nullopt;
  }
  return nlohmann::json{{"kty", "RSA"}, {"n", n}, {"e", e}, {"kid", *kid}, {"alg", "RS256"}, {"use", "sig"}};
}

KeyPtr PublicKeyFromJwk(const nlohmann::json& jwk) {
  constexpr int kMinBits = 2048;
  constexpr int kMaxBits = 8192;
  auto member = [&](const char* name) -> std::string {
    auto it = jwk.is_object() ? jwk.find(name) : jwk.end();
    return jwk.is_object() && it != jwk.end() && it->is_string() ? it->get<std::string>() : "";
  };
  std::string n, e;
  if (member("kty") != "RSA" || !Base64UrlDecode(member("n"), &n) || !Base64UrlDecode(member("e"), &e) ||
      n.empty() || e.empty() || e.size() > 8) {
    return nullptr;
  }
  std::unique_ptr<BIGNUM, decltype(&BN_free)> bn_n(
      BN_bin2bn(reinterpret_cast<const unsigned char*>(n.data()), static_cast<int>(n.size()), nullptr), BN_free);
  std::unique_ptr<BIGNUM, decltype(&BN_free)> bn_e(
      BN_bin2bn(reinterpret_cast<const unsigned char*>(e.data()), static_cast<int>(e.size()), nullptr), BN_free);
  if (!bn_n || !bn_e || BN_num_bits(bn_n.get()) < kMinBits || BN_num_bits(bn_n.get()) > kMaxBits) {
    return nullptr;
  }
  std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> build(OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
  std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> params(nullptr, OSSL_PARAM_free);
  if (build == nullptr || OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, bn_n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, bn_e.get()) != 1) {
    return nullptr;
  }
  params.reset(OSSL_PARAM_BLD_to_param(build.get()));
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr),
                                                                  EVP_PKEY_CTX_free);
  EVP_PKEY* key = nullptr;
  if (params == nullptr || ctx == nullptr || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    ERR_clear_error();
    return nullptr;
  }
  return KeyPtr(key);
}

std::optional<Decoded> Decode(const std::string& token) {
  Decoded decoded;
  Decoded* out = &decoded;
  size_t dot1 = token.find('.');
  size_t dot2 = dot1 == std::string::npos ? std::string::npos : token.find('.', dot1 + 1);
  if (dot2 == std::string::npos || token.find('.', dot2 + 1) != std::string::npos) {
    return std::nullopt;
  }
  std::string_view text(token);
  std::string header_text, payload_text;
  if (!Base64UrlDecode(text.substr(0, dot1), &header_text) ||
      !Base64UrlDecode(text.substr(dot1 + 1, dot2 - dot1 - 1), &payload_text) ||
      !Base64UrlDecode(text.substr(dot2 + 1), &out->signature)) {
    return std::nullopt;
  }
  out->header = ParseJson(header_text);
  out->claims = ParseJson(payload_text);
  if (!out->header.is_object() || !out->claims.is_object()) {
    return std::nullopt;
  }
  out->signing_input = token.substr(0, dot2);
  return decoded;
}

std::optional<Alg> AcceptedAlg(const Decoded& token) {
  auto alg = token.header.find("alg");
  if (alg == token.header.end() || !alg->is_string() || token.header.contains("crit")) {
    return std::nullopt;
  }
  if (*alg == "ES256") {
    return Alg::kEs256;
  }
  if (*alg == "RS256") {
    return Alg::kRs256;
  }
  return std::nullopt;
}

bool VerifySignature(const Decoded& token, Alg alg, EVP_PKEY* key) {
  int id = EVP_PKEY_get_base_id(key);
  bool usable = alg == Alg::kEs256 ? id == EVP_PKEY_EC && IsP256(key) : id == EVP_PKEY_RSA;
  std::string der;
  bool verified = usable && (alg == Alg::kRs256 || JoseToDer(token.signature, &der)) &&
                  VerifySha256(key, token.signing_input, alg == Alg::kEs256 ? der : token.signature);
  ERR_clear_error();
  return verified;
}

}  // namespace Hearth::Jwt
