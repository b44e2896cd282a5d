// The whole-configuration operations: the start-up restore of this
// service's keys from the store's desired user configuration, and the
// export and import of the whole attestation configuration as one text.
#pragma once

#include <optional>
#include <string>

#include "config/Configuration.h"
#include "config/SigningKey.h"
#include "config/tpm2/TrustConfiguration.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::Transfer {

using Config::ConfigResult;

class ConfigTransfer {
 public:
  // All four outlive the object.
  ConfigTransfer(Config::Store store, Config::SigningKeys& keys, Config::Tpm2::TrustConfiguration& trust,
                 Trusted::BaseImageStore& images);

  // Restore brings the persistent configuration up at start: the signing key
  // pair, the TPM trust configuration (restored, then loaded into its
  // snapshot), the base images.
  void Restore();

  // Export writes the TPM settings, EKs, CA chains and base images (never the
  // signing key pair) as one canonical text with its SHA-256 hash in hex;
  // nullopt (logged) when it cannot.
  struct Exported {
    std::string text;
    std::string hash;
  };
  std::optional<Exported> Export();
  // Import replaces the exported keys by |text|, all or nothing, and reloads
  // the trust snapshot and the base image cache. The text may name only the
  // four exported keys, and every record must be one the create operations
  // would store. kConfigError (logged, with each reason) when the text is
  // refused or the store fails; nothing has changed then.
  ConfigResult Import(const std::string& text);

 private:
  // RestoreConfigKey marks the single-instance record |key| as restored for
  // this boot when the store holds a desired configuration for it;
  // RestoreConfigKeyInstances does the same for every instance of |key|.
  void RestoreConfigKey(const std::string& key);
  void RestoreConfigKeyInstances(const std::string& key);
  // RestoreTpm2Config restores the CA chains, EKs and TPM settings, then
  // reloads the trust snapshot.
  void RestoreTpm2Config();

  const Config::Store store_;
  Config::SigningKeys& keys_;
  Config::Tpm2::TrustConfiguration& trust_;
  Trusted::BaseImageStore& images_;
};

}  // namespace Witnessd::Transfer
