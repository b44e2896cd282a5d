// The report-signing key pair: made once on the first start, kept in the
// "certificate" record and held in memory by the SigningKeys object the
// daemon builds.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "config/Configuration.h"

typedef struct evp_pkey_st EVP_PKEY;

namespace Witnessd::Config {

// The parsed report-signing private key, shared by every token signed with
// it; a new pair replaces the pointer, never the key it points to.
using SigningPkey = std::shared_ptr<EVP_PKEY>;

// How long a replaced key stays published: the longest validity of the
// tokens it signed when no longer validity is configured.
inline constexpr int64_t kRetiredKeyPublishedSeconds = 8 * 3600;

// The pair as held in memory; replaced whole, never changed.
struct SigningPair {
  std::string key;          // PEM
  std::string certificate;  // PEM
  SigningPkey pkey;         // |key| parsed once; null when it does not parse
  // More parses of |key|, for signing: OpenSSL takes a lock of the key for
  // each signature and shares one blinding among all but its first thread,
  // so threads that sign at once each take their own copy (SignerKey).
  std::vector<SigningPkey> signing_copies;
  std::string kid;          // the key's RFC 7638 thumbprint; empty when |pkey| is null
  std::string jwk;          // the public key as a JWK (compact JSON); empty when |pkey| is null
  // The key this one replaced, as a JWK, and when it was replaced (seconds
  // since the epoch); empty and 0 when there is none.
  std::string previous_jwk;
  int64_t previous_retired_at = 0;

  // SignerKey is the copy of |pkey| the calling thread signs with; null
  // when |pkey| is.
  EVP_PKEY* SignerKey() const;
};

// How many parses of the signing key threads sign with.
inline constexpr size_t kSigningKeyCopies = 8;

// JwkSetText is the JWK Set relying parties verify tokens with: the current
// key, and the previous one while tokens it signed may still be valid at
// |now|: for |published_seconds| after its replacement.
std::string JwkSetText(const SigningPair& pair, int64_t now,
                       int64_t published_seconds = kRetiredKeyPublishedSeconds);

// What Replace made of a new pair.
enum class ReplaceResult { kReplaced, kInvalid, kStoreFailed };

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
  // fails. Memory changes only through Ensure and Replace.
  bool Save(const std::string& certificate, const std::string& key);

  // Replace makes the one certificate of |certificate| (PEM) and the
  // private key of |key| (PEM, RSA of 2048 to 8192 bits, the certificate's
  // key) the signing pair, each stored on its own, first in the store and
  // then in memory. |certificate| and |key| may be the same text. The pair it replaces stays published in the JWK Set for
  // the tokens' validity after |now| (JwkSetText), across restarts. kInvalid (and
  // |why|) when the pair is not usable; nothing changes then or when the
  // store fails.
  ReplaceResult Replace(const std::string& certificate, const std::string& key, int64_t now, std::string* why);

 private:
  bool Write(const std::string& certificate, const std::string& key, const std::string& previous_certificate,
             int64_t previous_retired_at);
  void Publish(std::string key, std::string certificate, const std::string& previous_certificate,
               int64_t previous_retired_at);

  Store store_;
  std::mutex writer_;  // serialises Replace
  mutable std::mutex mutex_;
  std::shared_ptr<const SigningPair> current_;  // guarded by mutex_
};

// ReadConfigValue reads string field |field| of the record (key, component,
// group) of |store|. False when the record is absent or the store fails (the
// failure is logged).
bool ReadConfigValue(HyvConfig::HyvConfigStore& store, const std::string& key, const std::string& component,
                     const std::string& group, const std::string& field, std::string& out_value);

}  // namespace Witnessd::Config
