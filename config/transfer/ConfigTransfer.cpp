#include "config/transfer/ConfigTransfer.h"

#include "config/SigningKey.h"
#include "config/tpm2/EndorsementKeys.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::Config {
namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStore;
using HyvConfig::ConfigStoreObjectPtr;
using HyvConfig::UserConfigView;

std::shared_ptr<HyvConfig::HyvConfigStore> Store() {
  return ConfigStore::GetStore(ConfigStore::sGlobalNamespace);
}

// The keys that travel with an export, in export order. The signing key
// pair ("certificate") stays on its host.
const char* const kExportedKeys[] = {kKeyTpm2Settings, kKeyEndorsementKeys, kKeyCaCertificates, kKeyBaseImages};

}  // namespace

void RestoreConfigKey(const std::string& key) {
  try {
    ConfigStoreObjectPtr object = Store()->GetDesiredUserConfig(MakeId(key), UserConfigView::kAtBoot);
    if (object == nullptr) {
      Log_Level(kLogVerbose, "No configuration key %s\n", key.c_str());
      return;
    }
    Log_Level(kLogInfo, "Restoring configuration key %s\n", key.c_str());
    Store()->SetBootStatus(object->GetConfigStoreObjectId(), true);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception restoring configuration key %s: %s\n", key.c_str(), e.what());
  }
}

void RestoreConfigKeyInstances(const std::string& key) {
  try {
    auto objects = Store()->GetDesiredUserConfigInstances(MakeId(key), UserConfigView::kAtBoot);
    if (objects.empty()) {
      Log_Level(kLogVerbose, "No configuration key %s\n", key.c_str());
      return;
    }
    for (const ConfigStoreObjectPtr& object : objects) {
      const auto& id = object->GetConfigStoreObjectId();
      Log_Level(kLogInfo, "Restoring configuration key %s instance %s\n", key.c_str(), id.instance_id.c_str());
      Store()->SetBootStatus(id, true);
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception restoring configuration key %s: %s\n", key.c_str(), e.what());
  }
}

void RestoreTpm2Config() {
  RestoreConfigKeyInstances(kKeyCaCertificates);
  RestoreConfigKeyInstances(kKeyEndorsementKeys);
  RestoreConfigKey(kKeyTpm2Settings);
  MXUser::WriteGuard guard(ConfigLock());
  Tpm2::LoadEndorsementKeys();
}

void InitConfiguration() {
  EnsureSigningKey();
  RestoreTpm2Config();
  RestoreConfigKeyInstances(kKeyBaseImages);
  OsHyv::InitBaseImageStore();
}

bool ExportConfiguration(std::string& out_text, std::string& out_hash) {
  std::vector<HyvConfig::FilterSpecObject> filters;
  for (const char* key : kExportedKeys) {
    filters.emplace_back(MakeId(key));
  }
  std::string text;
  try {
    MXUser::ReadGuard guard(ConfigLock());
    text = Store()->Export(filters);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception exporting configuration from configstore: %s\n", e.what());
    return false;
  }
  std::string hash;
  if (!Orm::Common::SslUtils::ComputeHashHex(text, hash)) {
    Log_Level(kLogError, "Failed to compute hash of exported configuration\n");
    return false;
  }
  out_text = std::move(text);
  out_hash = std::move(hash);
  return true;
}

ConfigResult ImportConfiguration(const std::string& text) {
  MXUser::WriteGuard guard(ConfigLock());
  std::vector<HyvConfig::ErrorInfo> errors;
  bool imported = false;
  try {
    imported = Store()->Import(text, errors);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception importing configuration into configstore: %s\n", e.what());
  }
  if (!imported) {
    Log_Level(kLogError, "Failed to import configuration\n");
    return ConfigResult::kConfigError;
  }
  Tpm2::LoadEndorsementKeys();
  OsHyv::ClearBaseImageCache();
  return ConfigResult::kConfigOk;
}

}  // namespace Witnessd::Config
