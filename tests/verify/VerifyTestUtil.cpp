#include "tests/verify/VerifyTestUtil.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace Witnessd::VerifyTest {
namespace v = Witnessd::Verify;
namespace {

void Put16(Bytes* out, uint16_t x) {
  out->push_back(static_cast<uint8_t>(x >> 8));
  out->push_back(static_cast<uint8_t>(x));
}
void Put32(Bytes* out, uint32_t x) {
  Put16(out, static_cast<uint16_t>(x >> 16));
  Put16(out, static_cast<uint16_t>(x));
}
void Put64(Bytes* out, uint64_t x) {
  Put32(out, static_cast<uint32_t>(x >> 32));
  Put32(out, static_cast<uint32_t>(x));
}
void PutSized(Bytes* out, const Bytes& b) {
  Put16(out, static_cast<uint16_t>(b.size()));
  out->insert(out->end(), b.begin(), b.end());
}

EVP_PKEY* AkKey() {
  static EVP_PKEY* key = EVP_RSA_gen(2048);
  return key;
}

Bytes Modulus() {
  BIGNUM* n = nullptr;
  if (EVP_PKEY_get_bn_param(AkKey(), OSSL_PKEY_PARAM_RSA_N, &n) != 1) {
    throw std::runtime_error("no modulus");
  }
  Bytes out(256);
  BN_bn2binpad(n, out.data(), 256);
  BN_free(n);
  return out;
}

const EVP_MD* Md(uint16_t alg) {
  switch (alg) {
    case v::kTpmAlgSha1: return EVP_sha1();
    case v::kTpmAlgSha384: return EVP_sha384();
    case v::kTpmAlgSha512: return EVP_sha512();
    default: return EVP_sha256();
  }
}

Bytes Sign(const Bytes& message, uint16_t alg) {
  const EVP_MD* md = Md(alg);
  uint8_t digest[64];
  unsigned int digest_len = 0;
  EVP_Digest(message.data(), message.size(), digest, &digest_len, md, nullptr);
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(AkKey(), nullptr);
  size_t sig_len = 512;
  Bytes sig(sig_len);
  if (EVP_PKEY_sign_init(ctx) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_CTX_set_signature_md(ctx, md) != 1 ||
      EVP_PKEY_sign(ctx, sig.data(), &sig_len, digest, digest_len) != 1) {
    EVP_PKEY_CTX_free(ctx);
    throw std::runtime_error("signing failed");
  }
  EVP_PKEY_CTX_free(ctx);
  sig.resize(sig_len);
  return sig;
}

}  // namespace

Bytes Base64(const std::string& text) {
  Bytes out(text.size() / 4 * 3 + 3);
  int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  if (n < 0) {
    throw std::runtime_error("bad base64");
  }
  size_t pad = 0;
  for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i) ++pad;
  out.resize(static_cast<size_t>(n) - pad);
  return out;
}

Bytes WithSize(const Bytes& body) {
  Bytes out;
  PutSized(&out, body);
  return out;
}

Bytes ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot read " + path);
  }
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::string Pair(v::VerifyStatus s) {
  return "{" + std::to_string(v::StatusCategory(s)) + ", " + std::to_string(v::StatusCode(s)) + "}";
}

void QuoteBuilder::Build(bool keep_pcrs) {
  if (!keep_pcrs) {
    for (uint32_t bank = 0; bank < v::kNumPcrBanks; ++bank) {
      for (uint32_t pcr = 0; pcr < v::kNumPcrs; ++pcr) {
        for (uint32_t i = 0; i < v::kPcrSlotBytes; ++i) {
          evidence->pcrs[bank][pcr][i] = static_cast<uint8_t>(bank * 31 + pcr * 7 + i);
        }
      }
    }
  }

  // AK: TPM2B_PUBLIC of an RSA restricted signing key, written by hand so
  // that out-of-range fields can be made.
  Bytes area;
  Put16(&area, ak_type);
  Put16(&area, v::kTpmAlgSha256);           // nameAlg
  Put32(&area, 0x00050072);                 // objectAttributes
  Put16(&area, 0);                          // authPolicy
  Put16(&area, v::kTpmAlgNull);             // symmetric
  Put16(&area, v::kTpmAlgRsassa);           // scheme
  Put16(&area, v::kTpmAlgSha256);
  Put16(&area, 2048);                       // keyBits
  Put32(&area, exponent_field);
  PutSized(&area, modulus_override.empty() ? Modulus() : modulus_override);
  ak_public = WithSize(area);

  // PCR values in selection order, digested with the signer's name hash.
  Bytes values;
  for (const auto& s : selections) {
    uint32_t bank = v::PcrBankIndex(s.hash);
    uint16_t size = v::HashDigestSize(s.hash);
    for (uint32_t pcr = 0; pcr < s.sizeofSelect * 8u && pcr < v::kNumPcrs && bank < v::kNumPcrBanks; ++pcr) {
      if (v::IsPcrSelected(s.pcrSelect, pcr)) {
        values.insert(values.end(), evidence->pcrs[bank][pcr], evidence->pcrs[bank][pcr] + size);
      }
    }
  }
  Bytes digest(64);
  uint16_t digest_size = v::HashDigestSize(signer_name_alg);
  if (digest_size == 0) {
    digest_size = 32;
  } else {
    v::HashBuffer(digest.data(), signer_name_alg, values.data(), static_cast<uint16_t>(values.size()));
  }
  digest.resize(digest_size - digest_trim);
  if (pcr_value_flip) {
    evidence->pcrs[v::PcrBankIndex(selections[0].hash)][8][0] ^= 0x01;
  }

  Bytes attest;
  Put32(&attest, magic);
  Put16(&attest, attest_type);
  Bytes name;
  Put16(&name, signer_name_alg);
  name.resize(34, 0x4e);
  PutSized(&attest, name);            // qualifiedSigner
  PutSized(&attest, embedded_nonce);  // extraData
  Put64(&attest, 123456789);          // clock
  Put32(&attest, 3);                  // resetCount
  Put32(&attest, 1);                  // restartCount
  attest.push_back(1);                // safe
  Put64(&attest, 0x2000000000000);    // firmwareVersion
  Put32(&attest, static_cast<uint32_t>(selections.size()));
  for (const auto& s : selections) {
    Put16(&attest, s.hash);
    attest.push_back(s.sizeofSelect);
    attest.insert(attest.end(), s.pcrSelect, s.pcrSelect + s.sizeofSelect);
  }
  PutSized(&attest, digest);
  quote = WithSize(attest);

  Bytes sig = Sign(attest, sig_hash);
  if (corrupt_signature) {
    sig[100] ^= 0x01;
  }
  signature.clear();
  Put16(&signature, sig_alg);
  Put16(&signature, sig_hash);
  PutSized(&signature, sig);

  evidence->quote = {quote.size(), quote.data()};
  evidence->signature = {signature.size(), signature.data()};
}

}  // namespace Witnessd::VerifyTest
