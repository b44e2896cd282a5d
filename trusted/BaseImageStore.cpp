#include "trusted/BaseImageStore.h"

#include <time.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>

#include "platform/Assert.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace Witnessd::Trusted {

using namespace Config;

namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStore;
using HyvConfig::ConfigStoreObject;
using HyvConfig::ConfigStoreObjectPtr;
using HyvConfig::SubObjectId;

static constexpr const char* kSourcePath = "apps/witnessd/trusted/baseImageStore";

// Taken after the configuration lock when both are held.
constexpr uint32_t kVersionMapLockRank = 0xFF000100;

constexpr const char* kCorePak = "hyv-base";
constexpr const char* kHvkernelPayload = "k";
constexpr const char* kTxtMlePayload = "b";
constexpr const char* kSha256 = "sha-256";
constexpr const char* kGunzip = "gunzip";
constexpr const char* kTxtMle = "txt-mle";

// The per-version record through which the last attested time is written.
struct AttestationRecord {
  HyvConfig::ConfigStoreObjectId id;
  // The "last_attested_time" this process last stored: attestations within
  // the same second store the same text, so only the first one writes it.
  std::string last_written;
};

// Guarded by the configuration lock.
std::vector<std::shared_ptr<const BaseImageData>> g_cache;

MXUserRWLock* VersionMapLock() {
  static MXUserRWLock* lock = [] {
    MXUserRWLock* l = MXUser_CreateRWLock("baseImageVersionMapLock", kVersionMapLockRank);
    VERIFY(l != nullptr);
    return l;
  }();
  return lock;
}

// Guarded by VersionMapLock().
std::map<std::string, AttestationRecord> g_version_map;

