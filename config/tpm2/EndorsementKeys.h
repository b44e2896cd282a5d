// The registry of trusted endorsement keys: named records in the store and,
// beside them, a map from each EK's digest to the number of sessions using it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/Configuration.h"

namespace Witnessd::Config::Tpm2 {

// An EK digest: SHA-256 of the white-space-free PEM with both markers,
// compared as unsigned bytes.
using EkDigest = std::vector<uint8_t>;

// ComputeEkDigest digests |pem| so that texts differing only in white space,
// line breaks or missing markers give the same digest. False (logged) when
// hashing fails.
bool ComputeEkDigest(const std::string& pem, EkDigest& out_digest);

// GetEndorsementKey returns the stored PEM of |name| in standardized form;
// kConfigNotFound, kConfigError, or kConfigInvalidData when the stored text
// is not a public key.
ConfigResult GetEndorsementKey(const std::string& name, std::string& out_pem);
// ListEndorsementKeys returns the names in store order.
ConfigResult ListEndorsementKeys(std::vector<std::string>& out_names);
// AddEndorsementKey stores |pem| as given under |name| and adds its digest to
// the map with count 0. kConfigAlreadyExists for a known name,
// kConfigDuplicate when the same key is stored under another name.
ConfigResult AddEndorsementKey(const std::string& name, const std::string& pem);
// DeleteEndorsementKey removes the record, then its map entry whatever its
// count; when the store fails, both stay.
ConfigResult DeleteEndorsementKey(const std::string& name);

// IncrementEkReference counts one more session for |digest|. kConfigNotFound
// for an EK that is not configured when configured EKs are required
// (otherwise it is added with count 1, not configured); kConfigLimitReached,
// count unchanged, at |max_count|.
ConfigResult IncrementEkReference(const EkDigest& digest, int32_t max_count);
// DecrementEkReference counts one session less; never below 0. An entry of an
// EK that is not configured goes when its count reaches 0.
void DecrementEkReference(const EkDigest& digest);
// GetEkReferenceCount returns the count of |digest|, or nothing when it is not
// in the map.
std::optional<int32_t> GetEkReferenceCount(const EkDigest& digest);
// IsEkConfigured tells whether |digest| is the digest of a configured EK
// (not merely of one that live sessions hold).
bool IsEkConfigured(const EkDigest& digest);

// LoadEndorsementKeys rebuilds the map from the stored EKs, keeping the counts
// of EKs that stay configured, then reloads the cached TPM settings and
// empties the CA cache. The caller holds the configuration lock exclusively.
void LoadEndorsementKeys();

// InitTpm2Config loads the TPM trust configuration at start-up: the EK map,
// the settings cache and an empty CA cache, under the configuration lock.
void InitTpm2Config();

// ResetTpm2ConfigForTesting empties the map and both caches.
void ResetTpm2ConfigForTesting();

}  // namespace Witnessd::Config::Tpm2
