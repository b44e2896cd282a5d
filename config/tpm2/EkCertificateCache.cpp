#include "config/tpm2/EkCertificateCache.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace Witnessd::Config::Tpm2 {

using Orm::Common::EkCertCheck;
using Orm::Common::SslUtils;
using Orm::Common::TrustStore;

bool EkCertificateCache::KeyLess::operator()(const Key& a, const Key& b) const {
  if (a.der_digest != b.der_digest) {
    return a.der_digest < b.der_digest;
  }
  return a.cas.owner_before(b.cas);
}

EkCertificateCache::EkCertificateCache(size_t max_bytes) : max_bytes_(max_bytes) {}

std::optional<EkCertificateCache::Key> EkCertificateCache::KeyOf(const std::string& der, const TrustStore& cas) {
  std::optional<std::array<uint8_t, 32>> digest = SslUtils::Sha256(der);
  if (!digest) {
    return std::nullopt;
  }
  return Key{*digest, cas};
}

std::optional<EkCertCheck> CheckEkCertificate(const std::string& pem, const TrustStore& cas) {
  std::optional<std::string> der = SslUtils::PemCertDer(pem, kMaxEkCertificateBytes);
  if (!der) {
    return std::nullopt;
  }
  return SslUtils::CheckEkCertDer(*der, cas.get());
}

std::optional<EkCertCheck> EkCertificateCache::Check(const std::string& pem, const TrustStore& cas) {
  // A host presents the same text on every call: its DER digest is looked up
  // by the text's digest before the text is decoded again.
  std::optional<std::array<uint8_t, 32>> text_digest = SslUtils::Sha256(pem);
  std::optional<std::array<uint8_t, 32>> der_digest;
  if (text_digest) {
    std::shared_lock<std::shared_mutex> lock(key_ids_mutex_);
    auto it = der_digests_.find(*text_digest);
    if (it != der_digests_.end()) {
      der_digest = it->second;
    }
  }
  std::optional<std::string> der;
  if (!der_digest) {
    der = SslUtils::PemCertDer(pem, kMaxEkCertificateBytes);
    if (!der) {
      return std::nullopt;
    }
    der_digest = SslUtils::Sha256(*der);
    if (text_digest && der_digest) {
      std::unique_lock<std::shared_mutex> lock(key_ids_mutex_);
      if (der_digests_.size() >= kMaxKeyIds) {
        der_digests_.clear();
      }
      der_digests_.emplace(*text_digest, *der_digest);
    }
  }
  std::optional<Key> key;
  if (der_digest) {
    key = Key{*der_digest, cas};
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = index_.find(*key);
    if (it != index_.end()) {
      order_.splice(order_.begin(), order_, it->second);
      return it->second->check;
    }
  }
  if (!der) {
    der = SslUtils::PemCertDer(pem, kMaxEkCertificateBytes);
    if (!der) {
      return std::nullopt;
    }
  }
  // Parsed and verified outside the lock; a thread that checks the same
  // certificate meanwhile only repeats the work.
  std::optional<EkCertCheck> check = SslUtils::CheckEkCertDer(*der, cas.get());
  if (check && key) {
    Insert(*key, *check);
  }
  return check;
}

std::optional<EkId> EkCertificateCache::KeyId(const std::string& pem) {
  std::optional<std::array<uint8_t, 32>> digest = SslUtils::Sha256(pem);
  if (!digest) {
    return EkIdOf(pem);
  }
  {
    std::shared_lock<std::shared_mutex> lock(key_ids_mutex_);
    auto it = key_ids_.find(*digest);
    if (it != key_ids_.end()) {
      return it->second;
    }
  }
  std::optional<EkId> id = EkIdOf(pem);  // parsed outside the lock
  std::unique_lock<std::shared_mutex> lock(key_ids_mutex_);
  if (key_ids_.size() >= kMaxKeyIds) {
    key_ids_.clear();
  }
  key_ids_.emplace(*digest, id);
  return id;
}

void EkCertificateCache::Insert(const Key& key, const EkCertCheck& check) {
  // Charged: the key text, the entry in the list and its key again in the
  // tree, the links of both nodes and an allocation header for each block.
  // Copied before the lock is taken.
  Entry entry{key, check, 0};
  entry.charge =
      entry.check.key.capacity() + sizeof(Entry) + sizeof(Key) + sizeof(Order::iterator) + 6 * sizeof(void*) + 3 * 16;
  const size_t charge = entry.charge;
  if (charge > max_bytes_) {
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (index_.count(key) != 0) {
    return;
  }
  // Verdicts on a store since replaced are never asked for again; they go
  // as the least recently used.
  while (bytes_ + charge > max_bytes_) {
    index_.erase(order_.back().key);
    bytes_ -= order_.back().charge;
    order_.pop_back();
  }
  order_.push_front(std::move(entry));
  index_.emplace(key, order_.begin());
  bytes_ += charge;
}

bool EkCertificateCache::Contains(const std::string& pem, const TrustStore& cas) const {
  std::optional<std::string> der = SslUtils::PemCertDer(pem, kMaxEkCertificateBytes);
  std::optional<Key> key = der ? KeyOf(*der, cas) : std::nullopt;
  std::lock_guard<std::mutex> lock(mutex_);
  return key && index_.count(*key) != 0;
}

size_t EkCertificateCache::KeyIds() const {
  std::shared_lock<std::shared_mutex> lock(key_ids_mutex_);
  return key_ids_.size() + der_digests_.size();
}

size_t EkCertificateCache::Entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return order_.size();
}

size_t EkCertificateCache::Bytes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return bytes_;
}

}  // namespace Witnessd::Config::Tpm2
