#include "config/tpm2/TrustConfiguration.h"

#include "platform/Assert.h"
#include "platform/Log.h"

namespace Witnessd::Config::Tpm2 {
namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStoreObject;
using HyvConfig::ConfigStoreObjectPtr;
using HyvConfig::SubObjectId;
using Orm::Common::SslUtils;

static constexpr const char* kSourcePath = "apps/witnessd/config/tpm2Config";

constexpr const char* kChainSubObject = "cert_chain";

constexpr NamedRecordTexts kEkTexts = {
    "Endorsement Key name: %s does not exist in configstore.\n",
    "Exception reading EK '%s' from configstore: %s\n",
    "Exception reading EK list from configstore: %s\n",
    "Endorsement key '%s' not found\n",
    "Failed to delete EK %s from configstore: %s\n",
    "Exception writing EK '%s' to configstore: %s\n",
};

constexpr NamedRecordTexts kCaTexts = {
    "CA Certificate name: %s does not exist in configstore.\n",
    "Exception reading CA certificate '%s' from configstore: %s\n",
    "Exception reading CA certificate list from configstore: %s\n",
    "CA Cerfificates '%s' not found\n",  // misspelling kept on purpose
    "Exception deleting CA Certificate '%s' from configstore: %s\n",
    "Exception writing CA certificate '%s' to configstore: %s\n",
};

// IdOrLog is the EK id of |pem|, logged when there is none.
std::optional<EkId> IdOrLog(const std::string& pem) {
  std::optional<EkId> id = EkIdOf(pem);
  if (!id) {
    Log_Level(kLogError, "Failed to compute hash for endorsement key\n");
  }
  return id;
}

// WithCas returns |base| with |certificates| as its CA list and trust store.
TrustSnapshot WithCas(const TrustSnapshot& base, std::vector<std::string> certificates) {
  TrustSnapshot next = base;
  next.cas = SslUtils::BuildTrustStore(certificates);
  next.ca_certificates = std::move(certificates);
  return next;
}

}  // namespace

TrustConfiguration::TrustConfiguration(Store store)
    : store_(std::move(store)), snapshot_(std::make_shared<const TrustSnapshot>()) {
  VERIFY(store_ != nullptr);
}

TrustSnapshotPtr TrustConfiguration::Snapshot() const {
  std::lock_guard<std::mutex> lock(snapshot_mutex_);
  return snapshot_;
}

void TrustConfiguration::Publish(TrustSnapshot next) {
  TrustSnapshotPtr published = std::make_shared<const TrustSnapshot>(std::move(next));
  std::lock_guard<std::mutex> lock(snapshot_mutex_);
  snapshot_.swap(published);
  // The replaced snapshot is freed here, after the lock, when no reader holds it.
}

void TrustConfiguration::Load() {
  std::lock_guard<std::mutex> writer(writer_);
  LoadLocked();
}

void TrustConfiguration::LoadLocked() {
  TrustSnapshot next = *Snapshot();
  if (std::optional<std::set<EkId>> eks = LoadEks(); !eks) {
    Log_Level(kLogError, "Failed to read EKs from configuration\n");
  } else {
    next.configured_eks = std::move(*eks);
    Log_Level(kLogInfo, "Loaded %ld EKs from configuration\n", static_cast<long>(next.configured_eks.size()));
  }
  bool require_eks = false;
  bool require_certs = false;
  if (ReadSettings(require_eks, require_certs) == ConfigResult::kConfigOk) {
    next.require_endorsement_keys = require_eks;
    next.require_certificate_validation = require_certs;
  }
  if (std::optional<std::vector<std::string>> cas = LoadCas()) {
    next = WithCas(next, std::move(*cas));
  } else {
    next.ca_certificates.clear();
    next.cas = nullptr;
  }
  Publish(std::move(next));
}

ConfigResult TrustConfiguration::Replace(const std::function<ConfigResult()>& write) {
  std::lock_guard<std::mutex> writer(writer_);
  ConfigResult result = write();
  if (result == ConfigResult::kConfigOk) {
    LoadLocked();
  }
  return result;
}

// --- Endorsement keys ---

