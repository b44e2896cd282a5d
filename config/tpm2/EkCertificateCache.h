// What presented EK certificates showed when checked, kept so that a host's
// certificate is parsed and verified once, not on every call of its session:
// the public key and whether it chains to the CA trust store it was checked
// against. Bounded by size; parsed certificates are never kept or shared.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

#include "platform/ssl/SslUtils.h"

#include "config/tpm2/EkId.h"

namespace Witnessd::Config::Tpm2 {

// The largest EK certificate taken, in DER bytes; real ones are a few KiB.
inline constexpr size_t kMaxEkCertificateBytes = 16 * 1024;

// CheckEkCertificate parses the certificate |pem| and verifies it against
// |cas| (a null |cas| checks no chain), without any cache: nullopt when
// |pem| is not one certificate of at most kMaxEkCertificateBytes with a
// readable key; text too long for that is refused before it is decoded.
std::optional<Orm::Common::EkCertCheck> CheckEkCertificate(const std::string& pem, const Orm::Common::TrustStore& cas);

class EkCertificateCache {
 public:
  static constexpr size_t kDefaultMaxBytes = 4u << 20;

  // |max_bytes| bounds the memory the kept verdicts take, keys included.
  explicit EkCertificateCache(size_t max_bytes = kDefaultMaxBytes);

  // Check returns what the certificate |pem| shows against |cas|: from the
  // cache when the same certificate (same DER, any text layout) was checked
  // against this very store, else by parsing and verifying it now, outside
  // the lock. A null |cas| checks no chain (chains is false). nullopt when
  // |pem| is not one certificate of at most kMaxEkCertificateBytes with a
  // readable key; text too long for that is refused before it is decoded.
  // Refusals are not kept.
  std::optional<Orm::Common::EkCertCheck> Check(const std::string& pem, const Orm::Common::TrustStore& cas);

  // Contains tells whether Check would answer |pem| against |cas| from the
  // cache, without making it more recent.
  bool Contains(const std::string& pem, const Orm::Common::TrustStore& cas) const;

  // KeyId is EkIdOf(|pem|), remembered by the text's digest: parsing a
  // public key costs far more than the rest of a Report call, and a host
  // presents the same text on every call. At most kMaxKeyIds texts are kept;
  // the set starts over when full. KeyIds counts these and the certificate
  // texts Check remembers the same way.
  static constexpr size_t kMaxKeyIds = 4096;
  std::optional<EkId> KeyId(const std::string& pem);

  size_t Entries() const;
  size_t KeyIds() const;
  // Bytes is the memory charged for the kept verdicts.
  size_t Bytes() const;

 private:
  // A verdict holds on to its store's control block, not the store: no later
  // store can take that identity while the verdict is kept, even at the
  // address of a freed one, and a replaced store is freed at once.
  struct Key {
    std::array<uint8_t, 32> der_digest;
    std::weak_ptr<X509_STORE> cas;
  };
  struct KeyLess {
    bool operator()(const Key& a, const Key& b) const;
  };
  struct Entry {
    Key key;
    Orm::Common::EkCertCheck check;
    size_t charge;
  };
  using Order = std::list<Entry>;  // most recently used first

  static std::optional<Key> KeyOf(const std::string& der, const Orm::Common::TrustStore& cas);
  void Insert(const Key& key, const Orm::Common::EkCertCheck& check);

  const size_t max_bytes_;
  mutable std::mutex mutex_;
  Order order_;                                    // guarded by mutex_
  std::map<Key, Order::iterator, KeyLess> index_;  // guarded by mutex_
  size_t bytes_ = 0;                               // guarded by mutex_
  // Its own lock, shared by lookups: every Report call asks for a key id.
  mutable std::shared_mutex key_ids_mutex_;
  std::map<std::array<uint8_t, 32>, std::optional<EkId>> key_ids_;  // guarded by key_ids_mutex_
  // The DER digest of each certificate text Check decoded, by the text's
  // digest; bounded and started over like the key ids.
  std::map<std::array<uint8_t, 32>, std::array<uint8_t, 32>> der_digests_;  // guarded by key_ids_mutex_
};

}  // namespace Witnessd::Config::Tpm2