// Each reader below logs the field it failed on and rethrows, so the caller
// can tell "this base image failed" from "the whole record failed".
void ReadChecksums(const ConfigStoreObject& payload, const std::string& pak_name, const std::string& file_name,
                   BaseImageData& data, Verify::PayloadChecksumTable& table) {
  try {
    std::string name;
    payload.GetValue("name", &name);
    for (const ConfigStoreObjectPtr& sum : payload.GetSubObjects(kSubChecksums)) {
      std::string checksum, type, process;
      sum->GetValue("checksum", &checksum);
      sum->GetValue("checksum_type", &type);
      sum->GetValue("verify_process", &process);
      if (type != kSha256) {
        continue;
      }
      if (process == kGunzip) {
        table.insert_or_assign(file_name, checksum);
      }
      if (pak_name != kCorePak) {
        continue;
      }
      // The later entry in stored order wins.
      if (name == kHvkernelPayload && process == kGunzip) {
        if (!data.hvkernel_digest.empty()) {
          Warning("Duplicate base image Hvkernel digest: %s -> %s\n", data.hvkernel_digest.c_str(),
                  checksum.c_str());
        }
        data.hvkernel_digest = checksum;
      } else if (name == kTxtMlePayload && process == kTxtMle) {
        if (!data.txt_mle_digest.empty()) {
          Warning("Duplicate base image TXT MLE digest: %s -> %s\n", data.txt_mle_digest.c_str(),
                  checksum.c_str());
        }
        data.txt_mle_digest = checksum;
      }
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading checksum data from config store: %s\n", e.what());
    throw;
  }
}

void ReadPayloads(const ConfigStoreObject& pak, BaseImageData& data, Verify::PayloadChecksumTable& table) {
  std::string pak_name;
  std::vector<std::pair<ConfigStoreObjectPtr, std::string>> payloads;
  try {
    pak.GetValue("name", &pak_name);
    for (const ConfigStoreObjectPtr& payload : pak.GetSubObjects(kSubPayloads)) {
      std::string file_name;
      payload->GetValue("file_name", &file_name);
      payloads.emplace_back(payload, std::move(file_name));
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading payload data from config store: %s\n", e.what());
    throw;
  }
  for (const auto& [payload, file_name] : payloads) {
    ReadChecksums(*payload, pak_name, file_name, data, table);
  }
}

// LoadOne fills a BaseImageData from one stored base image; null when the
// image has no version (skipped) and throws when its packages cannot be read.
std::shared_ptr<BaseImageData> LoadOne(const ConfigStoreObject& image) {
  auto data = std::make_shared<BaseImageData>();
  try {
    image.GetValue("version", &data->version);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading base image version from config store: %s\n", e.what());
    throw;
  }
  if (data->version.empty()) {
    Log_Level(kLogError, "Base image has empty version\n");
    return nullptr;
  }
  auto table = std::make_shared<Verify::PayloadChecksumTable>();
  try {
    std::vector<ConfigStoreObjectPtr> paks;
    try {
      paks = image.GetSubObjects(kSubPaks);
    } catch (const HostCtlException& e) {
      Log_Level(kLogError, "Exception reading base image PAKs from config store: %s\n", e.what());
      throw;
    }
    for (const ConfigStoreObjectPtr& pak : paks) {
      ReadPayloads(*pak, *data, *table);
    }
  } catch (const HostCtlException&) {
    Log_Level(kLogError, "Failed to load base PAK data with version %s\n", data->version.c_str());
    throw;
  }
  data->payload_checksums = std::move(table);
  return data;
}

// Load fills the empty cache. The caller holds the configuration lock
// exclusively.
void Load() {
  std::vector<ConfigStoreObjectPtr> images;
  try {
    images = ConfigStore::GetStore(ConfigStore::sGlobalNamespace)
                 ->GetObjectInstances(HyvConfig::FilterSpecObject(MakeId(kKeyBaseImages)));
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading base images from config store: %s\n", e.what());
    Log_Level(kLogError, "Failed to load base image configuration\n");
    SetStatusCondition(kStatusBaseImagesLoadError, true);
    return;
  }
  bool failed = false;
  std::map<std::string, AttestationRecord> versions;
  for (const ConfigStoreObjectPtr& image : images) {
    std::shared_ptr<BaseImageData> data;
    try {
      data = LoadOne(*image);
    } catch (const HostCtlException&) {
      failed = true;  // this image is left out; the others still load
      continue;
    }
    if (data == nullptr) {
      continue;
    }
    Log_Level(kLogInfo, "Loaded base image data with version %s and Hvkernel digest %s\n", data->version.c_str(),
              data->hvkernel_digest.c_str());
    versions.emplace(data->version, AttestationRecord{image->GetConfigStoreObjectId(), {}});
    g_cache.push_back(std::move(data));
  }
  if (failed) {
    Log_Level(kLogError, "Error loading base image data\n");
  }
  SetStatusCondition(kStatusBaseImagesLoadError, failed);
  MXUser::WriteGuard map_guard(VersionMapLock());
  g_version_map = std::move(versions);
}

// Scan returns the first cached entry with this digest. The caller holds the
// configuration lock.
std::shared_ptr<const BaseImageData> Scan(const std::string& hvkernel_digest) {
  for (const auto& data : g_cache) {
    if (data->hvkernel_digest == hvkernel_digest) {
      return data;
    }
  }
  return nullptr;
}

void ClearLocked() {
  Log_Level(kLogVerbose, "Clearing base images data cache; size=%lu\n", static_cast<unsigned long>(g_cache.size()));
  g_cache.clear();
  MXUser::WriteGuard map_guard(VersionMapLock());
  g_version_map.clear();
}

}  // namespace

bool ChecksumWellFormed(const ChecksumEntry& checksum) {
  constexpr size_t kMaxChecksumChars = 255;
  constexpr size_t kSha256HexChars = 64;
  const std::string& hex = checksum.checksum;
  if (hex.empty() || hex.size() > kMaxChecksumChars ||
      (checksum.checksum_type == kSha256 && hex.size() != kSha256HexChars)) {
    return false;
  }
  return std::all_of(hex.begin(), hex.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
}

bool AddPakToBaseImage(HyvConfig::ConfigStoreObject& image, const PakEntry& pak) {
  ConfigStoreObjectPtr pak_object = image.CreateSubObject(SubObjectId(kSubPaks, pak.name));
  if (pak_object == nullptr) {
    return false;
  }
  pak_object->SetValue("name", pak.name);
  pak_object->SetValue("version", pak.version);
  pak_object->SetValue("vendor", pak.vendor);
  pak_object->SetValue("type", pak.type);
  pak_object->SetValue("summary", pak.summary);
  for (const PayloadEntry& payload : pak.payloads) {
    ConfigStoreObjectPtr payload_object = pak_object->CreateSubObject(SubObjectId(kSubPayloads, payload.name));
    if (payload_object == nullptr) {
      return false;
    }
    payload_object->SetValue("name", payload.name);
    payload_object->SetValue("file_name", payload.file_name);
    for (size_t i = 0; i < payload.checksums.size(); ++i) {
      ConfigStoreObjectPtr sum = payload_object->CreateSubObject(SubObjectId(kSubChecksums, std::to_string(i)));
      sum->SetValue("checksum", payload.checksums[i].checksum);
      sum->SetValue("checksum_type", payload.checksums[i].checksum_type);
      sum->SetValue("verify_process", payload.checksums[i].verify_process);
    }
  }
  return true;
}

ConfigResult LookupBaseImage(const std::string& hvkernel_digest, std::string& out_version,
                             std::string& out_txt_mle_digest,
                             std::shared_ptr<const Verify::PayloadChecksumTable>& out_checksums) {
  std::shared_ptr<const BaseImageData> found;
  bool loaded = false;
  {
    MXUser::ReadGuard guard(ConfigLock());
    if (!g_cache.empty()) {
      loaded = true;
      found = Scan(hvkernel_digest);
    }
  }
  if (!loaded) {
    MXUser::WriteGuard guard(ConfigLock());
    if (g_cache.empty()) {  // another thread may have loaded it meanwhile
      Load();
    }
    found = Scan(hvkernel_digest);
  }
  if (found == nullptr) {
    return ConfigResult::kConfigNotFound;
  }
  out_version = found->version;
  out_txt_mle_digest = found->txt_mle_digest;
  out_checksums = found->payload_checksums;
  return ConfigResult::kConfigOk;
}

void ClearBaseImageCache() {
  if (MXUser_IsCurThreadHoldingRWLock(ConfigLock())) {
    ClearLocked();
    return;
  }
  MXUser::WriteGuard guard(ConfigLock());
  ClearLocked();
}

std::string FormatAttestedTime(int64_t usec) {
  time_t seconds = static_cast<time_t>(usec / 1000000);
  struct tm tm {};
  gmtime_r(&seconds, &tm);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

void UpdateLastAttestedTime(const std::string& version) {
  int64_t now = 0;
  Hostinfo_GetTimeOfDay(&now);
  const std::string when = FormatAttestedTime(now);
  std::optional<HyvConfig::ConfigStoreObjectId> id;
  {
    MXUser::ReadGuard map_guard(VersionMapLock());
    auto it = g_version_map.find(version);
    if (it != g_version_map.end()) {
      if (it->second.last_written == when) {
        return;
      }
      id = it->second.id;
    }
  }
  MXUser::WriteGuard guard(ConfigLock());
  try {
    auto store = ConfigStore::GetStore(ConfigStore::sGlobalNamespace);
    if (!id) {
      id = MakeId(kKeyBaseImages, version);  // not cached (yet): ask the store
    }
    if (store->GetObject(*id) == nullptr) {
      Log_Level(kLogError, "The HYV base image version '%s' doesn't exist\n", version.c_str());
      return;
    }
    ConfigStoreObject update(*id);
    update.SetValue("last_attested_time", when);
    store->UpdateObject(*id, update);
    Log_Level(kLogVerbose, "Update attested time %s\n", when.c_str());
    MXUser::WriteGuard map_guard(VersionMapLock());
    if (auto it = g_version_map.find(version); it != g_version_map.end()) {
      it->second.last_written = when;
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Failed to set last attested time for %s\n", version.c_str());
  }
}

ConfigResult ListBaseImages(std::vector<std::string>& out_versions) {
  MXUser::ReadGuard guard(ConfigLock());
  try {
    std::vector<std::string> versions;
    for (const ConfigStoreObjectPtr& image : ConfigStore::GetStore(ConfigStore::sGlobalNamespace)
                                                 ->GetObjectInstances(HyvConfig::FilterSpecObject(MakeId(kKeyBaseImages)))) {
      versions.push_back(image->GetConfigStoreObjectId().instance_id);
    }
    out_versions = std::move(versions);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading base images from config store: %s\n", e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult ReadBaseImage(const std::string& version, StoredBaseImage& out) {
  MXUser::ReadGuard guard(ConfigLock());
  try {
    ConfigStoreObjectPtr image =
        ConfigStore::GetStore(ConfigStore::sGlobalNamespace)->GetObject(MakeId(kKeyBaseImages, version));
    if (image == nullptr) {
      return ConfigResult::kConfigNotFound;
    }
    StoredBaseImage result;
    image->GetValue("version", &result.version);
    image->GetValue("last_attested_time", &result.last_attested_time);  // absent: empty
    for (const ConfigStoreObjectPtr& pak_object : image->GetSubObjects(kSubPaks)) {
      PakEntry& pak = result.paks.emplace_back();
      pak_object->GetValue("name", &pak.name);
      pak_object->GetValue("version", &pak.version);
      pak_object->GetValue("vendor", &pak.vendor);
      pak_object->GetValue("type", &pak.type);
      pak_object->GetValue("summary", &pak.summary);
      for (const ConfigStoreObjectPtr& payload_object : pak_object->GetSubObjects(kSubPayloads)) {
        PayloadEntry& payload = pak.payloads.emplace_back();
        payload_object->GetValue("name", &payload.name);
        payload_object->GetValue("file_name", &payload.file_name);
        for (const ConfigStoreObjectPtr& sum : payload_object->GetSubObjects(kSubChecksums)) {
          ChecksumEntry& checksum = payload.checksums.emplace_back();
          sum->GetValue("checksum", &checksum.checksum);
          sum->GetValue("checksum_type", &checksum.checksum_type);
          sum->GetValue("verify_process", &checksum.verify_process);
        }
      }
    }
    out = std::move(result);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading base image data from config store: %s\n", e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult DeleteBaseImage(const std::string& version) {
  MXUser::WriteGuard guard(ConfigLock());
  try {
    if (!ConfigStore::GetStore(ConfigStore::sGlobalNamespace)->DeleteObject(MakeId(kKeyBaseImages, version))) {
      return ConfigResult::kConfigNotFound;
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading/writing the HYV base image version %s to configstore: %s\n",
              version.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
  ClearLocked();
  return ConfigResult::kConfigOk;
}

void InitBaseImageStore() {
  MXUser::WriteGuard guard(ConfigLock());
  ClearLocked();
  Load();
}

}  // namespace Witnessd::Trusted
