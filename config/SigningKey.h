// The report-signing key pair: made once on the first start, kept in the
// "certificate" record and held in memory, guarded by the configuration lock.
#pragma once

#include <memory>
#include <string>

typedef struct evp_pkey_st EVP_PKEY;

namespace Witnessd::Config {

// The parsed report-signing private key, shared by every token signed with
// it; a new pair replaces the pointer, never the key it points to.
using SigningPkey = std::shared_ptr<EVP_PKEY>;

// EnsureSigningKey loads the stored pair into memory, generating and storing
// one first only when no record exists. A record that cannot be read (store
// failure, malformed record) throws std::runtime_error naming the problem and
// is left as it is; the daemon then ends its start with status 1. Failing to
// generate or save a new pair, or a stored key without its certificate,
// stops the process.
void EnsureSigningKey();

// GetSigningKey and GetSigningCertificate copy the PEM held in memory; false
// while it is empty (before EnsureSigningKey has run).
bool GetSigningKey(std::string& out_key);
bool GetSigningCertificate(std::string& out_certificate);
// GetSigningPkey returns the key held in memory, parsed once when the pair
// was loaded; null while there is none.
SigningPkey GetSigningPkey();

// SaveSigningKey writes the pair into the "certificate" record; false when the
// store fails.
bool SaveSigningKey(const std::string& certificate, const std::string& key);

// ReadConfigValue reads string field |field| of the record (key, component,
// group) under the configuration lock held shared. False when the record is
// absent or the store fails (the failure is logged).
bool ReadConfigValue(const std::string& key, const std::string& component, const std::string& group,
                     const std::string& field, std::string& out_value);

// ResetSigningKeyForTesting empties the pair held in memory.
void ResetSigningKeyForTesting();

}  // namespace Witnessd::Config
