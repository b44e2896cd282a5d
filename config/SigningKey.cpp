#include "config/SigningKey.h"

#include <functional>
#include <thread>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "config/Configuration.h"
#include "platform/Jwt.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config {
namespace {

using HostCtl::Lib::HostCtlException;
using Orm::Common::SslUtils;

static constexpr const char* kSourcePath = "apps/witnessd/config/configuration";
// The assertion lines tell the three fatal causes apart in the log; they are
// fixed numbers rather than __LINE__ so that moving code keeps them.
constexpr int kLineGenerateFailed = 362;
constexpr int kLineSaveFailed = 366;
constexpr int kLineCertificateUnreadable = 373;

[[noreturn]] void Stop(int line) {
  Panic("NOT_IMPLEMENTED %s:%d\n", kSourcePath, line);
}

// ParsePrivateKey parses |pem| once, so that signing a token needs no PEM
// decoding and reuses the key's blinding state; null when it does not parse.
SigningPkey ParsePrivateKey(const std::string& pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
  EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
  ERR_clear_error();
  return key != nullptr ? SigningPkey(key, EVP_PKEY_free) : nullptr;
}

// The record's fields for the key a replacement retired.
constexpr const char* kPreviousCertificateField = "previous_certificate";
constexpr const char* kPreviousRetiredAtField = "previous_retired_at";
constexpr int kMinRsaBits = 2048;
constexpr int kMaxRsaBits = 8192;

using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;

// ParseCertificate reads the one certificate of |pem|: null when |pem| holds
// none, or more than one.
X509Ptr ParseCertificate(const std::string& pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
  X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr, X509_free);
  X509Ptr second(cert ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr, X509_free);
  ERR_clear_error();
  return second == nullptr ? std::move(cert) : X509Ptr(nullptr, X509_free);
}

std::string BioText(BIO* bio) {
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  return len > 0 ? std::string(data, static_cast<size_t>(len)) : "";
}

std::string CertificatePem(X509* cert) {
  std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
  bool ok = out != nullptr && PEM_write_bio_X509(out.get(), cert) == 1;
  return ok ? BioText(out.get()) : "";
}

std::string PrivateKeyPem(EVP_PKEY* key) {
  std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
  bool ok = out != nullptr && PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  return ok ? BioText(out.get()) : "";
}

// CertificateJwk is the public key of the certificate |pem| as a compact
// JWK; empty when it has no RSA key.
std::string CertificateJwk(const std::string& pem) {
  X509Ptr cert = ParseCertificate(pem);
  std::optional<nlohmann::json> jwk = cert ? Hearth::Jwt::PublicJwk(X509_get0_pubkey(cert.get())) : std::nullopt;
  return jwk ? jwk->dump() : "";
}

}  // namespace

std::string JwkSetText(const SigningPair& pair, int64_t now, int64_t published_seconds) {
  std::string keys;
  if (!pair.jwk.empty()) {
    keys = pair.jwk;
  }
  if (!pair.previous_jwk.empty() && now < pair.previous_retired_at + published_seconds) {
    keys += (keys.empty() ? "" : ",") + pair.previous_jwk;
  }
  return "{\"keys\":[" + keys + "]}";
}

bool ReadConfigValue(HyvConfig::HyvConfigStore& store, const std::string& key, const std::string& component,
                     const std::string& group, const std::string& field, std::string& out_value) {
  try {
    HyvConfig::ConfigStoreObjectPtr object = store.GetObject(HyvConfig::ConfigStoreObjectId(key, component, group));
    if (object == nullptr) {
      return false;
    }
    object->GetValue(field, &out_value);
    return true;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading %s of %s from configstore: %s\n", field.c_str(), key.c_str(), e.what());
    return false;
  }
}

SigningKeys::SigningKeys(Store store) : store_(std::move(store)), current_(std::make_shared<SigningPair>()) {}

bool SigningKeys::Save(const std::string& certificate, const std::string& key) {
  return Write(certificate, key, "", 0);
}

bool SigningKeys::Write(const std::string& certificate, const std::string& key, const std::string& previous_certificate,
                        int64_t previous_retired_at) {
  HyvConfig::ConfigStoreObject object(MakeId(kKeyCertificate));
  try {
    object.SetValue("certificate", certificate);
    object.SetValue("private_key", key);
    if (!previous_certificate.empty()) {
      object.SetValue(kPreviousCertificateField, previous_certificate);
      object.SetValue(kPreviousRetiredAtField, std::to_string(previous_retired_at));
    }
    int status = 0;
    store_->SetObject(object, status);
    return true;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception writing the report signing key to configstore: %s\n", e.what());
    return false;
  }
}

namespace {

// ReadStoredPair reads the "certificate" record. False when no such record
// exists. Any other problem (the store fails or is busy, the record is
// malformed or holds no key) throws std::runtime_error naming it: only a
// missing record may lead to a new pair, never one that could not be read.
bool ReadStoredPair(HyvConfig::HyvConfigStore& store, std::string& out_key, std::string& out_certificate,
                    std::string& out_previous_certificate, int64_t& out_previous_retired_at) {
  try {
    HyvConfig::ConfigStoreObjectPtr object = store.GetObject(MakeId(kKeyCertificate));
    if (object == nullptr) {
      return false;
    }
    object->GetValue("private_key", &out_key);
    object->GetValue("certificate", &out_certificate);
    if (object->HasValue(kPreviousCertificateField)) {
      std::string retired_at;
      object->GetValue(kPreviousCertificateField, &out_previous_certificate);
      object->GetValue(kPreviousRetiredAtField, &retired_at);
      // A retirement time that does not read ends the key's publication.
      out_previous_retired_at = std::strtoll(retired_at.c_str(), nullptr, 10);
    }
  } catch (const HostCtlException& e) {
    throw std::runtime_error(std::string("cannot read the report signing key from configstore: ") + e.what());
  }
  if (out_key.empty()) {
    throw std::runtime_error("the stored report signing key record holds no private key");
  }
  return true;
}

}  // namespace