ConfigResult TrustConfiguration::ReadEk(const std::string& name, std::string& out_pem) const {
  ConfigStoreObjectPtr object;
  ConfigResult result = ReadNamedRecord(*store_, kKeyEndorsementKeys, name, kEkTexts, object);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  try {
    object->GetValue("public_key", &out_pem);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, kEkTexts.read_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
}

std::optional<std::set<EkId>> TrustConfiguration::LoadEks() const {
  std::vector<std::string> names;
  if (ListNamedRecords(*store_, kKeyEndorsementKeys, kEkTexts, names) != ConfigResult::kConfigOk) {
    return std::nullopt;
  }
  std::set<EkId> out;
  Log_Level(kLogVerbose, "EKs count in the config store : %ld\n", static_cast<long>(names.size()));
  for (const std::string& name : names) {
    std::string pem;
    if (ReadEk(name, pem) != ConfigResult::kConfigOk) {
      return std::nullopt;
    }
    std::optional<EkId> id = EkIdOf(pem);
    if (!id) {
      Log_Level(kLogWarning, "Failed to generate digest for EK: %s\n", name.c_str());
      continue;
    }
    out.insert(*id);
  }
  Log_Level(kLogVerbose, "EKs count in the config store: %ld\n", static_cast<long>(out.size()));
  return out;
}

ConfigResult TrustConfiguration::GetEndorsementKey(const std::string& name, std::string& out_pem) const {
  std::string pem;
  ConfigResult result = ReadEk(name, pem);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  if (!SslUtils::StandardizePemPubKey(pem)) {
    Log_Level(kLogError, "Failed to standardize endorsement key: %s\n", name.c_str());
    return ConfigResult::kConfigInvalidData;
  }
  out_pem = std::move(pem);
  return ConfigResult::kConfigOk;
}

ConfigResult TrustConfiguration::ListEndorsementKeys(std::vector<std::string>& out_names) const {
  return ListNamedRecords(*store_, kKeyEndorsementKeys, kEkTexts, out_names);
}

ConfigResult TrustConfiguration::AddEndorsementKey(const std::string& name, const std::string& pem) {
  std::lock_guard<std::mutex> writer(writer_);
  std::string existing;
  ConfigResult result = ReadEk(name, existing);
  if (result == ConfigResult::kConfigOk) {
    return ConfigResult::kConfigAlreadyExists;
  }
  if (result != ConfigResult::kConfigNotFound) {
    return result;
  }
  std::optional<EkId> id = IdOrLog(pem);
  if (!id) {
    return ConfigResult::kConfigError;
  }
  TrustSnapshot next = *Snapshot();
  if (next.configured_eks.count(*id) != 0) {
    Log_Level(kLogError, "Failed to add EK public key digest to map. Already exists\n");
    return ConfigResult::kConfigDuplicate;
  }
  ConfigStoreObject object(MakeId(kKeyEndorsementKeys, name));
  object.SetValue("public_key", pem);
  if (WriteNamedRecord(*store_, object, name, kEkTexts) != ConfigResult::kConfigOk) {
    return ConfigResult::kConfigError;
  }
  next.configured_eks.insert(*id);
  Publish(std::move(next));
  return ConfigResult::kConfigOk;
}

ConfigResult TrustConfiguration::DeleteEndorsementKey(const std::string& name) {
  std::lock_guard<std::mutex> writer(writer_);
  std::string pem;
  ConfigResult result = ReadEk(name, pem);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  // The store first: when it fails, the EK stays configured in both.
  result = DeleteNamedRecord(*store_, kKeyEndorsementKeys, name, kEkTexts);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  if (std::optional<EkId> id = EkIdOf(pem)) {
    TrustSnapshot next = *Snapshot();
    next.configured_eks.erase(*id);
    Publish(std::move(next));
  }
  return ConfigResult::kConfigOk;
}

// --- CA certificate chains ---

ConfigResult TrustConfiguration::ReadChain(const std::string& name, std::vector<std::string>& out_certs) const {
  ConfigStoreObjectPtr object;
  ConfigResult result = ReadNamedRecord(*store_, kKeyCaCertificates, name, kCaTexts, object);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  try {
    ConfigStoreObjectPtr chain = object->GetSubObject(SubObjectId(kChainSubObject));
    if (chain == nullptr) {
      Log_Level(kLogError, "Unable to create ConfigStoreObjectPtr for certChain.\n");
      return ConfigResult::kConfigError;
    }
    chain->GetValue("certs", &out_certs);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, kCaTexts.read_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
}

std::optional<std::vector<std::string>> TrustConfiguration::LoadCas() const {
  std::vector<std::string> names;
  if (ListNamedRecords(*store_, kKeyCaCertificates, kCaTexts, names) != ConfigResult::kConfigOk) {
    return std::nullopt;
  }
  std::vector<std::string> out;
  for (const std::string& name : names) {
    std::vector<std::string> chain;
    if (ReadChain(name, chain) != ConfigResult::kConfigOk) {
      return std::nullopt;
    }
    bool usable = true;
    for (std::string& cert : chain) {
      if (!SslUtils::StandardizePemCert(cert)) {
        Log_Level(kLogWarning, "Failed to standardize TPM CA Certificate: %s\n", name.c_str());
        usable = false;
        break;
      }
    }
    if (usable) {
      out.insert(out.end(), chain.begin(), chain.end());
    }
  }
  return out;
}

ConfigResult TrustConfiguration::GetCaCertificates(const std::string& name, std::vector<std::string>& out_certs) const {
  std::vector<std::string> certs;
  ConfigResult result = ReadChain(name, certs);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  for (std::string& cert : certs) {
    if (!SslUtils::StandardizePemCert(cert)) {
      Log_Level(kLogError, "Failed to standardize TPM CA Certificate: %s\n", name.c_str());
      return ConfigResult::kConfigInvalidData;
    }
  }
  out_certs = std::move(certs);
  return ConfigResult::kConfigOk;
}

ConfigResult TrustConfiguration::ListCaCertificates(std::vector<std::string>& out_names) const {
  return ListNamedRecords(*store_, kKeyCaCertificates, kCaTexts, out_names);
}

ConfigResult TrustConfiguration::AddCaCertificates(const std::string& name, const std::vector<std::string>& certs) {
  std::lock_guard<std::mutex> writer(writer_);
  std::vector<std::string> existing;
  ConfigResult result = ReadChain(name, existing);
  if (result == ConfigResult::kConfigOk) {
    return ConfigResult::kConfigAlreadyExists;
  }
  if (result != ConfigResult::kConfigNotFound) {
    return result;
  }
  ConfigStoreObject object(MakeId(kKeyCaCertificates, name));
  ConfigStoreObjectPtr chain = object.CreateSubObject(SubObjectId(kChainSubObject));
  if (chain == nullptr) {
    Log_Level(kLogError, "Unable to create ConfigStoreObjectPtr for certChain.\n");
    return ConfigResult::kConfigError;
  }
  chain->SetValue("certs", certs);
  if (WriteNamedRecord(*store_, object, name, kCaTexts) != ConfigResult::kConfigOk) {
    return ConfigResult::kConfigError;
  }
  // The new chain is usable at once: appended to the published list rather
  // than the list read again.
  TrustSnapshotPtr current = Snapshot();
  std::vector<std::string> all = current->ca_certificates;
  for (std::string cert : certs) {
    SslUtils::StandardizePemCert(cert);  // appended in whatever form it is left
    all.push_back(std::move(cert));
  }
  Publish(WithCas(*current, std::move(all)));
  return ConfigResult::kConfigOk;
}

ConfigResult TrustConfiguration::DeleteCaCertificates(const std::string& name) {
  std::lock_guard<std::mutex> writer(writer_);
  ConfigResult result = DeleteNamedRecord(*store_, kKeyCaCertificates, name, kCaTexts);
  TrustSnapshotPtr current = Snapshot();
  if (std::optional<std::vector<std::string>> cas = LoadCas()) {
    Publish(WithCas(*current, std::move(*cas)));
  } else {
    TrustSnapshot next = *current;
    next.ca_certificates.clear();
    next.cas = nullptr;
    Publish(std::move(next));
  }
  return result;
}

// --- TPM settings ---

void ReadTpm2SettingsRecord(const HyvConfig::StoreObject& record, bool& require_endorsement_keys,
                            bool& require_certificate_validation) {
  require_endorsement_keys = true;
  require_certificate_validation = false;
  if (record.HasValue("require_endorsement_keys")) {
    record.GetValue("require_endorsement_keys", &require_endorsement_keys);
  }
  if (record.HasValue("require_certificate_validation")) {
    record.GetValue("require_certificate_validation", &require_certificate_validation);
  }
}

ConfigResult TrustConfiguration::ReadSettings(bool& require_endorsement_keys,
                                              bool& require_certificate_validation) const {
  try {
    ConfigStoreObjectPtr object = store_->GetObject(MakeId(kKeyTpm2Settings));
    if (object == nullptr) {
      // No record yet: a fresh object reads as the defaults.
      object = std::make_shared<ConfigStoreObject>(MakeId(kKeyTpm2Settings));
      VERIFY(object != nullptr);
    }
    ReadTpm2SettingsRecord(*object, require_endorsement_keys, require_certificate_validation);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception getting tpm2 settings from configstore: %s\n", e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult TrustConfiguration::UpdateTpm2Settings(std::optional<bool> require_endorsement_keys,
                                                    std::optional<bool> require_certificate_validation) {
  std::lock_guard<std::mutex> writer(writer_);
  bool eks = false;
  bool certs = false;
  ConfigResult result = ReadSettings(eks, certs);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  eks = require_endorsement_keys.value_or(eks);
  certs = require_certificate_validation.value_or(certs);
  if (!eks && !certs) {
    Log_Level(kLogError, "Endorsement Key or EK Certificate validation required during attestation\n");
    return ConfigResult::kConfigInvalidArgument;
  }
  try {
    ConfigStoreObjectPtr object = store_->GetObject(MakeId(kKeyTpm2Settings));
    if (object == nullptr) {
      Log_Level(kLogVerbose, "Tpm2 settings not set in configstore. Creating object\n");
      object = std::make_shared<ConfigStoreObject>(MakeId(kKeyTpm2Settings));
    }
    object->SetValue("require_endorsement_keys", eks);
    object->SetValue("require_certificate_validation", certs);
    store_->UpdateObject(MakeId(kKeyTpm2Settings), *object);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception updating tpm2 settings in configstore: %s\n", e.what());
    return ConfigResult::kConfigError;
  }
  TrustSnapshot next = *Snapshot();
  next.require_endorsement_keys = eks;
  next.require_certificate_validation = certs;
  Publish(std::move(next));
  return ConfigResult::kConfigOk;
}

}  // namespace Witnessd::Config::Tpm2
