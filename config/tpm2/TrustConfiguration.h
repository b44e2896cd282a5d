// The TPM trust configuration: the two TPM settings, the registry of trusted
// endorsement keys and the store of trusted EK CA chains. Their records live
// in the configuration store; in memory the daemon's one TrustConfiguration
// publishes them as an immutable snapshot, replaced whole on every change, so
// that a Report call reads one consistent view and never waits on a writer.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/Configuration.h"
#include "config/tpm2/EkId.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config::Tpm2 {

// What a Report call reads of the trust configuration; never changed once
// published.
struct TrustSnapshot {
  bool require_endorsement_keys = false;
  bool require_certificate_validation = false;
  std::set<EkId> configured_eks;
  // Every configured CA certificate, standardized, chains in store order; a
  // chain with a certificate that does not parse is left out whole.
  std::vector<std::string> ca_certificates;
  // The same certificates as a trust store; null when the CA chains could not
  // be read from the store.
  Orm::Common::TrustStore cas;
};
using TrustSnapshotPtr = std::shared_ptr<const TrustSnapshot>;

class TrustConfiguration {
 public:
  // Until Load runs, the snapshot is empty: both settings false, nothing
  // configured.
  explicit TrustConfiguration(Store store);

  // Snapshot returns the current snapshot; it never waits on a writer.
  TrustSnapshotPtr Snapshot() const;

  // Load rebuilds the snapshot from the store: at start-up, and after a
  // restore or an import wrote the records (through Replace).
  void Load();

  // Replace runs |write| (which replaces records in the store, all or
  // nothing) and, when it succeeded, reloads the snapshot from the store, all
  // under the writer lock so that no create or delete interleaves.
  ConfigResult Replace(const std::function<ConfigResult()>& write);

  // The EK records. Get returns the stored PEM in standardized form
  // (kConfigInvalidData when it is not a public key); Add stores |pem| under
  // |name| (kConfigAlreadyExists for a known name, kConfigDuplicate when the
  // same key is configured under another name, kConfigError when it is not
  // a usable key); Delete removes it. Live sessions of a deleted
  // EK keep their places: the session manager counts them.
  ConfigResult GetEndorsementKey(const std::string& name, std::string& out_pem) const;
  ConfigResult ListEndorsementKeys(std::vector<std::string>& out_names) const;
  ConfigResult AddEndorsementKey(const std::string& name, const std::string& pem);
  ConfigResult DeleteEndorsementKey(const std::string& name);

  // The CA chain records. Get standardizes each certificate
  // (kConfigInvalidData when one does not parse). Add stores |certs| as given
  // and appends them, standardized, to the snapshot's list at once; Delete
  // rebuilds the list from the store, whether or not the delete succeeds.
  ConfigResult GetCaCertificates(const std::string& name, std::vector<std::string>& out_certs) const;
  ConfigResult ListCaCertificates(std::vector<std::string>& out_names) const;
  ConfigResult AddCaCertificates(const std::string& name, const std::vector<std::string>& certs);
  ConfigResult DeleteCaCertificates(const std::string& name);

  // UpdateTpm2Settings merges the given values into the stored pair and
  // persists it; absent arguments keep their value. kConfigInvalidArgument,
  // with nothing written, when both would be false; kConfigError when the
  // store fails. The snapshot changes only on success.
  ConfigResult UpdateTpm2Settings(std::optional<bool> require_endorsement_keys,
                                  std::optional<bool> require_certificate_validation);

 private:
  // Each runs under writer_.
  void Publish(TrustSnapshot next);
  void LoadLocked();
  // ReadSettings reads the pair from the store; an absent record gives the
  // defaults. kConfigError when the store fails (logged).
  ConfigResult ReadSettings(bool& require_endorsement_keys, bool& require_certificate_validation) const;
  // LoadEks reads the configured EK ids; nullopt when the store fails.
  std::optional<std::set<EkId>> LoadEks() const;
  // LoadCas reads every chain, standardized; nullopt when the store fails.
  std::optional<std::vector<std::string>> LoadCas() const;
  ConfigResult ReadEk(const std::string& name, std::string& out_pem) const;
  ConfigResult ReadChain(const std::string& name, std::vector<std::string>& out_certs) const;

  const Store store_;
  std::mutex writer_;  // serialises the writers; readers never take it
  // Guards only the copy and the replacement of the pointer, never any work
  // of a writer, so a reader waits at most for another pointer copy.
  mutable std::mutex snapshot_mutex_;
  TrustSnapshotPtr snapshot_;  // guarded by snapshot_mutex_
};

// ReadTpm2SettingsRecord reads the pair from a "tpm2_settings" record; an
// absent field has its default: a fresh host requires configured endorsement
// keys, so only TPMs an administrator declared can attest until the settings
// are changed, and does not require certificate validation. A field of
// another type throws HostCtlException.
void ReadTpm2SettingsRecord(const HyvConfig::StoreObject& record, bool& require_endorsement_keys,
                            bool& require_certificate_validation);

}  // namespace Witnessd::Config::Tpm2
