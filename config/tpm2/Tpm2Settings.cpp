#include "config/tpm2/Tpm2Settings.h"

#include "platform/Assert.h"
#include "platform/Log.h"

namespace Witnessd::Config::Tpm2 {
namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStore;
using HyvConfig::ConfigStoreObject;
using HyvConfig::ConfigStoreObjectPtr;

static constexpr const char* kSourcePath = "apps/witnessd/config/tpm2Config";

// Guarded by the configuration lock.
bool g_require_endorsement_keys = false;
bool g_require_certificate_validation = false;

}  // namespace

ConfigResult GetTpm2Settings(bool& require_endorsement_keys, bool& require_certificate_validation) {
  MXUser::ReadGuard guard(ConfigLock());
  require_endorsement_keys = g_require_endorsement_keys;
  require_certificate_validation = g_require_certificate_validation;
  return ConfigResult::kConfigOk;
}

void SetCachedTpm2Settings(bool require_endorsement_keys, bool require_certificate_validation) {
  g_require_endorsement_keys = require_endorsement_keys;
  g_require_certificate_validation = require_certificate_validation;
}

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

ConfigResult ReadTpm2Settings(bool& require_endorsement_keys, bool& require_certificate_validation) {
  try {
    auto store = ConfigStore::GetStore(ConfigStore::sGlobalNamespace);
    ConfigStoreObjectPtr object = store->GetObject(MakeId(kKeyTpm2Settings));
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

ConfigResult UpdateTpm2Settings(std::optional<bool> require_endorsement_keys,
                                std::optional<bool> require_certificate_validation) {
  MXUser::WriteGuard guard(ConfigLock());
  bool eks = false;
  bool certs = false;
  ConfigResult result = ReadTpm2Settings(eks, certs);
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
    ConfigStoreObjectPtr object = ConfigStore::GetStore(ConfigStore::sGlobalNamespace)->GetObject(MakeId(kKeyTpm2Settings));
    if (object == nullptr) {
      Log_Level(kLogVerbose, "Tpm2 settings not set in configstore. Creating object\n");
      object = std::make_shared<ConfigStoreObject>(MakeId(kKeyTpm2Settings));
    }
    object->SetValue("require_endorsement_keys", eks);
    object->SetValue("require_certificate_validation", certs);
    ConfigStore::GetStore(ConfigStore::sGlobalNamespace)->UpdateObject(MakeId(kKeyTpm2Settings), *object);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception updating tpm2 settings in configstore: %s\n", e.what());
    return ConfigResult::kConfigError;
  }
  SetCachedTpm2Settings(eks, certs);
  return ConfigResult::kConfigOk;
}

}  // namespace Witnessd::Config::Tpm2
