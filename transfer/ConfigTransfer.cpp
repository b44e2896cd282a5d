#include "transfer/ConfigTransfer.h"

#include "config/tpm2/RecordChecks.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::Transfer {

using namespace Config;

namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStoreObjectPtr;
using HyvConfig::UserConfigView;

// The keys that travel with an export, in export order, and the only keys an
// import may name. The signing key pair ("certificate") stays on its host and
// an import can neither replace nor delete it.
const char* const kExportedKeys[] = {kKeyTpm2Settings, kKeyEndorsementKeys, kKeyCaCertificates, kKeyBaseImages};

std::vector<HyvConfig::FilterSpecObject> ExportedKeyFilters() {
  std::vector<HyvConfig::FilterSpecObject> filters;
  for (const char* key : kExportedKeys) {
    filters.emplace_back(MakeId(key));
  }
  return filters;
}

std::string CheckNamedRecord(const HyvConfig::ConfigStoreObject& object) {
  std::string name;
  object.GetValue("name", &name);
  if (name.empty() || name != object.GetConfigStoreObjectId().instance_id) {
    return "name does not match the record";
  }
  return RecordNameValid(name) ? "" : "name is longer than 255 bytes or holds a control character or '/'";
}

std::string CheckBaseImage(const HyvConfig::ConfigStoreObject& image) {
  std::string version;
  image.GetValue("version", &version);
  if (version.empty() || version != image.GetConfigStoreObjectId().instance_id) {
    return "version does not match the record";
  }
  for (const ConfigStoreObjectPtr& pak : image.GetSubObjects(Trusted::kSubPaks)) {
    for (const ConfigStoreObjectPtr& payload : pak->GetSubObjects(Trusted::kSubPayloads)) {
      for (const ConfigStoreObjectPtr& sum : payload->GetSubObjects(Trusted::kSubChecksums)) {
        Trusted::ChecksumEntry entry;
        sum->GetValue("checksum", &entry.checksum);
        sum->GetValue("checksum_type", &entry.checksum_type);
        if (!Trusted::ChecksumWellFormed(entry)) {
          return "checksum is not a well-formed digest";
        }
      }
    }
  }
  return "";
}

// CheckImportedRecord holds an imported record to what the create operations
// accept, so an import cannot store what the API would refuse: consistent
// settings, EKs and CA chains under names the API takes, EKs that are usable
// public keys, CA chains of CA certificates, base images with well-formed
// digests. The chains are not verified again: one may hang off a CA chain
// since deleted, or off a CA since expired, and an export must import back.
// Wrongly typed fields throw HostCtlException, which the store reports as a
// refused record too.
std::string CheckImportedRecord(const HyvConfig::ConfigStoreObject& object) {
  const std::string& key = object.GetConfigStoreObjectId().key;
  if (key == kKeyTpm2Settings) {
    bool require_eks = false, require_certs = false;
    Tpm2::ReadTpm2SettingsRecord(object, require_eks, require_certs);
    return require_eks || require_certs ? "" : "settings require neither endorsement keys nor certificates";
  }
  if (key == kKeyEndorsementKeys) {
    std::string why = CheckNamedRecord(object);
    std::string pem;
    object.GetValue("public_key", &pem);
    if (why.empty() && !Tpm2::StandardEndorsementKey(pem)) {
      why = "public_key is not a usable public key";
    }
    return why;
  }
  if (key == kKeyCaCertificates) {
    std::string why = CheckNamedRecord(object);
    ConfigStoreObjectPtr chain = object.GetSubObject(HyvConfig::SubObjectId("cert_chain"));
    std::vector<std::string> certs;
    if (chain != nullptr) {
      chain->GetValue("certs", &certs);
    }
    if (!why.empty()) {
      return why;
    }
    switch (Tpm2::CheckCaChainMembers(certs).fault) {
      case Tpm2::CaChainFault::kNone:
        break;
      case Tpm2::CaChainFault::kEmpty:
      case Tpm2::CaChainFault::kUnreadable:
        why = "cert_chain is not a list of certificates";
        break;
      case Tpm2::CaChainFault::kNotCa:
        why = "cert_chain holds a certificate that is not a CA";
        break;
    }
    return why;
  }
  return CheckBaseImage(object);  // the only other key an import may name
}

}  // namespace

