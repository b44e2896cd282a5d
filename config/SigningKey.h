// The report-signing key pair: made once on the first start, kept in the
// "certificate" record and held in memory by the SigningKeys object the
// daemon builds.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "config/Configuration.h"

typedef struct evp_pkey_st EVP_PKEY;

namespace Witnessd::Config {

// The parsed report-signing private key, shared by every token signed with
// it; a new pair replaces the pointer, never the key it points to.
using SigningPkey = std::shared_ptr<EVP_PKEY>;

// The pair as held in memory; replaced whole, never changed.
struct SigningPair {
  std::string key;          // PEM
  std::string certificate;  // PEM
  SigningPkey pkey;         // |key| parsed once; null when it does not parse
};

class SigningKeys {
 public:
  explicit SigningKeys(Store store);

  // Ensure loads the stored pair into memory, generating and storing one
  // first only when no record exists. A record that cannot be read (store
  // failure, malformed record) throws std::runtime_error naming the problem
  // and is left as it is; the daemon then ends its start with status 1.
  // Failing to generate or save a new pair, or a stored key without its
  // certificate, stops the process.
  void Ensure();

  // Current is the pair in memory: empty texts and a null key before Ensure.
  std::shared_ptr<const SigningPair> Current() const;

  // Save writes the pair into the "certificate" record; false when the store
  // fails. Memory changes only through Ensure.
  bool Save(const std::string& certificate, const std::string& key);

 private:
  Store store_;
  mutable std::mutex mutex_;
  std::shared_ptr<const SigningPair> current_;  // guarded by mutex_
};

// ReadConfigValue reads string field |field| of the record (key, component,
// group) of |store|. False when the record is absent or the store fails (the
// failure is logged).
bool ReadConfigValue(HyvConfig::HyvConfigStore& store, const std::string& key, const std::string& component,
                     const std::string& group, const std::string& field, std::string& out_value);

}  // namespace Witnessd::Config
