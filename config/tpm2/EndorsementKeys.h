// The registry of trusted endorsement keys: named records in the store and,
// beside them, the set of their digests. Live sessions are counted per EK by
// the session manager, not here, so that deleting or re-importing an EK
// never loses a session's count.
#pragma once

#include <cstdint>
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
// the configured set. kConfigAlreadyExists for a known name,
// kConfigDuplicate when the same key is stored under another name.
ConfigResult AddEndorsementKey(const std::string& name, const std::string& pem);
// DeleteEndorsementKey removes the record, then its digest from the
// configured set; when the store fails, both stay.
ConfigResult DeleteEndorsementKey(const std::string& name);

// IsEkConfigured tells whether |digest| is the digest of a configured EK.
bool IsEkConfigured(const EkDigest& digest);

// LoadEndorsementKeys rebuilds the configured set from the stored EKs, then
// reloads the cached TPM settings and
// empties the CA cache. The caller holds the configuration lock exclusively.
void LoadEndorsementKeys();

// InitTpm2Config loads the TPM trust configuration at start-up: the EK set,
// the settings cache and an empty CA cache, under the configuration lock.
void InitTpm2Config();

// ResetTpm2ConfigForTesting empties the set and both caches.
void ResetTpm2ConfigForTesting();

}  // namespace Witnessd::Config::Tpm2
