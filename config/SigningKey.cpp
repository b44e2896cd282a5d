#include "config/SigningKey.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <stdexcept>

#include "config/Configuration.h"
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

}  // namespace

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
  HyvConfig::ConfigStoreObject object(MakeId(kKeyCertificate));
  try {
    object.SetValue("certificate", certificate);
    object.SetValue("private_key", key);
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
bool ReadStoredPair(HyvConfig::HyvConfigStore& store, std::string& out_key, std::string& out_certificate) {
  try {
    HyvConfig::ConfigStoreObjectPtr object = store.GetObject(MakeId(kKeyCertificate));
    if (object == nullptr) {
      return false;
    }
    object->GetValue("private_key", &out_key);
    object->GetValue("certificate", &out_certificate);
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
  if (!ReadStoredPair(*store_, key, certificate)) {
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
  SigningPkey pkey = ParsePrivateKey(key);
  if (pkey == nullptr) {
    Log_Level(kLogError, "The report signing private key does not parse\n");
  }
  auto pair = std::make_shared<SigningPair>();
  pair->key = std::move(key);
  pair->certificate = std::move(certificate);
  pair->pkey = std::move(pkey);
  std::lock_guard<std::mutex> lock(mutex_);
  current_ = std::move(pair);
}

std::shared_ptr<const SigningPair> SigningKeys::Current() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return current_;
}

}  // namespace Witnessd::Config
