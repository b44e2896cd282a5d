#include "config/tpm2/EndorsementKeys.h"

#include <set>

#include "config/tpm2/CaCertificates.h"
#include "config/tpm2/Tpm2Settings.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config::Tpm2 {
namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStoreObject;
using HyvConfig::ConfigStoreObjectPtr;
using Orm::Common::SslUtils;

// The markers without their spaces, as they read after CanonicalizePem.
constexpr std::string_view kCanonicalBegin = "-----BEGINPUBLICKEY-----";
constexpr std::string_view kCanonicalEnd = "-----ENDPUBLICKEY-----";

// The digests of the configured EKs. Guarded by the EK map lock.
std::set<EkDigest> g_configured_eks;

constexpr NamedRecordTexts kEkTexts = {
    "Endorsement Key name: %s does not exist in configstore.\n",
    "Exception reading EK '%s' from configstore: %s\n",
    "Exception reading EK list from configstore: %s\n",
    "Endorsement key '%s' not found\n",
    "Failed to delete EK %s from configstore: %s\n",
    "Exception writing EK '%s' to configstore: %s\n",
};

// ReadEk reads the stored PEM of |name|. The caller holds the configuration lock.
ConfigResult ReadEk(const std::string& name, std::string& out_pem) {
  ConfigStoreObjectPtr object;
  ConfigResult result = ReadNamedRecord(kKeyEndorsementKeys, name, kEkTexts, object);
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

}  // namespace

bool ComputeEkDigest(const std::string& pem, EkDigest& out_digest) {
  std::string text = pem;
  SslUtils::CanonicalizePem(text);
  if (!text.ends_with(kCanonicalEnd)) {
    text.append(kCanonicalEnd);
  }
  if (!text.starts_with(kCanonicalBegin)) {
    text.insert(0, kCanonicalBegin);
  }
  if (!SslUtils::ComputeHash(text, out_digest)) {
    Log_Level(kLogError, "Failed to compute hash for endorsement key\n");
    return false;
  }
  return true;
}

ConfigResult GetEndorsementKey(const std::string& name, std::string& out_pem) {
  MXUser::ReadGuard guard(ConfigLock());
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

ConfigResult ListEndorsementKeys(std::vector<std::string>& out_names) {
  MXUser::ReadGuard guard(ConfigLock());
  return ListNamedRecords(kKeyEndorsementKeys, kEkTexts, out_names);
}

ConfigResult AddEndorsementKey(const std::string& name, const std::string& pem) {
  MXUser::WriteGuard config(ConfigLock());
  std::string existing;
  ConfigResult result = ReadEk(name, existing);
  if (result == ConfigResult::kConfigOk) {
    return ConfigResult::kConfigAlreadyExists;
  }
  if (result != ConfigResult::kConfigNotFound) {
    return result;
  }
  EkDigest digest;
  if (!ComputeEkDigest(pem, digest)) {
    return ConfigResult::kConfigError;
  }
  MXUser::WriteGuard ek_map(EkMapLock());
  if (g_configured_eks.count(digest) != 0) {
    Log_Level(kLogError, "Failed to add EK public key digest to map. Already exists\n");
    return ConfigResult::kConfigDuplicate;
  }
  ConfigStoreObject object(MakeId(kKeyEndorsementKeys, name));
  object.SetValue("public_key", pem);
  if (WriteNamedRecord(object, name, kEkTexts) != ConfigResult::kConfigOk) {
    return ConfigResult::kConfigError;
  }
  g_configured_eks.insert(std::move(digest));
  return ConfigResult::kConfigOk;
}

ConfigResult DeleteEndorsementKey(const std::string& name) {
  MXUser::WriteGuard config(ConfigLock());
  std::string pem;
  ConfigResult result = ReadEk(name, pem);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  EkDigest digest;
  if (!ComputeEkDigest(pem, digest)) {
    return ConfigResult::kConfigError;
  }
  // The store first: when it fails, the EK stays configured in both.
  MXUser::WriteGuard ek_map(EkMapLock());
  result = DeleteNamedRecord(kKeyEndorsementKeys, name, kEkTexts);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  // Live sessions of the EK keep their places: the session manager counts
  // them.
  g_configured_eks.erase(digest);
  return ConfigResult::kConfigOk;
}

bool IsEkConfigured(const EkDigest& digest) {
  MXUser::ReadGuard ek_map(EkMapLock());
  return g_configured_eks.count(digest) != 0;
}

void LoadEndorsementKeys() {
  std::vector<std::string> names;
  std::vector<EkDigest> digests;
  bool listed = ListNamedRecords(kKeyEndorsementKeys, kEkTexts, names) == ConfigResult::kConfigOk;
  if (listed) {
    Log_Level(kLogVerbose, "EKs count in the config store : %ld\n", static_cast<long>(names.size()));
    for (const std::string& name : names) {
      std::string pem;
      if (ReadEk(name, pem) != ConfigResult::kConfigOk) {
        listed = false;
        break;
      }
      EkDigest digest;
      if (!ComputeEkDigest(pem, digest)) {
        Log_Level(kLogWarning, "Failed to generate digest for EK: %s\n", name.c_str());
        continue;
      }
      digests.push_back(std::move(digest));
    }
  }
  if (!listed) {
    Log_Level(kLogError, "Failed to read EKs from configuration\n");
  } else {
    Log_Level(kLogVerbose, "EKs count in the config store: %ld\n", static_cast<long>(digests.size()));
    std::set<EkDigest> fresh(digests.begin(), digests.end());
    MXUser::WriteGuard ek_map(EkMapLock());
    g_configured_eks.swap(fresh);
    Log_Level(kLogInfo, "Loaded %ld EKs from configuration\n", static_cast<long>(g_configured_eks.size()));
  }
  bool require_eks = false;
  bool require_certs = false;
  if (ReadTpm2Settings(require_eks, require_certs) == ConfigResult::kConfigOk) {
    SetCachedTpm2Settings(require_eks, require_certs);
  }
  ResetCaCache();
}

void InitTpm2Config() {
  MXUser::WriteGuard guard(ConfigLock());
  LoadEndorsementKeys();
}

void ResetTpm2ConfigForTesting() {
  MXUser::WriteGuard config(ConfigLock());
  SetCachedTpm2Settings(false, false);
  ResetCaCache();
  MXUser::WriteGuard ek_map(EkMapLock());
  g_configured_eks.clear();
}

}  // namespace Witnessd::Config::Tpm2