void SigningKeys::Ensure() {
  std::string key;
  std::string certificate;
  std::string previous_certificate;
  int64_t previous_retired_at = 0;
  if (!ReadStoredPair(*store_, key, certificate, previous_certificate, previous_retired_at)) {
    Log_Level(kLogInfo, "Generating private key and certificate\n");
    if (!SslUtils::GenerateKeyAndCert(key, certificate)) {
      Log_Level(kLogError, "Error while generating attestation key and certificate\n");
      Stop(kLineGenerateFailed);
    }
    if (!Save(certificate, key)) {
      Log_Level(kLogError, "Error while saving attestation key and certificate\n");
      Stop(kLineSaveFailed);
    }
  } else {
    Log_Level(kLogVerbose, "Existing report signing private key available\n");
    // A stored key without its certificate is a fatal inconsistency.
    if (certificate.empty()) {
      Stop(kLineCertificateUnreadable);
    }
  }
  Publish(std::move(key), std::move(certificate), previous_certificate, previous_retired_at);
}

void SigningKeys::Publish(std::string key, std::string certificate, const std::string& previous_certificate,
                          int64_t previous_retired_at) {
  SigningPkey pkey = ParsePrivateKey(key);
  if (pkey == nullptr) {
    Log_Level(kLogError, "The report signing private key does not parse\n");
  }
  auto pair = std::make_shared<SigningPair>();
  pair->key = std::move(key);
  pair->certificate = std::move(certificate);
  if (pkey != nullptr) {
    std::optional<nlohmann::json> jwk = Hearth::Jwt::PublicJwk(pkey.get());
    pair->kid = jwk ? (*jwk)["kid"].get<std::string>() : "";
    pair->jwk = jwk ? jwk->dump() : "";
  }
  for (size_t i = 0; pkey != nullptr && i < kSigningKeyCopies; i++) {
    SigningPkey copy = ParsePrivateKey(pair->key);
    pair->signing_copies.push_back(copy != nullptr ? std::move(copy) : pkey);
  }
  pair->pkey = std::move(pkey);
  pair->previous_jwk = previous_certificate.empty() ? "" : CertificateJwk(previous_certificate);
  pair->previous_retired_at = previous_retired_at;
  std::lock_guard<std::mutex> lock(mutex_);
  current_ = std::move(pair);
}

ReplaceResult SigningKeys::Replace(const std::string& certificate, const std::string& key, int64_t now,
                                   std::string* why) {
  SigningPkey pkey = ParsePrivateKey(key);
  X509Ptr cert = ParseCertificate(certificate);
  if (pkey == nullptr || EVP_PKEY_get_base_id(pkey.get()) != EVP_PKEY_RSA) {
    *why = "the text holds no RSA private key";
    return ReplaceResult::kInvalid;
  }
  if (EVP_PKEY_get_bits(pkey.get()) < kMinRsaBits || EVP_PKEY_get_bits(pkey.get()) > kMaxRsaBits) {
    *why = "the private key is not of 2048 to 8192 bits";
    return ReplaceResult::kInvalid;
  }
  if (cert == nullptr) {
    *why = "the text holds no certificate, or more than one";
    return ReplaceResult::kInvalid;
  }
  if (EVP_PKEY_eq(X509_get0_pubkey(cert.get()), pkey.get()) != 1) {
    ERR_clear_error();
    *why = "the certificate is not the private key's";
    return ReplaceResult::kInvalid;
  }
  // Each is stored re-encoded on its own: the text may hold both, and the
  // certificate is public while the key is not.
  std::string certificate_pem = CertificatePem(cert.get());
  std::string key_pem = PrivateKeyPem(pkey.get());
  if (certificate_pem.empty() || key_pem.empty()) {
    *why = "the pair cannot be encoded";
    return ReplaceResult::kInvalid;
  }
  std::lock_guard<std::mutex> writer(writer_);
  std::shared_ptr<const SigningPair> old = Current();
  if (old->pkey != nullptr && EVP_PKEY_eq(old->pkey.get(), pkey.get()) == 1) {
    *why = "the private key is the one in use";
    return ReplaceResult::kInvalid;
  }
  if (!Write(certificate_pem, key_pem, old->certificate, now)) {
    return ReplaceResult::kStoreFailed;
  }
  Publish(std::move(key_pem), std::move(certificate_pem), old->certificate, now);
  return ReplaceResult::kReplaced;
}

EVP_PKEY* SigningPair::SignerKey() const {
  if (signing_copies.empty()) {
    return pkey.get();
  }
  // A thread's id hashes to an aligned address: its bits are mixed so that
  // threads spread over the copies.
  uint64_t thread = std::hash<std::thread::id>()(std::this_thread::get_id());
  return signing_copies[((thread * 0x9E3779B97F4A7C15ull) >> 32) % signing_copies.size()].get();
}

std::shared_ptr<const SigningPair> SigningKeys::Current() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return current_;
}

}  // namespace Witnessd::Config