ConfigTransfer::ConfigTransfer(Config::Store store, Config::SigningKeys& keys, Config::Tpm2::TrustConfiguration& trust,
                               Trusted::BaseImageStore& images)
    : store_(std::move(store)), keys_(keys), trust_(trust), images_(images) {}

void ConfigTransfer::RestoreConfigKey(const std::string& key) {
  try {
    ConfigStoreObjectPtr object = store_->GetDesiredUserConfig(MakeId(key), UserConfigView::kAtBoot);
    if (object == nullptr) {
      Log_Level(kLogVerbose, "No configuration key %s\n", key.c_str());
      return;
    }
    Log_Level(kLogInfo, "Restoring configuration key %s\n", key.c_str());
    store_->SetBootStatus(object->GetConfigStoreObjectId(), true);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception restoring configuration key %s: %s\n", key.c_str(), e.what());
  }
}

void ConfigTransfer::RestoreConfigKeyInstances(const std::string& key) {
  try {
    auto objects = store_->GetDesiredUserConfigInstances(MakeId(key), UserConfigView::kAtBoot);
    if (objects.empty()) {
      Log_Level(kLogVerbose, "No configuration key %s\n", key.c_str());
      return;
    }
    for (const ConfigStoreObjectPtr& object : objects) {
      const auto& id = object->GetConfigStoreObjectId();
      Log_Level(kLogInfo, "Restoring configuration key %s instance %s\n", key.c_str(), id.instance_id.c_str());
      store_->SetBootStatus(id, true);
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception restoring configuration key %s: %s\n", key.c_str(), e.what());
  }
}

void ConfigTransfer::RestoreTpm2Config() {
  trust_.Replace([this] {
    RestoreConfigKeyInstances(kKeyCaCertificates);
    RestoreConfigKeyInstances(kKeyEndorsementKeys);
    RestoreConfigKey(kKeyTpm2Settings);
    return ConfigResult::kConfigOk;
  });
}

void ConfigTransfer::Restore() {
  keys_.Ensure();
  RestoreTpm2Config();
  RestoreConfigKeyInstances(kKeyBaseImages);
  images_.Load();
}

std::optional<ConfigTransfer::Exported> ConfigTransfer::Export() {
  std::string text;
  try {
    text = store_->Export(ExportedKeyFilters());
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception exporting configuration from configstore: %s\n", e.what());
    return std::nullopt;
  }
  std::string hash;
  if (!Orm::Common::SslUtils::ComputeHashHex(text, hash)) {
    Log_Level(kLogError, "Failed to compute hash of exported configuration\n");
    return std::nullopt;
  }
  return Exported{std::move(text), std::move(hash)};
}

ConfigResult ConfigTransfer::Import(const std::string& text) {
  // Both owners of the imported records hold their writers back while the
  // import runs, then reload what they keep in memory.
  return trust_.Replace([&] {
    std::vector<HyvConfig::ErrorInfo> errors;
    bool imported = false;
    images_.Write([&](HyvConfig::HyvConfigStore& store) {
      try {
        imported = store.Import(text, ExportedKeyFilters(), CheckImportedRecord, errors);
      } catch (const HostCtlException& e) {
        Log_Level(kLogError, "Exception importing configuration into configstore: %s\n", e.what());
      }
    });
    for (const HyvConfig::ErrorInfo& error : errors) {
      Log_Level(kLogError, "Import refused: %s: %s\n", error.item.c_str(), error.message.c_str());
    }
    if (!imported) {
      Log_Level(kLogError, "Failed to import configuration\n");
      return ConfigResult::kConfigError;
    }
    return ConfigResult::kConfigOk;
  });
}

}  // namespace Witnessd::Transfer
