// The two TPM attestation settings: persisted in the "tpm2_settings" record
// and cached in memory under the configuration lock.
#pragma once

#include <optional>

#include "config/Configuration.h"

namespace Witnessd::Config::Tpm2 {

// GetTpm2Settings copies the cached pair under the configuration lock held
// shared. Both are false until the first load. Always kConfigOk.
ConfigResult GetTpm2Settings(bool& require_endorsement_keys, bool& require_certificate_validation);

// ReadTpm2SettingsRecord reads the pair from a "tpm2_settings" record; an
// absent field has its default: a fresh host requires configured endorsement
// keys, so only TPMs an administrator declared can attest until the settings
// are changed, and does not require certificate validation. A field of
// another type throws HostCtlException.
void ReadTpm2SettingsRecord(const HyvConfig::StoreObject& record, bool& require_endorsement_keys,
                            bool& require_certificate_validation);

// ReadTpm2Settings reads the pair from the store; an absent record gives the
// defaults. The caller holds the configuration lock. kConfigError
// when the store fails (logged).
ConfigResult ReadTpm2Settings(bool& require_endorsement_keys, bool& require_certificate_validation);

// UpdateTpm2Settings merges the given values into the stored pair and
// persists it; absent arguments keep their value. kConfigInvalidArgument,
// with nothing written, when both would be false; kConfigError when the store
// fails. The cache changes only on success.
ConfigResult UpdateTpm2Settings(std::optional<bool> require_endorsement_keys,
                                std::optional<bool> require_certificate_validation);

// SetCachedTpm2Settings replaces the cached pair. The caller holds the
// configuration lock exclusively (the EK load does).
void SetCachedTpm2Settings(bool require_endorsement_keys, bool require_certificate_validation);

}  // namespace Witnessd::Config::Tpm2
