// The whole-configuration operations: the start-up restore of this
// service's keys from the store's desired user configuration, and the
// export and import of the whole attestation configuration as one text.
#pragma once

#include <string>

#include "config/Configuration.h"

namespace Witnessd::Transfer {

using Config::ConfigResult;

// RestoreConfigKey marks the single-instance record |key| as restored for
// this boot when the store holds a desired configuration for it.
void RestoreConfigKey(const std::string& key);
// RestoreConfigKeyInstances does the same for every instance of |key|.
void RestoreConfigKeyInstances(const std::string& key);
// RestoreTpm2Config restores the CA chains, EKs and TPM settings, then
// reloads the EK map, the settings cache and the CA cache.
void RestoreTpm2Config();
// InitConfiguration brings the persistent configuration up at start: the
// signing key pair, the TPM trust configuration, the base images.
void InitConfiguration();

// ExportConfiguration writes the TPM settings, EKs, CA chains and base
// images (never the signing key pair) as one canonical text with its
// SHA-256 hash in hex. False (logged) when it cannot.
bool ExportConfiguration(std::string& out_text, std::string& out_hash);
// ImportConfiguration replaces the exported keys by |text|, all or nothing,
// and reloads the caches. The text may name only the four exported keys, and
// every record must be one the create operations would store. kConfigError
// (logged, with each reason) when the text is refused or the store fails;
// nothing has changed then.
ConfigResult ImportConfiguration(const std::string& text);

}  // namespace Witnessd::Transfer
