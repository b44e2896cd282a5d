#include "config/tpm2/EndorsementKeys.h"

#include <map>

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

// An EK map entry: the live sessions of the EK, and whether the EK is one
// an administrator configured. Entries that are not configured exist only
// while sessions hold them (EKs are then not required) and go when their
// count falls to 0; configured entries stay at 0.
struct EkEntry {
  int32_t count = 0;
  bool configured = false;
};

// Guarded by the EK map lock.
std::map<EkDigest, EkEntry> g_ek_map;

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
  // An entry that only live sessions hold becomes configured, count kept.
  auto [entry, inserted] = g_ek_map.try_emplace(digest);
  if (entry->second.configured) {
    Log_Level(kLogError, "Failed to add EK public key digest to map. Already exists\n");
    return ConfigResult::kConfigDuplicate;
  }
  entry->second.configured = true;
  ConfigStoreObject object(MakeId(kKeyEndorsementKeys, name));
  object.SetValue("public_key", pem);
  if (WriteNamedRecord(object, name, kEkTexts) != ConfigResult::kConfigOk) {
    if (inserted) {
      g_ek_map.erase(entry);
    } else {
      entry->second.configured = false;
    }
    return ConfigResult::kConfigError;
  }
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
  // Sessions still holding a reference find the entry gone when they end.
  g_ek_map.erase(digest);
  return ConfigResult::kConfigOk;
}

ConfigResult IncrementEkReference(const EkDigest& digest, int32_t max_count) {
  bool require_eks = false;
  bool require_certs = false;
  GetTpm2Settings(require_eks, require_certs);
  MXUser::WriteGuard ek_map(EkMapLock());
  auto it = g_ek_map.find(digest);
  // Sessions of an EK that is not configured do not make it one.
  if (require_eks && (it == g_ek_map.end() || !it->second.configured)) {
    Log_Level(kLogError, "Failed to locate EK in public key map\n");
    return ConfigResult::kConfigNotFound;
  }
  if (it == g_ek_map.end()) {
    g_ek_map.emplace(digest, EkEntry{1, false});
    Log_Level(kLogVerbose, "Added EK in the map and set reference count to 1\n");
    return ConfigResult::kConfigOk;
  }
  if (it->second.count >= max_count) {
    Log_Level(kLogError, "Reached max EK reference count: %d\n", it->second.count);
    return ConfigResult::kConfigLimitReached;
  }
  ++it->second.count;
  Log_Level(kLogVerbose, "EK reference count after increment: %d\n", it->second.count);
  return ConfigResult::kConfigOk;
}

void DecrementEkReference(const EkDigest& digest) {
  MXUser::WriteGuard ek_map(EkMapLock());
  auto it = g_ek_map.find(digest);
  if (it == g_ek_map.end()) {
    Log_Level(kLogWarning, "Cannot decrement EK reference count: Not in map\n");
    return;
  }
  if (it->second.count == 0) {
    Log_Level(kLogWarning, "Cannot decrement EK reference count: Already 0\n");
  } else {
    --it->second.count;
    Log_Level(kLogVerbose, "EK reference count after decrement: %d\n", it->second.count);
  }
  // Whatever the settings: a configured EK stays, one that only sessions
  // held goes with its last session, so it never counts as configured.
  if (!it->second.configured && it->second.count == 0) {
    g_ek_map.erase(it);
  }
}

std::optional<int32_t> GetEkReferenceCount(const EkDigest& digest) {
  MXUser::WriteGuard ek_map(EkMapLock());
  auto it = g_ek_map.find(digest);
  if (it == g_ek_map.end()) {
    return std::nullopt;
  }
  return it->second.count;
}

bool IsEkConfigured(const EkDigest& digest) {
  MXUser::WriteGuard ek_map(EkMapLock());
  auto it = g_ek_map.find(digest);
  return it != g_ek_map.end() && it->second.configured;
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
    MXUser::WriteGuard ek_map(EkMapLock());
    // Counts of EKs that stay configured carry over; dynamic entries of
    // sessions in progress are dropped.
    std::map<EkDigest, EkEntry> fresh;
    for (const EkDigest& digest : digests) {
      auto it = g_ek_map.find(digest);
      fresh[digest] = EkEntry{it != g_ek_map.end() ? it->second.count : 0, true};
    }
    g_ek_map.swap(fresh);
    Log_Level(kLogInfo, "Loaded %ld EKs from configuration\n", static_cast<long>(g_ek_map.size()));
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
  g_ek_map.clear();
}

}  // namespace Witnessd::Config::Tpm2
